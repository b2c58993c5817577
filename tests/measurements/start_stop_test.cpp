#include "zeptick/start_stop.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "support/histogram_streams.h"
#include "support/test_tagger.h"
#include "zeptick/fast_binning.h"

namespace zeptick {
namespace {

using testing::FlatStream;
using testing::histMarker;
using testing::histTimeTag;
using testing::TestZeptick;

constexpr int kUnused = CHANNEL_UNUSED;
using Rows = std::vector<std::pair<int64_t, int64_t>>;

// For each click, look back for what came last among starts, clicks and
// non-time tags: only a start (other than one at time 0) makes a pair. A tag on
// both channels is a start for the clicks after it, not for itself.
Rows reference(int click, int start, int64_t binwidth, const FlatStream& stream) {
  if (start == kUnused) start = click;
  std::map<int64_t, int64_t> counts;
  const std::vector<Tag>& tags = stream.tags;
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

Rows rowsOf(StartStop& measurement, size_t* asked_rows = nullptr) {
  std::vector<int64_t> flat;
  measurement.getData([&](size_t rows, size_t columns) {
    EXPECT_EQ(columns, 2u);
    if (asked_rows != nullptr) *asked_rows = rows;
    flat.assign(rows * columns, -1);
    return flat.data();
  });
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
    for (uint64_t seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      std::mt19937_64 rng(seed);
      FlatStream stream;
      const int64_t width = c.binwidth > 0 ? c.binwidth : 1;
      stream.tags =
          testing::randomHistogramTags(rng, {1, 2, 3}, 5 * width, 3000, seed % 2 == 1 ? width : 1);
      stream.end_time = stream.tags.back().time + 1;
      for (int cut = 0; cut < 2; ++cut) {
        StartStop measurement(&tagger, c.click, c.start, c.binwidth);
        const FlatStream delivered = testing::deliverInRandomBlocks(tagger, rng, stream);
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
  }
  for (int mode : {0, 1, 2, 4, 6}) EXPECT_GT(modes_seen[mode], 0) << "mode " << mode;
}

TEST_F(StartStopTest, PairsEachStartWithItsFirstClickOnly) {
  testing::Fed<StartStop> m(&tagger, 1, 2, 10);
  size_t asked = 99;
  EXPECT_TRUE(rowsOf(m, &asked).empty());
  EXPECT_EQ(asked, 0u);

  m.feed({histTimeTag(2, 0),  // a start at time 0 never opens
          histTimeTag(1, 5), histTimeTag(2, 100),
          histTimeTag(1, 110),  // exactly one bin width: row 10
          histTimeTag(1, 115),  // second click: nothing open
          histTimeTag(2, 200), histTimeTag(2, 230), histTimeTag(1, 235)},  // latest start: 5
         240);
  m.feed({histTimeTag(2, 300), histTimeTag(1, 300)}, 310);  // same time, later in the block: 0
  m.feed({histTimeTag(2, 400), histMarker(Tag::Type::OverflowBegin, 405),
          histMarker(Tag::Type::OverflowEnd, 406), histTimeTag(1, 407)},  // lost in the overflow
         410);
  m.feed({histTimeTag(2, 500)}, 510);  // stays open across blocks
  m.feed({histTimeTag(1, 1234)}, 1300);
  EXPECT_EQ(rowsOf(m), (Rows{{0, 2}, {10, 1}, {730, 1}}));

  // A clear while a start is open leaves nothing open.
  m.feed({histTimeTag(2, 2000)}, 2010);
  m.clear();
  m.feed({histTimeTag(1, 2020)}, 2030);
  EXPECT_TRUE(rowsOf(m).empty());
}

TEST_F(StartStopTest, RestartNeverMeasuresAcrossTheStop) {
  tagger.setIdleSpan(0);
  StartStop m(&tagger, 1, 2, 10);
  tagger.pushBlocks({{{histTimeTag(2, 100)}, 0, 200}});
  tagger.setIdleSpan(1000);
  tagger.sync();
  m.stop();
  m.start();
  tagger.pushBlocks({{{histTimeTag(1, 10), histTimeTag(2, 20), histTimeTag(1, 50)}, 0, 100}});
  tagger.sync();
  EXPECT_EQ(rowsOf(m), (Rows{{30, 1}}));
}

TEST_F(StartStopTest, RejectsAZeroWidthAndRegistersChannels) {
  EXPECT_THROW(StartStop(&tagger, 1, 2, 0), std::invalid_argument);
  EXPECT_EQ(tagger.registrations(1), 0);
  {
    StartStop spacing(&tagger, 1, kUnused, 1);
    StartStop pair(&tagger, 1, -1, 1);
    EXPECT_EQ(tagger.registrations(1), 2);
    EXPECT_EQ(tagger.registrations(-1), 1);
  }
  EXPECT_EQ(tagger.registrations(1), 0);
  EXPECT_EQ(tagger.registrations(-1), 0);
}

}  // namespace
}  // namespace zeptick
