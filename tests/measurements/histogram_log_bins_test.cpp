#include "zeptick/histogram_log_bins.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;
using DirectLogBins = testing::Direct<HistogramLogBins>;

std::vector<uint64_t> counts(HistogramLogBins& h) {
  return testing::collect(h, &HistogramLogBins::getData);
}
std::vector<int64_t> edges(HistogramLogBins& h) {
  return testing::collect(h, &HistogramLogBins::getBinEdges);
}
std::vector<double> g2(HistogramLogBins& h) {
  return testing::collect(h, &HistogramLogBins::getDataNormalizedG2);
}

using HistogramLogBinsTest = QuietTaggerTest;

TEST_F(HistogramLogBinsTest, EdgesAreTruncatedPowersOfTen) {
  DirectLogBins decades(&tagger, 1, 2, -12, -9, 3);
  EXPECT_EQ(edges(decades), (std::vector<int64_t>{1, 10, 100, 1000}));
  EXPECT_EQ(counts(decades).size(), 3u);

  // Half decades: 10^0.5 = 3.16.., 10^1.5 = 31.6..; below 1 ps truncates to 0.
  DirectLogBins halves(&tagger, 1, 2, -12.5, -10, 5);
  EXPECT_EQ(edges(halves), (std::vector<int64_t>{0, 1, 3, 10, 31, 100}));

  // Unchecked arguments stay harmless: no bins, one edge.
  DirectLogBins none(&tagger, 1, 2, -12, -9, 0);
  EXPECT_EQ(edges(none), std::vector<int64_t>{1});
  EXPECT_TRUE(counts(none).empty());
}

// Edges 1, 10, 100, 1000 ps: a hand-worked life of settling, counting, an
// overflow and a clear.
TEST_F(HistogramLogBinsTest, SettlesForOneRangeAfterResetsAndNormalises) {
  DirectLogBins h(&tagger, 1, 2, -12, -9, 3);
  // reset at 1; the click at 600 is within the first range and is ignored;
  // the start at 1200 ends settling, and counting time begins at 1 + 1000.
  h.feed({timeTag(2, 100), timeTag(1, 600), timeTag(2, 1200), timeTag(1, 1250)}, 1, 5000);
  EXPECT_EQ(counts(h), (std::vector<uint64_t>{0, 1, 0}));  // 1250 - 1200 = 50
  EXPECT_EQ(g2(h), (std::vector<double>{0.0, 3999.0 / 90, 0.0}));
  EXPECT_EQ(testing::collect(h, &HistogramLogBins::getDataNormalizedCountsPerPs),
            (std::vector<double>{0.0, 1.0 / 90, 0.0}));

  // The overflow closes counting time at 6000 and forgets 100 and 1200; after
  // its end at 6500 another whole range must pass. 7700 - 7600 = 100 lands in
  // bin 2, exactly on its lower edge; 8600 - 7600 = 1000 is past the last edge.
  h.feed({marker(Tag::Type::OverflowBegin, 6000), timeTag(1, 6200),
          marker(Tag::Type::OverflowEnd, 6500), timeTag(2, 6600), timeTag(1, 7000),
          timeTag(2, 7600), timeTag(1, 7700), timeTag(1, 8600)},
         10000);
  EXPECT_EQ(counts(h), (std::vector<uint64_t>{0, 1, 1}));
  const double scale = (3999.0 + 1000 + 2500) / (3.0 * 2.0);  // capture / (clicks x starts)
  EXPECT_EQ(g2(h), (std::vector<double>{0.0, 1 * scale / 90, 1 * scale / 900}));

  // An error drops the open counting time; settling then ends at a tag,
  // backdated to one range after the error.
  h.feed({timeTag(2, 11000), marker(Tag::Type::Error, 12000), timeTag(2, 12600), timeTag(2, 13500),
          timeTag(1, 13509)},
         20000);
  EXPECT_EQ(counts(h), (std::vector<uint64_t>{1, 1, 2}));  // 13509 - 13500 = 9, - 12600 = 909
  const double later = (3999.0 + 1000 + 2500 + 20000 - 13000) / (4.0 * 4.0);
  const std::vector<double> after_error = g2(h);
  EXPECT_DOUBLE_EQ(after_error[0], 1 * later / 9);
  EXPECT_DOUBLE_EQ(after_error[2], 2 * later / 900);

  // A clear forgets counts and ring; with no click or start yet G2 is 0/0.
  h.clear();
  EXPECT_EQ(counts(h), (std::vector<uint64_t>{0, 0, 0}));
  EXPECT_TRUE(std::isnan(g2(h)[0]));
  h.feed({timeTag(2, 20100), timeTag(1, 20200), timeTag(2, 21500), timeTag(1, 21600),
          timeTag(1, 21600)},
         30000);
  EXPECT_EQ(counts(h), (std::vector<uint64_t>{0, 0, 2}));
  EXPECT_EQ(g2(h)[2], 2 * ((30000.0 - 21000) / (2 * 1)) / 900);
}

