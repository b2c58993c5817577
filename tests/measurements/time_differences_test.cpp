#include "zeptick/time_differences.h"

#include <gtest/gtest.h>

#include <memory>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/histogram_streams.h"
#include "support/test_tagger.h"
#include "zeptick/fast_binning.h"
#include "zeptick/flim.h"
#include "zeptick/histogram.h"

namespace zeptick {
namespace {

using testing::FlatStream;
using testing::histMarker;
using testing::histTimeTag;
using testing::TestZeptick;

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
Expected reference(const Config& c, const FlatStream& stream) {
  const int start = c.start == kUnused ? c.click : c.start;
  const bool has_next = c.next != kUnused;
  const bool has_sync = c.sync != kUnused;
  Expected out;
  out.data.assign(static_cast<size_t>(c.n_bins * c.n_histograms), 0);
  std::vector<std::pair<int64_t, int>> starts;  // time, histogram
  int index = has_next ? -1 : 0;
  bool waiting = has_sync;
  for (const Tag& tag : stream.tags) {
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

std::vector<int32_t> dataOf(TimeDifferences& measurement) {
  std::vector<int32_t> out;
  measurement.getData([&out](size_t rows, size_t cols) {
    out.assign(rows * cols, -1);
    return out.data();
  });
  return out;
}

// Fed by the test, with the limit of the configuration set.
class DirectTimeDifferences : public testing::Fed<TimeDifferences> {
 public:
  DirectTimeDifferences(ZeptickBase* tagger, const Config& c)
      : Fed(tagger, c.click, c.start, c.next, c.sync, c.binwidth, c.n_bins, c.n_histograms) {
    setMaxCounts(c.max_counts);
  }
};

class TimeDifferencesTest : public ::testing::Test {
 protected:
  TestZeptick tagger{"TEST-1", 4};
};

TEST_F(TimeDifferencesTest, MatchesReferenceOnRandomStreamsHoweverCut) {
  const Config configs[] = {
      {1, 2, kUnused, kUnused, 1, 50, 1, 0},     // identity binning
      {1, 2, 3, 4, 64, 20, 3, 0},                // shift, full sequence
      {1, kUnused, 3, kUnused, 1000, 7, 4, 60},  // reciprocal, rollover, limit
      {2, 1, kUnused, 4, 3000000019, 2, 1, 0},   // 64-bit reciprocal, sync only
      {1, 2, 3, 4, 10000000019, 4, 2, 40},       // true division, limit waits for sync
      {1, 2, 2, kUnused, 10, 30, 5, 0},          // next on the start channel
      {1, kUnused, 3, kUnused, 10, 30, 1, 0},    // one histogram: every next tag rolls over
      {1, 2, 2, 1, 7, 40, 2, 0},                 // every tag in two roles
      {3, 3, 3, 3, 5, 20, 3, 0},                 // one channel in every role
  };
  int modes_seen[7] = {};
  for (const Config& c : configs) {
    ++modes_seen[FastBinning(c.binwidth, c.binwidth * c.n_bins).getMode()];
    for (uint64_t seed = 1; seed <= 3; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      std::mt19937_64 rng(seed);
      FlatStream stream;
      // Odd seeds put every time on a grid of bin widths: ages then hit bin
      // edges and the range itself.
      const int64_t grid = seed % 2 == 1 ? c.binwidth : 1;
      stream.tags = testing::randomHistogramTags(rng, {1, 2, 3, 4}, c.binwidth * c.n_bins / 6 + 1,
                                                 3000, grid);
      stream.end_time = stream.tags.back().time + 1;
      // The same stream twice, cut differently each time.
      for (int cut = 0; cut < 2; ++cut) {
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
        const FlatStream delivered = testing::deliverInRandomBlocks(tagger, rng, stream);
        const Expected expected = reference(c, delivered);
        ASSERT_GT(std::accumulate(expected.data.begin(), expected.data.end(), 0), 10);
        EXPECT_EQ(dataOf(measurement), expected.data);
        EXPECT_EQ(measurement.getCounts(), expected.counts);
        if (histogram) {
          std::vector<int32_t> single;
          histogram->getData([&single](size_t n_bins) {
            single.assign(n_bins, -1);
            return single.data();
          });
          EXPECT_EQ(single, expected.data);
        }
        if (flim) {
          EXPECT_EQ(dataOf(*flim), expected.data);
        }
      }
    }
  }
  for (int mode : {1, 2, 3, 4, 6}) EXPECT_GT(modes_seen[mode], 0) << "mode " << mode;
}

TEST_F(TimeDifferencesTest, CountsAgesWithinTheRangeOnly) {
  // Range 50 ps: ages 0 to 49 count, in bins of 10.
  DirectTimeDifferences m(&tagger, {1, 2, kUnused, kUnused, 10, 5, 1, 0});
  m.feed({histTimeTag(1, 90),  // no start yet
          histTimeTag(2, 100), histTimeTag(1, 100), histTimeTag(1, 149),
          histTimeTag(1, 150),  // exactly the range: the start has expired
          histTimeTag(2, 200), histTimeTag(2, 210)},
         220);
  m.feed({histTimeTag(1, 230), histMarker(Tag::Type::Error, 240), histTimeTag(1, 245)}, 260);
  EXPECT_EQ(dataOf(m), (std::vector<int32_t>{1, 0, 1, 1, 1}));
}

TEST_F(TimeDifferencesTest, SequenceStepsWaitsForSyncAndHonoursTheLimit) {
  // click 1, start 2, next 3, sync 4; two histograms of ten 10 ps bins.
  const std::vector<Tag> tags = {
      histTimeTag(2, 0),   // waiting for the first sync: dropped
      histTimeTag(4, 10),  // first sync: completes nothing
      histTimeTag(2, 20),  // no next tag yet: dropped
      histTimeTag(3, 30),
      histTimeTag(2, 40),
      histTimeTag(1, 45),  // histogram 0
      histTimeTag(3, 50),
      histTimeTag(2, 55),
      histTimeTag(1, 60),  // histogram 1
      histTimeTag(3, 70),  // sequence complete
      histTimeTag(2, 75),  // waits for sync: dropped
      histTimeTag(1, 80),  // the pending starts of both histograms still count
      histTimeTag(4, 90),
      histTimeTag(3, 95),
      histTimeTag(4, 96),  // ends a sequence early
      histMarker(Tag::Type::OverflowBegin, 97),
      histMarker(Tag::Type::OverflowEnd, 98),
      histTimeTag(3, 99),
      histTimeTag(2, 100),  // waiting for sync again after the overflow
      histTimeTag(1, 101)};
  const std::vector<int32_t> expected = {1, 0, 1, 0, 1, 0, 0, 0, 0, 0,
                                         1, 0, 1, 0, 0, 0, 0, 0, 0, 0};

  DirectTimeDifferences unlimited(&tagger, {1, 2, 3, 4, 10, 10, 2, 0});
  unlimited.feed(tags, 110);
  EXPECT_EQ(dataOf(unlimited), expected);
  EXPECT_EQ(unlimited.getCounts(), 2u);
  EXPECT_TRUE(unlimited.ready());  // no limit and nothing pending

  // With a limit of 1 the sync tags after the completed sequence are ignored.
  DirectTimeDifferences limited(&tagger, {1, 2, 3, 4, 10, 10, 2, 1});
  limited.feed(std::vector<Tag>(tags.begin(), tags.begin() + 12), 85);
  EXPECT_EQ(limited.getCounts(), 1u);
  EXPECT_FALSE(limited.ready());  // starts at 40 and 55 can still count
  // Later sync and next tags find the gate shut; the starts expire at the range.
  limited.feed(std::vector<Tag>(tags.begin() + 12, tags.begin() + 15), 139);
  EXPECT_FALSE(limited.ready());
  limited.feed({}, 140);  // 140 - 40 reaches the range; 55 is still pending
  EXPECT_FALSE(limited.ready());
  limited.feed({}, 155);
  EXPECT_TRUE(limited.ready());
  EXPECT_EQ(dataOf(limited), expected);
  EXPECT_EQ(limited.getCounts(), 1u);

  // clear forgets counts and data but keeps the limit.
  limited.clear();
  EXPECT_EQ(limited.getCounts(), 0u);
  EXPECT_EQ(dataOf(limited), std::vector<int32_t>(20, 0));
  limited.feed({histTimeTag(4, 300), histTimeTag(3, 301), histTimeTag(3, 302), histTimeTag(4, 303),
                histTimeTag(3, 304), histTimeTag(3, 305)},
               310);
  EXPECT_EQ(limited.getCounts(), 1u);
}

TEST_F(TimeDifferencesTest, RejectsBadArgumentsInOrderAndRegistersChannels) {
  EXPECT_EQ(testing::invalidArgumentMessage([&] { TimeDifferences(&tagger, 1, 2, 3, 4, 0, 0, 0); }),
            "binwidth must be at least 1 ps");
  EXPECT_EQ(testing::invalidArgumentMessage([&] { TimeDifferences(&tagger, 1, 2, 3, 4, 1, 0, 0); }),
            "n_bins must be at least 1");
  EXPECT_EQ(testing::invalidArgumentMessage([&] { TimeDifferences(&tagger, 1, 2, 3, 4, 1, 1, 0); }),
            "n_histograms must be at least 1");
  EXPECT_EQ(testing::invalidArgumentMessage([&] { Histogram(&tagger, 1, 2, 1, 0); }),
            "n_bins must be at least 1");
  EXPECT_EQ(testing::invalidArgumentMessage([&] { Flim(&tagger, 1, 2, 3, -5, 1, 1); }),
            "binwidth must be at least 1 ps");
  for (int channel : {1, 2, 3, 4, -1}) EXPECT_EQ(tagger.registrations(channel), 0);

  {
    // -1 is the falling edge of input 1 under the one-based numbering, not "unused".
    TimeDifferences m(&tagger, 1, kUnused, -1, 4, 7, 4, 2);
    EXPECT_EQ(tagger.registrations(1), 1);
    EXPECT_EQ(tagger.registrations(-1), 1);
    EXPECT_EQ(tagger.registrations(4), 1);
    std::vector<int64_t> index;
    m.getIndex([&index](size_t n) {
      index.assign(n, -1);
      return index.data();
    });
    EXPECT_EQ(index, (std::vector<int64_t>{0, 7, 14, 21}));
  }
  for (int channel : {1, 4, -1}) EXPECT_EQ(tagger.registrations(channel), 0);
}

}  // namespace
}  // namespace zeptick
