#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "core/zeptick_runner.h"
#include "zeptick/tag.h"

namespace zeptick {

/// One decoded block of a group member, waiting to be merged.
struct TagChunk {
  std::vector<Tag> tags;
  uint32_t fence = 0;
  bool invalid = false;
};

/// The blocks of one group member that the merge has not passed yet.
struct DeviceQueue {
  std::deque<TagChunk> chunks;
  const Tag* cursor = nullptr;    ///< the next tag of the front chunk; null when empty
  const Tag* chunkEnd = nullptr;  ///< the end of the front chunk
  int64_t endTime = 0;            ///< blockEnd of this member's last block
  uint32_t fence = 0;             ///< fence of the last chunk fully merged
  bool overflow = false;          ///< this member is inside an overflow
  bool invalid = false;           ///< streamInvalid of the last chunk fully merged
};

/// Merges the decoded blocks of the members of a synchronized group, which
/// share one time axis once aligned, into one stream in time order. A time is
/// released only once every member has decoded past it, so a merged block is
/// complete for the whole group. Tag vectors move between workers, chunks and
/// a pool: no allocation in the steady state. The earliest next tag is found by
/// a scan of the members' heads, which for the few members of a group costs
/// less than a heap; equal times leave in member order.
///
/// Not thread-safe: the tagger calls add() under its merge mutex, which also
/// keeps each member's blocks in order. Built for one epoch of the group's
/// time axis; a new epoch builds a new merger.
class DeviceMerger {
 public:
  /// `horizon`: where the merged stream starts; a merger that replaces another
  /// for a new epoch starts where that one stopped, so blocks keep touching.
  explicit DeviceMerger(size_t members, int64_t horizon = 0);

  /// Feeds `worker`'s block (tags, blockEnd, fence, streamInvalid) of member
  /// `ordinal`, then refills `worker` with the merged tags up to the new
  /// horizon: at most about `max_events` of them, but a cut never falls
  /// between tags of equal time. Overflows of several members merge into one
  /// open overflow (time tags inside it become missed events, and every end
  /// is passed on); while any member's data is invalid only error tags pass.
  void add(ZeptickRunner::Worker& worker, size_t ordinal, uint64_t max_events);

  /// All tags before this time have been merged.
  int64_t horizon() const { return horizon_; }

 private:
  /// The queue whose next tag is earliest, null when all are empty.
  DeviceQueue* earliest();
  void finishChunk(DeviceQueue& queue);
  /// Everything but a time tag outside an overflow: overflow framing, errors, missed events.
  void passControl(DeviceQueue& queue, Tag tag, std::vector<Tag>& out);
  void recomputeSuppress();

  std::vector<DeviceQueue> queues_;
  std::deque<std::vector<Tag>> pool_;
  int64_t horizon_ = 0;
  bool overflow_ = false;
  bool suppress_ = false;
};

}  // namespace zeptick
