#pragma once

#include <cstdint>
#include <limits>

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

}  // namespace zeptick::detail
