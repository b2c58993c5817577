#include "emulator/stream/stream_output.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace zeptick::emulator {
namespace {

constexpr unsigned kRolloverCode = 62;
constexpr unsigned kControlCode = 63;
constexpr uint64_t kOneWord = uint64_t{1} << 32;
constexpr int64_t kNever = std::numeric_limits<int64_t>::max() / 4;
constexpr int64_t kNoTime = std::numeric_limits<int64_t>::max();

}  // namespace

StreamOutput::StreamOutput(int64_t ps_per_clock, bool paced, double usb_words_per_second)
    : paced_(paced) {
  const double per_clock = usb_words_per_second * static_cast<double>(ps_per_clock) * 1e-12;
  if (std::isfinite(per_clock) && per_clock > 0 && per_clock < 1e9) {
    drain_per_clock_ = static_cast<uint64_t>(std::llround(per_clock * 0x1.0p32));
  }
  if (drain_per_clock_ > 0) {
    max_gap_ = static_cast<int64_t>(std::numeric_limits<uint64_t>::max() / 2 / drain_per_clock_);
  }
  updateNextControl();
}

void StreamOutput::setBuffer(uint32_t buffer_words) {
  buffer_words_ = buffer_words;
  buffer_on_ = buffer_words > 0 && drain_per_clock_ > 0;
  if (buffer_on_) {
    limit_ = (uint64_t{buffer_words} - 1) << 32;
    resume_level_ = (uint64_t{buffer_words} << 32) / 2;
    countable_ = buffer_words < (1u << 29) && drain_per_clock_ <= (uint64_t{1} << 46);
    if (overflow_) planResume(last_clock_);
  } else {
    level_ = 0;
    if (overflow_) resume_clock_ = std::max(last_clock_, period_base_);
  }
  updateNextControl();
}

void StreamOutput::setFilter(uint64_t trigger_mask, uint64_t filtered_mask) {
  if (trigger_mask != trigger_mask_ || filtered_mask != filtered_mask_) armed_ = 0;
  trigger_mask_ = trigger_mask;
  filtered_mask_ = filtered_mask;
  filter_on_ = filtered_mask != 0;
}

void StreamOutput::advanceTo(int64_t clock) { controlsUpTo(clock); }

void StreamOutput::skipQuietTo(int64_t clock) {
  while (next_boundary_ < clock) {
    if (overflow_ || paced_ || sync_ || words_since_rollover_ || fence_ != fence_sent_ ||
        error_pending_) {
      controlsUpTo(next_boundary_);
      continue;
    }
    const int64_t boundaries = (clock - next_boundary_ + kPeriodClocks - 1) / kPeriodClocks;
    const int64_t taken = std::min<int64_t>(boundaries, kMaxRun - run_);
    run_ += static_cast<uint32_t>(taken);
    periods_ += static_cast<uint64_t>(taken);
    period_base_ = next_boundary_ + (taken - 1) * kPeriodClocks;
    next_boundary_ = period_base_ + kPeriodClocks;
    if (run_ == kMaxRun) flushRun(period_base_);
    words_since_rollover_ = false;
  }
  updateNextControl();
}

namespace {

// A branch-free two-way merge step over inputs that end in kKeySentinel:
// which side goes next is data, not a jump, so finely interleaved channels
// cost no mispredictions, and no end test is needed while the count of keys
// left is known.
struct MergeCursor {
  const uint64_t* a;
  const uint64_t* b;

