#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>

#include "emulator/stream/stream_profile.h"

namespace zeptick::emulator {

/// Builds a NativeTag word from its fields.
constexpr uint32_t nativeWord(unsigned kind, unsigned code, unsigned bin, unsigned tick) {
  return (tick & 0xFFFFu) | ((bin & 0xFFu) << 16) | ((code & 0x3Fu) << 24) | (kind << 30);
}

/// An event on its way out, as one sortable number: the cycle within the
/// rollover period in bits 48-63, the offset in ps within the cycle in bits
/// 32-47 and the event's finished word in bits 0-31. A window of events lies
/// within one period, so its keys order the events exactly by time and then
/// by hardware index (the word's highest varying bits), and the word costs
/// nothing to take out.
constexpr int kKeyTickShift = 48;
constexpr int kKeyOffsetShift = 32;

constexpr uint64_t eventKey(unsigned tick, int64_t offset, uint32_t word) {
  return (uint64_t{tick} << kKeyTickShift) | (static_cast<uint64_t>(offset) << kKeyOffsetShift) |
         word;
}

/// Ends every KeyBuffer: above every real key, so a merge can run without
/// checking for the end of its inputs.
constexpr uint64_t kKeySentinel = std::numeric_limits<uint64_t>::max();

/// A growable array of event keys that never initialises what is about to be
/// overwritten, followed by kKeySentinel once resize() has marked the keys
/// valid. Not thread-safe.
class KeyBuffer {
 public:
  /// Room for `n` keys at data(); the contents are lost.
  uint64_t* prepare(size_t n) {
    if (n + 1 > capacity_) {
      capacity_ = 2 * n + 1;
      keys_.reset(new uint64_t[capacity_]);
    }
    size_ = 0;
    return keys_.get();
  }
  /// Marks the first `n` keys written through prepare() as valid.
  void resize(size_t n) {
    size_ = n;
    keys_[n] = kKeySentinel;
  }
  /// The keys, then the sentinel.
  const uint64_t* data() const { return keys_.get(); }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }

 private:
  std::unique_ptr<uint64_t[]> keys_;
  size_t capacity_ = 0;
  size_t size_ = 0;
};

/// What the firmware does to one hardware channel on its own: dead time, then
/// the event divider, then the time stamp (clock cycle, offset and fine bin).
///
/// Dead time counts in clock cycles: after an event in cycle c the channel
/// ignores every edge before cycle c + deadtime_clocks, so two events of a
/// channel are always at least that many cycles apart (a setting of 0 acts as 1).
/// The divider then passes the first event it sees and every Nth after it,
/// with N = divider_field + 1.
class ChannelStage {
 public:
  /// `bins` gives the fine bin of every offset and must outlive the stage.
  ChannelStage(int index, ClockDivider clock, const uint8_t* bins)
      : index_(static_cast<unsigned>(index)), clock_(clock), bins_(bins) {}

  /// Changes the settings; the divider restarts its count when its setting changes.
  void configure(uint16_t deadtime_clocks, uint16_t divider_field) {
    deadtime_ = deadtime_clocks == 0 ? 1 : deadtime_clocks;
    const uint32_t divider = uint32_t{divider_field} + 1;
    if (divider != divider_) count_ = 0;
    divider_ = divider;
  }

  /// Replaces `out` with the keys of the events that pass, for edge times in
  /// ascending order that lie within one rollover period.
  void run(const int64_t* edges, size_t n, KeyBuffer& out) {
    // Everything in locals: the key stores could alias the members.
    const ClockDivider clock = clock_;
    const int64_t deadtime = deadtime_;
    const uint32_t divider = divider_;
    const uint8_t* const bins = bins_;
    const uint32_t word = nativeWord(1, index_, 0, 0);
    int64_t ready_at = ready_at_;
    uint64_t* keys = out.prepare(n);
    size_t kept = 0;
    auto key = [&](ClockDivider::Split at) __attribute__((always_inline)) {
      const auto tick = static_cast<unsigned>(at.clock & 0xFFFF);
      return eventKey(tick, at.offset, word | (uint32_t{bins[at.offset]} << 16) | tick);
    };
    if (divider == 1) {
      // Every key is written and kept only if the channel was ready: whether
      // an edge falls in the dead time is data, not a jump.
      for (size_t i = 0; i < n; ++i) {
        const ClockDivider::Split at = clock.split(edges[i]);
        const bool ready = at.clock >= ready_at;
        keys[kept] = key(at);
        kept += ready;
        ready_at = ready ? at.clock + deadtime : ready_at;
      }
    } else {
      uint32_t count = count_;
      for (size_t i = 0; i < n; ++i) {
        const ClockDivider::Split at = clock.split(edges[i]);
        if (at.clock < ready_at) continue;
        ready_at = at.clock + deadtime;
        if (count != 0) {
          if (++count == divider) count = 0;
          continue;
        }
        count = 1;
        keys[kept++] = key(at);
      }
      count_ = count;
    }
    ready_at_ = ready_at;
    out.resize(kept);
  }

  void rebase(int64_t clocks) {
    if (ready_at_ != kLongAgo) ready_at_ -= clocks;
  }

 private:
  static constexpr int64_t kLongAgo = std::numeric_limits<int64_t>::min() / 2;

  unsigned index_;
  ClockDivider clock_;
  const uint8_t* bins_;
  int64_t deadtime_ = 1;
  int64_t ready_at_ = kLongAgo;
  uint32_t divider_ = 1;
  uint32_t count_ = 0;
};

}  // namespace zeptick::emulator
