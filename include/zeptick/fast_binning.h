#pragma once

#include <cstdint>
#include <type_traits>

#include "zeptick/export.h"

namespace zeptick {

/// Exact `delta / divisor` (rounded down) for every delta in 0 .. max_duration,
/// by the cheapest of seven methods picked once at construction. Hot loops
/// switch on getMode() once per block (see withBinningMode) and call
/// divide<mode>() per event, so no event pays for a mode test, and modes 1 to 4
/// hold no division. A plain value: copy it freely.
class ZEPTICK_API FastBinning {
 public:
  enum Mode : int32_t {
    ModeZero = 0,       ///< max_duration < divisor: every delta is bin 0
    ModeIdentity = 1,   ///< divisor 1
    ModeShift = 2,      ///< divisor a power of two
    ModeMul32 = 3,      ///< 32-bit rounded-up reciprocal, exact over the range
    ModeMulHigh64 = 4,  ///< 64-bit rounded-up reciprocal, exact over the range
    ModeDiv32 = 5,      ///< 32-bit division; kept for completeness, never selected
    ModeDiv64 = 6,      ///< 64-bit division, when no reciprocal is exact
  };

  /// Leaves every field unset, so that a measurement can assign one later in its
  /// constructor body. Nothing may read a default-constructed instance.
  FastBinning() = default;
  /// Picks the mode. REQUIRES: divisor >= 1 (callers validate their bin width).
  FastBinning(uint64_t divisor, uint64_t max_duration);

  Mode getMode() const { return mode; }
  uint64_t getDivisor() const { return divisor; }
  uint64_t getMaxDuration() const { return max_duration; }
  /// The multiplier of ModeMul32 and ModeMulHigh64; unset in other modes.
  uint64_t getFactor() const { return factor; }
  /// The shift count of ModeShift; unset in other modes.
  uint32_t getShift() const { return shift; }

  /// The bin of `delta`. REQUIRES: M == getMode() and delta <= max_duration;
  /// neither is checked, and beyond max_duration the result may be wrong.
  template <Mode M>
  uint64_t divide(uint64_t delta) const {
    if constexpr (M == ModeZero) {
      return 0;
    } else if constexpr (M == ModeIdentity) {
      return delta;
    } else if constexpr (M == ModeShift) {
      return delta >> shift;
    } else if constexpr (M == ModeMul32) {
      return (delta * factor) >> 32;
    } else if constexpr (M == ModeMulHigh64) {
      return MulHigh(factor, delta);
    } else if constexpr (M == ModeDiv32) {
      return static_cast<uint32_t>(delta) / static_cast<uint32_t>(divisor);
    } else {
      static_assert(M == ModeDiv64, "unknown binning mode");
      return delta / divisor;
    }
  }

 private:
  // One widening multiply; __extension__ keeps -Wpedantic quiet about __int128.
  uint64_t MulHigh(uint64_t a, uint64_t b) const {
    __extension__ using Wide = unsigned __int128;
    return static_cast<uint64_t>((static_cast<Wide>(a) * b) >> 64);
  }

  uint64_t divisor;
  uint64_t max_duration;
  uint64_t factor;
  uint32_t shift;
  Mode mode;
};

/// Calls `fn(std::integral_constant<FastBinning::Mode, m>{})` for the binner's
/// mode m, so that the caller's loop is compiled once per mode and the mode is
/// tested once per block. A mode outside 0 to 6 calls nothing.
template <typename Fn>
inline void withBinningMode(const FastBinning& binner, Fn&& fn) {
  using M = FastBinning::Mode;
  switch (binner.getMode()) {
    case FastBinning::ModeZero:
      fn(std::integral_constant<M, FastBinning::ModeZero>{});
      break;
    case FastBinning::ModeIdentity:
      fn(std::integral_constant<M, FastBinning::ModeIdentity>{});
      break;
    case FastBinning::ModeShift:
      fn(std::integral_constant<M, FastBinning::ModeShift>{});
      break;
    case FastBinning::ModeMul32:
      fn(std::integral_constant<M, FastBinning::ModeMul32>{});
      break;
    case FastBinning::ModeMulHigh64:
      fn(std::integral_constant<M, FastBinning::ModeMulHigh64>{});
      break;
    case FastBinning::ModeDiv32:
      fn(std::integral_constant<M, FastBinning::ModeDiv32>{});
      break;
    case FastBinning::ModeDiv64:
      fn(std::integral_constant<M, FastBinning::ModeDiv64>{});
      break;
  }
}

}  // namespace zeptick
