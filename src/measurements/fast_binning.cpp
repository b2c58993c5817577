#include "zeptick/fast_binning.h"

#include <algorithm>
#include <atomic>
#include <limits>

#include "measurements/histogram_common.h"

namespace zeptick {

namespace {
constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();
constexpr uint64_t kTwo32 = uint64_t{1} << 32;
}  // namespace

FastBinning::FastBinning(uint64_t divisor, uint64_t max_duration)
    : divisor(divisor), max_duration(max_duration) {
  // The tests are strict on purpose: a max_duration equal to a limit is one
  // delta too many for that method and falls through to the next.
  if (max_duration < divisor) {
    mode = ModeZero;
    return;
  }
  if (divisor == 1) {
    mode = ModeIdentity;
    return;
  }
  for (uint32_t k = 0; k < 64; ++k) {
    if (divisor == uint64_t{1} << k) {
      shift = k;
      mode = ModeShift;
      return;
    }
  }

  // Rounded-up 32-bit reciprocal q: with q x divisor = 2^32 + e, the product
  // delta x q stays in 64 bits below M / q, and the error delta x e / divisor
  // stays below one bin while delta x e < 2^32.
  uint64_t q = kTwo32 / divisor;
  const uint64_t r = kTwo32 % divisor;
  uint64_t limit;
  if (r != 0) {
    ++q;
    limit = kMax / q;
    if (divisor != r) limit = std::min(limit, kTwo32 / (divisor - r));
  } else {
    limit = kMax / q;  // unreachable: only powers of two divide 2^32
  }
  if (max_duration < limit) {
    factor = q;
    mode = ModeMul32;
    return;
  }

  // Rounded-up 64-bit reciprocal: c is its excess over 2^64, and the high
  // half of delta x factor is exact while delta x c < 2^64.
  const uint64_t c = divisor - (kMax % divisor) - 1;
  if (c == 0 || max_duration < kMax / c) {
    factor = kMax / divisor + 1;
    mode = ModeMulHigh64;
    return;
  }

  mode = max_duration > 0xFFFFFFFFu ? ModeDiv64 : ModeDiv32;
}

namespace detail {

namespace {
std::atomic<bool> force_plain{false};
}  // namespace

bool wideHistogramKernels() {
#if defined(__x86_64__)
  static const bool supported =
      __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") &&
      __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512bw") &&
      __builtin_cpu_supports("avx512vpopcntdq") && __builtin_cpu_supports("popcnt");
  return supported && !force_plain.load(std::memory_order_relaxed);
#else
  return false;
#endif
}

void forcePlainHistogramKernels(bool plain) { force_plain.store(plain, std::memory_order_relaxed); }

}  // namespace detail

}  // namespace zeptick
