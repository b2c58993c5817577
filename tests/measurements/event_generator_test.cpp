#include "zeptick/event_generator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/virtual_channel_harness.h"

namespace zeptick {
namespace {

using namespace testing;

struct GeneratorSetup {
  int trigger = 1;
  std::vector<int64_t> pattern;
  uint64_t divider = 1;
  uint64_t offset = 0;
  int stop = CHANNEL_UNUSED;
};

// The generator's rules worked out on the whole stream. With a negative entry
// the stream is shifted by `lag` and every entry with it. A generated tag is
// cancelled by a later stop tag at or before its time, by an error at or
// before it that had not yet left the (lagging) stream when its trigger came,
// and becomes a missed-events tag if it falls inside an overflow. It leaves
// right behind the stream tags of its own time.
std::vector<Tag> reference(const std::vector<Tag>& input, const GeneratorSetup& setup,
                           int virtual_channel, int64_t run_end) {
  int64_t lag = 0;
  for (int64_t p : setup.pattern) lag = std::max(lag, -p);
  const bool lagging = lag > 0;
  std::vector<Tag> generated;
  uint64_t count = 0;
  for (size_t i = 0; i < input.size(); ++i) {
    const Tag& trigger = input[i];
    if (trigger.type != Tag::Type::TimeTag || trigger.channel != setup.trigger) continue;
    const uint64_t position = count;
    count = count + 1 == setup.divider ? 0 : count + 1;
    if (position != setup.offset) continue;
    for (int64_t p : setup.pattern) {
      const int64_t g = trigger.time + p + lag;
      bool cancelled = false;
      for (size_t j = 0; j < input.size(); ++j) {
        const Tag& s = input[j];
        if (j > i && setup.stop != CHANNEL_UNUSED && s.channel == setup.stop && s.time <= g) {
          cancelled = true;
        }
        if (s.type != Tag::Type::Error) continue;
        if (!lagging && j > i && s.time <= g) cancelled = true;
        if (lagging && trigger.time <= s.time + lag && s.time + lag <= g) cancelled = true;
      }
      if (cancelled || g >= run_end) continue;
      bool overflow = false;
      for (const Tag& s : input) {
        if (s.time + lag > g) break;
        if (s.type == Tag::Type::OverflowBegin) overflow = true;
        if (s.type == Tag::Type::OverflowEnd) overflow = false;
      }
      generated.push_back(overflow ? missedTag(virtual_channel, g, 1)
                                   : timeTag(virtual_channel, g));
    }
  }
  std::stable_sort(generated.begin(), generated.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  std::vector<Tag> out;
  size_t next = 0;
  for (Tag tag : input) {
    tag.time += lag;
    while (next < generated.size() && generated[next].time < tag.time) {
      out.push_back(generated[next++]);
    }
    if (tag.time < run_end) out.push_back(tag);
  }
  out.insert(out.end(), generated.begin() + static_cast<ptrdiff_t>(next), generated.end());
  return out;
}

using EventGeneratorTest = QuietTaggerTest;

TEST_F(EventGeneratorTest, PlaysThePatternBehindTheTriggerAndHoldsTheRestBack) {
  Direct<EventGenerator> generator(&tagger, 1, std::vector<int64_t>{50, 0, 0}, 1, 0,
                                   CHANNEL_UNUSED);
  const int v = generator.getChannel();
  // Offsets 0 stand right behind the trigger; 50 waits for the next block.
  std::vector<Tag> out = generator.feed({timeTag(1, 1000), timeTag(2, 1000)}, 0, 1050);
  EXPECT_TRUE(
      sameTags(out, {timeTag(1, 1000), timeTag(2, 1000), timeTag(v, 1000), timeTag(v, 1000)}));
  out = generator.feed({}, 1050, 1100);
  EXPECT_TRUE(sameTags(out, {timeTag(v, 1050)}));
  // Inside an overflow generated tags count as missed events.
  out = generator.feed({timeTag(1, 2000), marker(Tag::Type::OverflowBegin, 2010),
                        marker(Tag::Type::OverflowEnd, 2100)},
                       1100, 3000);
  EXPECT_TRUE(sameTags(out, {timeTag(1, 2000), timeTag(v, 2000), timeTag(v, 2000),
                             marker(Tag::Type::OverflowBegin, 2010), missedTag(v, 2050, 1),
                             marker(Tag::Type::OverflowEnd, 2100)}));
}

TEST_F(EventGeneratorTest, EmptyPatternPassesTheStreamUnchangedAndStopIsNotRegistered) {
  Direct<EventGenerator> generator(&tagger, 1, std::vector<int64_t>{}, 1, 0, 2);
  const std::vector<Tag> in = {timeTag(1, 10), marker(Tag::Type::Error, 20)};
  EXPECT_TRUE(sameTags(generator.feed(in, 0, 100), in));
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_EQ(tagger.registrations(2), 0);
}

TEST(EventGeneratorHarness, MatchesTheRulesOnRandomStreams) {
  std::mt19937_64 rng(11);
  const std::vector<GeneratorSetup> setups = {
      {1, {0, 0, 700, 2500}, 1, 0, CHANNEL_UNUSED},
      {1, {300, 1200}, 3, 2, 3},
      {2, {-1500, -1500, 0, 400}, 2, 0, 3},
      {1, {-800, -200}, 1, 0, 1},
  };
  for (size_t k = 0; k < setups.size(); ++k) {
    const GeneratorSetup& setup = setups[k];
    SCOPED_TRACE("setup " + std::to_string(k));
    testing::StreamShape shape;
    shape.tags = 1500;
    shape.mean_gap = 600;
    shape.error_percent = 0.5;
    shape.overflow_percent = 1;
    shape.missed_outside_percent = 0.5;
    const TagStream stream = testing::makeRandomStream(rng, shape);
    int64_t lag = 0;
    for (int64_t p : setup.pattern) lag = std::max(lag, -p);
    testing::VirtualChannelRules rules;
    rules.shift = [lag](const Tag&) { return lag; };
    rules.tail = 3000;
    rules.seed = k + 1;
    int virtual_channel = 0;
    const auto out = testing::checkVirtualChannel(
        stream,
        [&](TestZeptick* tagger) {
          auto generator = std::make_unique<EventGenerator>(
              tagger, setup.trigger, setup.pattern, setup.divider, setup.offset, setup.stop);
          virtual_channel = generator->getChannel();
          return generator;
        },
        rules);
    const std::vector<Tag> expected = reference(stream.tags, setup, virtual_channel, out.end_time);
    EXPECT_TRUE(sameTags(out.output, expected));
    EXPECT_GT(out.inserted.size(), 50u);
  }
}

}  // namespace
}  // namespace zeptick
