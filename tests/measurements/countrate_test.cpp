#include "zeptick/countrate.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;
using DirectCountrate = testing::Direct<Countrate>;

std::vector<double> rates(Countrate& countrate) { return collect(countrate, &Countrate::getData); }
std::vector<int64_t> totals(Countrate& countrate) {
  return collect(countrate, &Countrate::getCountsTotal);
}

using CountrateTest = QuietTaggerTest;

TEST_F(CountrateTest, ReportsZerosWithoutASpan) {
  DirectCountrate countrate(&tagger, std::vector<int>{1, 1, 2});
  EXPECT_EQ(tagger.registrations(1), 1);                     // a repeated channel registers once
  EXPECT_EQ(rates(countrate), std::vector<double>(3, 0.0));  // 0/0 must not leak out as NaN
  EXPECT_EQ(totals(countrate), std::vector<int64_t>(3, 0));
  DirectCountrate none(&tagger, std::vector<int>{});
  EXPECT_TRUE(rates(none).empty());
}

TEST_F(CountrateTest, BeginTimeZeroLeavesSpanStartUnsetUntilACountedTag) {
  // Zero means "unset", so a stream starting at 0 starts its span at the first
  // counted tag of a listed channel, or at the end of the block without one.
  DirectCountrate with_tag(&tagger, std::vector<int>{1});
  with_tag.feed({timeTag(3, 100), timeTag(1, 400), timeTag(1, 600)}, 0, 1000);
  EXPECT_DOUBLE_EQ(rates(with_tag)[0], 2e12 / 600);

  // A tag exactly at 0 cannot set the start either.
  DirectCountrate at_zero(&tagger, std::vector<int>{1});
  at_zero.feed({timeTag(1, 0)}, 0, 1000);
  EXPECT_EQ(rates(at_zero)[0], 0.0);
  EXPECT_EQ(totals(at_zero)[0], 1);

  DirectCountrate without_tag(&tagger, std::vector<int>{1});
  without_tag.feed({timeTag(3, 100)}, 0, 1000);
  EXPECT_EQ(rates(without_tag)[0], 0.0);
  without_tag.feed({timeTag(1, 1500)}, 3000);
  EXPECT_DOUBLE_EQ(rates(without_tag)[0], 1e12 / 2000);
}

TEST_F(CountrateTest, ErrorRestartsRateButNotTotalsAndStartClearsBoth) {
  DirectCountrate countrate(&tagger, std::vector<int>{1, 2});
  countrate.feed({timeTag(1, 1100), timeTag(2, 1200), marker(Tag::Type::Error, 1500),
                  timeTag(3, 1600), timeTag(2, 1700)},
                 1000, 2000);
  EXPECT_EQ(rates(countrate), (std::vector<double>{0.0, 1e12 / 300}));
  // An error as the last tag leaves an empty span: zeros, not a stale or infinite rate.
  countrate.feed({timeTag(1, 2100), marker(Tag::Type::Error, 2900)}, 3000);
  EXPECT_EQ(rates(countrate), (std::vector<double>{0.0, 0.0}));
  EXPECT_EQ(totals(countrate), (std::vector<int64_t>{2, 2}));

  countrate.restart();
  EXPECT_EQ(totals(countrate), (std::vector<int64_t>{0, 0}));
  countrate.feed({timeTag(2, 3500)}, 4000);
  countrate.clear();
  EXPECT_EQ(totals(countrate), (std::vector<int64_t>{0, 0}));
}

struct Expected {
  std::vector<int64_t> totals;
  std::vector<double> rates;
};

// The counting rules, worked per channel value with maps rather than per entry.
Expected reference(const std::vector<int>& entries, const std::vector<Block>& blocks) {
  std::map<int, int64_t> total;
  std::map<int, int64_t> since_error;
  for (int channel : entries) total[channel] = since_error[channel] = 0;
  int64_t first_time = 0;
  for (const Block& block : blocks) {
    if (first_time == 0) first_time = block.begin_time;
    for (const Tag& tag : block.tags) {
      if (tag.type == Tag::Type::Error) {
        first_time = 0;
        for (auto& entry : since_error) entry.second = 0;
        continue;
      }
      if (tag.type != Tag::Type::TimeTag && tag.type != Tag::Type::MissedEvents) continue;
      if (!total.contains(tag.channel)) continue;
      const int64_t n = tag.type == Tag::Type::TimeTag ? 1 : tag.missed_events;
      total[tag.channel] += n;
      since_error[tag.channel] += n;
      if (first_time == 0) first_time = tag.time;
    }
    if (first_time == 0) first_time = block.end_time;
  }
  const int64_t last_time = blocks.back().end_time;
  Expected expected;
  for (int channel : entries) {
    expected.totals.push_back(total[channel]);
    const double span = static_cast<double>(last_time - first_time);
    expected.rates.push_back(last_time == first_time ? 0.0 : since_error[channel] * 1e12 / span);
  }
  return expected;
}

TEST_F(CountrateTest, MatchesReferenceOnRandomStreamsCutAnywhere) {
  const std::vector<int> entries = {1, 2, 1, -2, 7, 4};  // 4 never occurs, 3, -1, 5 unlisted
  for (uint64_t seed = 1; seed <= 16; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = {1, 2, 3, -1, -2, 5, 7};
    shape.tags = 300;
    shape.mean_gap = 20000;
    shape.error_percent = 1;
    shape.overflow_percent = 2;
    shape.missed_outside_percent = 2;
    const testing::TagStream stream = testing::makeRandomStream(rng, shape);
    const auto blocks = testing::cutStream(stream, testing::randomCuts(rng, stream, 60));
    DirectCountrate countrate(&tagger, entries);
    for (const Block& block : blocks) countrate.feed(block.tags, block.begin_time, block.end_time);
    const Expected expected = reference(entries, blocks);
    EXPECT_EQ(totals(countrate), expected.totals);
    const std::vector<double> got = rates(countrate);
    ASSERT_EQ(got.size(), expected.rates.size());
    for (size_t i = 0; i < got.size(); ++i) EXPECT_DOUBLE_EQ(got[i], expected.rates[i]) << i;
  }
}

}  // namespace
}  // namespace zeptick
