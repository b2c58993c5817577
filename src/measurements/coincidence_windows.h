#pragma once

// The window test of Coincidences in three forms: the plain one, which tests
// each entry's partners against last times kept in memory, and AVX2 and
// AVX-512 ones for up to eight entries, which keep every last time in
// registers and test them all at once. All give the same bits for the entries
// a group can hold, so the group tests that follow cannot tell them apart.

#include <algorithm>
#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace zeptick::detail {

enum class WindowForm { Plain, Avx2, Avx512 };

/// The fastest form the processor has for `entries` channels, no faster than
/// the limit set by limitCoincidenceWindows. Read once per block.
WindowForm coincidenceWindowForm(size_t entries);
/// Caps the forms every Coincidences may take, so that tests can hold each
/// against the plain one; WindowForm::Avx512 lifts the cap.
void limitCoincidenceWindows(WindowForm fastest);

// Sets the entry's last time and returns the mask of the entries, among those
// its groups hold, that lie inside the window. `other` lists those entries
// but the entry itself, `count` of them, or kChecks where kChecks is not 0.
template <int kChecks>
[[gnu::always_inline]] inline uint64_t windowMask(int64_t* last, const int* other, int count,
                                                  int entry, int64_t time, int64_t window) {
  last[entry] = time;
  // The entry's own test: its tag is 0 old.
  uint64_t mask = static_cast<uint64_t>(window > 0) << entry;
  const int n = kChecks > 0 ? kChecks : count;
  for (int k = 0; k < n; ++k) {
    const int i = other[k];
    mask |= static_cast<uint64_t>(time - last[i] < window) << i;
  }
  return mask;
}

/// The plain form: per entry, the partners to test, `stride` to an entry
/// (kChecks of them where kChecks is not 0, else `counts` says).
template <int kChecks>
class ListedWindow {
 public:
  ListedWindow(int64_t* last, size_t entries, const int* checks, const int* counts, size_t stride)
      : last(last), entries(entries), checks(checks), counts(counts), stride(stride) {}
  uint64_t mask(int entry, int64_t time, int64_t window) {
    return windowMask<kChecks>(last, checks + static_cast<size_t>(entry) * stride, counts[entry],
                               entry, time, window);
  }
  void forget(int64_t window) { std::fill(last, last + entries, -window); }
  /// The last times by entry, up to date.
  const int64_t* times() const { return last; }

 private:
  int64_t* last;
  size_t entries;
  const int* checks;
  const int* counts;
  size_t stride;
};

#if defined(__x86_64__)

#define ZEPTICK_WINDOW_AVX2 __attribute__((target("avx2")))
#define ZEPTICK_WINDOW_AVX512 __attribute__((target("avx512f,avx512vl")))

/// Up to eight last times in one register, and in memory as well, where a
/// single store keeps them for the stamps. Its functions are not forced inline:
/// only a caller built for AVX-512 takes them in, and it must (flatten).
class Avx512Window {
 public:
  // Whole-width copies through a local array, so that no access reaches past
  // the last times, even masked off.
  ZEPTICK_WINDOW_AVX512 Avx512Window(int64_t* last, size_t entries)
      : last(last), entries(entries), valid(static_cast<__mmask8>((1u << entries) - 1)) {
    int64_t lanes[8] = {};
    std::copy(last, last + entries, lanes);
    held = _mm512_loadu_si512(lanes);
  }
  ZEPTICK_WINDOW_AVX512 uint64_t mask(int entry, int64_t time, int64_t window) {
    last[entry] = time;
    const __m512i now = _mm512_set1_epi64(time);
    held = _mm512_mask_mov_epi64(held, static_cast<__mmask8>(1u << entry), now);
    return _mm512_mask_cmplt_epi64_mask(valid, _mm512_sub_epi64(now, held),
                                        _mm512_set1_epi64(window));
  }
  ZEPTICK_WINDOW_AVX512 void forget(int64_t window) {
    held = _mm512_set1_epi64(-window);
    std::fill(last, last + entries, -window);
  }
  const int64_t* times() const { return last; }

 private:
  int64_t* last;
  size_t entries;
  __mmask8 valid;
  __m512i held;
};

/// Up to eight last times in two registers of four.
class Avx2Window {
 public:
  ZEPTICK_WINDOW_AVX2 Avx2Window(int64_t* last, size_t entries)
      : last(last), entries(entries), valid((1u << entries) - 1) {
    int64_t lanes[8] = {};
    std::copy(last, last + entries, lanes);
    low = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(lanes));
    high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(lanes + 4));
  }
  ZEPTICK_WINDOW_AVX2 uint64_t mask(int entry, int64_t time, int64_t window) {
    last[entry] = time;
    const __m256i now = _mm256_set1_epi64x(time);
    const __m256i which = _mm256_set1_epi64x(entry);
    low = _mm256_blendv_epi8(low, now, _mm256_cmpeq_epi64(which, _mm256_setr_epi64x(0, 1, 2, 3)));
    high = _mm256_blendv_epi8(high, now, _mm256_cmpeq_epi64(which, _mm256_setr_epi64x(4, 5, 6, 7)));
    const __m256i limit = _mm256_set1_epi64x(window);
    return (inside(now, low, limit) | inside(now, high, limit) << 4) & valid;
  }
  ZEPTICK_WINDOW_AVX2 void forget(int64_t window) {
    low = high = _mm256_set1_epi64x(-window);
    std::fill(last, last + entries, -window);
  }
  const int64_t* times() const { return last; }

 private:
  // Bit k for lane k of `held` less than `limit` old at `now`.
  ZEPTICK_WINDOW_AVX2 static unsigned inside(__m256i now, __m256i held, __m256i limit) {
    const __m256i in = _mm256_cmpgt_epi64(limit, _mm256_sub_epi64(now, held));
    return static_cast<unsigned>(_mm256_movemask_pd(_mm256_castsi256_pd(in)));
  }

  int64_t* last;
  size_t entries;
  unsigned valid;
  __m256i low;
  __m256i high;
};

/// Runs fn(window) with the last times held in an AVX-512 window, all of it
/// built for AVX-512.
template <class Fn>
ZEPTICK_WINDOW_AVX512 __attribute__((flatten)) void withAvx512Window(int64_t* last, size_t entries,
                                                                     Fn&& fn) {
  Avx512Window window(last, entries);
  fn(window);
}

template <class Fn>
ZEPTICK_WINDOW_AVX2 __attribute__((flatten)) void withAvx2Window(int64_t* last, size_t entries,
                                                                 Fn&& fn) {
  Avx2Window window(last, entries);
  fn(window);
}

#endif

}  // namespace zeptick::detail
