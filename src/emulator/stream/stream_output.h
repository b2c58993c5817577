#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "emulator/stream/stream_channel.h"
#include "emulator/stream/stream_profile.h"

namespace zeptick::emulator {

/// The last stage of the firmware: it merges the channels' events in time
/// order, applies the conditional filter, keeps the hardware buffer's fill
/// level, and frames everything with rollover, overflow and missed-event words.
///
/// Rollovers: a kind-1 rollover word (code 62) carrying the fence byte marks
/// every 65536-cycle boundary. Only when free-running, and only for stretches
/// that skipQuietTo() covers (no source can fire in them), the boundaries after
/// the first are collected into multi-rollover words (kind 3 for 256 periods
/// each, kind 2 for the rest, at most 65535 periods a run) that go out before
/// the next word; a changed fence still gets a kind-1 rollover at the next
/// boundary. So a paced quiet input delivers a word per period, and a stream
/// whose events are all dropped (filter, overflow) keeps its rollovers coming.
/// This stage sends no filler words; a paced read pads its transfers itself.
///
/// Buffer: every word occupies one place. The USB side drains
/// usb_words_per_second, counted once per clock cycle in 32.32 fixed point, so
/// the fill level depends on stream time alone. An event that finds the buffer
/// full (level above size - 1) is dropped: an overflow-begin word (code 63,
/// kind 2) goes out with its cycle, and from then on events only count, per
/// channel. Once the level has drained to half the size: the missed counts
/// (kind 3 = count / 256, kind 2 = count % 256, in chunks of at most 65535, so
/// no count is lost), then an overflow-end word (code 63, kind 3). Framing
/// words always find room. A buffer size of 0 or a drain rate of 0 means no limit.
///
/// Conditional filter: a trigger channel's event arms every filtered channel; a
/// filtered channel's event passes only when armed and disarms it. A channel
/// that is both passes all its events. Overflow begin and end disarm all.
///
/// Not thread-safe: owned by one StreamEngine.
class StreamOutput {
 public:
  static constexpr int64_t kPeriodClocks = 65536;
  static constexpr uint32_t kMaxRun = 65535;

  StreamOutput(int64_t ps_per_clock, bool paced, double usb_words_per_second);

  void setBuffer(uint32_t buffer_words);
  void setFilter(uint64_t trigger_mask, uint64_t filtered_mask);
  void setFence(uint8_t fence) { fence_ = fence; }
  /// The next rollover boundary carries an error word instead of the rollover,
  /// as when the board loses its clock; the filter is disarmed with it.
  void injectError() { error_pending_ = true; }

  /// Behind a Synchronizer: after every rollover the four sync-board words
  /// (kind 1, codes 58 to 61, tick 0) carry `counter(period)`, the counter of
  /// the period beginning there; quiet periods then each get their rollover.
  void setSync(std::function<uint32_t(uint64_t)> counter) { sync_ = std::move(counter); }
  /// Faults of the Synchronizer link, once, at the next boundary: byte `byte`
  /// of the counter goes missing; the first sync word carries `tick`, not 0.
  void dropSyncByte(int byte) { drop_sync_byte_ = byte; }
  void skewSyncWord(unsigned tick) { skew_tick_ = tick; }

  /// Emits the boundaries and the overflow end that fall on cycles up to `clock`.
  void advanceTo(int64_t clock);
  /// Emits the boundaries before `clock`, a period start, for a stretch
  /// without events; runs of quiet periods cost O(1) per run.
  void skipQuietTo(int64_t clock);
  /// Takes the sorted event keys of several channels for one window that
  /// lies within the current period.
  void merge(const KeyBuffer* const* streams, size_t count);

  int64_t periodBase() const { return period_base_; }
  int64_t nextBoundary() const { return next_boundary_; }
  bool overflowing() const { return overflow_; }
  /// Moves the time origin `clocks` (a multiple of the period) forward.
  void rebase(int64_t clocks);

  size_t available() const { return size_ - read_; }
  /// Copies up to `count` words (native byte order) to `out`; returns the count.
  size_t take(unsigned char* out, size_t count);

 private:
  template <typename NextKey>
  void emit(NextKey&& next_key, size_t total);
  void slowEvent(uint64_t key, size_t bound);
  /// The buffer level drained to `clock`, after the last word's.
  uint64_t levelAt(int64_t clock) const;
  /// Whether a period's worth of drain and a full buffer fit the counter of emit().
  bool countable() const { return !buffer_on_ || countable_; }
  void mergeAll(const KeyBuffer* const* streams, size_t count, size_t total);
  void reserve(size_t more);
  void controlsUpTo(int64_t clock);
  void boundary();
  void resume();
  void beginOverflow(int64_t clock, unsigned index);
  void flushRun(int64_t clock);
  void push(uint32_t word, int64_t clock);
  void drain(int64_t clock);
  void planResume(int64_t clock);
  void updateNextControl();

  void emitSync(int64_t clock);

  bool paced_;
  std::function<uint32_t(uint64_t)> sync_;
  uint64_t periods_ = 0;  ///< boundaries passed since the stream started
  int drop_sync_byte_ = -1;
  unsigned skew_tick_ = 0;

  int64_t period_base_ = 0;
  int64_t next_boundary_ = kPeriodClocks;
  uint32_t run_ = 0;
  bool words_since_rollover_ = false;
  bool error_pending_ = false;
  uint8_t fence_ = 0;
  uint8_t fence_sent_ = 0;

  bool buffer_on_ = false;
  uint64_t drain_per_clock_ = 0;
  int64_t max_gap_ = 0;
  uint64_t level_ = 0;
  uint64_t limit_ = 0;
  uint64_t resume_level_ = 0;
  bool countable_ = false;
  uint32_t buffer_words_ = 0;
  int64_t last_clock_ = 0;

  bool overflow_ = false;
  int64_t resume_clock_ = 0;
  std::array<uint64_t, 64> missed_{};
  uint64_t missed_mask_ = 0;

  bool filter_on_ = false;
  uint64_t trigger_mask_ = 0;
  uint64_t filtered_mask_ = 0;
  uint64_t armed_ = 0;

  uint64_t next_control_key_ = 0;  ///< the first event key at or after the next control
  // Merge rounds of many channels, kept for their capacity.
  std::vector<const KeyBuffer*> pending_;
  std::vector<KeyBuffer> scratch_;
  std::unique_ptr<uint32_t[]> words_;
  size_t capacity_ = 0;
  size_t size_ = 0;
  size_t read_ = 0;
};

}  // namespace zeptick::emulator
