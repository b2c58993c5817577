#pragma once

#include <array>
#include <cstdint>

namespace zeptick::emulator {

/// Layer tables of the ziggurat method for the exponential (256 layers) and
/// the normal (128 layers) distribution. Built once, read-only afterwards.
struct ZigguratTables {
  std::array<uint64_t, 256> exp_k;
  std::array<double, 256> exp_w;
  std::array<double, 256> exp_f;
  std::array<uint64_t, 128> normal_k;
  std::array<double, 128> normal_w;
  std::array<double, 128> normal_f;
};

/// The process-wide tables; thread-safe.
const ZigguratTables& zigguratTables();

/// Mixes a seed with a stream number, so that every source of a board draws
/// from its own sequence and one source's activity never shifts another's.
uint64_t mixSeed(uint64_t seed, uint64_t stream);

/// A Weyl sequence mixed by one wide multiply (the "wyrand" construction,
/// which passes the usual statistical batteries), with ziggurat exponential
/// and normal variates that take the slow path about 1% of the time.
/// Not thread-safe; each source owns one.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed), zig_(&zigguratTables()) {}

  uint64_t next() {
    __extension__ using Wide = unsigned __int128;
    state_ += 0xA0761D6478BD642FULL;
    const Wide product = static_cast<Wide>(state_) * (state_ ^ 0xE7037ED1A0B428DBULL);
    return static_cast<uint64_t>(product >> 64) ^ static_cast<uint64_t>(product);
  }

  /// Uniform in [0, 1).
  double uniform() { return toDouble(next() >> 11) * 0x1.0p-53; }
  /// Uniform in (0, 1): safe to take the logarithm of.
  double uniformOpen() { return (toDouble(next() >> 11) + 0.5) * 0x1.0p-53; }

  /// Exponential with mean 1. The layer index and the abscissa come from
  /// disjoint bits of one draw.
  double exponential() {
    const uint64_t u = next();
    const unsigned layer = u & 0xFF;
    const uint64_t j = u >> 11;
    if (j < zig_->exp_k[layer]) return toDouble(j) * zig_->exp_w[layer];
    return slow(exponentialSlow(state_, u));
  }

  /// Exact for values below 2^63, and one instruction, where the unsigned
  /// conversion takes a branch and several.
  static double toDouble(uint64_t v) { return static_cast<double>(static_cast<int64_t>(v)); }

  /// Standard normal.
  double normal() {
    const uint64_t u = next();
    const unsigned layer = u & 0x7F;
    const int64_t h = static_cast<int64_t>(u >> 11) - (int64_t{1} << 52);
    const uint64_t magnitude = static_cast<uint64_t>(h < 0 ? -h : h);
    if (magnitude < zig_->normal_k[layer]) return static_cast<double>(h) * zig_->normal_w[layer];
    return slow(normalSlow(state_, u));
  }

 private:
  // The rare paths take and give back the state by value, so that a
  // generator held in a loop's locals stays in registers.
  struct Slow {
    double value;
    uint64_t state;
  };
  static Slow exponentialSlow(uint64_t state, uint64_t u);
  static Slow normalSlow(uint64_t state, uint64_t u);
  double slow(Slow drawn) {
    state_ = drawn.state;
    return drawn.value;
  }

  uint64_t state_;
  const ZigguratTables* zig_;
};

}  // namespace zeptick::emulator