  __attribute__((always_inline)) uint64_t pop() {
    const uint64_t av = *a;
    const uint64_t bv = *b;
    const bool take_b = bv < av;
    b += take_b;
    a += !take_b;
    return take_b ? bv : av;
  }
};

MergeCursor cursor(const KeyBuffer& a, const KeyBuffer& b) { return {a.data(), b.data()}; }

// Two independent merges in one loop: each step waits on the load its last
// comparison chose, and interleaving them lets one run in the other's wait.
void mergeTwoPairs(const KeyBuffer& a, const KeyBuffer& b, KeyBuffer& ab, const KeyBuffer& c,
                   const KeyBuffer& d, KeyBuffer& cd) {
  const size_t n_ab = a.size() + b.size();
  const size_t n_cd = c.size() + d.size();
  uint64_t* out_ab = ab.prepare(n_ab);
  uint64_t* out_cd = cd.prepare(n_cd);
  MergeCursor first = cursor(a, b);
  MergeCursor second = cursor(c, d);
  const size_t both = std::min(n_ab, n_cd);
  for (size_t i = 0; i < both; ++i) {
    out_ab[i] = first.pop();
    out_cd[i] = second.pop();
  }
  for (size_t i = both; i < n_ab; ++i) out_ab[i] = first.pop();
  for (size_t i = both; i < n_cd; ++i) out_cd[i] = second.pop();
  ab.resize(n_ab);
  cd.resize(n_cd);
}

// Merges a and b into `sink`. A stream many times smaller than the other
// mostly takes the other's keys in runs, where a plain loop predicts well and
// need not wait for each comparison.
template <typename Sink>
__attribute__((always_inline)) inline void mergeInto(const KeyBuffer& a, const KeyBuffer& b,
                                                     Sink&& sink) {
  const bool a_small = a.size() < b.size();
  const KeyBuffer& small = a_small ? a : b;
  const KeyBuffer& large = a_small ? b : a;
  if (small.size() * 4 < large.size()) {
    const uint64_t* run = large.data();
    const uint64_t* small_keys = small.data();
    for (size_t i = 0; i < small.size(); ++i) {
      const uint64_t key = small_keys[i];
      while (*run < key) sink(*run++);
      sink(key);
    }
    for (const uint64_t* end = large.data() + large.size(); run != end;) sink(*run++);
    return;
  }
  MergeCursor merged = cursor(a, b);
  for (size_t i = a.size() + b.size(); i > 0; --i) sink(merged.pop());
}

void mergeTwo(const KeyBuffer& a, const KeyBuffer& b, KeyBuffer& ab) {
  const size_t n = a.size() + b.size();
  uint64_t* out = ab.prepare(n);
  mergeInto(a, b, [&out](uint64_t key) { *out++ = key; });
  ab.resize(n);
}

}  // namespace

void StreamOutput::merge(const KeyBuffer* const* streams, size_t count) {
  size_t total = 0;
  for (size_t i = 0; i < count; ++i) total += streams[i]->size();
  reserve(total);
  mergeAll(streams, count, total);
}

// Merges the two smallest streams first, as long as three or more remain, so
// that a busy channel passes through few merges; the last merge feeds the
// words. When the next two smallest would come before the merged pair's turn
// anyway, both merges run together.
void StreamOutput::mergeAll(const KeyBuffer* const* streams, size_t count, size_t total) {
  if (count == 1) {
    const uint64_t* keys = streams[0]->data();
    emit(
        [&keys]() __attribute__((always_inline)) { return *keys++; }, total);
    return;
  }
  pending_.assign(streams, streams + count);
  if (scratch_.size() < count) scratch_.resize(count);  // no growth below: pointers stay valid
  size_t spare = 0;
  auto by_size = [](const KeyBuffer* a, const KeyBuffer* b) { return a->size() > b->size(); };
  while (pending_.size() > 2) {
    std::sort(pending_.begin(), pending_.end(), by_size);
    const size_t n = pending_.size();
    const KeyBuffer& a = *pending_[n - 1];
    const KeyBuffer& b = *pending_[n - 2];
    KeyBuffer& ab = scratch_[spare++];
    if (n >= 4 && pending_[n - 4]->size() <= a.size() + b.size()) {
      KeyBuffer& cd = scratch_[spare++];
      mergeTwoPairs(a, b, ab, *pending_[n - 3], *pending_[n - 4], cd);
      pending_.resize(n - 2);
      pending_[n - 4] = &ab;
      pending_[n - 3] = &cd;
    } else {
      mergeTwo(a, b, ab);
      pending_.resize(n - 1);
      pending_[n - 2] = &ab;
    }
  }
  const KeyBuffer& a = *pending_[0];
  const KeyBuffer& b = *pending_[1];
  const KeyBuffer& small = a.size() < b.size() ? a : b;
  const KeyBuffer& large = a.size() < b.size() ? b : a;
  if (small.size() * 4 < large.size()) {
    // Runs of the busy channel between the other's keys, as in mergeInto().
    const uint64_t* run = large.data();
    const uint64_t* other = small.data();
    emit(
        [&run, &other ]()
            __attribute__((always_inline)) { return *run < *other ? *run++ : *other++; },
        total);
    return;
  }
  MergeCursor merged = cursor(a, b);
  emit(
      [&merged]() __attribute__((always_inline)) { return merged.pop(); }, total);
}

