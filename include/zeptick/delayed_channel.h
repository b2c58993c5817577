#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

namespace detail {
class ChannelIndex;
template <typename T>
class RingQueue;
}  // namespace detail

/// Copies the time tags of one or more channels, shifted by `delay`, onto a
/// virtual channel per input. A positive delay holds the copies back; copies
/// falling inside an overflow come out as missed-events tags of count 1, and
/// an error drops the copies not yet out. A negative delay holds the whole
/// rest of the stream back by -delay instead (all other tags leave later by
/// that much) and sends the copies out at once. Either way blocks stay in time
/// order; up to |delay| of the stream is queued between blocks.
class ZEPTICK_API DelayedChannel : public IteratorBase {
 public:
  DelayedChannel(ZeptickBase* tagger, int input_channel, int64_t delay);
  /// Throws std::invalid_argument if a channel is listed twice. An empty list
  /// is allowed and makes a channel that copies nothing.
  DelayedChannel(ZeptickBase* tagger, const std::vector<int>& input_channels, int64_t delay);
  ~DelayedChannel() override;

  /// Changes the delay for the tags that follow. Raising it keeps the queued
  /// copies; lowering a non-negative delay drops them, since they would
  /// otherwise overtake later ones. A channel made with a delay of 0 or more
  /// cannot go negative: throws std::invalid_argument. Thread-safe.
  void setDelay(int64_t delay);
  /// The first virtual channel, or CHANNEL_UNUSED when there is none. Thread-safe.
  int getChannel();
  /// The virtual channels, in the order of the inputs. Thread-safe.
  std::vector<int> getChannels();

 protected:
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  template <class Lookup>
  void runNonNegative(const std::vector<Tag>& tags, int64_t end_time, const Lookup& lookup);
  template <class Lookup>
  void runNegative(const std::vector<Tag>& tags, int64_t end_time, const Lookup& lookup);
  void flushCopies(int64_t limit);
  void flushStream(int64_t limit);
  void setUp(int64_t delay);

  std::vector<Tag> output;
  std::unique_ptr<detail::RingQueue<Tag>> pending;
  std::unique_ptr<detail::ChannelIndex> channel_map;  // input to its entry
  std::vector<int> input_channels;
  std::vector<int> output_channels;
  int64_t n_channels = 0;
  // Both are read without the lock by setDelay's checks.
  std::atomic<int64_t> delay{0};
  std::atomic<bool> non_negative{true};
  bool in_overflow = false;
  bool constructed = false;
};

}  // namespace zeptick
