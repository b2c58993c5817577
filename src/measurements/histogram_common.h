#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <type_traits>

#include "zeptick/fast_binning.h"
#include "zeptick/tag.h"

namespace zeptick::detail {

/// n_bins x binwidth for positive arguments, saturated at the largest signed
/// time difference: a range that big is "everything", and wrapping would turn
/// it small or negative.
inline int64_t histogramRange(int64_t binwidth, int n_bins) {
  int64_t range;
  if (__builtin_mul_overflow(binwidth, static_cast<int64_t>(n_bins), &range)) {
    return std::numeric_limits<int64_t>::max();
  }
  return range;
}

/// a - b in two's complement: stream times are compared by their signed
/// difference, which must wrap rather than be undefined at the extremes.
inline int64_t timeDifference(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

/// Histogram counters are 32-bit and wrap silently when they overflow.
inline void wrappingIncrement(int32_t& counter) {
  counter = static_cast<int32_t>(static_cast<uint32_t>(counter) + 1u);
}

/// The recent stamps of a histogram kernel, oldest first, in one run of memory that
/// a hot loop indexes directly: entries live at [head(), end()), and kLookback
/// slots before index 0 always exist, so a loop may read up to kLookback entries
/// back from any end without a bounds test (it must still mask entries before
/// head()). Storage only grows, and is value-initialised, so no read sees
/// indeterminate memory; in the steady state nothing allocates.
template <typename T, size_t kLookback>
class StampHistory {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  bool empty() const { return head_ == end_; }
  size_t size() const { return end_ - head_; }
  size_t head() const { return head_; }
  size_t end() const { return end_; }
  /// Entry i is at(i); valid for i in [head() - kLookback, end() + room reserved).
  T* at() { return storage.get() + kLookback; }
  const T* at() const { return storage.get() + kLookback; }
  const T& front() const { return at()[head_]; }

  void pop_front() { ++head_; }
  /// Keeps the newest entries for which keep(entry) holds, back to the first for
  /// which it fails, and drops that one and everything older. In a history kept
  /// in time order, with a test on age, this drops what popping every too-old
  /// entry from the front would, while touching only the entries kept.
  template <typename Keep>
  void keepNewestWhile(Keep&& keep) {
    size_t first = end_;
    while (first != head_ && keep(at()[first - 1])) --first;
    head_ = first;
  }
  /// Drops the entries before `head`, which must lie in [head(), end()].
  void setHead(size_t head) { head_ = head; }
  /// Takes the entries written at [end(), end) by a caller that reserved room for them.
  void setEnd(size_t end) { end_ = end; }

  /// Makes room for `more` entries after end(). May move the entries (head()
  /// becomes 0), so indices taken before do not survive it.
  void reserve(size_t more) {
    if (end_ + more <= capacity) return;
    const size_t live = size();
    if (2 * (live + more) <= capacity) {
      std::copy(at() + head_, at() + end_, at());
    } else {
      const size_t larger = std::max<size_t>(64, 2 * (live + more));
      std::unique_ptr<T[]> bigger = std::make_unique<T[]>(larger + kLookback);
      if (live != 0) std::copy(at() + head_, at() + end_, bigger.get() + kLookback);
      storage = std::move(bigger);
      capacity = larger;
    }
    head_ = 0;
    end_ = live;
  }

  void push_back(const T& value) {
    reserve(1);
    at()[end_++] = value;
  }

  void clear() { head_ = end_ = 0; }

  /// Empties the history and gives its storage back.
  void release() {
    clear();
    storage.reset();
    capacity = 0;
  }

 private:
  std::unique_ptr<T[]> storage;
  size_t capacity = 0;
  size_t head_ = 0;
  size_t end_ = 0;
};

/// Whether the histogram kernels may use their AVX-512 forms: the processor has
/// them, and forcePlainHistogramKernels has not switched them off. Read per block.
bool wideHistogramKernels();
/// Makes every histogram kernel take its plain form (true) or the fastest the
/// processor has (false), so that tests can hold the two against each other.
void forcePlainHistogramKernels(bool plain);

/// Whether binning mode `mode` has an eight-lane form (every mode but the two divisions).
constexpr bool hasWideBinning(FastBinning::Mode mode) { return mode <= FastBinning::ModeMulHigh64; }

}  // namespace zeptick::detail

#if defined(__x86_64__)
#include <immintrin.h>

/// On the functions that hold AVX-512 code; callers check wideHistogramKernels() first.
#define ZEPTICK_AVX512 \
  __attribute__((target("avx512f,avx512dq,avx512vl,avx512bw,avx512vpopcntdq,popcnt")))

namespace zeptick::detail {

// Every lane. The zero-masked forms of the intrinsics are used throughout, as the
// plain ones of GCC 12 trip its maybe-uninitialized warning.
constexpr __mmask8 kAll = 0xFF;

/// FastBinning::divide<M> on eight deltas at once, exact in the same modes
/// (hasWideBinning(M)). Made once before a loop, which then keeps the binner's
/// parameters in registers. ModeMulHigh64 builds the high half of the 128-bit
/// product from four 32 x 32-bit products.
template <FastBinning::Mode M>
class LaneDivider {
 public:
  ZEPTICK_AVX512 explicit LaneDivider(const FastBinning& binner)
      : factor(_mm512_setzero_si512()), shift(_mm_setzero_si128()) {
    if constexpr (M == FastBinning::ModeShift) {
      shift = _mm_cvtsi32_si128(static_cast<int>(binner.getShift()));
    } else if constexpr (M == FastBinning::ModeMul32 || M == FastBinning::ModeMulHigh64) {
      factor = _mm512_set1_epi64(static_cast<int64_t>(binner.getFactor()));
    }
  }

