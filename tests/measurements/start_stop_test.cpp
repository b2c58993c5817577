#include "zeptick/start_stop.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/measurement_streams.h"
#include "zeptick/fast_binning.h"

namespace zeptick {
namespace {

using namespace testing;

constexpr int kUnused = CHANNEL_UNUSED;
using Rows = std::vector<std::pair<int64_t, int64_t>>;

// For each click, look back for what came last among starts, clicks and
// non-time tags: only a start (other than one at time 0) makes a pair. A tag on
// both channels is a start for the clicks after it, not for itself.
Rows reference(int click, int start, int64_t binwidth, const std::vector<Tag>& tags) {
  if (start == kUnused) start = click;
  std::map<int64_t, int64_t> counts;
  for (size_t j = 0; j < tags.size(); ++j) {
    if (tags[j].type != Tag::Type::TimeTag || tags[j].channel != click) continue;
    for (size_t i = j; i-- > 0;) {
      const Tag& earlier = tags[i];
      if (earlier.type != Tag::Type::TimeTag) break;
      if (earlier.channel == start) {
        if (earlier.time != 0) ++counts[(tags[j].time - earlier.time) / binwidth];
        break;
      }
      if (earlier.channel == click) break;
    }
  }
  Rows rows;
  for (const auto& [bin, count] : counts) rows.emplace_back(bin * binwidth, count);
  return rows;
}

Rows rowsOf(StartStop& measurement, std::vector<size_t>* sizes = nullptr) {
  const std::vector<int64_t> flat = testing::collect(measurement, &StartStop::getData, sizes);
  Rows rows;
  for (size_t i = 0; i + 1 < flat.size(); i += 2) rows.emplace_back(flat[i], flat[i + 1]);
  return rows;
}

class StartStopTest : public ::testing::Test {
 protected:
  TestZeptick tagger{"TEST-1", 4};
};

TEST_F(StartStopTest, MatchesReferenceOnRandomStreamsHoweverCut) {
  struct Config {
    int click, start;
    int64_t binwidth;
  };
  const Config configs[] = {
      {1, 2, 1},           // identity
      {2, 1, 64},          // shift
      {1, kUnused, 1000},  // spacing of one channel; 64-bit division over the whole range
      {1, 2, 274177},      // a divisor of 2^64 + 1: the 64-bit reciprocal is exact everywhere
      {1, 2, -5},          // a negative width: every pair in one bin
  };
  int modes_seen[7] = {};
  for (const Config& c : configs) {
    ++modes_seen[FastBinning(static_cast<uint64_t>(c.binwidth), std::numeric_limits<int64_t>::max())
                     .getMode()];
    for (uint64_t seed = 1; seed <= 2; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      std::mt19937_64 rng(seed);
      testing::StreamShape shape;
      shape.channels = {1, 2, 3};
      shape.tags = 3000;
      shape.mean_gap = 5 * std::max<int64_t>(c.binwidth, 1);
      shape.error_percent = shape.overflow_percent = 1;
      shape.grid = seed % 2 == 1 ? std::max<int64_t>(c.binwidth, 1) : 1;
      const testing::TagStream stream = testing::makeRandomStream(rng, shape);
      StartStop measurement(&tagger, c.click, c.start, c.binwidth);
      const std::vector<Tag> delivered = testing::concatenate(testing::deliver(
          tagger, testing::cutStream(stream, testing::randomCuts(rng, stream, 40))));
      const Rows expected =
          c.binwidth > 0 ? reference(c.click, c.start, c.binwidth, delivered) : Rows{};
      const Rows got = rowsOf(measurement);
      if (c.binwidth > 0) {
        ASSERT_GT(expected.size(), 3u);
        EXPECT_EQ(got, expected);
      } else {
        // Mode 0: everything at bin 0, as many as the reference pairs up with width 1.
        int64_t pairs = 0;
        for (const auto& row : reference(c.click, c.start, 1, delivered)) pairs += row.second;
        EXPECT_EQ(got, (Rows{{0, pairs}}));
      }
    }
  }
  for (int mode : {0, 1, 2, 4, 6}) EXPECT_GT(modes_seen[mode], 0) << "mode " << mode;
}

TEST_F(StartStopTest, PairsEachStartWithItsFirstClickOnly) {
  testing::Direct<StartStop> m(&tagger, 1, 2, 10);
  std::vector<size_t> asked;
  EXPECT_TRUE(rowsOf(m, &asked).empty());
  EXPECT_EQ(asked, (std::vector<size_t>{0, 2}));

  m.feed({timeTag(2, 0),                                       // a start at time 0 never opens
          timeTag(1, 5), timeTag(2, 100), timeTag(1, 110),     // exactly one bin width: row 10
          timeTag(1, 115),                                     // second click: nothing open
          timeTag(2, 200), timeTag(2, 230), timeTag(1, 235)},  // latest start: 5
         0, 240);
  m.feed({timeTag(2, 300), timeTag(1, 300)}, 310);  // same time, later in the block: 0
  m.feed({timeTag(2, 400), marker(Tag::Type::OverflowBegin, 405),
          marker(Tag::Type::OverflowEnd, 406), timeTag(1, 407)},  // lost in the overflow
         410);
  m.feed({timeTag(2, 500)}, 510);  // stays open across blocks
  m.feed({timeTag(1, 1234)}, 1300);
  EXPECT_EQ(rowsOf(m), (Rows{{0, 2}, {10, 1}, {730, 1}}));

  // Neither a restart nor a clear measures from a start seen before it.
  m.feed({timeTag(2, 2000)}, 2010);
  m.restart();
  m.feed({timeTag(1, 2020), timeTag(2, 2030), timeTag(1, 2060)}, 2070);
  EXPECT_EQ(rowsOf(m), (Rows{{0, 2}, {10, 1}, {30, 1}, {730, 1}}));
  m.feed({timeTag(2, 3000)}, 3010);
  m.clear();
  m.feed({timeTag(1, 3020)}, 3030);
  EXPECT_TRUE(rowsOf(m).empty());

  // A start channel left unused measures the spacing of the clicks alone.
  StartStop spacing(&tagger, 3, kUnused, 1);
  EXPECT_EQ(tagger.registrations(3), 1);
}

}  // namespace
}  // namespace zeptick
