#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <utility>
#include <vector>

#include "core/zeptick_runner.h"
#include "zeptick/tag.h"

namespace zeptick {

/// One decoded block of a group member, waiting to be merged.
struct TagChunk {
  std::vector<Tag> tags;
  uint32_t fence = 0;       ///< the fence the member had confirmed when the block began
  uint32_t fenceAfter = 0;  ///< the fence confirmed once the chunk is through
  bool invalid = false;     ///< streamInvalid from the chunk's end on
};

/// The blocks of one group member that the merge has not passed yet.
struct DeviceQueue {
  std::deque<TagChunk> chunks;
  const Tag* cursor = nullptr;    ///< the next tag of the front chunk; null when empty
  const Tag* chunkEnd = nullptr;  ///< the end of the front chunk
  int64_t endTime = 0;            ///< blockEnd of this member's last block
  uint32_t fence = 0;             ///< fenceAfter of the last chunk fully merged
  bool overflow = false;          ///< this member is inside an overflow
  bool invalid = false;           ///< streamInvalid of the last chunk fully merged
};

/// Merges the decoded blocks of the members of a synchronized group, which
/// share one time axis once aligned, into one stream in time order. A time is
/// released only once every member has decoded past it, so a merged block is
/// complete for the whole group. Tag vectors move between workers, chunks and
/// a pool: no allocation in the steady state. The earliest next tag is found by
/// a tournament over the members' heads (log2 of the members in comparisons per
/// tag, without branches to mispredict); equal times leave in member order.
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
  static constexpr int64_t kNoTag = std::numeric_limits<int64_t>::max();
  static constexpr size_t kMaxMembers = 16;

  /// Below this many tags a bulk merge costs more than it saves.
  static constexpr uint64_t kBulkMinimum = 16;

  struct Run {
    const Tag* begin;
    const Tag* end;
  };

  template <size_t L>
  void merge(ZeptickRunner::Worker& worker, uint64_t max_events);
  /// Merges `count` runs, in member order, into `out`; returns the end of what it wrote.
  Tag* mergeRuns(const Run* runs, size_t count, Tag* out, size_t level);
  void finishChunk(DeviceQueue& queue);
  /// The oldest fence any tag of `queue` still to be merged was decoded under.
  static uint32_t queueFence(const DeviceQueue& queue);
  /// Everything but a time tag outside an overflow: overflow framing, errors, missed events.
  /// Rewrites `tag` as it leaves and says whether it leaves at all.
  bool passControl(DeviceQueue& queue, Tag& tag);
  void recomputeSuppress();

  std::vector<DeviceQueue> queues_;
  size_t leaves_;  ///< members rounded up to a power of two
  std::deque<std::vector<Tag>> pool_;
  std::vector<std::vector<Tag>> scratch_;  ///< the halves of a bulk merge of three or more runs
  int64_t horizon_ = 0;
  bool overflow_ = false;
  bool suppress_ = false;
};

}  // namespace zeptick
