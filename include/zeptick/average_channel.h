#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "zeptick/fast_binning.h"
#include "zeptick/iterator_base.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick {

namespace detail {
template <typename T>
class RingQueue;
}

/// One virtual channel at the mean time of the latest tags of several inputs.
/// A tag on an input fires when every input has had a tag less than `window`
/// before it; the new tag stands at that tag's time less the mean of the
/// differences, rounded down. The window grows with the inputs' distance from
/// the reference channel (4 ns plus 1 ns per channel number). The whole stream
/// is held back by the window, times unchanged, so that each mean can be
/// sorted in. Any tag but a time tag forgets the latest times.
/// Since times stay unchanged, a block behind this channel may carry tags up
/// to `window` older than its begin_time; the stream as a whole stays in order.
class ZEPTICK_API AverageChannel : public IteratorBase {
 public:
  /// Sets the input multiplexer of every input other than the reference's
  /// counterpart: 2 if its number is smaller in magnitude than the
  /// reference's, 1 if larger. Throws std::runtime_error on a device with
  /// fewer than 36 channels. A channel listed twice weighs double.
  AverageChannel(Zeptick* tagger, int reference_channel, std::vector<int> channels);
  ~AverageChannel() override;

  int getChannel();

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  template <FastBinning::Mode M>
  void process(const std::vector<Tag>& tags);
  void flushQueue(int64_t limit);

  int64_t window = 4000;
  int virtual_channel = CHANNEL_UNUSED;
  std::vector<int> channels;
  std::vector<int64_t> last_times;
  std::vector<Tag> output;
  // The held-back stream, in time order, and the means, which need sorting in.
  std::unique_ptr<detail::RingQueue<Tag>> pending;
  std::vector<Tag> means;  // binary heap, earliest on top
  FastBinning binner;
};

}  // namespace zeptick
