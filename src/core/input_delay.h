#pragma once

#include <algorithm>
#include <cstdint>

namespace zeptick::detail {

/// Largest input delay magnitude a tagger keeps, in ps (about 28 hours). Larger
/// requests are clamped to it, so that delays, compensations and the shift that
/// keeps negative delays out of the past all stay far from int64 overflow for
/// any stream shorter than about 100 days.
constexpr int64_t kInputDelayLimit = 100'000'000'000'000'000;

inline int64_t clampInputDelay(int64_t delay) {
  return std::clamp(delay, -kInputDelayLimit, kInputDelayLimit);
}

}  // namespace zeptick::detail
