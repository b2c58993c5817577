#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

namespace detail {
template <typename T>
class RingQueue;
}

/// Plays a fixed pattern of time offsets on a virtual channel for every
/// selected trigger: each adds one tag per pattern entry at trigger time plus
/// the entry. A divider selects every n-th trigger; a tag on the stop channel,
/// or an error, cancels what has not been played yet. Generated tags that fall
/// inside an overflow leave as missed-events tags with a count of 1.
/// With a negative offset in the pattern the whole stream is held back, and
/// its times shifted, by the largest negative offset, so that no tag has to be
/// placed before what has already left.
class ZEPTICK_API EventGenerator : public IteratorBase {
 public:
  /// Fires on the trigger whose position in each cycle of `trigger_divider`
  /// triggers is `divider_offset` (0 is the first). The stop channel is not
  /// registered: its tags arrive only if another measurement asks for them.
  /// Throws std::runtime_error for a zero divider, one beyond the signed 64-bit
  /// range, or an offset not below the divider. An empty pattern plays nothing.
  EventGenerator(ZeptickBase* tagger, int trigger_channel, std::vector<int64_t> pattern,
                 uint64_t trigger_divider = 1, uint64_t divider_offset = 0,
                 int stop_channel = CHANNEL_UNUSED);
  ~EventGenerator() override;

  int getChannel();

 protected:
  void clear_impl() override;
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  bool countTrigger();
  void fire(const Tag& trigger);
  void emitGenerated();
  void flushGenerated(int64_t limit);
  void flushMerged(int64_t limit);
  void nextNonNegative(const std::vector<Tag>& tags);
  void nextNegative(const std::vector<Tag>& tags);

  int trigger_channel;
  int virtual_channel;
  int stop_channel;
  int64_t divider_limit;
  uint64_t divider_offset;
  uint64_t trigger_count = 0;
  bool in_overflow = false;
  std::vector<int64_t> pattern;
  std::vector<Tag> output;
  // Generated tags waiting for their time: one queue per distinct offset,
  // each in time order since triggers come in time order, merged by a small
  // heap of queues. That costs log(offsets), not log(tags waiting).
  struct Pending;
  std::unique_ptr<Pending> pending;
  bool non_negative = true;
  int64_t lag = 0;
  std::unique_ptr<detail::RingQueue<Tag>> delayed;  // the lagging stream, with a negative pattern
};

}  // namespace zeptick
