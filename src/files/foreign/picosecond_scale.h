#pragma once

#include <cmath>
#include <cstdint>
#include <optional>

namespace zeptick::foreign {

/// Turns counts of a time unit into picoseconds. Other makers store their units in seconds as
/// doubles, and many are not whole picoseconds (96.97 ps bins, a global resolution of 1/SyncRate).
/// The unit is held to 2^-64 ps, so a product is the stored unit times the count rounded once to
/// the nearest picosecond: the error stays below half a picosecond however large the count, and
/// never accumulates. A unit that is a whole number of picoseconds as written is taken as that
/// number: one within 1e-9 of it (1 ps as a double), or one that went through single precision
/// (64 ps stored as 63.99999974 ps: exactly a float, and the float of 64 ps). A unit such as
/// 1/SyncRate keeps its exact value, however close to whole: its error would add up per sync.
class PicosecondScale {
 public:
  __extension__ using Fixed = unsigned __int128;  ///< picoseconds times 2^64

  /// The scale of a unit of `seconds`; nothing unless 0 < seconds < 1 (a broken header).
  static std::optional<PicosecondScale> fromSeconds(double seconds) {
    if (!(seconds > 0.0 && seconds < 1.0)) return std::nullopt;
    const long double ps = static_cast<long double>(seconds) * 1e12L;
    PicosecondScale scale;
    const long double nearest = std::round(ps);
    const auto single = static_cast<float>(seconds);
    const bool through_float = static_cast<double>(single) == seconds &&
                               single == static_cast<float>(static_cast<double>(nearest) * 1e-12);
    if (nearest >= 1.0L && (std::fabs(ps - nearest) <= 1e-9L * ps || through_float)) {
      scale.whole = static_cast<uint64_t>(nearest);
      return scale;
    }
    const long double whole = std::floor(ps);
    scale.whole = static_cast<uint64_t>(whole);
    scale.fraction = static_cast<uint64_t>(std::ldexp(ps - whole, 64));
    return scale;
  }
  /// A unit of exactly `ps` picoseconds.
  static PicosecondScale wholePicoseconds(uint64_t ps) {
    PicosecondScale scale;
    scale.whole = ps;
    return scale;
  }

  /// count x unit, unrounded. Arithmetic wraps on absurd counts instead of overflowing.
  Fixed exact(uint64_t count) const {
    return (static_cast<Fixed>(count * whole) << 64) + static_cast<Fixed>(count) * fraction;
  }
  /// count x unit rounded to the nearest picosecond.
  int64_t operator()(uint64_t count) const {
    if (fraction == 0) return static_cast<int64_t>(count * whole);
    return round(exact(count));
  }
  /// A sum of exact() values rounded to the nearest picosecond.
  static int64_t round(Fixed value) {
    return static_cast<int64_t>(static_cast<uint64_t>((value + (Fixed{1} << 63)) >> 64));
  }
  /// The unit in picoseconds, for settings and messages.
  double picoseconds() const {
    return static_cast<double>(whole) + std::ldexp(static_cast<double>(fraction), -64);
  }

 private:
  uint64_t whole = 0;
  uint64_t fraction = 0;
};

}  // namespace zeptick::foreign
