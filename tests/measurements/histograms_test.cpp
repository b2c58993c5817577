// The histogramming measurements, each against a brute-force reference fed the same stream through
// the runner however it is cut, plus the few behaviours no stream reaches.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <utility>
#include <vector>

#include "measurements/histogram_common.h"
#include "support/measurement_streams.h"
#include "zeptick/correlation.h"
#include "zeptick/flim.h"
#include "zeptick/histogram.h"
#include "zeptick/histogram_2d.h"
#include "zeptick/histogram_log_bins.h"
#include "zeptick/start_stop.h"
#include "zeptick/time_differences.h"
#include "zeptick/time_differences_nd.h"

namespace zeptick {
namespace {

using namespace testing;
constexpr int kUnused = CHANNEL_UNUSED;
using HistogramTest = QuietTaggerTest;

// The plain histogram kernels, or the processor's fastest, for one scope.
struct PlainKernels {
  explicit PlainKernels(bool plain) { detail::forcePlainHistogramKernels(plain); }
  ~PlainKernels() { detail::forcePlainHistogramKernels(false); }
};

// Errors and overflows at 1 % each; odd seeds put every time on a grid of `grid`, so that ages hit
// bin edges and the range itself.
TagStream binningStream(std::mt19937_64& rng, uint64_t seed, std::vector<int> channels,
                        int64_t mean_gap, int64_t grid) {
  return makeRandomStream(rng, {.channels = std::move(channels),
                                .tags = 3000,
                                .mean_gap = mean_gap,
                                .error_percent = 1,
                                .overflow_percent = 1,
                                .grid = seed % 2 == 1 ? grid : 1});
}

struct TimeDifferencesConfig {
  int click, start, next, sync;
  int64_t binwidth;
  int n_bins, n_histograms;
  uint64_t max_counts;
};

struct TimeDifferencesExpected {
  std::vector<int32_t> data;
  uint64_t counts = 0;
};

// The counting rules worked tag by tag, with every start since the last reset kept and compared by
// its age instead of a queue that expires starts.
TimeDifferencesExpected timeDifferencesReference(const TimeDifferencesConfig& c,
                                                 const std::vector<Tag>& tags) {
  const int start = c.start == kUnused ? c.click : c.start;
  const bool has_next = c.next != kUnused;
  const bool has_sync = c.sync != kUnused;
  TimeDifferencesExpected out;
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

TEST_F(HistogramTest, TimeDifferencesMatchesReferenceAndTheLimitWaitsForPendingStarts) {
  {
    // -1 is the falling edge of input 1 under the one-based numbering, not "unused".
    TimeDifferences m(&tagger, 1, kUnused, -1, 4, 7, 4, 2);
    for (int channel : {1, 4, -1}) EXPECT_EQ(tagger.registrations(channel), 1);
    EXPECT_EQ(collect(m, &TimeDifferences::getIndex), (std::vector<int64_t>{0, 7, 14, 21}));
  }
  for (int channel : {1, 4, -1}) EXPECT_EQ(tagger.registrations(channel), 0);
  // click 1, start 2, next 3, sync 4; two histograms of ten 10 ps bins; at most one sequence.
  Direct<TimeDifferences> limited(&tagger, 1, 2, 3, 4, 10, 10, 2);
  limited.setMaxCounts(1);
  limited.feed({timeTag(2, 0), timeTag(4, 10), timeTag(2, 20), timeTag(3, 30), timeTag(2, 40),
                timeTag(1, 45), timeTag(3, 50), timeTag(2, 55), timeTag(1, 60), timeTag(3, 70),
                timeTag(2, 75), timeTag(1, 80)},
               0, 85);
  EXPECT_EQ(limited.getCounts(), 1u);
  // Later sync and next tags find the gate shut; the starts at 40 and 55 may count until 155.
  limited.feed({timeTag(4, 90), timeTag(3, 95), timeTag(4, 96)}, 154);
  EXPECT_FALSE(limited.ready());
  limited.feed({}, 155);
  EXPECT_TRUE(limited.ready());
  EXPECT_EQ(collect(limited, &TimeDifferences::getData),
            (std::vector<int32_t>{1, 0, 1, 0, 1, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(limited.getCounts(), 1u);
  // clear forgets counts and data but keeps the limit.
  limited.clear();
  EXPECT_EQ(collect(limited, &TimeDifferences::getData), std::vector<int32_t>(20, 0));
  limited.feed({timeTag(4, 300), timeTag(3, 301), timeTag(3, 302), timeTag(4, 303), timeTag(3, 304),
                timeTag(3, 305)},
               310);
  EXPECT_EQ(limited.getCounts(), 1u);

  const TimeDifferencesConfig configs[] = {
      {1, 2, kUnused, kUnused, 1, 50, 1, 0},     // identity binning
      {1, 2, 3, 4, 64, 20, 3, 0},                // shift, full sequence
      {1, kUnused, 3, kUnused, 1000, 7, 4, 60},  // reciprocal, rollover, limit
      {2, 1, kUnused, 4, 3000000019, 2, 1, 0},   // 64-bit reciprocal, sync only
      {1, 2, 3, 4, 10000000019, 4, 2, 200},      // true division, limit waits for sync
      {1, kUnused, 3, kUnused, 10, 30, 1, 0},    // one histogram: every next tag rolls over
      {3, 3, 3, 3, 5, 20, 3, 0},                 // one channel in every role
  };
  for (const TimeDifferencesConfig& c : configs) {
    // Seeds 1 and 2 run the plain kernels, 3 and 4 the fastest this processor has.
    for (uint64_t seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      const PlainKernels plain(seed <= 2);
      std::mt19937_64 rng(seed);
      const TagStream stream =
          binningStream(rng, seed, {1, 2, 3, 4}, c.binwidth * c.n_bins / 6 + 1, c.binwidth);
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
      const auto delivered = deliver(tagger, cutStream(stream, randomCuts(rng, stream, 40)));
      const TimeDifferencesExpected expected = timeDifferencesReference(c, concatenate(delivered));
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
}

struct CorrelationConfig {
  int channel_1, channel_2;
  int64_t binwidth;
  int n_bins;
};

struct CorrelationExpected {
  std::vector<int32_t> data;
  uint64_t counts[2] = {0, 0};
  int64_t overflow_time = 0;
};

// Every pair of tags on the two channels that no error separates and that lie at most half the
// range apart, found by looking back from each tag. A tag on both channels pairs with itself once,
// at offset 0.
CorrelationExpected correlationReference(const CorrelationConfig& c, const std::vector<Tag>& tags) {
  const int second = c.channel_2 == kUnused ? c.channel_1 : c.channel_2;
  const int64_t half_range = c.binwidth * c.n_bins / 2;
  CorrelationExpected out;
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

TEST_F(HistogramTest, CorrelationMatchesReferenceAndAnOverflowEndAloneResetsTheCapture) {
  // 3 bins of 5 ps: half range 7, the range 15 is odd.
  Correlation odd(&tagger, 1, 2, 5, 3);
  EXPECT_EQ(collect(odd, &Correlation::getIndex), (std::vector<int64_t>{-7, -2, 3}));
  Correlation auto_correlation(&tagger, 3, kUnused, 1, 1);
  EXPECT_EQ(tagger.registrations(3), 1);
  Direct<Correlation> correlation(&tagger, 1, 2, 10, 10);  // half range 50
  // Before any tag every normalised bin is 0 x (0 / 0).
  EXPECT_THAT(collect(correlation, &Correlation::getDataNormalized),
              ::testing::Each(::testing::IsNan()));
  correlation.feed({timeTag(2, 120), timeTag(1, 165)}, 100, 500);  // +45: the last bin
  // An end with no begin (started inside an overflow) drops the capture time before it, no counts.
  correlation.feed({timeTag(2, 510), marker(Tag::Type::OverflowEnd, 550)}, 500, 600);
  EXPECT_EQ(collect(correlation, &Correlation::getData),
            (std::vector<int32_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_DOUBLE_EQ(collect(correlation, &Correlation::getDataNormalized)[9],
                   100.0 / (10.0 * 1 * 2));

  const CorrelationConfig configs[] = {
      {1, 2, 1, 64},           // identity binning, even range
      {1, 2, 7, 33},           // reciprocal, odd range: the top edge lands in the last bin
      {1, kUnused, 16, 40},    // shift, autocorrelation
      {2, 2, 5, 21},           // the same channel named twice
      {1, 2, 7, 1},            // a range below one bin: everything in bin 0
      {2, 1, 3000000019, 2},   // 64-bit reciprocal
      {1, 2, 10000000019, 4},  // true division
  };
  for (const CorrelationConfig& c : configs) {
    const int64_t half_range = c.binwidth * c.n_bins / 2;
    for (uint64_t seed = 1; seed <= 4; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      const PlainKernels plain(seed <= 2);
      std::mt19937_64 rng(seed);
      const TagStream stream = binningStream(rng, seed, {1, 2, 3}, half_range / 3 + 1,
                                             std::max<int64_t>(1, half_range / 8));
      Correlation correlation(&tagger, c.channel_1, c.channel_2, c.binwidth, c.n_bins);
      const auto delivered = deliver(tagger, cutStream(stream, randomCuts(rng, stream, 40)));
      correlation.stop();
      const CorrelationExpected expected = correlationReference(c, concatenate(delivered));
      ASSERT_GT(std::accumulate(expected.data.begin(), expected.data.end(), 0), 50);
      const std::vector<int32_t> data = collect(correlation, &Correlation::getData);
      ASSERT_EQ(data, expected.data);

      // Time inside overflows is not capture time.
      const double captured =
          static_cast<double>(correlation.getCaptureDuration() - expected.overflow_time);
      const double pairs_expected = static_cast<double>(c.binwidth) *
                                    static_cast<double>(expected.counts[0]) *
                                    static_cast<double>(expected.counts[1]) / captured;
      const std::vector<double> normalized = collect(correlation, &Correlation::getDataNormalized);
      for (size_t i = 0; i < data.size(); ++i) {
        EXPECT_NEAR(normalized[i] * pairs_expected, data[i], 1e-9 * (data[i] + 1)) << i;
      }
    }
  }
}

// For each click, look back for what came last among starts, clicks and non-time tags: only a start
// (other than one at time 0) makes a pair. A tag on both channels is a start for the clicks after
// it, not for itself. A width below 1 puts every pair in bin 0. Rows of bin start and count, flat.
std::vector<int64_t> startStopReference(int click, int start, int64_t binwidth,
                                        const std::vector<Tag>& tags) {
  if (start == kUnused) start = click;
  std::map<int64_t, int64_t> counts;
  for (size_t j = 0; j < tags.size(); ++j) {
    if (tags[j].type != Tag::Type::TimeTag || tags[j].channel != click) continue;
    for (size_t i = j; i-- > 0;) {
      const Tag& earlier = tags[i];
      if (earlier.type != Tag::Type::TimeTag) break;
      if (earlier.channel == start) {
        const int64_t bin = binwidth > 0 ? (tags[j].time - earlier.time) / binwidth : 0;
        if (earlier.time != 0) ++counts[bin];
        break;
      }
      if (earlier.channel == click) break;
    }
  }
  std::vector<int64_t> rows;
  for (const auto& [bin, count] : counts) rows.insert(rows.end(), {bin * binwidth, count});
  return rows;
}

// Pair lengths the random streams never reach: short ones, ones on either side of the bins kept in
// an array, and far ones counted apart.
TagStream nearAndFarPairs(std::mt19937_64& rng, int64_t width) {
  auto draw = [&](int64_t low, int64_t high) {
    return std::uniform_int_distribution<int64_t>(low, high)(rng);
  };
  const int64_t edge = (int64_t{1} << 20) * width;
  TagStream stream{{}, 1000, 1000};
  for (int pair = 0; pair < 3000; ++pair) {
    const int64_t length = pair % 3 == 0   ? draw(0, 3000 * width)
                           : pair % 3 == 1 ? edge + draw(-3 * width, 3 * width)
                                           : draw(edge, int64_t{1} << 42);
    stream.tags.insert(stream.tags.end(),
                       {timeTag(2, stream.end_time), timeTag(1, stream.end_time + length)});
    stream.end_time += length + 1;
  }
  return stream;
}

TEST_F(HistogramTest, StartStopMatchesReferenceAndAStartBeforeARestartOrClearNeverOpens) {
  Direct<StartStop> m(&tagger, 1, 2, 10);
  std::vector<size_t> asked;
  EXPECT_TRUE(collect(m, &StartStop::getData, &asked).empty());
  EXPECT_EQ(asked, (std::vector<size_t>{0, 2}));
  m.feed({timeTag(2, 0), timeTag(1, 5), timeTag(2, 2000)}, 0, 2010);
  m.restart();
  m.feed({timeTag(1, 2020), timeTag(2, 2030), timeTag(1, 2060)}, 2070);
  EXPECT_EQ(collect(m, &StartStop::getData), (std::vector<int64_t>{30, 1}));
  m.feed({timeTag(2, 3000)}, 3010);
  m.clear();
  m.feed({timeTag(1, 3020)}, 3030);
  EXPECT_TRUE(collect(m, &StartStop::getData).empty());
  // A start channel left unused measures the spacing of the clicks alone.
  StartStop spacing(&tagger, 3, kUnused, 1);
  EXPECT_EQ(tagger.registrations(3), 1);

  struct Config {
    int click, start;
    int64_t binwidth;
    bool far = false;  // pairs of nearAndFarPairs instead of a random stream
  };
  const Config configs[] = {
      {1, 2, 1},           // identity
      {2, 1, 64},          // shift
      {1, kUnused, 1000},  // spacing of one channel; 64-bit division over the whole range
      {1, 2, 274177},      // a divisor of 2^64 + 1: the 64-bit reciprocal is exact everywhere
      {1, 2, -5},          // a negative width: every pair in one bin
      {1, 2, 1, true},    {1, 2, 1000, true}, {1, 2, 3, true},
  };
  for (const Config& c : configs) {
    for (uint64_t seed = 1; seed <= 2; ++seed) {
      SCOPED_TRACE(::testing::Message() << "binwidth " << c.binwidth << " seed " << seed);
      std::mt19937_64 rng(seed);
      const int64_t width = std::max<int64_t>(c.binwidth, 1);
      const TagStream stream = c.far ? nearAndFarPairs(rng, width)
                                     : binningStream(rng, seed, {1, 2, 3}, 5 * width, width);
      StartStop measurement(&tagger, c.click, c.start, c.binwidth);
      const std::vector<Tag> delivered =
          concatenate(deliver(tagger, cutStream(stream, randomCuts(rng, stream, 40))));
      const auto expected = startStopReference(c.click, c.start, c.binwidth, delivered);
      ASSERT_GT(expected.size(), c.binwidth > 0 ? 6u : 0u);
      EXPECT_EQ(collect(measurement, &StartStop::getData), expected);
    }
  }
}

// Every start, scanned forward on its own: its event completes at the first tag by which both stops
// have been seen, and is lost if another start or a tag other than a time tag comes first.
struct Setup2D {
  int start, stop_1, stop_2;
  int64_t width_1, width_2;
  int rows, columns;
};

std::vector<int32_t> bruteForce2D(const Setup2D& s, const std::vector<Tag>& line) {
  std::vector<int32_t> cells(static_cast<size_t>(s.rows * s.columns), 0);
  for (size_t i = 0; i < line.size(); ++i) {
    if (line[i].type != Tag::Type::TimeTag || line[i].channel != s.start) continue;
    int64_t seen_1 = -1, seen_2 = -1;
    for (size_t k = i; k < line.size(); ++k) {
      const Tag& tag = line[k];
      if (k > i && (tag.type != Tag::Type::TimeTag || tag.channel == s.start)) break;
      if (tag.channel == s.stop_1) seen_1 = tag.time;
      if (tag.channel == s.stop_2) seen_2 = tag.time;
      if (seen_1 >= 0 && seen_2 >= 0) {
        const int64_t row = (seen_1 - line[i].time) / s.width_1;
        const int64_t column = (seen_2 - line[i].time) / s.width_2;
        if (row < s.rows && column < s.columns) ++cells[row * s.columns + column];
        break;
      }
    }
  }
  return cells;
}

struct NDSetup {
  int click, start;
  std::vector<int> next, sync, n_histograms;
  int64_t binwidth;
  uint64_t n_bins;
};

// The stated rules in another form: a dimension's index is the number of its next tags since its
// last sync or the last tag other than a time tag, minus one; it wraps without a sync channel and
// is void past its end with one. Each click then meets every valid start within range, with no
// queue.
std::vector<int32_t> bruteForceND(const NDSetup& s, const std::vector<Tag>& tags) {
  const size_t dims = s.next.size();
  int64_t histograms = 1;
  for (int n : s.n_histograms) histograms *= n;
  std::vector<int32_t> data(static_cast<size_t>(histograms) * s.n_bins, 0);
  const int64_t range = static_cast<int64_t>(s.n_bins) * s.binwidth;
  std::vector<int64_t> steps(dims, 0);
  std::vector<std::pair<int64_t, int64_t>> starts;  // time, histogram
  for (const Tag& tag : tags) {
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
  return data;
}

// Both grids through the runner on one stream however cut, each against its brute force.
TEST_F(HistogramTest, GridsMatchBruteForceHoweverCutAndClearsAbandonTheOpenEvent) {
  // Two wrapping dimensions of 2 and 3 histograms, the first varying fastest; 4 bins of 10 ps.
  Direct<TimeDifferencesND> nd(&tagger, 1, 2, {3, 4}, {}, {2, 3}, 10, 4);
  // Dimension 0 at 1, dimension 1 at 0: histogram 1. The clear forgets the start at 110.
  nd.feed({timeTag(3, 100), timeTag(3, 101), timeTag(4, 102), timeTag(2, 110)}, 0, 120);
  nd.clear();
  nd.feed({timeTag(2, 121), timeTag(1, 125)}, 130);
  std::vector<int32_t> expected(24, 0);
  expected[4] = 1;  // histogram 1, bin 0
  std::vector<size_t> sizes;
  EXPECT_EQ(collect(nd, &TimeDifferencesND::getData, &sizes), expected);
  EXPECT_EQ(sizes, (std::vector<size_t>{6, 4}));

  Direct<TimeDifferencesND> flat(&tagger, 1, 1, std::vector<int>{}, std::vector<int>{},
                                 std::vector<int>{}, 10, 3);
  flat.feed({timeTag(1, 100), timeTag(1, 105)}, 0, 110);
  EXPECT_EQ(collect(flat, &TimeDifferencesND::getData, &sizes), std::vector<int32_t>(3, 0));
  EXPECT_EQ(sizes, (std::vector<size_t>{1, 3}));

  // Start 1, stops 2 and 3; bins of 10 ps (3 rows) and 25 ps (2 columns).
  Direct<Histogram2D> h(&tagger, 1, 2, 3, 10, 25, 3, 2);
  EXPECT_EQ(collect(h, &Histogram2D::getIndex, &sizes),
            (std::vector<int64_t>{0, 0, 0, 25, 10, 0, 10, 25, 20, 0, 20, 25}));
  EXPECT_EQ(sizes, (std::vector<size_t>{3, 2, 2}));
  h.feed({timeTag(1, 100), timeTag(2, 105), timeTag(3, 130), timeTag(1, 700), timeTag(3, 710)}, 0,
         720);
  EXPECT_EQ(collect(h, &Histogram2D::getData, &sizes), (std::vector<int32_t>{0, 1, 0, 0, 0, 0}));
  EXPECT_EQ(sizes, (std::vector<size_t>{3, 2}));
  h.clear();  // the event opened at 700 would complete at 721
  h.feed({timeTag(2, 721)}, 730);
  EXPECT_EQ(collect(h, &Histogram2D::getData), std::vector<int32_t>(6, 0));

  // Unchecked widths and sizes count nothing rather than divide by zero.
  Direct<Histogram2D> no_width(&tagger, 1, 2, 3, 0, 10, 2, 2);
  no_width.feed({timeTag(1, 100), timeTag(2, 101), timeTag(3, 102)}, 0, 110);
  EXPECT_EQ(collect(no_width, &Histogram2D::getData), (std::vector<int32_t>{0, 0, 0, 0}));
  Direct<Histogram2D> no_rows(&tagger, 1, 2, 3, 10, 10, -2, 2);
  no_rows.feed({timeTag(1, 100), timeTag(2, 101), timeTag(3, 102)}, 0, 110);
  EXPECT_TRUE(collect(no_rows, &Histogram2D::getData).empty());

  const std::vector<Setup2D> setups_2d = {
      {1, 2, 3, 7, 13, 20, 11},   // three channels, coarse second axis
      {1, 2, 2, 5, 5, 30, 30},    // one stop channel on both axes: the diagonal
      {1, 1, 2, 3, 50, 4, 6},     // start is stop 1: first axis always 0, small grid
      {-1, 2, -1, 1, 1, 64, 64},  // start is stop 2
      {2, 2, 2, 10, 10, 2, 2},    // one channel: every tag is its own event
  };
  const std::vector<NDSetup> setups_nd = {
      {1, 2, {3}, {}, {3}, 7, 20},                                   // one wrapping dimension
      {1, 2, {3, 4}, {5, -2}, {2, 3}, 8, 16},                        // both synced
      {1, 2, {3, 4, 3}, {5, CHANNEL_UNUSED, -2}, {2, 4, 3}, 1, 90},  // mixed, a shared next channel
      {2, 2, {3, 5}, {}, {4, 2}, 13, 11},                            // start is click
      {1, 2, {1}, {3}, {5}, 1000, 1000000},                          // the click steps; long range
  };
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    const Setup2D& s = setups_2d[seed % setups_2d.size()];
    const NDSetup& nd = setups_nd[seed % setups_nd.size()];
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::mt19937_64 rng(seed);
    const TagStream stream = makeRandomStream(rng, {.channels = {1, 1, 2, 2, 3, 4, 5, -1, -2},
                                                    .tags = 4000,
                                                    .mean_gap = 18,
                                                    .error_percent = 0.5,
                                                    .overflow_percent = 0.5});
    for (size_t most_cuts : {0, 30, 900}) {
      SCOPED_TRACE(::testing::Message() << most_cuts << " cuts");
      Histogram2D grid_2d(&tagger, s.start, s.stop_1, s.stop_2, s.width_1, s.width_2, s.rows,
                          s.columns);
      TimeDifferencesND grid_nd(&tagger, nd.click, nd.start, nd.next, nd.sync, nd.n_histograms,
                                nd.binwidth, nd.n_bins);
      const std::vector<Tag> seen =
          concatenate(deliver(tagger, cutStream(stream, randomCuts(rng, stream, most_cuts))));
      const std::vector<int32_t> cells = bruteForce2D(s, seen);
      ASSERT_GT(std::accumulate(cells.begin(), cells.end(), 0), 20);
      EXPECT_EQ(collect(grid_2d, &Histogram2D::getData), cells);
      const std::vector<int32_t> bins = bruteForceND(nd, seen);
      ASSERT_GT(std::accumulate(bins.begin(), bins.end(), 0), 100);
      EXPECT_EQ(collect(grid_nd, &TimeDifferencesND::getData), bins);
    }
  }
}

// The stated rules, with each click compared against every start kept since the last reset: no
// ring, no read indices.
struct LogReference {
  std::vector<uint64_t> counts;
  double clicks = 0, starts = 0, capture = 0;
};

LogReference bruteForceLog(const std::vector<int64_t>& e, int click, int start,
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
  int click, start;
  double exp_start, exp_stop;
  int n_bins;
  int64_t max_gap;
  int special_permille;  // chance per tag of an error, and of an overflow
  std::vector<int> channels;
};

TEST_F(HistogramTest, LogBinsMatchBruteForceHoweverCutAndClearSettlesAgain) {
  Direct<HistogramLogBins> h(&tagger, 1, 2, -12, -9, 3);
  EXPECT_EQ(collect(h, &HistogramLogBins::getBinEdges), (std::vector<int64_t>{1, 10, 100, 1000}));

  // Half decades: 10^0.5 = 3.16.., 10^1.5 = 31.6..; below 1 ps truncates to 0.
  Direct<HistogramLogBins> halves(&tagger, 1, 2, -12.5, -10, 5);
  EXPECT_EQ(collect(halves, &HistogramLogBins::getBinEdges),
            (std::vector<int64_t>{0, 1, 3, 10, 31, 100}));

  // Unchecked arguments stay harmless: no bins, one edge.
  Direct<HistogramLogBins> none(&tagger, 1, 2, -12, -9, 0);
  EXPECT_EQ(collect(none, &HistogramLogBins::getBinEdges), std::vector<int64_t>{1});
  EXPECT_TRUE(collect(none, &HistogramLogBins::getData).empty());

  // The click at 600 falls within the first range after the reset at 1: settling, ignored.
  h.feed({timeTag(2, 100), timeTag(1, 600), timeTag(2, 1200), timeTag(1, 1250)}, 1, 20000);
  EXPECT_EQ(collect(h, &HistogramLogBins::getData), (std::vector<uint64_t>{0, 1, 0}));
  h.clear();
  EXPECT_EQ(collect(h, &HistogramLogBins::getData), (std::vector<uint64_t>{0, 0, 0}));
  EXPECT_TRUE(std::isnan(
      collect(h, &HistogramLogBins::getDataNormalizedG2)[0]));  // no click or start yet: 0 / 0
  h.feed({timeTag(2, 20100), timeTag(1, 20200), timeTag(2, 21500), timeTag(1, 21600),
          timeTag(1, 21600)},
         30000);
  EXPECT_EQ(collect(h, &HistogramLogBins::getData), (std::vector<uint64_t>{0, 0, 2}));
  EXPECT_EQ(collect(h, &HistogramLogBins::getDataNormalizedG2)[2],
            2 * ((30000.0 - 21000) / (2 * 1)) / 900);

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
    std::vector<int> channels = s.channels;
    if (s.click != s.start) channels.push_back(s.click);
    const TagStream stream = makeRandomStream(rng, {.channels = channels,
                                                    .tags = 5000,
                                                    .mean_gap = s.max_gap / 2,
                                                    .error_percent = s.special_permille / 10.0,
                                                    .overflow_percent = s.special_permille / 10.0});

    for (size_t most_cuts : {3, 40, 700}) {
      HistogramLogBins h(&tagger, s.click, s.start, s.exp_start, s.exp_stop, s.n_bins);
      const std::vector<Block> seen =
          deliver(tagger, cutStream(stream, randomCuts(rng, stream, most_cuts)));
      const std::vector<int64_t> e = collect(h, &HistogramLogBins::getBinEdges);
      const LogReference ref = bruteForceLog(e, s.click, s.start, seen);
      ASSERT_EQ(collect(h, &HistogramLogBins::getData), ref.counts) << most_cuts << " cuts";
      ASSERT_GT(ref.clicks * ref.starts, 0);  // else G2 is NaN and proves nothing
      const std::vector<double> got = collect(h, &HistogramLogBins::getDataNormalizedG2);
      const auto per_ps = collect(h, &HistogramLogBins::getDataNormalizedCountsPerPs);
      for (size_t i = 0; i < got.size(); ++i) {
        const double width = static_cast<double>(e[i + 1] - e[i]);
        if (width == 0) {
          EXPECT_TRUE(std::isnan(got[i]) || std::isinf(got[i]));
          continue;
        }
        EXPECT_DOUBLE_EQ(per_ps[i], ref.counts[i] / width) << i;
        EXPECT_DOUBLE_EQ(got[i], ref.counts[i] * ref.capture / (ref.clicks * ref.starts) / width)
            << i;
      }
    }
  }
}

}  // namespace
}  // namespace zeptick
