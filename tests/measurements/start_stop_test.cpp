// StartStop over pair lengths that the random-stream test in histograms_test.cpp never reaches:
// bins on either side of the array kept for near bins, and far ones counted apart.

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "support/measurement_streams.h"
#include "zeptick/start_stop.h"

namespace zeptick {
namespace {

using namespace testing;

using StartStopRange = QuietTaggerTest;

TEST_F(StartStopRange, CountsNearAndFarPairsLikeAPlainDivision) {
  constexpr int64_t kNearEdge = int64_t{1} << 20;  // in bins
  for (int64_t binwidth : {int64_t{1}, int64_t{1000}, int64_t{3}}) {
    SCOPED_TRACE(binwidth);
    std::mt19937_64 rng(static_cast<uint64_t>(binwidth));
    // Pair lengths: short ones, ones within a few bins of the edge, and far ones.
    std::uniform_int_distribution<int> kind(0, 2);
    std::uniform_int_distribution<int64_t> shortBins(0, 3000);
    std::uniform_int_distribution<int64_t> edge(-3 * binwidth, 3 * binwidth);
    std::uniform_int_distribution<int64_t> far(kNearEdge * binwidth, int64_t{1} << 42);
    std::map<int64_t, int64_t> expected;  // bin start to count
    std::vector<Tag> stream;
    int64_t time = 1000;
    for (int pair = 0; pair < 3000; ++pair) {
      const int k = kind(rng);
      const int64_t length = k == 0   ? shortBins(rng) * binwidth + binwidth / 2
                             : k == 1 ? kNearEdge * binwidth + edge(rng)
                                      : far(rng);
      stream.push_back(timeTag(2, time));
      stream.push_back(timeTag(1, time + length));
      ++expected[length / binwidth * binwidth];
      time += length + 1;
    }
    Direct<StartStop> measurement(&tagger, 1, 2, binwidth);
    std::uniform_int_distribution<size_t> blockSize(0, 200);
    int64_t end = 0;
    for (size_t at = 0; at < stream.size();) {
      const size_t next = std::min(stream.size(), at + blockSize(rng));
      std::vector<Tag> block(stream.begin() + static_cast<ptrdiff_t>(at),
                             stream.begin() + static_cast<ptrdiff_t>(next));
      const int64_t begin = end;
      end = next < stream.size() ? stream[next].time : time;
      measurement.feed(block, begin, end);
      at = next;
    }
    std::vector<int64_t> want;
    for (const auto& [bin_start, count] : expected) want.insert(want.end(), {bin_start, count});
    EXPECT_EQ(collect(measurement, &StartStop::getData), want);
  }
}

}  // namespace
}  // namespace zeptick
