#include "zeptick/time_differences.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "support/measurement_streams.h"
#include "zeptick/fast_binning.h"
#include "zeptick/flim.h"
#include "zeptick/histogram.h"

namespace zeptick {
namespace {

using namespace testing;

constexpr int kUnused = CHANNEL_UNUSED;

struct Config {
  int click, start, next, sync;
  int64_t binwidth;
  int n_bins, n_histograms;
  uint64_t max_counts;
};

struct Expected {
  std::vector<int32_t> data;
  uint64_t counts = 0;
};

// The counting rules worked tag by tag, with every start since the last reset
// kept and compared by its age instead of a queue that expires starts.
Expected reference(const Config& c, const std::vector<Tag>& tags) {
  const int start = c.start == kUnused ? c.click : c.start;
  const bool has_next = c.next != kUnused;
  const bool has_sync = c.sync != kUnused;
  Expected out;
  out.data.assign(static_cast<size_t>(c.n_bins * c.n_histograms), 0);
  std::vector<std::pair<int64_t, int>> starts;  // time, histogram
  int index = has_next ? -1 : 0;
  bool waiting = has_sync;
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      starts.clear();
      index = has_next ? -1 : 0;
      waiting = has_sync;
      continue;
    }
    auto open = [&] { return c.max_counts == 0 || out.counts < c.max_counts; };
    if (has_sync && tag.channel == c.sync && open()) {
      if (!waiting) ++out.counts;
      waiting = false;
      index = has_next ? -1 : 0;
    }
    if (has_next && tag.channel == c.next && !waiting && open()) {
      if (index + 1 < c.n_histograms) {
        ++index;
      } else {
        ++out.counts;
        index = has_sync ? c.n_histograms : 0;
        waiting = has_sync;
      }
    }
    if (tag.channel == start && !waiting && open() && index >= 0 && index < c.n_histograms) {
      starts.emplace_back(tag.time, index);
    }
    if (tag.channel == c.click) {
      for (const auto& [time, histogram] : starts) {
        const int64_t age = tag.time - time;
        if (age < c.binwidth * c.n_bins) ++out.data[histogram * c.n_bins + age / c.binwidth];
      }
    }
  }
  return out;
}

TEST(TimeDifferencesTest, MatchesReferenceOnRandomStreamsHoweverCut) {
  TestZeptick tagger("TEST-1", 4);
  const Config configs[] = {
      {1, 2, kUnused, kUnused, 1, 50, 1, 0},     // identity binning
      {1, 2, 3, 4, 64, 20, 3, 0},                // shift, full sequence
      {1, kUnused, 3, kUnused, 1000, 7, 4, 60},  // reciprocal, rollover, limit
      {2, 1, kUnused, 4, 3000000019, 2, 1, 0},   // 64-bit reciprocal, sync only
      {1, 2, 3, 4, 10000000019, 4, 2, 200},      // true division, limit waits for sync
      {1, kUnused, 3, kUnused, 10, 30, 1, 0},    // one histogram: every next tag rolls over
      {3, 3, 3, 3, 5, 20, 3, 0},                 // one channel in every role
  };
  int modes_seen[7] = {};
  for (const Config& c : configs) {
    ++modes_seen[FastBinning(c.binwidth, c.binwidth * c.n_bins).getMode()];
    for (uint64_t seed = 1; seed <= 2; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      std::mt19937_64 rng(seed);
      testing::StreamShape shape;
      shape.tags = 3000;
      shape.mean_gap = c.binwidth * c.n_bins / 6 + 1;
      shape.error_percent = shape.overflow_percent = 1;
      // Odd seeds put every time on a grid of bin widths: ages then hit bin
      // edges and the range itself.
      shape.grid = seed % 2 == 1 ? c.binwidth : 1;
      const testing::TagStream stream = testing::makeRandomStream(rng, shape);
      TimeDifferences measurement(&tagger, c.click, c.start, c.next, c.sync, c.binwidth, c.n_bins,
                                  c.n_histograms);
      measurement.setMaxCounts(c.max_counts);
      // The thin variants run beside it where their fixed arguments fit.
      std::unique_ptr<Histogram> histogram;
      std::unique_ptr<Flim> flim;
      if (c.next == kUnused && c.sync == kUnused && c.n_histograms == 1) {
        histogram = std::make_unique<Histogram>(&tagger, c.click, c.start, c.binwidth, c.n_bins);
      }
      if (c.sync == kUnused && c.max_counts == 0) {
        flim = std::make_unique<Flim>(&tagger, c.click, c.start, c.next, c.binwidth, c.n_bins,
                                      c.n_histograms);
      }
      const auto delivered = testing::deliver(
          tagger, testing::cutStream(stream, testing::randomCuts(rng, stream, 40)));
      const Expected expected = reference(c, testing::concatenate(delivered));
      ASSERT_GT(std::accumulate(expected.data.begin(), expected.data.end(), 0), 10);
      EXPECT_EQ(collect(measurement, &TimeDifferences::getData), expected.data);
      EXPECT_EQ(measurement.getCounts(), expected.counts);
      if (histogram) {
        EXPECT_EQ(collect(*histogram, &Histogram::getData), expected.data);
      }
      if (flim) {
        EXPECT_EQ(collect(*flim, &TimeDifferences::getData), expected.data);
      }
    }
  }
  for (int mode : {1, 2, 3, 4, 6}) EXPECT_GT(modes_seen[mode], 0) << "mode " << mode;
}