  ZEPTICK_AVX512 __m512i operator()(__m512i delta) const {
    if constexpr (M == FastBinning::ModeZero) {
      return _mm512_setzero_si512();
    } else if constexpr (M == FastBinning::ModeIdentity) {
      return delta;
    } else if constexpr (M == FastBinning::ModeShift) {
      return _mm512_maskz_srl_epi64(kAll, delta, shift);
    } else if constexpr (M == FastBinning::ModeMul32) {
      // This mode is picked only for ranges below 2^32 / (divisor - 2^32 mod
      // divisor), so every delta fits in 32 bits, and so does the factor of any
      // divisor of 3 or more: the cheap 32 x 32-bit multiply is exact.
      return _mm512_maskz_srli_epi64(kAll, _mm512_maskz_mul_epu32(kAll, delta, factor), 32);
    } else {
      static_assert(M == FastBinning::ModeMulHigh64, "no eight-lane form of this mode");
      const __m512i low_mask = _mm512_set1_epi64(0xFFFFFFFF);
      const __m512i delta_high = _mm512_maskz_srli_epi64(kAll, delta, 32);
      const __m512i factor_high = _mm512_maskz_srli_epi64(kAll, factor, 32);
      const __m512i low_low = _mm512_maskz_mul_epu32(kAll, delta, factor);
      const __m512i low_high = _mm512_maskz_mul_epu32(kAll, delta, factor_high);
      const __m512i high_low = _mm512_maskz_mul_epu32(kAll, delta_high, factor);
      const __m512i high_high = _mm512_maskz_mul_epu32(kAll, delta_high, factor_high);
      const __m512i middle =
          _mm512_add_epi64(_mm512_add_epi64(_mm512_maskz_srli_epi64(kAll, low_low, 32),
                                            _mm512_and_si512(low_high, low_mask)),
                           _mm512_and_si512(high_low, low_mask));
      return _mm512_add_epi64(
          _mm512_add_epi64(high_high, _mm512_maskz_srli_epi64(kAll, middle, 32)),
          _mm512_add_epi64(_mm512_maskz_srli_epi64(kAll, low_high, 32),
                           _mm512_maskz_srli_epi64(kAll, high_low, 32)));
    }
  }

 private:
  __m512i factor;
  __m128i shift;
};

/// Eight tags as lanes: each one's first word (type in the low byte, channel in
/// the high half) and its time.
struct TagLanes {
  __m512i head;
  __m512i time;
};

ZEPTICK_AVX512 inline TagLanes loadTags(const Tag* tags) {
  static_assert(sizeof(Tag) == 16 && offsetof(Tag, type) == 0 && offsetof(Tag, channel) == 4 &&
                offsetof(Tag, time) == 8);
  const auto* words = reinterpret_cast<const long long*>(tags);
  // A block has mostly left the nearest caches by the time a measurement reads
  // it: ask for the lines 2 KiB ahead (an address, past the end or not; a
  // prefetch never faults).
  const uintptr_t ahead = reinterpret_cast<uintptr_t>(tags) + 2048;
  __builtin_prefetch(reinterpret_cast<const void*>(ahead));
  __builtin_prefetch(reinterpret_cast<const void*>(ahead + 64));
  const __m512i low = _mm512_loadu_si512(words);
  const __m512i high = _mm512_loadu_si512(words + 8);
  return {_mm512_maskz_permutex2var_epi64(kAll, low, _mm512_setr_epi64(0, 2, 4, 6, 8, 10, 12, 14),
                                          high),
          _mm512_maskz_permutex2var_epi64(kAll, low, _mm512_setr_epi64(1, 3, 5, 7, 9, 11, 13, 15),
                                          high)};
}

/// The lanes' channels, and a channel to compare them with: both read unsigned.
ZEPTICK_AVX512 inline __m512i channelsOf(const TagLanes& tags) {
  return _mm512_maskz_srli_epi64(kAll, tags.head, 32);
}
ZEPTICK_AVX512 inline __m512i channelLanes(int channel) {
  return _mm512_set1_epi64(static_cast<uint32_t>(channel));
}

/// Stores sixteen words at `out`: first[0], second[0], first[1], second[1] and so on.
ZEPTICK_AVX512 inline void storePairs(void* out, __m512i first, __m512i second) {
  auto* words = static_cast<long long*>(out);
  _mm512_storeu_si512(words, _mm512_maskz_permutex2var_epi64(
                                 kAll, first, _mm512_setr_epi64(0, 8, 1, 9, 2, 10, 3, 11), second));
  _mm512_storeu_si512(words + 8,
                      _mm512_maskz_permutex2var_epi64(
                          kAll, first, _mm512_setr_epi64(4, 12, 5, 13, 6, 14, 7, 15), second));
}

/// In lane j, base plus the number of lanes of `mask` before j (and with `inclusive`, at j).
ZEPTICK_AVX512 inline __m512i countLanes(__mmask8 mask, bool inclusive, size_t base) {
  const __m512i before = _mm512_setr_epi64(0, 1, 3, 7, 15, 31, 63, 127);
  const __m512i up_to = _mm512_setr_epi64(1, 3, 7, 15, 31, 63, 127, 255);
  return _mm512_add_epi64(
      _mm512_set1_epi64(static_cast<int64_t>(base)),
      _mm512_popcnt_epi64(_mm512_and_si512(_mm512_set1_epi64(mask), inclusive ? up_to : before)));
}

}  // namespace zeptick::detail
#endif
