#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "engine/decoder_distribution.h"
#include "zeptick/tag.h"

namespace zeptick {

/// `a - b` on the stream clock, wrapping like the device's 64-bit time rather
/// than overflowing: order is decided by the sign of this difference.
inline int64_t timeDifference(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

/// `a + b` on the stream clock, wrapping alike.
inline int64_t timeSum(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

/// A decoded event that still has to pass the conditional filter: its time
/// carries the fine offset and dither but no delay yet.
struct PreDelayTag {
  Tag tag;
  uint64_t binAndIndex;  ///< fine bin in bits 0-15, hardware index in bits 16-21

  static PreDelayTag make(const Tag& tag, uint32_t bin, uint32_t index) {
    return {tag, (static_cast<uint64_t>(index & 0x3F) << 16) | (bin & 0xFFFF)};
  }
  uint32_t bin() const { return static_cast<uint32_t>(binAndIndex & 0xFFFF); }
  uint32_t index() const { return static_cast<uint32_t>((binAndIndex >> 16) & 0x3F); }
};

/// What one block of a device is released under. NativeDecoder fills it once
/// per block from the DecoderBlockSettings the tagger copied under its lock.
struct DelaySettings {
  uint64_t triggerMask = 0;         ///< bit `index`: this hardware index arms the filter
  uint64_t filteredMask = 0;        ///< bit `index`: passes one event per arming
  const int64_t* delays = nullptr;  ///< delay per hardware index, ps, >= 0; the block's snapshot
  int64_t maxDelay = 0;             ///< max(0, all delays): how far an overflow end is pushed back
  /// Calibration records of the device, counted when a filtered-path event passes;
  /// record `index * binStride + bin`.
  Distribution* distributions = nullptr;
  int32_t binStride = 0;
  /// Indices delayed far behind the others: their tags skip the sorted buffer.
  uint64_t laggingMask = 0;
};

/// Host-side delay and ordering of one device's tags: a stage in front of the
/// delays for the conditional filter (raw arrival order across channels), and
/// an output side that releases tags in time order once the stream has passed
/// them. Overflow spans turn released time tags into missed events.
///
/// Both sides keep what they hold mostly in one sorted buffer: decoded times
/// arrive nearly in order, so a new tag usually lands at the end, or a few
/// places before it. A tag that would have to move further back goes to a
/// queue of its hardware index (a channel delayed far behind the others comes
/// in order by itself), or else to a heap. Releasing merges these.
///
/// Equal times leave in a fixed order: control tags first, then events by
/// hardware index, then in the order they came.
///
/// Not thread-safe: only the worker holding the device's decoder mutex uses it.
/// State persists across blocks; no allocation once the buffers have grown.
class DelayStage {
 public:
  /// Per-block settings; `settings.delays` and `settings.distributions` must
  /// stay valid until the next call.
  void setBlockSettings(const DelaySettings& settings);
  const DelaySettings& blockSettings() const { return settings; }

  /// Drops everything held, without emitting (error word, new time base).
  void clear();
  /// Nothing held, filter closed, no overflow, stream at `time`.
  void reset(int64_t time);

  /// Time passed to the last advanceTo.
  int64_t decodedUntil() const { return until; }
  void setDecodedUntil(int64_t time) { until = time; }

  bool overflowActive() const { return overflow; }
  void setOverflowActive() { overflow = true; }
  uint64_t filterState() const { return filter; }
  /// Every error and overflow word closes the filter of all channels.
  void closeFilter() { filter = 0; }

  /// A control tag whose time already carries its delay.
  void pushOutput(const Tag& tag) {
    Tag held = tag;
    held.reserved = 0;
    holdSorted(held);
  }
  /// A time tag of hardware index `index` (below 64) whose time carries its delay.
  void pushEvent(uint32_t index, const Tag& tag) {
    Tag held = tag;
    held.reserved = eventRank(index);
    if (settings.laggingMask >> (index & 63) & 1) {
      holdFar(held);
    } else {
      holdSorted(held);
    }
  }
  /// The same for a plain time tag of `channel`, written in place.
  /// `lagging` is the block's laggingMask, which a caller in a loop keeps at hand.
  void pushEvent(uint32_t index, int32_t channel, int64_t time, uint64_t lagging) {
    const uint8_t rank = eventRank(index);
    if (lagging >> (index & 63) & 1) {
      holdFar(Tag{Tag::Type::TimeTag, rank, 0, channel, time});
    } else if (Tag* slot = nearSlot(time, rank)) {
      // Field by field, straight into place: see copyTag.
      slot->type = Tag::Type::TimeTag;
      slot->reserved = rank;
      slot->missed_events = 0;
      slot->channel = channel;
      slot->time = time;
    } else {
      holdFar(Tag{Tag::Type::TimeTag, rank, 0, channel, time});
    }
  }
  /// A decoded event of a device with filtered channels; delay and
  /// calibration count are applied when it leaves this first stage.
  void pushPreDelay(const PreDelayTag& tag) {
    const uint8_t rank = eventRank(tag.index());
    if (preEnd != preNear.size()) [[likely]] {
      PreDelayTag* const end = preNear.data() + preEnd;
      if (preEnd == 0 || !leavesAfter(end[-1].tag.time, end[-1].tag.reserved, tag.tag.time, rank))
          [[likely]] {
        *end = tag;
        end->tag.reserved = rank;
        ++preEnd;
        return;
      }
    }
    pushPreDelayBehind(tag, rank);
  }

  /// Sets decodedUntil to `t` and appends to `out`, in time order, everything
  /// held with a time strictly before `t` (by signed 64-bit difference).
  void advanceTo(int64_t t, std::vector<Tag>& out) {
    until = t;
    release(out);
  }
  /// Appends to `out` what is held from before decodedUntil. The decoder
  /// moves decodedUntil along a run of events and releases once at its end,
  /// which gives the same stream as releasing at every event.
  void release(std::vector<Tag>& out) {
    if (preEnd != 0 || !preHeap.empty() || farHeld != 0 ||
        (nearEnd != 0 && before(near[0].time, until))) {
      releaseDue(out);
    }
  }

  /// Indices whose calibration counts the filtered path has raised since the
  /// last call, one bit each.
  uint64_t takeCounted() {
    const uint64_t m = counted;
    counted = 0;
    return m;
  }

  size_t pendingPreDelay() const { return preEnd + preHeap.size(); }
  size_t pendingOutput() const { return nearEnd + farHeld; }

 private:
  // A heap element; the number keeps equal times in the order they came.
  template <class T>
  struct Numbered {
    T item;
    uint64_t seq;
  };
  // Tags of one index in time order; `tags[head]` leaves first.
  struct Lane {
    std::vector<Tag> tags;  ///< holds `[head, end)`; its size is the capacity
    size_t head = 0;
    size_t end = 0;
  };

  // Tags held carry their tie rank in `reserved` until they leave.
  static uint8_t eventRank(uint32_t index) { return static_cast<uint8_t>((index & 63) + 1); }
  static bool before(int64_t time, int64_t t) { return timeDifference(t, time) > 0; }
  // Whether a tag at (`time`, `rank`) must leave after one at (`t`, `r`).
  static bool leavesAfter(int64_t time, uint8_t rank, int64_t t, uint8_t r) {
    const int64_t d = timeDifference(time, t);
    return d > 0 || (d == 0 && rank > r);
  }

  // The place for a new tag in the sorted buffer, the tags behind it moved up;
  // null when it would have to go further back than is worth shifting.
  Tag* nearSlot(int64_t time, uint8_t rank) {
    if (nearEnd == near.size()) [[unlikely]]
      growNear();
    Tag* const end = near.data() + nearEnd;
    if (nearEnd == 0 || !leavesAfter(end[-1].time, end[-1].reserved, time, rank)) [[likely]] {
      ++nearEnd;
      return end;
    }
    return nearSlotBehind(time, rank);
  }
  Tag* nearSlotBehind(int64_t time, uint8_t rank);
  void growNear();
  void holdSorted(const Tag& tag) {
    if (Tag* slot = nearSlot(tag.time, tag.reserved)) {
      copyTag(*slot, tag);
    } else {
      holdFar(tag);
    }
  }
  void holdFar(const Tag& tag) {
    // An event far behind the sorted buffer mostly belongs to a channel delayed
    // behind the others, and comes in order within that channel.
    if (tag.type != Tag::Type::TimeTag) {
      pushHeap(tag);
      return;
    }
    const size_t index = static_cast<size_t>(tag.reserved - 1) & 63;
    Lane& lane = lanes[index];
    if (lane.head == lane.end) {
      lane.head = lane.end = 0;
      activeLanes |= uint64_t{1} << index;
    } else if (leavesAfter(lane.tags[lane.end - 1].time, lane.tags[lane.end - 1].reserved, tag.time,
                           tag.reserved)) {
      pushHeap(tag);
      return;
    }
    if (lane.end == lane.tags.size()) [[unlikely]]
      growLane(lane);
    copyTag(lane.tags[lane.end++], tag);
    ++farHeld;
  }
  void pushHeap(const Tag& tag);
  static void growLane(Lane& lane);
  // Tags are copied field by field. Most are read back soon after they were
  // written, and a 16-byte copy of a tag stored in parts would wait for the
  // stores to drain instead of taking the values from them.
  static void copyTag(Tag& to, const Tag& from) {
    to.type = from.type;
    to.reserved = from.reserved;
    to.missed_events = from.missed_events;
    to.channel = from.channel;
    to.time = from.time;
  }
  void releaseDue(std::vector<Tag>& out);
  void releasePreDelay();
  void pushPreDelayBehind(const PreDelayTag& tag, uint8_t rank);
  void passFilter(PreDelayTag p);
  void mergeDue(std::vector<Tag>& out);
  void mergeOneLane(std::vector<Tag>& out);
  void finish(Tag* begin, Tag* end);

  DelaySettings settings;
  // The first stage: sorted buffer plus heap, ordered on the undelayed time.
  std::vector<PreDelayTag> preNear;
  size_t preEnd = 0;
  std::vector<Numbered<PreDelayTag>> preHeap;
  // The output side: the sorted buffer `near[0, nearEnd)`, and further back
  // the queues in `lanes` and the heap, `farHeld` tags together.
  std::vector<Tag> near;
  size_t nearEnd = 0;
  std::vector<Numbered<Tag>> outputHeap;
  uint64_t heapSeq = 0;
  std::array<Lane, 64> lanes;
  uint64_t activeLanes = 0;
  size_t farHeld = 0;
  int64_t until = 0;
  uint64_t filter = 0;
  uint64_t counted = 0;
  bool overflow = false;
};

/// Indices whose delay lies this far beyond the smallest delay of a configured
/// index are lagging: their tags would pass many others in the sorted buffer.
constexpr int64_t kLaggingDelay = 10000;

/// Fixed compensation in ps of input `input` (from 0) of a board of `model`
/// ("Zeptick 20" or another model name); 780 ps more in a synchronized group for
/// the link between devices. Inputs beyond the table get 0 (plus the link).
int64_t hardwareDelayCompensation(std::string_view model, int input, bool synchronized);

/// The compensation per hardware index, both edges of an input alike;
/// `channelCount` is twice the number of inputs.
std::vector<int64_t> hardwareDelayTable(std::string_view model, int channelCount,
                                        bool synchronized);

/// The delay the stream applies to a configured hardware index. A negative
/// smallest input delay moves all other channels forward instead of moving one
/// back, so no event is ever due before it was seen. `minInputDelay` is the
/// smallest `inputDelay` over all channels.
int64_t effectiveInputDelay(int64_t inputDelay, int64_t hardwareDelay, bool compensationEnabled,
                            int64_t minInputDelay);

}  // namespace zeptick
