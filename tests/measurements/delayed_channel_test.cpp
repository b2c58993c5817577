#include "zeptick/delayed_channel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/virtual_channel_harness.h"

namespace zeptick {
namespace {

using namespace testing;

// The whole output worked out from the rules, tag by tag, with lookups over
// the input instead of a queue. `virtual_of` maps each input channel to its copy.
std::vector<Tag> reference(const std::vector<Tag>& in, const std::map<int, int>& virtual_of,
                           int64_t delay, int64_t run_end) {
  // Overflow state after the first k input tags, and errors among them.
  std::vector<bool> overflow_after(in.size() + 1, false);
  std::vector<int> errors_before(in.size() + 1, 0);
  for (size_t k = 0; k < in.size(); ++k) {
    overflow_after[k + 1] = in[k].type == Tag::Type::OverflowBegin ? true
                            : in[k].type == Tag::Type::OverflowEnd ? false
                                                                   : overflow_after[k];
    errors_before[k + 1] = errors_before[k] + (in[k].type == Tag::Type::Error);
  }
  auto tags_up_to = [&](int64_t time) {  // number of input tags with time <= `time`
    return static_cast<size_t>(
        std::upper_bound(in.begin(), in.end(), time,
                         [](int64_t t, const Tag& tag) { return t < tag.time; }) -
        in.begin());
  };

  // (tag, rank among equal times): passing tags before copies with a delay of
  // 0 or more, copies before the lagging stream with a negative one.
  std::vector<std::pair<Tag, int>> out;
  for (size_t i = 0; i < in.size(); ++i) {
    Tag passing = in[i];
    if (delay < 0) passing.time -= delay;
    out.push_back({passing, delay < 0 ? 1 : 0});
    if (in[i].type != Tag::Type::TimeTag || !virtual_of.contains(in[i].channel)) continue;
    Tag copy = timeTag(virtual_of.at(in[i].channel), in[i].time);
    bool overflow = false;
    if (delay >= 0) {
      copy.time += delay;
      const size_t out_at = tags_up_to(copy.time);  // it leaves before the first later tag
      if (errors_before[out_at] - errors_before[i + 1] > 0) continue;
      overflow = overflow_after[out_at];
    } else {
      overflow = overflow_after[tags_up_to(in[i].time + delay - 1)];
    }
    if (overflow) copy = missedTag(copy.channel, copy.time, 1);
    out.push_back({copy, delay < 0 ? 0 : 1});
  }
  std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) {
    return a.first.time != b.first.time ? a.first.time < b.first.time : a.second < b.second;
  });
  std::vector<Tag> tags;
  for (const auto& entry : out) {
    if (entry.first.time < run_end) tags.push_back(entry.first);
  }
  return tags;
}

std::map<int, int> virtualChannels(const std::vector<int>& inputs) {
  std::map<int, int> virtual_of;
  for (size_t i = 0; i < inputs.size(); ++i) {
    virtual_of[inputs[i]] = kFirstVirtualChannel + static_cast<int>(i);
  }
  return virtual_of;
}

VirtualChannelRules rulesFor(int64_t delay, int64_t tail) {
  VirtualChannelRules rules;
  if (delay < 0) rules.shift = [delay](const Tag&) { return -delay; };
  rules.tail = tail;
  return rules;
}

using DelayedChannelTest = QuietTaggerTest;

TEST_F(DelayedChannelTest, OneVirtualChannelPerInputInOrder) {
  {
    DelayedChannel several(&tagger, std::vector<int>{3, -3, 5}, -20);
    EXPECT_EQ(several.getChannels(), (std::vector<int>{1000, 1001, 1002}));
    EXPECT_EQ(several.getChannel(), 1000);
    EXPECT_EQ(tagger.registrations(-3), 1);
    DelayedChannel none(&tagger, std::vector<int>{}, 10);
    EXPECT_EQ(none.getChannel(), CHANNEL_UNUSED);
  }
  EXPECT_EQ(tagger.registrations(-3), 0);
}