TEST(TimeDifferencesTest, SequenceWaitsForSyncAndTheLimitWaitsForPendingStarts) {
  TestZeptick tagger("TEST-1", 2);
  // click 1, start 2, next 3, sync 4; two histograms of ten 10 ps bins.
  const std::vector<Tag> tags = {
      timeTag(2, 0),                                   // waiting for the first sync: dropped
      timeTag(4, 10),                                  // first sync: completes nothing
      timeTag(2, 20),                                  // no next tag yet: dropped
      timeTag(3, 30), timeTag(2, 40), timeTag(1, 45),  // histogram 0
      timeTag(3, 50), timeTag(2, 55), timeTag(1, 60),  // histogram 1
      timeTag(3, 70),                                  // sequence complete
      timeTag(2, 75),                                  // waits for sync: dropped
      timeTag(1, 80),  // the pending starts of both histograms still count
      timeTag(4, 90), timeTag(3, 95), timeTag(4, 96)};  // ends a sequence early
  const std::vector<int32_t> expected = {1, 0, 1, 0, 1, 0, 0, 0, 0, 0,
                                         1, 0, 1, 0, 0, 0, 0, 0, 0, 0};
  // With a limit of 1 the sync tags after the completed sequence are ignored.
  testing::Direct<TimeDifferences> limited(&tagger, 1, 2, 3, 4, 10, 10, 2);
  limited.setMaxCounts(1);
  limited.feed(std::vector<Tag>(tags.begin(), tags.begin() + 12), 0, 85);
  EXPECT_EQ(limited.getCounts(), 1u);
  EXPECT_FALSE(limited.ready());  // starts at 40 and 55 can still count
  // Later sync and next tags find the gate shut; the starts expire at the range.
  limited.feed(std::vector<Tag>(tags.begin() + 12, tags.end()), 139);
  EXPECT_FALSE(limited.ready());
  limited.feed({}, 140);  // 140 - 40 reaches the range; 55 is still pending
  EXPECT_FALSE(limited.ready());
  limited.feed({}, 155);
  EXPECT_TRUE(limited.ready());
  EXPECT_EQ(collect(limited, &TimeDifferences::getData), expected);
  EXPECT_EQ(limited.getCounts(), 1u);

  // clear forgets counts and data but keeps the limit.
  limited.clear();
  EXPECT_EQ(limited.getCounts(), 0u);
  EXPECT_EQ(collect(limited, &TimeDifferences::getData), std::vector<int32_t>(20, 0));
  limited.feed({timeTag(4, 300), timeTag(3, 301), timeTag(3, 302), timeTag(4, 303), timeTag(3, 304),
                timeTag(3, 305)},
               310);
  EXPECT_EQ(limited.getCounts(), 1u);
}

TEST(TimeDifferencesTest, RegistersEveryRoleAndIndexesTheBins) {
  TestZeptick tagger("TEST-1", 2);
  {
    // -1 is the falling edge of input 1 under the one-based numbering, not "unused".
    TimeDifferences m(&tagger, 1, kUnused, -1, 4, 7, 4, 2);
    for (int channel : {1, 4, -1}) EXPECT_EQ(tagger.registrations(channel), 1);
    EXPECT_EQ(collect(m, &TimeDifferences::getIndex), (std::vector<int64_t>{0, 7, 14, 21}));
  }
  for (int channel : {1, 4, -1}) EXPECT_EQ(tagger.registrations(channel), 0);
}

}  // namespace
}  // namespace zeptick
