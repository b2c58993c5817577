#pragma once

#include <utility>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick::testing {

/// A measurement fed by hand, block by block, on the test's thread. It is
/// stopped right after construction, so no worker calls it meanwhile; make it
/// on a tagger that serves no blocks (setIdleSpan(0)) so none slips in before.
template <class Measurement>
class Direct : public Measurement {
 public:
  template <class... Args>
  explicit Direct(Args&&... args) : Measurement(std::forward<Args>(args)...) {
    this->stop();
  }

  /// Runs one block through next_impl under the lock and returns the block as it leaves.
  std::vector<Tag> feed(std::vector<Tag> tags, int64_t begin_time, int64_t end_time) {
    this->lock();
    this->next_impl(tags, begin_time, end_time);
    this->unlock();
    return tags;
  }
  /// Runs the start hook as start() would, leaving the measurement stopped.
  void restart() {
    this->start();
    this->stop();
  }
};

inline Tag timeTag(int channel, int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}
inline Tag marker(Tag::Type type, int64_t time) { return Tag{type, 0, 0, CHANNEL_UNUSED, time}; }
inline Tag missedTag(int channel, int64_t time, uint16_t count = 1) {
  return Tag{Tag::Type::MissedEvents, 0, count, channel, time};
}

}  // namespace zeptick::testing