TEST_F(DelayedChannelTest, DelayChangesFollowTheSignRules) {
  Direct<DelayedChannel> zero(&tagger, 1, 0);
  EXPECT_EQ(invalidArgument([&] { zero.setDelay(-1); }),
            "changing from a positive delay to a negative delay while running is not supported");
  // A negative channel may change its lag and go positive, but only the present
  // sign counts: once positive it cannot go back.
  Direct<DelayedChannel> negative(&tagger, 1, -5);
  EXPECT_EQ(invalidArgument([&] { negative.setDelay(-7); }), "no exception");
  const int vc = negative.getChannel();
  EXPECT_TRUE(
      sameTags(negative.feed({timeTag(1, 100)}, 100, 110), {timeTag(vc, 100), timeTag(1, 107)}));
  EXPECT_EQ(invalidArgument([&] { negative.setDelay(5); }), "no exception");
  EXPECT_EQ(invalidArgument([&] { negative.setDelay(-1); }),
            "changing from a positive delay to a negative delay while running is not supported");

  // A shorter lag lets later tags overtake queued ones, but never out of time order.
  Direct<DelayedChannel> shrinking(&tagger, 1, -10);
  EXPECT_TRUE(sameTags(shrinking.feed({timeTag(1, 100)}, 100, 101), {timeTag(vc + 1, 100)}));
  shrinking.setDelay(-5);
  EXPECT_TRUE(
      sameTags(shrinking.feed({timeTag(2, 102)}, 101, 200), {timeTag(2, 107), timeTag(1, 110)}));
}

TEST_F(DelayedChannelTest, LoweringTheDelayDropsQueuedCopiesRaisingKeepsThem) {
  Direct<DelayedChannel> channel(&tagger, 1, 5);
  const int vc = channel.getChannel();
  EXPECT_TRUE(sameTags(channel.feed({timeTag(1, 100)}, 100, 101), {timeTag(1, 100)}));
  channel.setDelay(10);  // the queued copy at 105 stays
  EXPECT_TRUE(sameTags(channel.feed({timeTag(1, 101)}, 101, 200),
                       {timeTag(1, 101), timeTag(vc, 105), timeTag(vc, 111)}));
  EXPECT_TRUE(sameTags(channel.feed({timeTag(1, 200)}, 200, 201), {timeTag(1, 200)}));
  channel.setDelay(5);  // the copy at 210 is lost
  EXPECT_TRUE(
      sameTags(channel.feed({timeTag(1, 201)}, 201, 300), {timeTag(1, 201), timeTag(vc, 206)}));
  // A start forgets what is queued; a clear does not.
  channel.feed({timeTag(1, 300)}, 300, 301);
  channel.clear();
  EXPECT_TRUE(sameTags(channel.feed({}, 301, 400), {timeTag(vc, 305)}));
  channel.feed({timeTag(1, 400)}, 400, 401);
  channel.restart();
  EXPECT_TRUE(channel.feed({}, 401, 500).empty());
}

TEST(DelayedChannelStreamTest, MatchesReferenceOnRandomStreams) {
  struct Case {
    std::vector<int> inputs;
    int64_t delay;
    int64_t tail;
  };
  // Up to three inputs take the scan, more the hash map; both signs of delay.
  const Case cases[] = {{{1}, 0, 0},
                        {{2, -1}, 2500, 0},
                        {{1, 2, 3}, 700, 800},
                        {{1, 2, 3, 4, 5}, 3000, 3000},
                        {{1}, -1, 0},
                        {{3, 1}, -2500, 2500},
                        {{4, 1, 2, 3, 5, 6}, -900, 0}};
  for (uint64_t seed = 1; seed <= 1; ++seed) {
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = {1, 2, 3, 4, 5, 6, -1, 7};
    shape.tags = 1500;
    shape.error_percent = 0.5;
    shape.overflow_percent = 0.5;
    const TagStream stream = testing::makeRandomStream(rng, shape);
    for (const Case& c : cases) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " delay " + std::to_string(c.delay) +
                   " inputs " + std::to_string(c.inputs.size()));
      const auto out = checkVirtualChannel(
          stream,
          [&c](TestZeptick* tagger) {
            return std::make_unique<DelayedChannel>(tagger, c.inputs, c.delay);
          },
          rulesFor(c.delay, c.tail));
      const std::vector<Tag> expected =
          reference(stream.tags, virtualChannels(c.inputs), c.delay, out.end_time);
      EXPECT_TRUE(sameTags(out.output, expected));
      EXPECT_GT(out.inserted.size(), 100u);
    }
  }
}

}  // namespace
}  // namespace zeptick
