// Countrate looks channels up in a plain table when they lie close together and in a hash
// table when they do not (virtual channels far from the inputs). The two must count alike.

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "support/measurement_streams.h"
#include "support/recording_measurement.h"
#include "zeptick/countrate.h"

namespace zeptick {
namespace {

using namespace testing;

using DirectCountrate = Direct<Countrate>;
using CountrateLookupTest = QuietTaggerTest;

// Channels 1 and -2 are read by both measurements; the second also lists two far channels,
// so it takes the hash table. Its totals of 1 and -2 must be the first's, and those of the far
// channels a plain count of the stream. (The rates may differ: a far event can open the span.)
TEST_F(CountrateLookupTest, FarChannelsCountLikeNearOnes) {
  constexpr int kFar = 1 << 20;
  const std::vector<int> near = {1, -2, 1};
  const std::vector<int> mixed = {1, -2, 1, kFar, -kFar};
  for (uint64_t seed = 1; seed <= 6; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    const TagStream stream = makeRandomStream(rng, {.channels = {1, -2, 3, kFar, -kFar, kFar + 1},
                                                    .tags = 400,
                                                    .error_percent = 1,
                                                    .overflow_percent = 2,
                                                    .missed_outside_percent = 2});
    DirectCountrate by_table(&tagger, near);
    DirectCountrate by_hash(&tagger, mixed);
    for (const Block& block : cutStream(stream, randomCuts(rng, stream, 30))) {
      by_table.feed(block.tags, block.begin_time, block.end_time);
      by_hash.feed(block.tags, block.begin_time, block.end_time);
    }
    std::vector<int64_t> far_counts(2, 0);
    for (const Tag& tag : stream.tags) {
      if (tag.type != Tag::Type::TimeTag && tag.type != Tag::Type::MissedEvents) continue;
      const int64_t n = tag.type == Tag::Type::TimeTag ? 1 : tag.missed_events;
      if (tag.channel == kFar) far_counts[0] += n;
      if (tag.channel == -kFar) far_counts[1] += n;
    }
    const auto table_totals = collect(by_table, &Countrate::getCountsTotal);
    const auto hash_totals = collect(by_hash, &Countrate::getCountsTotal);
    ASSERT_EQ(hash_totals.size(), 5U);
    EXPECT_EQ(std::vector<int64_t>(hash_totals.begin(), hash_totals.begin() + 3), table_totals);
    EXPECT_EQ(std::vector<int64_t>(hash_totals.begin() + 3, hash_totals.end()), far_counts);
    EXPECT_GT(far_counts[0], 0);
  }
}

}  // namespace
}  // namespace zeptick
