#pragma once

#include <cstdint>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

/// Copies the time tags of `input_channel` onto a virtual channel while a gate
/// is open: a tag on `gate_start_channel` opens it, a tag on
/// `gate_stop_channel` or any tag that is not a time tag (error, overflow)
/// closes it. Order in the block decides between tags of equal time; a start
/// tag on the input channel is copied, a stop tag is not. The gate's state
/// carries over blocks, stops and clears.
class ZEPTICK_API GatedChannel : public IteratorBase {
 public:
  /// Throws std::runtime_error if the start and stop channels are the same.
  GatedChannel(ZeptickBase* tagger, int input_channel, int gate_start_channel,
               int gate_stop_channel);
  ~GatedChannel() override;

  /// The virtual channel. Thread-safe.
  int getChannel();

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  std::vector<Tag> output;
  int input_channel;
  int gate_start_channel;
  int gate_stop_channel;
  int virtual_channel;
  bool gate_open = false;
};

}  // namespace zeptick
