#include "zeptick/histogram_2d.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;
using DirectHistogram2D = testing::Direct<Histogram2D>;

std::vector<int32_t> grid(Histogram2D& h, std::vector<size_t>* sizes = nullptr) {
  return testing::collect(h, &Histogram2D::getData, sizes);
}

using Histogram2DTest = QuietTaggerTest;

// Start 1, stops 2 and 3; bins of 10 ps (3 rows) and 25 ps (2 columns).
TEST_F(Histogram2DTest, OneOpenEventAtATime) {
  DirectHistogram2D h(&tagger, 1, 2, 3, 10, 25, 3, 2);
  h.feed({timeTag(2, 50),                                     // stop before any start: forgotten
          timeTag(1, 100), timeTag(2, 105), timeTag(3, 130),  // cell (0, 1)
          timeTag(3, 140),                                    // stop alone after completion
          timeTag(1, 200), timeTag(2, 219), timeTag(2, 221),  // the later stop 1 counts:
          timeTag(3, 224),                                    // cell (2, 0)
          timeTag(1, 300), timeTag(3, 310), timeTag(2, 330),  // row 3 is out: closes the event
          timeTag(3, 335),                                    // so this completes nothing
          timeTag(1, 400), timeTag(2, 401), timeTag(1, 410),  // a new start replaces the open one
          timeTag(3, 412), timeTag(2, 415)},                  // cell (0, 0): 5 and 2
         0, 420);
  std::vector<size_t> sizes;
  EXPECT_EQ(grid(h, &sizes), (std::vector<int32_t>{1, 1, 0, 0, 1, 0}));
  EXPECT_EQ(sizes, (std::vector<size_t>{3, 2}));
  std::vector<size_t> index_sizes;
  EXPECT_EQ(testing::collect(h, &Histogram2D::getIndex, &index_sizes),
            (std::vector<int64_t>{0, 0, 0, 25, 10, 0, 10, 25, 20, 0, 20, 25}));
  EXPECT_EQ(index_sizes, (std::vector<size_t>{3, 2, 2}));

  // An overflow or error abandons the open event; clear() does too.
  h.feed({timeTag(1, 500), timeTag(2, 501), marker(Tag::Type::OverflowBegin, 502),
          marker(Tag::Type::OverflowEnd, 503), timeTag(3, 504), timeTag(1, 600), timeTag(2, 601),
          marker(Tag::Type::Error, 602), timeTag(3, 603), timeTag(1, 700), timeTag(3, 710)},
         720);
  EXPECT_EQ(grid(h), (std::vector<int32_t>{1, 1, 0, 0, 1, 0}));
  h.clear();  // the event opened at 700 would complete at 721
  h.feed({timeTag(2, 721)}, 730);
  EXPECT_EQ(grid(h), std::vector<int32_t>(6, 0));
}

TEST_F(Histogram2DTest, TagOnEveryChannelIsItsOwnEventAndBadWidthsCountNothing) {
  DirectHistogram2D h(&tagger, 1, 1, 1, 10, 10, 2, 2);
  h.feed({timeTag(1, 100), timeTag(1, 101), timeTag(2, 102)}, 0, 110);
  EXPECT_EQ(grid(h), (std::vector<int32_t>{2, 0, 0, 0}));

  DirectHistogram2D no_width(&tagger, 1, 2, 3, 0, 10, 2, 2);
  no_width.feed({timeTag(1, 100), timeTag(2, 101), timeTag(3, 102)}, 0, 110);
  EXPECT_EQ(grid(no_width), (std::vector<int32_t>{0, 0, 0, 0}));
  DirectHistogram2D no_rows(&tagger, 1, 2, 3, 10, 10, -2, 2);
  no_rows.feed({timeTag(1, 100), timeTag(2, 101), timeTag(3, 102)}, 0, 110);
  EXPECT_TRUE(grid(no_rows).empty());
}

// Every start, scanned forward on its own: its event completes at the first
// tag by which both stops have been seen, and is lost if another start or a
// tag other than a time tag comes first.
std::vector<int32_t> bruteForce(const std::vector<Block>& blocks, int start, int stop_1, int stop_2,
                                int64_t width_1, int64_t width_2, int rows, int columns) {
  std::vector<Tag> line;
  for (const Block& block : blocks) line.insert(line.end(), block.tags.begin(), block.tags.end());
  std::vector<int32_t> cells(static_cast<size_t>(rows * columns), 0);
  for (size_t s = 0; s < line.size(); ++s) {
    if (line[s].type != Tag::Type::TimeTag || line[s].channel != start) continue;
    int64_t seen_1 = -1;
    int64_t seen_2 = -1;
    for (size_t k = s; k < line.size(); ++k) {
      const Tag& tag = line[k];
      if (k > s && (tag.type != Tag::Type::TimeTag || tag.channel == start)) break;
      if (tag.channel == stop_1) seen_1 = tag.time;
      if (tag.channel == stop_2) seen_2 = tag.time;
      if (seen_1 >= 0 && seen_2 >= 0) {
        const int64_t row = (seen_1 - line[s].time) / width_1;
        const int64_t column = (seen_2 - line[s].time) / width_2;
        if (row < rows && column < columns) ++cells[static_cast<size_t>(row * columns + column)];
        break;
      }
    }
  }
  return cells;
}

TEST(Histogram2DStreamTest, MatchesBruteForceThroughTheRunnerHoweverCut) {
  TestZeptick tagger("TEST-1", 3);
  tagger.setIdleSpan(0);
  struct Setup {
    int start, stop_1, stop_2;
    int64_t width_1, width_2;
    int rows, columns;
  };
  const std::vector<Setup> setups = {
      {1, 2, 3, 7, 13, 20, 11},   // three channels, coarse second axis
      {1, 2, 2, 5, 5, 30, 30},    // one stop channel on both axes: the diagonal
      {1, 1, 2, 3, 50, 4, 6},     // start is stop 1: first axis always 0, small grid
      {-1, 2, -1, 1, 1, 64, 64},  // start is stop 2
  };
  for (uint64_t seed = 1; seed <= 8; ++seed) {
    const Setup& s = setups[seed % setups.size()];
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = {1, 2, 3, -1, 4};
    shape.mean_gap = 20;
    shape.tags = 4000;
    shape.error_percent = shape.overflow_percent = 0.5;
    const testing::TagStream stream = testing::makeRandomStream(rng, shape);
    for (size_t most_cuts : {0, 30, 900}) {
      auto h = std::make_unique<Histogram2D>(&tagger, s.start, s.stop_1, s.stop_2, s.width_1,
                                             s.width_2, s.rows, s.columns);
      const std::vector<Block> seen = testing::deliver(
          tagger, testing::cutStream(stream, testing::randomCuts(rng, stream, most_cuts)));
      const std::vector<int32_t> expected =
          bruteForce(seen, s.start, s.stop_1, s.stop_2, s.width_1, s.width_2, s.rows, s.columns);
      ASSERT_GT(std::accumulate(expected.begin(), expected.end(), 0), 20);
      EXPECT_EQ(grid(*h), expected) << most_cuts << " cuts";
    }
  }
}

}  // namespace
}  // namespace zeptick
