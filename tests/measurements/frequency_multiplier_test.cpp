#include "zeptick/frequency_multiplier.h"

#include <gtest/gtest.h>

#include <deque>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/virtual_channel_harness.h"

namespace zeptick {
namespace {

using namespace testing;

// The output of one block from the rules, with the whole period's schedule
// worked out at once: each input tag after the first copies itself and
// schedules t + period * k / m for k = 1 .. m - 1, replacing the previous
// schedule; scheduled tags go out before the first later time tag or at the
// block's end; tags that are not time tags cancel everything.
std::vector<Tag> reference(const TagStream& stream, int input, int multiplier) {
  const int vc = kFirstVirtualChannel;
  std::vector<Tag> out;
  std::deque<int64_t> schedule;
  int64_t last = 0;
  auto emitBefore = [&](int64_t time) {
    for (; !schedule.empty() && schedule.front() < time; schedule.pop_front()) {
      out.push_back(timeTag(vc, schedule.front()));
    }
  };
  for (const Tag& tag : stream.tags) {
    if (tag.type != Tag::Type::TimeTag) {
      out.push_back(tag);
      schedule.clear();
      last = 0;
      continue;
    }
    emitBefore(tag.time);
    out.push_back(tag);
    if (tag.channel != input) continue;
    const int64_t previous = last;
    last = tag.time;
    if (previous <= 0) continue;
    out.push_back(timeTag(vc, tag.time));
    schedule.clear();
    for (int k = 1; k < multiplier; ++k) {
      schedule.push_back(tag.time + (tag.time - previous) * k / multiplier);
    }
  }
  emitBefore(stream.end_time);
  return out;
}

std::unique_ptr<IteratorBase> multiplier(TestZeptick* tagger, int input, int factor) {
  return std::make_unique<FrequencyMultiplier>(tagger, input, factor);
}

TEST(FrequencyMultiplierTest, ExtrapolatesTheLastPeriodAndPlacesEachStepFromTheTag) {
  const int vc = kFirstVirtualChannel;
  const TagStream stream{
      {timeTag(1, 1000), timeTag(1, 2000), timeTag(1, 3000), timeTag(2, 4000)}, 500, 5000};
  const auto out =
      checkVirtualChannel(stream, [](TestZeptick* tagger) { return multiplier(tagger, 1, 3); });
  EXPECT_TRUE(sameTags(out.inserted, {timeTag(vc, 2000), timeTag(vc, 2333), timeTag(vc, 2666),
                                      timeTag(vc, 3000), timeTag(vc, 3333), timeTag(vc, 3666)}));
  // A shorter real period drops the rest; an insertion at a tag's time waits behind it.
  const TagStream uneven{
      {timeTag(1, 1000), timeTag(1, 2000), timeTag(1, 2300), timeTag(3, 2450)}, 500, 3000};
  EXPECT_TRUE(sameTags(
      checkVirtualChannel(uneven, [](TestZeptick* tagger) { return multiplier(tagger, 1, 2); })
          .output,
      {timeTag(1, 1000), timeTag(1, 2000), timeTag(vc, 2000), timeTag(1, 2300), timeTag(vc, 2300),
       timeTag(3, 2450), timeTag(vc, 2450)}));
}

TEST(FrequencyMultiplierTest, TimeZeroNonTimeTagsAndRestarts) {
  TestZeptick tagger("TEST-1", 2);
  tagger.setIdleSpan(0);
  // Multipliers below 2 only copy.
  for (int factor : {1, 0, -5})
    EXPECT_EQ(Direct<FrequencyMultiplier>(&tagger, 1, factor).getMultiplier(), 1);
  Direct<FrequencyMultiplier> fm(&tagger, 1, 2);
  const int vc = fm.getChannel();
  // A tag at 0 is no tag, so 1000 gives no copy yet.
  EXPECT_TRUE(sameTags(fm.feed({timeTag(1, 0), timeTag(1, 1000), timeTag(1, 2000)}, 0, 2200),
                       {timeTag(1, 0), timeTag(1, 1000), timeTag(1, 2000), timeTag(vc, 2000)}));
  // The extrapolation at 2500 crosses the block end, a clear and a restart.
  fm.clear();
  fm.restart();
  EXPECT_TRUE(sameTags(fm.feed({}, 2200, 3000), {timeTag(vc, 2500)}));
  // A non-time tag drops the pending extrapolation (3500, before it, but with
  // no time tag in between), and a full period must be seen again.
  fm.feed({timeTag(1, 3000)}, 3000, 3200);
  EXPECT_TRUE(sameTags(
      fm.feed(
          {marker(Tag::Type::Error, 3600), timeTag(1, 3700), timeTag(1, 4000), timeTag(1, 4100)},
          3200, 4200),
      {marker(Tag::Type::Error, 3600), timeTag(1, 3700), timeTag(1, 4000), timeTag(vc, 4000),
       timeTag(1, 4100), timeTag(vc, 4100), timeTag(vc, 4150)}));
}

TEST(FrequencyMultiplierStreamTest, MatchesReferenceOnRandomStreams) {
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = {1, 2, 3};
    shape.tags = 1500;
    shape.mean_gap = 700;
    const TagStream with_overflows = testing::makeRandomStream(rng, shape);
    const TagStream time_tags_only = testing::makeTimeTagStream(rng, {1, 2, 3}, 1500, 700);
    for (int factor : {1, 2, 3, 7}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " multiplier " + std::to_string(factor));
      auto make = [factor](TestZeptick* tagger) { return multiplier(tagger, 1, factor); };
      // Time tags alone give the same output however the blocks are cut.
      auto out = checkVirtualChannel(time_tags_only, make);
      EXPECT_TRUE(sameTags(out.output, reference(time_tags_only, 1, factor)));
      EXPECT_GE(out.inserted.size(), 400u * static_cast<size_t>(factor) / 2);
      // A non-time tag drops an extrapolation that a block end before it would
      // have let out, so here only the one-block run is compared.
      VirtualChannelRules rules;
      rules.cut_invariant = false;
      out = checkVirtualChannel(with_overflows, make, rules);
      EXPECT_TRUE(sameTags(out.output, reference(with_overflows, 1, factor)));
    }
  }
}

}  // namespace
}  // namespace zeptick
