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
};

/// Host-side delay and ordering of one device's tags: a heap in front of the
/// delays for the conditional filter (raw arrival order across channels), and
/// an output side (one queue per hardware index for tags that come in order,
/// a heap for the rest) that releases tags in time order once the stream has
/// passed them. Overflow spans turn released time tags into missed events.
///
/// Not thread-safe: only the worker holding the device's decoder mutex uses it.
/// Heaps and filter state persist across blocks; no allocation beyond heap growth.
class DelayStage {
 public:
  /// Per-block settings; `settings.delays` and `settings.distributions` must
  /// stay valid until the next call.
  void setBlockSettings(const DelaySettings& settings);
  const DelaySettings& blockSettings() const { return settings; }

  /// Drops everything held, without emitting (error word, new time base).
  void clear();
  /// Empty heaps, filter closed, no overflow, stream at `time`.
  void reset(int64_t time);

  /// Time passed to the last advanceTo.
  int64_t decodedUntil() const { return until; }
  void setDecodedUntil(int64_t time) { until = time; }

  bool overflowActive() const { return overflow; }
  void setOverflowActive() { overflow = true; }
  uint64_t filterState() const { return filter; }
  /// Every error and overflow word closes the filter of all channels.
  void closeFilter() { filter = 0; }

  /// A tag whose time already carries its delay, onto the output heap.
  void pushOutput(const Tag& tag);
  /// A time tag of hardware index `index` (below 64) whose time carries its
  /// delay. Such tags mostly come in time order per index, and then wait in a
  /// queue of their index instead of the heap; the rest go to the heap.
  void pushEvent(uint32_t index, const Tag& tag) {
    if (Tag* slot = laneSlot(index, tag.time)) {
      copyTag(*slot, tag);
    } else {
      pushOutput(tag);
    }
  }
  /// The same for a plain time tag of `channel`, written in place.
  void pushEvent(uint32_t index, int32_t channel, int64_t time) {
    if (Tag* slot = laneSlot(index, time)) {
      // Field by field, straight into place: see copyTag.
      slot->type = Tag::Type::TimeTag;
      slot->reserved = 0;
      slot->missed_events = 0;
      slot->channel = channel;
      slot->time = time;
    } else {
      pushOutput(Tag{Tag::Type::TimeTag, 0, 0, channel, time});
    }
  }
  /// A decoded event of a device with filtered channels; delay and
  /// calibration count are applied when it leaves the first heap.
  void pushPreDelay(const PreDelayTag& tag);

  /// Sets decodedUntil to `t` and appends to `out`, in time order, everything
  /// held with a time strictly before `t` (by signed 64-bit difference).
  void advanceTo(int64_t t, std::vector<Tag>& out) {
    until = t;
    if (preDelayHeap.empty() && (held == 0 || timeDifference(nextDue, t) >= 0)) return;
    release(t, out);
  }

  /// Indices whose calibration counts the filtered path has raised since the
  /// last call, one bit each.
  uint64_t takeCounted() {
    const uint64_t m = counted;
    counted = 0;
    return m;
  }

  size_t pendingPreDelay() const { return preDelayHeap.size(); }
  size_t pendingOutput() const { return held; }

 private:
  // Tags of one index in time order; `tags[head]` leaves first.
  struct Lane {
    std::vector<Tag> tags;
    size_t head = 0;
  };

  void noteHeld(int64_t time) {
    if (held++ == 0 || timeDifference(time, nextDue) < 0) nextDue = time;
  }
  // A new last element of the index's queue, or null when `time` would break
  // the queue's order and the tag belongs on the heap.
  Tag* laneSlot(uint32_t index, int64_t time) {
    Lane& lane = lanes[index & 63];
    if (lane.tags.size() == lane.head) {
      lane.tags.clear();
      lane.head = 0;
      activeLanes |= uint64_t{1} << (index & 63);
      laneFront[index & 63] = time;
    } else if (timeDifference(time, lane.tags.back().time) < 0) {
      return nullptr;
    }
    noteHeld(time);
    return &lane.tags.emplace_back();
  }
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
  void release(int64_t t, std::vector<Tag>& out);
  void releasePreDelay(int64_t t);

  DelaySettings settings;
  std::vector<PreDelayTag> preDelayHeap;
  // The output side: the heap, and one queue per index in `lanes`, together
  // ordered by their earliest time. `held` counts all, `nextDue` is the earliest.
  std::vector<Tag> outputHeap;
  std::array<Lane, 64> lanes;
  std::array<int64_t, 64> laneFront{};  ///< time of each non-empty queue's first tag
  uint64_t activeLanes = 0;
  size_t held = 0;
  int64_t nextDue = 0;
  int64_t until = 0;
  uint64_t filter = 0;
  uint64_t counted = 0;
  bool overflow = false;
};

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