// A dense burst of starts fills the ring many times over; the counts of a
// click then follow from integer ranges: start k at base + k is at
// difference T - base - k.
TEST_F(HistogramLogBinsTest, DenseBurstGrowsRingAndCountsEveryPair) {
  DirectLogBins h(&tagger, 1, 2, -12, -6, 12);  // 1 ps .. 1 us
  const std::vector<int64_t> e = edges(h);
  const int64_t range = e.back();
  const int64_t base = 10 * range;
  const int64_t n_starts = 100000;
  std::vector<Tag> tags{timeTag(2, range + 2)};  // ends settling
  // Starts that a click at base - 1 leaves behind: the ring then grows with
  // its oldest live start away from slot 0, and the click at base + 10 reads
  // starts that moved to the new half of the ring.
  for (int64_t k = 0; k < 5; ++k) tags.push_back(timeTag(2, range + 10 + k));
  tags.push_back(timeTag(1, base - 1));
  for (int64_t k = 0; k < n_starts; ++k) tags.push_back(timeTag(2, base + k / 3));
  // Clicks amid the burst, on the last start's time, and after the burst.
  const std::vector<int64_t> clicks = {base + 10, base + 5000, base + n_starts / 3, base + 400000};
  for (int64_t t : clicks) tags.push_back(timeTag(1, t));
  std::stable_sort(tags.begin(), tags.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  h.feed(tags, 1, base + 2 * range);

  std::vector<uint64_t> expected(12, 0);
  for (int64_t t : clicks) {
    for (size_t i = 0; i + 1 < e.size(); ++i) {
      // Differences d in [e[i], e[i+1]) with d = t - base - k / 3, k < n_starts.
      for (int64_t d = e[i]; d < e[i + 1]; ++d) {
        const int64_t slot = t - base - d;
        if (slot >= 0 && slot <= (n_starts - 1) / 3)
          expected[i] += slot == (n_starts - 1) / 3 ? 1 : 3;
      }
    }
  }
  EXPECT_EQ(counts(h), expected);
}

// The stated rules, with each click compared against every start kept since
// the last reset: no ring, no read indices.
struct LogReference {
  std::vector<uint64_t> counts;
  double clicks = 0;
  double starts = 0;
  double capture = 0;
};

LogReference bruteForce(const std::vector<int64_t>& e, int click, int start,
                        const std::vector<Block>& blocks) {
  LogReference ref;
  ref.counts.assign(e.size() - 1, 0);
  const int64_t range = e.back();
  int64_t reset_time = 0;
  bool settling = true;
  bool in_overflow = false;
  std::vector<int64_t> kept;
  auto reset = [&](int64_t time) {
    kept.clear();
    settling = true;
    reset_time = time;
  };
  for (const Block& block : blocks) {
    int64_t counting_since = block.begin_time;
    if (reset_time == 0) reset_time = block.begin_time;
    for (const Tag& tag : block.tags) {
      if (settling && tag.time - reset_time > range) {
        settling = false;
        counting_since = reset_time + range;
      }
      if (tag.type == Tag::Type::TimeTag) {
        if (tag.channel == start) {
          ref.starts += settling ? 0 : 1;
          kept.push_back(tag.time);
        }
        if (tag.channel == click && !settling) {
          ref.clicks += 1;
          for (int64_t s : kept) {
            for (size_t i = 0; i + 1 < e.size(); ++i) {
              if (tag.time - s >= e[i] && tag.time - s < e[i + 1]) ++ref.counts[i];
            }
          }
        }
      } else if (tag.type == Tag::Type::Error) {
        reset(tag.time);
      } else if (tag.type == Tag::Type::OverflowBegin) {
        if (!settling) ref.capture += static_cast<double>(tag.time - counting_since);
        reset(tag.time);
        in_overflow = true;
      } else if (tag.type == Tag::Type::OverflowEnd) {
        reset(tag.time);
        in_overflow = false;
        counting_since = tag.time;
      }
    }
    if (!settling && !in_overflow) {
      ref.capture += static_cast<double>(block.end_time - counting_since);
    }
  }
  return ref;
}

struct LogSetup {
  int click;
  int start;
  double exp_start;
  double exp_stop;
  int n_bins;
  int64_t max_gap;
  int special_permille;  // chance per tag of an error, and of an overflow
  std::vector<int> channels;
};

TEST(HistogramLogBinsStreamTest, MatchesBruteForceThroughTheRunnerHoweverCut) {
  TestZeptick tagger("TEST-1", 3);
  tagger.setIdleSpan(0);
  const std::vector<LogSetup> setups = {
      // A range far longer than a gap: many live starts per click.
      {1, 2, -12, -8, 16, 300, 2, {1, 1, 2, -1, 3}},
      // One channel: the first edge is 0, so a tag meets itself.
      {2, 2, -13, -9, 7, 500, 3, {1, 2, 2, 3}},
      // A short range and near-equal times.
      {1, -1, -11, -10.5, 3, 40, 5, {1, -1, -1, 2}},
      // A dense start channel and rare clicks: the ring fills between clicks.
      {-1, 1, -12, -8.5, 40, 20, 1, {1, 1, 1, 1, 1, 1, 1, 1, 1, 2, -1}},
      {-1, 1, -12, -10, 8, 20, 2, std::vector<int>(40, 1)},
  };
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    const LogSetup& s = setups[seed % setups.size()];
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = s.channels;
    if (s.click != s.start) shape.channels.push_back(s.click);
    shape.mean_gap = s.max_gap / 2;
    shape.tags = 5000;
    shape.error_percent = shape.overflow_percent = s.special_permille / 10.0;
    const testing::TagStream stream = testing::makeRandomStream(rng, shape);

    std::vector<std::vector<uint64_t>> results;
    for (size_t most_cuts : {3, 40, 700}) {
      auto h = std::make_unique<HistogramLogBins>(&tagger, s.click, s.start, s.exp_start,
                                                  s.exp_stop, s.n_bins);
      const std::vector<Block> seen = testing::deliver(
          tagger, testing::cutStream(stream, testing::randomCuts(rng, stream, most_cuts)));
      const LogReference ref = bruteForce(edges(*h), s.click, s.start, seen);
      ASSERT_EQ(counts(*h), ref.counts) << most_cuts << " cuts";
      ASSERT_GT(ref.clicks * ref.starts, 0);  // else G2 is NaN and proves nothing
      const std::vector<int64_t> e = edges(*h);
      const std::vector<double> got = g2(*h);
      for (size_t i = 0; i < got.size(); ++i) {
        const double width = static_cast<double>(e[i + 1] - e[i]);
        const double expected = ref.counts[i] * ref.capture / (ref.clicks * ref.starts) / width;
        if (width == 0) {
          EXPECT_TRUE(std::isnan(got[i]) || std::isinf(got[i]));
        } else {
          EXPECT_DOUBLE_EQ(got[i], expected) << i;
        }
      }
      results.push_back(counts(*h));
    }
    // A different cut moves only the stream offset, so the counts are the same.
    // (Capture time is not: an error drops the open time of its block only.)
    EXPECT_EQ(results[0], results[1]);
    EXPECT_EQ(results[0], results[2]);
  }
}

}  // namespace
}  // namespace zeptick
