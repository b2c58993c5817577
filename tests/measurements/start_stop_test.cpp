// StartStop over pair lengths that the random-stream test in histograms_test.cpp never reaches:
// bins on either side of the array kept for near bins, and far ones counted apart.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <vector>

#include "support/measurement_streams.h"
#include "zeptick/start_stop.h"

namespace zeptick {
namespace {

using namespace testing;

using StartStopRange = QuietTaggerTest;

TEST_F(StartStopRange, CountsNearAndFarPairsLikeAPlainDivision) {
  constexpr int64_t kNearEdge = int64_t{1} << 20;  // in bins
  for (int64_t width : {int64_t{1}, int64_t{1000}, int64_t{3}}) {
    std::mt19937_64 rng(static_cast<uint64_t>(width));
    auto draw = [&](int64_t low, int64_t high) {
      return std::uniform_int_distribution<int64_t>(low, high)(rng);
    };
    std::map<int64_t, int64_t> expected;       // bin start to count
    TagStream stream{{}, 1000, 1000};          // a start at 0 never opens
    for (int pair = 0; pair < 3000; ++pair) {  // short, near the edge, far
      const int64_t length = pair % 3 == 0   ? draw(0, 3000 * width)
                             : pair % 3 == 1 ? kNearEdge * width + draw(-3 * width, 3 * width)
                                             : draw(kNearEdge * width, int64_t{1} << 42);
      stream.tags.insert(stream.tags.end(),
                         {timeTag(2, stream.end_time), timeTag(1, stream.end_time + length)});
      ++expected[length / width * width];
      stream.end_time += length + 1;
    }
    Direct<StartStop> measurement(&tagger, 1, 2, width);
    for (const Block& block : cutStream(stream, randomCuts(rng, stream, 60))) {
      measurement.feed(block.tags, block.begin_time, block.end_time);
    }
    std::vector<int64_t> want;
    for (const auto& [bin_start, count] : expected) want.insert(want.end(), {bin_start, count});
    EXPECT_EQ(collect(measurement, &StartStop::getData), want) << "width " << width;
  }
}

}  // namespace
}  // namespace zeptick