// Turns `total` keys, taken in order from next_key(), into words. The usual
// event (no filter, no overflow, no rollover or run due, room in the buffer)
// runs in locals; anything else goes through slowEvent() on the members.
//
// The buffer level runs as a counter that the drain would have reached zero
// at: `filled` = level + (cycle of the last event - period start) * drain.
// The level an event finds is then filled - its cycle's drain, or zero if
// that is below: one multiply, one maximum and an addition per event, the
// same values as draining the level step by step.
template <typename NextKey>
__attribute__((always_inline)) inline void StreamOutput::emit(NextKey&& next_key, size_t total) {
  const int64_t base = period_base_;
  const uint64_t drain = drain_per_clock_;
  // Without a buffer nothing is counted and nothing overflows.
  const uint64_t limit = buffer_on_ ? limit_ : std::numeric_limits<uint64_t>::max();
  const uint64_t one = buffer_on_ ? kOneWord : 0;
  for (size_t left = total; left > 0;) {
    if (filter_on_ || overflow_ || run_ != 0 || !countable()) {
      slowEvent(next_key(), total);
      --left;
      continue;
    }
    const uint64_t control = next_control_key_;
    uint32_t* const start = words_.get() + size_;
    uint32_t* out = start;
    uint64_t filled = 0;
    if (buffer_on_) {
      filled = last_clock_ >= base ? level_ + static_cast<uint64_t>(last_clock_ - base) * drain
                                   : levelAt(base);
    }
    uint64_t last_tick = 0;
    uint64_t key = 0;
    bool usual = true;
    for (; left > 0; --left) {
      key = next_key();
      const uint64_t tick = key >> kKeyTickShift;
      const uint64_t drained = tick * drain;
      const uint64_t from = filled > drained ? filled : drained;
      if (key >= control || from - drained > limit) {
        usual = false;
        break;
      }
      filled = from + one;
      last_tick = tick;
      *out++ = static_cast<uint32_t>(key);
    }
    if (out != start) {
      size_ = static_cast<size_t>(out - words_.get());
      words_since_rollover_ = true;
      if (buffer_on_) {
        level_ = filled - last_tick * drain;
        last_clock_ = base + static_cast<int64_t>(last_tick);
      }
    }
    if (!usual) {
      slowEvent(key, total);
      --left;
    }
  }
}

uint64_t StreamOutput::levelAt(int64_t clock) const {
  const int64_t gap = clock - last_clock_;
  if (gap >= max_gap_) return 0;
  const uint64_t drained = static_cast<uint64_t>(gap) * drain_per_clock_;
  return level_ > drained ? level_ - drained : 0;
}

// Everything but the usual event: a due rollover or overflow end, the
// filter, an overflow beginning or going on, a pending rollover run. `bound`
// keeps room for one word per event.
__attribute__((noinline)) void StreamOutput::slowEvent(uint64_t key, size_t bound) {
  const int64_t clock = period_base_ + static_cast<int64_t>(key >> kKeyTickShift);
  if (key >= next_control_key_) {
    controlsUpTo(clock);
    reserve(bound);
  }
  const auto index = static_cast<unsigned>(key >> 24) & 0x3F;
  const uint64_t bit = uint64_t{1} << index;
  if (filter_on_) {
    if (trigger_mask_ & bit) armed_ = ~uint64_t{0};
    if (filtered_mask_ & bit) {
      if (!(armed_ & bit)) return;
      armed_ &= ~bit;
    }
  }
  if (buffer_on_) {
    if (overflow_) {
      ++missed_[index];
      missed_mask_ |= bit;
      return;
    }
    drain(clock);
    if (level_ > limit_) {
      beginOverflow(clock, index);
      reserve(bound);
      return;
    }
    level_ += kOneWord;
  }
  if (run_ != 0) {
    flushRun(clock);
    reserve(bound);
  }
  words_[size_++] = static_cast<uint32_t>(key);
  words_since_rollover_ = true;
}

void StreamOutput::reserve(size_t more) {
  if (size_ + more <= capacity_) return;
  if (read_ > 0) {
    std::memmove(words_.get(), words_.get() + read_, (size_ - read_) * sizeof(uint32_t));
    size_ -= read_;
    read_ = 0;
    if (size_ + more <= capacity_) return;
  }
  const size_t capacity = std::max(2 * capacity_, size_ + more + 1024);
  std::unique_ptr<uint32_t[]> grown(new uint32_t[capacity]);
  if (size_ > 0) std::memcpy(grown.get(), words_.get(), size_ * sizeof(uint32_t));
  words_ = std::move(grown);
  capacity_ = capacity;
}

void StreamOutput::controlsUpTo(int64_t clock) {
  for (;;) {
    const int64_t resume_at = overflow_ ? resume_clock_ : kNoTime;
    if (resume_at < next_boundary_) {
      if (resume_at > clock) break;
      resume();
    } else {
      if (next_boundary_ > clock) break;
      boundary();
    }
  }
  updateNextControl();
}

void StreamOutput::boundary() {
  const int64_t at = next_boundary_;
  period_base_ = at;
  next_boundary_ = at + kPeriodClocks;
  flushRun(at);
  words_since_rollover_ = false;
  ++periods_;
  if (error_pending_) {
    // An error word also counts as the period's rollover on the host.
    error_pending_ = false;
    armed_ = 0;
    push(nativeWord(1, kControlCode, 0, 0), at);
  } else {
    push(nativeWord(1, kRolloverCode, fence_, 0), at);
    fence_sent_ = fence_;
  }
  if (sync_) emitSync(at);
}

