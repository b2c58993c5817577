#pragma once

#include <cstdint>
#include <span>
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

/// What one block of a device is released under. The tagger (or the decoder on
/// its behalf) fills it once per block from a copy of the channel configuration.
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
/// an output heap that releases tags in time order once the stream has passed
/// them. Overflow spans turn released time tags into missed events.
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

  /// A tag whose time already carries its delay, straight onto the output heap.
  void pushOutput(const Tag& tag);
  /// A decoded event of a device with filtered channels; delay and
  /// calibration count are applied when it leaves the first heap.
  void pushPreDelay(const PreDelayTag& tag);

  /// Sets decodedUntil to `t` and appends to `out`, in time order, everything
  /// held with a time strictly before `t` (by signed 64-bit difference).
  void advanceTo(int64_t t, std::vector<Tag>& out) {
    until = t;
    if (preDelayHeap.empty() &&
        (outputHeap.empty() || timeDifference(outputHeap.front().time, t) >= 0))
      return;
    release(t, out);
  }

  size_t pendingPreDelay() const { return preDelayHeap.size(); }
  size_t pendingOutput() const { return outputHeap.size(); }

 private:
  void release(int64_t t, std::vector<Tag>& out);

  DelaySettings settings;
  std::vector<PreDelayTag> preDelayHeap;
  std::vector<Tag> outputHeap;
  int64_t until = 0;
  uint64_t filter = 0;
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
