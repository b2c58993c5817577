// The building blocks the measurements share, each against a plain reference: the channel index
// against std::map, the ring queue against std::deque, fast binning against division.

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <deque>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "measurements/channel_index.h"
#include "measurements/ring_queue.h"
#include "zeptick/fast_binning.h"
#include "zeptick/tag.h"

namespace zeptick {
namespace {

// Against std::map, on narrow sets (the array path) and on wide ones with the extremes of int (the
// hashed path), growing from empty.
TEST(ChannelIndexTest, AgreesWithAMapOnNarrowAndWideChannelSets) {
  std::mt19937_64 rng(5);
  for (int round = 0; round < 40; ++round) {
    const bool wide = round % 2 == 1;
    std::uniform_int_distribution<int> any(wide ? INT_MIN : -20, wide ? INT_MAX : 1100);
    detail::ChannelIndex index;
    std::map<int, int> expected;
    const int count = std::uniform_int_distribution<int>(0, 70)(rng);
    std::vector<int> keys;
    for (int i = 0; i < count; ++i) keys.push_back(any(rng));
    if (wide) keys.insert(keys.end(), {INT_MIN, INT_MAX, CHANNEL_UNUSED, -1, 0});
    for (int key : keys) {
      const int next = static_cast<int>(expected.size());
      const auto [it, added] = expected.emplace(key, next);
      ASSERT_EQ(index.insert(key, next), it->second);
    }
    for (const auto& [key, value] : expected) ASSERT_EQ(index.find(key), value) << key;
    for (int i = 0; i < 1000; ++i) {
      const int probe = any(rng);
      const auto found = expected.find(probe);
      ASSERT_EQ(index.find(probe), found == expected.end() ? -1 : found->second) << probe;
    }
  }
  EXPECT_EQ(detail::ChannelIndex().find(0), -1);
}

struct Timed {
  int64_t time, id;
  bool operator==(const Timed&) const = default;
};

// Random pushes, sorted inserts, pops, clears and releases against std::deque, with phases of
// mostly pushing and mostly popping so that the ring wraps and grows.
TEST(RingQueueTest, BehavesLikeADequeThroughWrapsAndGrowth) {
  std::mt19937_64 rng(99);
  detail::RingQueue<Timed> queue;
  std::deque<Timed> reference;
  int64_t next_value = 0;
  for (int step = 0; step < 200000; ++step) {
    const int phase = (step / 5000) % 3;  // 0 grows, 1 shrinks, 2 steady
    const int roll = static_cast<int>(rng() % 1000);
    const int push_per_mille = phase == 0 ? 700 : phase == 1 ? 300 : 500;
    if (roll < 2) {
      queue.clear();
      reference.clear();
    } else if (roll < 3) {
      queue.release();
      reference.clear();
    } else if (roll < 10 && !reference.empty()) {
      // Lands among the last few, behind those of equal time.
      const Timed late{reference.back().time - static_cast<int64_t>(rng() % 4), next_value++};
      queue.insertSorted(late);
      auto at = reference.end();
      while (at != reference.begin() && (at - 1)->time > late.time) --at;
      reference.insert(at, late);
    } else if (roll < push_per_mille || reference.empty()) {
      const Timed value{next_value, next_value++};  // braces evaluate left to right
      queue.push_back(value);
      reference.push_back(value);
    } else {
      ASSERT_EQ(queue.front(), reference.front());
      queue.pop_front();
      reference.pop_front();
    }
    ASSERT_EQ(queue.size(), reference.size());
    ASSERT_EQ(queue.empty(), reference.empty());
    if (step % 97 == 0) {
      std::vector<Timed> seen;
      queue.forEach([&seen](const Timed& value) { seen.push_back(value); });
      ASSERT_EQ(seen, std::vector<Timed>(reference.begin(), reference.end()));
      if (!reference.empty()) {
        ASSERT_EQ(queue[reference.size() - 1], reference.back());
      }
    }
  }
}

constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();

struct Selection {
  uint64_t divisor, max_duration;
  FastBinning::Mode mode;
  uint64_t parameter;  // factor for modes 3 and 4, shift for mode 2
};

// The limit of the 32-bit and 64-bit reciprocals for a divisor, so that the property test can probe
// max_duration right at each side of them.
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

// Every mode, every divisor size, every delta in range: the bin is exactly the rounded-down
// quotient that a plain division gives.
TEST(FastBinningTest, EveryDeltaInRangeGivesTheExactQuotientInTheCheapestExactMode) {
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
      uint64_t bin = kMax;
      withBinningMode(binner, [&](auto m) { bin = binner.divide<decltype(m)::value>(delta); });
      ASSERT_EQ(bin, delta / divisor) << "divisor " << divisor << " max_duration " << max_duration
                                      << " delta " << delta << " mode " << mode;
    }
  }
  // The samples reach every mode that the selection can return.
  for (int mode : {0, 1, 2, 3, 4, 6}) EXPECT_GT(seen_modes[mode], 0) << "mode " << mode;

  const Selection table[] = {
      {1000, 999, FastBinning::ModeZero, 0},
      {1, 1000, FastBinning::ModeIdentity, 0},
      {1024, 1048576, FastBinning::ModeShift, 10},
      {3, 3000, FastBinning::ModeMul32, 1431655766},
      {1000, 1000000000, FastBinning::ModeMulHigh64, 18446744073709552},
      {1000000007, 1000000007000000000, FastBinning::ModeDiv64, 0},
      // Limits worked out by hand: for 1000 the 32-bit reciprocal is exact below
      // floor(2^32 / 704) = 6100805 and the 64-bit one below floor(M / 384); for 3 the 32-bit one
      // below 2^31. A max_duration equal to a limit falls through.
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

}  // namespace
}  // namespace zeptick