void StreamOutput::emitSync(int64_t clock) {
  constexpr unsigned kFirstSyncCode = 58;
  const uint32_t counter = sync_(periods_);
  for (int byte = 0; byte < 4; ++byte) {
    if (byte == drop_sync_byte_) continue;
    const unsigned tick = byte == 0 ? skew_tick_ : 0;
    push(nativeWord(1, kFirstSyncCode + static_cast<unsigned>(byte), (counter >> (8 * byte)) & 0xFF,
                    tick),
         clock);
  }
  drop_sync_byte_ = -1;
  skew_tick_ = 0;
}

void StreamOutput::resume() {
  const int64_t at = resume_clock_;
  overflow_ = false;
  flushRun(at);
  const auto tick = static_cast<unsigned>(at & 0xFFFF);
  for (uint64_t mask = missed_mask_; mask != 0; mask &= mask - 1) {
    const auto index = static_cast<unsigned>(__builtin_ctzll(mask));
    for (uint64_t left = missed_[index]; left > 0;) {
      const uint64_t chunk = std::min<uint64_t>(left, 65535);
      if (chunk >> 8) push(nativeWord(3, index, static_cast<unsigned>(chunk >> 8), tick), at);
      if (chunk & 0xFF) push(nativeWord(2, index, static_cast<unsigned>(chunk & 0xFF), tick), at);
      left -= chunk;
    }
    missed_[index] = 0;
  }
  missed_mask_ = 0;
  push(nativeWord(3, kControlCode, 0, tick), at);
  words_since_rollover_ = true;
  armed_ = 0;
}

void StreamOutput::beginOverflow(int64_t clock, unsigned index) {
  flushRun(clock);
  push(nativeWord(2, kControlCode, 0, static_cast<unsigned>(clock & 0xFFFF)), clock);
  overflow_ = true;
  words_since_rollover_ = true;
  armed_ = 0;
  missed_[index] += 1;
  missed_mask_ |= uint64_t{1} << index;
  planResume(clock);
  updateNextControl();
}

void StreamOutput::flushRun(int64_t clock) {
  if (run_ == 0) return;
  if (run_ >> 8) push(nativeWord(3, kRolloverCode, run_ >> 8, 0), clock);
  if (run_ & 0xFF) push(nativeWord(2, kRolloverCode, run_ & 0xFF, 0), clock);
  run_ = 0;
}

void StreamOutput::push(uint32_t word, int64_t clock) {
  if (buffer_on_) {
    drain(clock);
    level_ += kOneWord;
    if (overflow_) planResume(clock);
  }
  reserve(1);
  words_[size_++] = word;
}

void StreamOutput::drain(int64_t clock) {
  const int64_t gap = clock - last_clock_;
  last_clock_ = clock;
  if (gap <= 0) return;
  if (gap >= max_gap_) {
    level_ = 0;
    return;
  }
  const uint64_t drained = static_cast<uint64_t>(gap) * drain_per_clock_;
  level_ = level_ > drained ? level_ - drained : 0;
}

void StreamOutput::planResume(int64_t clock) {
  if (!buffer_on_) {
    resume_clock_ = std::max(clock, period_base_);
    return;
  }
  const uint64_t excess = level_ > resume_level_ ? level_ - resume_level_ : 0;
  const uint64_t cycles = (excess + drain_per_clock_ - 1) / drain_per_clock_;
  resume_clock_ = clock + std::max<int64_t>(1, static_cast<int64_t>(cycles));
}

void StreamOutput::updateNextControl() {
  const int64_t next = std::min(next_boundary_, overflow_ ? resume_clock_ : kNever);
  // Keys count cycles from the period start; a control past the period (the
  // boundary itself) comes after every key of the period's windows.
  const int64_t tick = std::max<int64_t>(next - period_base_, 0);
  next_control_key_ = tick < kPeriodClocks ? static_cast<uint64_t>(tick) << kKeyTickShift
                                           : std::numeric_limits<uint64_t>::max();
}

void StreamOutput::rebase(int64_t clocks) {
  period_base_ -= clocks;
  next_boundary_ -= clocks;
  last_clock_ -= clocks;
  if (overflow_) resume_clock_ -= clocks;
  updateNextControl();
}

size_t StreamOutput::take(unsigned char* out, size_t count) {
  const size_t n = std::min(count, available());
  if (n > 0) std::memcpy(out, words_.get() + read_, n * sizeof(uint32_t));
  read_ += n;
  if (read_ == size_) read_ = size_ = 0;
  return n;
}

}  // namespace zeptick::emulator
