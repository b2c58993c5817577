#include "zeptick/correlation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/measurement_streams.h"
#include "zeptick/fast_binning.h"

namespace zeptick {
namespace {

using namespace testing;

constexpr int kUnused = CHANNEL_UNUSED;

struct Config {
  int channel_1, channel_2;
  int64_t binwidth;
  int n_bins;
};

struct Expected {
  std::vector<int32_t> data;
  uint64_t counts[2] = {0, 0};
  int64_t overflow_time = 0;
};

// Every pair of tags on the two channels that no error separates and that lie
// at most half the range apart, found by looking back from each tag. A tag on
// both channels pairs with itself once, at offset 0.
Expected reference(const Config& c, const std::vector<Tag>& tags) {
  const int second = c.channel_2 == kUnused ? c.channel_1 : c.channel_2;
  const int64_t half_range = c.binwidth * c.n_bins / 2;
  Expected out;
  out.data.assign(static_cast<size_t>(c.n_bins), 0);
  auto count = [&](int64_t offset) {
    const int64_t bin = (offset + half_range) / c.binwidth;
    if (bin < c.n_bins) ++out.data[static_cast<size_t>(bin)];
  };
  int64_t overflow_begin = 0;
  for (size_t j = 0; j < tags.size(); ++j) {
    const Tag& later = tags[j];
    if (later.type == Tag::Type::OverflowBegin) overflow_begin = later.time;
    if (later.type == Tag::Type::OverflowEnd) out.overflow_time += later.time - overflow_begin;
    if (later.type != Tag::Type::TimeTag) continue;
    if (later.channel == c.channel_1) ++out.counts[0];
    if (later.channel == second) ++out.counts[1];
    if (later.channel == second && later.channel == c.channel_1) count(0);
    for (size_t i = j; i-- > 0;) {
      const Tag& earlier = tags[i];
      if (earlier.type == Tag::Type::Error || later.time - earlier.time > half_range) break;
      if (earlier.type != Tag::Type::TimeTag) continue;
      if (later.channel == c.channel_1 && earlier.channel == second) {
        count(later.time - earlier.time);
      }
      if (later.channel == second && earlier.channel == c.channel_1) {
        count(earlier.time - later.time);
      }
    }
  }
  return out;
}

std::vector<int32_t> dataOf(Correlation& correlation) {
  return collect(correlation, &Correlation::getData);
}
std::vector<double> normalizedOf(Correlation& correlation) {
  return collect(correlation, &Correlation::getDataNormalized);
}

class CorrelationTest : public ::testing::Test {
 protected:
  TestZeptick tagger{"TEST-1", 4};
};

TEST_F(CorrelationTest, MatchesReferenceOnRandomStreamsHoweverCut) {
  const Config configs[] = {
      {1, 2, 1, 64},           // identity binning, even range
      {1, 2, 7, 33},           // reciprocal, odd range: the top edge lands in the last bin
      {1, kUnused, 16, 40},    // shift, autocorrelation
      {2, 2, 5, 21},           // the same channel named twice
      {1, 2, 7, 1},            // a range below one bin: everything in bin 0
      {2, 1, 3000000019, 2},   // 64-bit reciprocal
      {1, 2, 10000000019, 4},  // true division
  };
  int modes_seen[7] = {};
  for (const Config& c : configs) {
    const int64_t half_range = c.binwidth * c.n_bins / 2;
    ++modes_seen[FastBinning(c.binwidth, 2 * half_range).getMode()];
    for (uint64_t seed = 1; seed <= 2; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      std::mt19937_64 rng(seed);
      testing::StreamShape shape;
      shape.channels = {1, 2, 3};
      shape.tags = 3000;
      shape.mean_gap = half_range / 3 + 1;
      shape.error_percent = shape.overflow_percent = 1;
      shape.grid = seed % 2 == 1 ? std::max<int64_t>(1, half_range / 8) : 1;
      const testing::TagStream stream = testing::makeRandomStream(rng, shape);
      Correlation correlation(&tagger, c.channel_1, c.channel_2, c.binwidth, c.n_bins);
      const auto delivered = testing::deliver(
          tagger, testing::cutStream(stream, testing::randomCuts(rng, stream, 40)));
      correlation.stop();
      const Expected expected = reference(c, testing::concatenate(delivered));
      ASSERT_GT(std::accumulate(expected.data.begin(), expected.data.end(), 0), 50);
      const std::vector<int32_t> data = dataOf(correlation);
      ASSERT_EQ(data, expected.data);

      // It saw idle blocks around the stream as well; their time counts, the
      // overflows' does not.
      const double captured =
          static_cast<double>(correlation.getCaptureDuration() - expected.overflow_time);
      const double pairs_expected = static_cast<double>(c.binwidth) *
                                    static_cast<double>(expected.counts[0]) *
                                    static_cast<double>(expected.counts[1]) / captured;
      const std::vector<double> normalized = normalizedOf(correlation);
      for (size_t i = 0; i < data.size(); ++i) {
        EXPECT_NEAR(normalized[i] * pairs_expected, data[i], 1e-9 * (data[i] + 1)) << i;
      }
    }
  }
  for (int mode : {0, 1, 2, 3, 4, 6}) EXPECT_GT(modes_seen[mode], 0) << "mode " << mode;
}

TEST_F(CorrelationTest, IndexCentresTheRangeAndRegistersAnAutocorrelationOnce) {
  // 3 bins of 5 ps: half range 7, the range 15 is odd.
  Correlation odd(&tagger, 1, 2, 5, 3);
  EXPECT_EQ(collect(odd, &Correlation::getIndex), (std::vector<int64_t>{-7, -2, 3}));
  Correlation auto_correlation(&tagger, 3, kUnused, 1, 1);
  EXPECT_EQ(tagger.registrations(3), 1);
}

TEST_F(CorrelationTest, ErrorForgetsStampsAndOverflowOnlyShortensTheCapture) {
  testing::Direct<Correlation> correlation(&tagger, 1, 2, 10, 10);  // half range 50
  correlation.clear();  // forgets the capture time of idle blocks it saw
  // Before any tag every normalised bin is 0 x (0 / 0).
  for (double value : normalizedOf(correlation)) EXPECT_TRUE(std::isnan(value));

  correlation.feed({timeTag(1, 100), marker(Tag::Type::Error, 110),
                    timeTag(2, 120),  // no pair: the error dropped 100
                    marker(Tag::Type::OverflowBegin, 130), marker(Tag::Type::OverflowEnd, 160),
                    timeTag(1, 165)},  // pairs with 120 across the overflow: +45
                   100, 200);
  EXPECT_EQ(dataOf(correlation), (std::vector<int32_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
  // Counts 2 and 1; captured 100 ps less the 30 ps of overflow.
  EXPECT_DOUBLE_EQ(normalizedOf(correlation)[9], 70.0 / (10.0 * 2 * 1));

  // An overflow that spans blocks: nothing of it is captured.
  correlation.feed({marker(Tag::Type::OverflowBegin, 250)}, 200, 300);
  correlation.feed({}, 300, 400);
  correlation.feed({marker(Tag::Type::OverflowEnd, 420)}, 400, 500);
  EXPECT_DOUBLE_EQ(normalizedOf(correlation)[9], (70.0 + 50 + 80) / (10.0 * 2 * 1));

  // An end with no begin (the measurement started inside an overflow) drops
  // the capture time before it, but no counts.
  correlation.feed({timeTag(2, 510), marker(Tag::Type::OverflowEnd, 550)}, 500, 600);
  EXPECT_EQ(dataOf(correlation)[9], 1);
  EXPECT_DOUBLE_EQ(normalizedOf(correlation)[9], 100.0 / (10.0 * 2 * 2));
}

}  // namespace
}  // namespace zeptick
