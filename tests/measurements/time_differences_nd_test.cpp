#include "zeptick/time_differences_nd.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;

std::vector<int32_t> histograms(TimeDifferencesND& h, std::vector<size_t>* sizes = nullptr) {
  return testing::collect(h, &TimeDifferencesND::getData, sizes);
}

using TimeDifferencesNDTest = QuietTaggerTest;

// Two wrapping dimensions of 2 and 3 histograms, 4 bins of 10 ps: a start
// takes the tuple current at its arrival, the first dimension varying fastest.
TEST_F(TimeDifferencesNDTest, StartsTakeTheTupleAtArrivalAndOutliveAnOverflow) {
  testing::Direct<TimeDifferencesND> h(&tagger, 1, 2, {3, 4}, {}, {2, 3}, 10, 4);
  h.feed({timeTag(3, 100), timeTag(2, 101),  // dimension 1 not stepped yet: dropped
          timeTag(4, 102), timeTag(2, 110),  // (0, 0)
          timeTag(1, 125),                   // 15 ps: histogram 0, bin 1
          timeTag(3, 130), timeTag(2, 131),  // (1, 0)
          timeTag(4, 132),                   // (1, 1)
          timeTag(1, 150),                   // 110 is 40 ps old, out; 131: histogram 1, bin 1
          timeTag(3, 160), timeTag(2, 160),  // dimension 0 wraps: (0, 1) is histogram 2
          timeTag(1, 160)},                  // 131: histogram 1, bin 2; 160: histogram 2, bin 0
         0, 165);
  std::vector<int32_t> expected(24, 0);
  expected[1] = expected[5] = expected[6] = expected[8] = 1;
  std::vector<size_t> sizes;
  EXPECT_EQ(histograms(h, &sizes), expected);
  EXPECT_EQ(sizes, (std::vector<size_t>{6, 4}));

  // The overflow restarts both sequences, but the start at 160 stays open.
  h.feed({marker(Tag::Type::OverflowBegin, 170), marker(Tag::Type::OverflowEnd, 175),
          timeTag(1, 190), timeTag(2, 191), timeTag(3, 192), timeTag(1, 195)},
         196);
  expected[11] = 2;
  EXPECT_EQ(histograms(h), expected);

  h.clear();  // forgets counts and open starts, not the sequences
  h.feed({timeTag(4, 200), timeTag(2, 201), timeTag(1, 202)}, 203);
  expected.assign(24, 0);
  expected[0] = 1;  // dimension 0 is still 0 from 192, dimension 1 steps to 0: histogram 0
  EXPECT_EQ(histograms(h), expected);

  // No dimension: one histogram, and nothing ever counts.
  testing::Direct<TimeDifferencesND> flat(&tagger, 1, 1, std::vector<int>{}, std::vector<int>{},
                                          std::vector<int>{}, 10, 3);
  flat.feed({timeTag(1, 100), timeTag(1, 105)}, 0, 110);
  EXPECT_EQ(histograms(flat, &sizes), std::vector<int32_t>(3, 0));
  EXPECT_EQ(sizes, (std::vector<size_t>{1, 3}));
}

struct NDSetup {
  int click;
  int start;
  std::vector<int> next;
  std::vector<int> sync;
  std::vector<int> n_histograms;
  int64_t binwidth;
  uint64_t n_bins;
};

// The stated rules in another form: a dimension's index is the number of its
// next tags since its last sync or the last tag other than a time tag, minus
// one; it wraps without a sync channel and is void past its end with one. Each
// click then meets every valid start within range, with no queue.
std::vector<int32_t> bruteForce(const NDSetup& s, const std::vector<Block>& blocks) {
  const size_t dims = s.next.size();
  int64_t histograms = 1;
  for (int n : s.n_histograms) histograms *= n;
  std::vector<int32_t> data(static_cast<size_t>(histograms) * s.n_bins, 0);
  const int64_t range = static_cast<int64_t>(s.n_bins) * s.binwidth;
  std::vector<int64_t> steps(dims, 0);
  std::vector<std::pair<int64_t, int64_t>> starts;  // time, histogram
  for (const Block& block : blocks) {
    for (const Tag& tag : block.tags) {
      if (tag.type != Tag::Type::TimeTag) {
        steps.assign(dims, 0);
        continue;
      }
      for (size_t j = 0; j < s.sync.size(); ++j) {
        if (tag.channel == s.sync[j]) steps[j] = 0;
      }
      for (size_t j = 0; j < dims; ++j) {
        if (tag.channel == s.next[j]) ++steps[j];
      }
      if (tag.channel == s.start && dims > 0) {
        bool valid = true;
        int64_t histogram = 0;
        for (size_t j = dims; j-- > 0;) {
          const bool wraps = s.sync.empty() || s.sync[j] == CHANNEL_UNUSED;
          valid = valid && steps[j] >= 1 && (wraps || steps[j] <= s.n_histograms[j]);
          histogram = histogram * s.n_histograms[j] + (steps[j] - 1) % s.n_histograms[j];
        }
        if (valid) starts.emplace_back(tag.time, histogram);
      }
      if (tag.channel == s.click) {
        for (const auto& [time, histogram] : starts) {
          const int64_t d = tag.time - time;
          if (d >= 0 && d < range) ++data[histogram * s.n_bins + d / s.binwidth];
        }
      }
    }
  }
  return data;
}

TEST(TimeDifferencesNDStreamTest, MatchesBruteForceThroughTheRunnerHoweverCut) {
  TestZeptick tagger("TEST-1", 3);
  tagger.setIdleSpan(0);
  const std::vector<NDSetup> setups = {
      {1, 2, {3}, {}, {3}, 7, 20},                                   // one wrapping dimension
      {1, 2, {3, 4}, {5, -2}, {2, 3}, 8, 16},                        // both synced
      {1, 2, {3, 4, 3}, {5, CHANNEL_UNUSED, -2}, {2, 4, 3}, 1, 90},  // mixed, a shared next channel
      {2, 2, {3, 5}, {}, {4, 2}, 13, 11},                            // start is click
      {1, 2, {1}, {3}, {5}, 1000, 1000000},                          // the click steps; long range
  };
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    const NDSetup& s = setups[seed % setups.size()];
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = {1, 1, 2, 2, 3, 4, 5, -1, -2};
    shape.mean_gap = 15;
    shape.tags = 3000;
    shape.error_percent = shape.overflow_percent = 0.5;
    const testing::TagStream stream = testing::makeRandomStream(rng, shape);
    for (size_t most_cuts : {0, 25, 600}) {
      auto h = std::make_unique<TimeDifferencesND>(&tagger, s.click, s.start, s.next, s.sync,
                                                   s.n_histograms, s.binwidth, s.n_bins);
      const std::vector<Block> seen = testing::deliver(
          tagger, testing::cutStream(stream, testing::randomCuts(rng, stream, most_cuts)));
      const std::vector<int32_t> expected = bruteForce(s, seen);
      ASSERT_GT(std::accumulate(expected.begin(), expected.end(), 0), 100);
      EXPECT_EQ(histograms(*h), expected) << most_cuts << " cuts";
    }
  }
}

}  // namespace
}  // namespace zeptick
