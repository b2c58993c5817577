#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

/// Merges several channels into one virtual channel: every tag on a listed
/// channel, of whatever type, is copied right behind itself, once per listing,
/// and counted per entry of the list. Counts survive stop and start; clear()
/// resets them.
class ZEPTICK_API Combiner : public IteratorBase {
 public:
  /// `channels` may be empty or repeat a channel.
  Combiner(ZeptickBase* tagger, const std::vector<int>& channels);
  ~Combiner() override;

  /// The virtual channel. Thread-safe.
  int getChannel();
  /// Tags per entry of the channel list since the last clear. `array_out(n)`
  /// is called once, before the lock is taken, and must return room for n values.
  void getData(std::function<int64_t*(size_t)> array_out);

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  std::vector<int> channels;
  std::vector<int64_t> counts;
  int virtual_channel;
  std::vector<Tag> output;
};

}  // namespace zeptick
