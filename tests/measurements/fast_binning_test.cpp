#include "zeptick/fast_binning.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <vector>

namespace zeptick {
namespace {

constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();

uint64_t binOf(const FastBinning& binner, uint64_t delta) {
  uint64_t bin = kMax;
  withBinningMode(binner, [&](auto mode) { bin = binner.divide<decltype(mode)::value>(delta); });
  return bin;
}

struct Selection {
  uint64_t divisor;
  uint64_t max_duration;
  FastBinning::Mode mode;
  uint64_t parameter;  // factor for modes 3 and 4, shift for mode 2
};

TEST(FastBinningTest, SelectsTheCheapestExactMode) {
  const Selection table[] = {
      {1000, 999, FastBinning::ModeZero, 0},
      {1, 1000, FastBinning::ModeIdentity, 0},
      {1024, 1048576, FastBinning::ModeShift, 10},
      {3, 3000, FastBinning::ModeMul32, 1431655766},
      {1000, 1000000000, FastBinning::ModeMulHigh64, 18446744073709552},
      {1000000007, 1000000007000000000, FastBinning::ModeDiv64, 0},
      // Limits worked out by hand: for 1000 the 32-bit reciprocal is exact
      // below floor(2^32 / 704) = 6100805 and the 64-bit one below
      // floor(M / 384); for 3 the 32-bit one below 2^31. A max_duration equal
      // to a limit falls through.
      {1000, 6100804, FastBinning::ModeMul32, 4294968},
      {1000, 6100805, FastBinning::ModeMulHigh64, 18446744073709552},
      {1000, 48038396025285289, FastBinning::ModeMulHigh64, 18446744073709552},
      {1000, 48038396025285290, FastBinning::ModeDiv64, 0},
      {3, 2147483647, FastBinning::ModeMul32, 1431655766},
      {3, 2147483648, FastBinning::ModeMulHigh64, 6148914691236517206},
      // The empty range wins over everything, even a divisor of 1.
      {1, 0, FastBinning::ModeZero, 0},
      {uint64_t{1} << 63, kMax, FastBinning::ModeShift, 63},
      {2, 2, FastBinning::ModeShift, 1},
  };
  for (const Selection& s : table) {
    SCOPED_TRACE(testing::Message() << s.divisor << " / " << s.max_duration);
    const FastBinning binner(s.divisor, s.max_duration);
    ASSERT_EQ(binner.getMode(), s.mode);
    if (s.mode == FastBinning::ModeShift) {
      EXPECT_EQ(binner.getShift(), s.parameter);
    }
    if (s.mode == FastBinning::ModeMul32 || s.mode == FastBinning::ModeMulHigh64) {
      EXPECT_EQ(binner.getFactor(), s.parameter);
    }
  }
}

// The limit of the 32-bit and 64-bit reciprocals for a divisor, so that the
// property test can probe max_duration right at each side of them.
std::vector<uint64_t> limitsOf(uint64_t d) {
  std::vector<uint64_t> limits;
  const uint64_t two32 = uint64_t{1} << 32;
  if (d <= two32 && two32 % d != 0) {
    const uint64_t q = two32 / d + 1;
    const uint64_t e = q * d - two32;
    limits.push_back(std::min(kMax / q, two32 / e));
  }
  const uint64_t c = d - (kMax % d) - 1;
  if (c != 0) limits.push_back(kMax / c);
  return limits;
}

// Every mode, every divisor size, every delta in range: the bin is exactly the
// rounded-down quotient that a plain division gives.
TEST(FastBinningTest, EveryDeltaInRangeGivesTheExactQuotient) {
  std::mt19937_64 rng(20261122);
  auto logUniform = [&rng]() {
    const int bits = static_cast<int>(rng() % 64) + 1;
    const uint64_t top = bits == 64 ? kMax : (uint64_t{1} << bits) - 1;
    return (rng() & top) | (uint64_t{1} << (bits - 1));
  };

  std::vector<std::pair<uint64_t, uint64_t>> pairs;
  constexpr uint64_t kTwo32 = uint64_t{1} << 32;
  // Powers of two, including 2^32 and 2^63, come from the loop below.
  std::vector<uint64_t> divisors = {3,          5,          7,          10,   1000,    1000000007,
                                    3000000019, kTwo32 - 1, kTwo32 + 1, kMax, kMax - 1};
  for (int i = 0; i < 400; ++i) divisors.push_back(logUniform());
  for (int k = 0; k < 64; ++k) divisors.push_back(uint64_t{1} << k);

  for (uint64_t d : divisors) {
    const uint64_t around[] = {0,      1,          d - 1,        d,           d + 1, kMax, kMax - 1,
                               kTwo32, kTwo32 - 1, logUniform(), logUniform()};
    for (uint64_t m : around) pairs.emplace_back(d, m);
    for (uint64_t limit : limitsOf(d)) {
      for (uint64_t m : {limit - 1, limit, limit + 1}) pairs.emplace_back(d, m);
    }
  }

  int seen_modes[7] = {};
  for (const auto& [divisor, max_duration] : pairs) {
    const FastBinning binner(divisor, max_duration);
    const auto mode = binner.getMode();
    ASSERT_GE(mode, 0);
    ASSERT_LE(mode, 6);
    ++seen_modes[mode];
    // No reciprocal fails on a 32-bit range, so the 32-bit division never wins.
    EXPECT_NE(mode, FastBinning::ModeDiv32);

    std::vector<uint64_t> deltas = {0, max_duration, max_duration / 2};
    if (max_duration > 0) deltas.push_back(max_duration - 1);
    // Reciprocal errors show first just below a multiple near the top.
    const uint64_t top = max_duration / divisor;
    for (uint64_t k : {top, top - 1, uint64_t{1}}) {
      if (k == 0 || k > top) continue;
      deltas.push_back(k * divisor);
      deltas.push_back(k * divisor - 1);
    }
    for (int i = 0; i < 40; ++i) {
      deltas.push_back(max_duration == kMax ? rng() : rng() % (max_duration + 1));
    }
    for (uint64_t delta : deltas) {
      ASSERT_EQ(binOf(binner, delta), delta / divisor)
          << "divisor " << divisor << " max_duration " << max_duration << " delta " << delta
          << " mode " << mode;
    }
  }
  // The samples reach every mode that the selection can return.
  for (int mode : {0, 1, 2, 3, 4, 6}) EXPECT_GT(seen_modes[mode], 0) << "mode " << mode;
}

TEST(FastBinningTest, Div32ModeDividesTheLow32Bits) {
  // Never selected, but measurements keep a loop for it; a forced copy checks
  // the arithmetic that loop would run.
  const FastBinning binner(7, 1000);
  EXPECT_EQ(binner.divide<FastBinning::ModeDiv32>(999), 142u);
  EXPECT_EQ(binner.divide<FastBinning::ModeDiv32>((uint64_t{1} << 32) + 14), 2u);
}

}  // namespace
}  // namespace zeptick
