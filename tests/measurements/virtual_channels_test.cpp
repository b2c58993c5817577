// The virtual channels against their rules worked out on the whole stream, plus what no stream
// reaches: delay and window changes, restarts and clears.

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <map>
#include <numeric>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "measurements/coincidence_windows.h"
#include "support/virtual_channel_harness.h"
#include "zeptick/average_channel.h"
#include "zeptick/coincidences.h"
#include "zeptick/combiner.h"
#include "zeptick/constant_fraction_discriminator.h"
#include "zeptick/delayed_channel.h"
#include "zeptick/event_generator.h"
#include "zeptick/frequency_multiplier.h"
#include "zeptick/gated_channel.h"

namespace zeptick {
namespace {

using namespace testing;
using CFD = ConstantFractionDiscriminator;
using Groups = std::vector<std::vector<int>>;
using Stamp = CoincidenceTimestamp;
using VirtualChannelTest = QuietTaggerTest;

// `added` merged into `stream` by time, behind the stream tags of its time; only what lies before
// `end` is kept.
std::vector<Tag> behindStreamTags(std::vector<Tag> stream, const std::vector<Tag>& added,
                                  int64_t end) {
  stream.insert(stream.end(), added.begin(), added.end());
  std::stable_sort(stream.begin(), stream.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  std::erase_if(stream, [end](const Tag& tag) { return tag.time >= end; });
  return stream;
}

// Each tag, then one copy per listing of its channel, whatever its type.
std::vector<Tag> combinerReference(const std::vector<Tag>& in, const std::vector<int>& listed) {
  std::vector<Tag> out;
  for (const Tag& tag : in) {
    out.push_back(tag);
    Tag copy = tag;
    copy.channel = kFirstVirtualChannel;
    out.insert(out.end(), std::count(listed.begin(), listed.end(), tag.channel), copy);
  }
  return out;
}

TEST_F(VirtualChannelTest, CombinerCopiesEveryListedTagOncePerListingOnRandomStreams) {
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    const TagStream stream = makeRandomStream(rng, {.channels = {1, 2, 3, -1, 4},
                                                    .tags = 2000,
                                                    .overflow_percent = 1,
                                                    .missed_outside_percent = 1});
    for (const std::vector<int>& listed :
         {std::vector<int>{1, 2}, std::vector<int>{-1, 4, -1, 7}, std::vector<int>{}}) {
      const auto out = checkVirtualChannel<Combiner>(stream, {}, listed);
      EXPECT_TRUE(sameTags(out.output, combinerReference(stream.tags, listed)));
    }
    // Counts per entry survive stop and start; missed-events tags count like time tags.
    const std::vector<int> listed = {2, -1, 2, 9};
    Direct<Combiner> combiner(&tagger, listed);
    std::vector<int64_t> expected(listed.size(), 0);
    for (const Tag& tag : stream.tags) {
      for (size_t i = 0; i < listed.size(); ++i) expected[i] += tag.channel == listed[i];
    }
    ASSERT_GT(expected[0], 100);
    for (const auto& block : cutStream(stream, randomCuts(rng, stream, 5))) {
      combiner.feed(block.tags, block.begin_time, block.end_time);
      combiner.restart();
    }
    EXPECT_EQ(collect(combiner, &Combiner::getData), expected);
    EXPECT_EQ(tagger.registrations(2), 1);
    combiner.clear();
    EXPECT_EQ(collect(combiner, &Combiner::getData), std::vector<int64_t>(4, 0));
  }
}

// A group fires on a time tag of one of its channels when the latest tag of each of its channels,
// not behind an error or overflow tag, is less than `window` old. The delayed stamps shift
// everything by `window`; new tags come right after their source.
std::vector<Tag> coincidencesReference(const TagStream& stream, const Groups& groups,
                                       int64_t window, Stamp stamp, int64_t run_end) {
  const std::vector<Tag>& in = stream.tags;
  std::vector<Tag> out;
  for (size_t i = 0; i < in.size(); ++i) {
    Tag passed = in[i];
    if (stamp != Stamp::Last) passed.time += window;
    out.push_back(passed);
    if (in[i].type != Tag::Type::TimeTag) continue;
    const int64_t now = in[i].time;
    for (size_t g = 0; g < groups.size(); ++g) {
      const std::vector<int>& group = groups[g];
      if (std::find(group.begin(), group.end(), in[i].channel) == group.end()) continue;
      std::vector<int64_t> latest;
      for (int channel : group) {
        for (size_t j = i + 1; j-- > 0;) {
          if (in[j].type != Tag::Type::TimeTag) break;
          if (in[j].channel == channel) {
            if (now - in[j].time < window) latest.push_back(in[j].time);
            break;
          }
        }
      }
      if (latest.size() != group.size()) continue;
      int64_t stamp_time = now;
      if (stamp == Stamp::Average) {
        const auto n = static_cast<int64_t>(latest.size());
        stamp_time =
            now + (std::accumulate(latest.begin(), latest.end(), int64_t{0}) - now * n) / n;
      } else if (stamp == Stamp::First) {
        stamp_time = *std::min_element(latest.begin(), latest.end());
      } else if (stamp == Stamp::ListedFirst) {
        stamp_time = latest.front();
      }
      const int64_t lag = stamp == Stamp::Last ? 0 : window;
      out.push_back(timeTag(kFirstVirtualChannel + static_cast<int>(g), stamp_time + lag));
    }
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  std::erase_if(out, [run_end](const Tag& tag) { return tag.time >= run_end; });
  return out;
}

TEST_F(VirtualChannelTest,
       CoincidencesMatchTheRulesInEveryModeAndWindowChangesApplyFromTheNextBlock) {
  Direct<Coincidences> direct(&tagger, Groups{{1}}, 100, Stamp::First);
  const int vc = direct.getChannels()[0];
  EXPECT_TRUE(sameTags(direct.feed({timeTag(1, 899), timeTag(1, 900)}, 0, 1000),
                       {timeTag(1, 999), timeTag(vc, 999)}));
  // Stop, clear and restart keep what is queued.
  direct.clear();
  direct.restart();
  EXPECT_TRUE(sameTags(direct.feed({}, 1000, 1001), {timeTag(1, 1000), timeTag(vc, 1000)}));

  Direct<Coincidences> pair(&tagger, Groups{{1, 2}}, 100, Stamp::Last);
  const int pair_vc = pair.getChannels()[0];
  EXPECT_EQ(pair.feed({timeTag(1, 1000), timeTag(2, 1150)}, 0, 2000).size(), 2u);
  pair.setCoincidenceWindow(200);
  EXPECT_TRUE(sameTags(pair.feed({timeTag(1, 2000), timeTag(2, 2150)}, 2000, 3000),
                       {timeTag(1, 2000), timeTag(2, 2150), timeTag(pair_vc, 2150)}));

  // A shrinking window lets later tags overtake queued ones, but never out of time order.
  Direct<Coincidences> delayed(&tagger, Groups{{3}}, 1000, Stamp::Average);
  const int single = delayed.getChannels()[0];
  EXPECT_TRUE(delayed.feed({timeTag(3, 500)}, 0, 1000).empty());
  delayed.setCoincidenceWindow(100);
  EXPECT_TRUE(
      sameTags(delayed.feed({timeTag(3, 1200)}, 1000, 2000),
               {timeTag(3, 1300), timeTag(single, 1300), timeTag(3, 1500), timeTag(single, 1500)}));

  // Queued tags leave before a later tag goes in behind them when times go back, or when a
  // window that fell to 0 or below puts the new tag before them.
  Direct<Coincidences> back(&tagger, Groups{{1, 2}}, 50, Stamp::First);
  EXPECT_TRUE(sameTags(
      back.feed({timeTag(3, 100), timeTag(3, 150), timeTag(3, 200), timeTag(3, 90)}, 0, 230),
      {timeTag(3, 150), timeTag(3, 140), timeTag(3, 200)}));
  back.setCoincidenceWindow(-10);
  EXPECT_TRUE(sameTags(back.feed({timeTag(3, 255)}, 300), {timeTag(3, 250), timeTag(3, 245)}));

  // Overlapping groups, a repeated channel, a single-channel group, over 8 inputs.
  const Groups some = {{1, 2}, {1, 2, 3}, {3, 4, 4, 5}, {6}, {7, 8, 1}, {2, 7}};
  // Input 1 in six groups, with nine partners: tables too wide to pad.
  const Groups wide = {{1, 2, 3, 4, 5, 6, 7, 8, -1, -3}, {1, 2}, {1, 3}, {4, 1}, {1, 5}, {-3, 1}};
  const int64_t window = 1500;
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    std::mt19937_64 rng(seed);
    const Groups& groups = seed == 3 ? wide : some;
    // On a grid, differences of exactly one window: strictly outside.
    const TagStream stream = makeRandomStream(rng, {.channels = {1, 2, 3, 4, 5, 6, 7, 8, -1, -3},
                                                    .tags = 1500,
                                                    .mean_gap = 400,
                                                    .error_percent = 2,
                                                    .grid = seed == 1 ? 100 : 1});
    // Eight inputs take the vector window tests where the processor has them; each form in turn.
    for (int run = 0; run < (seed == 3 ? 4 : 12); ++run) {
      const Stamp stamp = static_cast<Stamp>(run % 4);
      const auto form = static_cast<detail::WindowForm>(run / 4);
      detail::limitCoincidenceWindows(form);
      SCOPED_TRACE(::testing::Message()
                   << "seed " << seed << " stamp " << int(stamp) << " form " << int(form));
      // Half the runs let the held-back end out.
      const VirtualChannelRules rules{
          .shift = [&](const Tag&) { return stamp == Stamp::Last ? 0 : window; },
          .tail = seed % 2 == 0 ? window : 0};
      const auto out = checkVirtualChannel<Coincidences>(stream, rules, groups, window, stamp);
      EXPECT_TRUE(
          sameTags(out.output, coincidencesReference(stream, groups, window, stamp, out.end_time)));
      EXPECT_GE(out.inserted.size(), 300u);
    }
  }
  detail::limitCoincidenceWindows(detail::WindowForm::Avx512);
}

// Tag by tag, with lookups over the input instead of a queue. Input i's copies go to virtual
// channel i.
std::vector<Tag> delayedReference(const std::vector<Tag>& in, const std::vector<int>& inputs,
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

  std::vector<Tag> passing, copies;
  for (size_t i = 0; i < in.size(); ++i) {
    passing.push_back(in[i]);
    if (delay < 0) passing.back().time -= delay;
    const auto input = std::find(inputs.begin(), inputs.end(), in[i].channel);
    if (in[i].type != Tag::Type::TimeTag || input == inputs.end()) continue;
    Tag copy = timeTag(kFirstVirtualChannel + static_cast<int>(input - inputs.begin()), in[i].time);
    bool overflow = false;
    if (delay >= 0) {
      copy.time += delay;
      const size_t out_at = tags_up_to(copy.time);  // it leaves before the first later tag
      if (errors_before[out_at] - errors_before[i + 1] > 0) continue;
      overflow = overflow_after[out_at];
    } else {
      overflow = overflow_after[tags_up_to(in[i].time + delay - 1)];
    }
    copies.push_back(overflow ? missedTag(copy.channel, copy.time, 1) : copy);
  }
  // Passing tags go before copies of their time with a delay of 0 or more, after them with a
  // negative one.
  return delay < 0 ? behindStreamTags(copies, passing, run_end)
                   : behindStreamTags(passing, copies, run_end);
}

TEST_F(VirtualChannelTest, DelayedChannelMatchesTheRulesAndDelayChangesFollowTheSignRules) {
  // The first input's copy is the channel; with no input there is none.
  Direct<DelayedChannel> several(&tagger, std::vector<int>{3, -3, 5}, -20);
  EXPECT_EQ(several.getChannel(), several.getChannels()[0]);
  EXPECT_EQ(Direct<DelayedChannel>(&tagger, std::vector<int>{}, 10).getChannel(), CHANNEL_UNUSED);
  Direct<DelayedChannel> zero(&tagger, 1, 0);
  EXPECT_EQ(invalidArgument([&] { zero.setDelay(-1); }),
            "changing from a positive delay to a negative delay while running is not supported");
  // A negative channel may change its lag and go positive, but only the present sign counts: once
  // positive it cannot go back.
  Direct<DelayedChannel> negative(&tagger, 1, -5);
  EXPECT_EQ(invalidArgument([&] { negative.setDelay(-7); }), "no exception");
  int vc = negative.getChannel();
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

  Direct<DelayedChannel> channel(&tagger, 1, 5);
  vc = channel.getChannel();
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

  struct Case {
    std::vector<int> inputs;
    int64_t delay, tail;
  };
  // Up to three inputs take the scan, more the hash map; both signs of delay.
  const Case cases[] = {{{1}, 0, 0},
                        {{2, -1}, 2500, 0},
                        {{1, 2, 3}, 700, 800},
                        {{1, 2, 3, 4, 5}, 3000, 3000},
                        {{1}, -1, 0},
                        {{3, 1}, -2500, 2500},
                        {{4, 1, 2, 3, 5, 6}, -900, 0}};
  std::mt19937_64 rng(1);
  const TagStream stream = makeRandomStream(rng, {.channels = {1, 2, 3, 4, 5, 6, -1, 7},
                                                  .tags = 1500,
                                                  .error_percent = 0.5,
                                                  .overflow_percent = 0.5});
  for (const Case& c : cases) {
    SCOPED_TRACE("delay " + std::to_string(c.delay) + " inputs " + std::to_string(c.inputs.size()));
    const VirtualChannelRules rules{
        .shift = [&c](const Tag&) { return std::max<int64_t>(0, -c.delay); }, .tail = c.tail};
    const auto out = checkVirtualChannel<DelayedChannel>(stream, rules, c.inputs, c.delay);
    EXPECT_TRUE(
        sameTags(out.output, delayedReference(stream.tags, c.inputs, c.delay, out.end_time)));
    EXPECT_GT(out.inserted.size(), 100u);
  }
}

// An input tag that is no stop tag is copied if it is a start tag or the nearest earlier start tag
// is not followed by a stop or a non-time tag.
std::vector<Tag> gatedReference(const std::vector<Tag>& in, int input, int start, int stop) {
  std::vector<Tag> copies;
  for (size_t i = 0; i < in.size(); ++i) {
    const Tag& tag = in[i];
    if (tag.type != Tag::Type::TimeTag || tag.channel != input || tag.channel == stop) continue;
    bool open = tag.channel == start;
    for (size_t j = i; !open && j-- > 0;) {
      if (in[j].type != Tag::Type::TimeTag || in[j].channel == stop) break;
      open = in[j].channel == start;
    }
    if (open) copies.push_back(timeTag(kFirstVirtualChannel, tag.time));
  }
  return copies;
}

TEST_F(VirtualChannelTest, GateMatchesTheRulesAndStaysOpenAcrossBlocksStopsAndClears) {
  Direct<GatedChannel> gated(&tagger, 1, 2, 3);
  const int vc = gated.getChannel();
  gated.feed({timeTag(2, 10)}, 0, 100);
  gated.clear();
  gated.restart();
  EXPECT_TRUE(
      sameTags(gated.feed({timeTag(1, 150)}, 100, 200), {timeTag(1, 150), timeTag(vc, 150)}));

  for (uint64_t seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    const TagStream stream = makeRandomStream(rng, {.channels = {1, 2, 3, 4, 1, 1},
                                                    .tags = 2000,
                                                    .error_percent = 0.5,
                                                    .overflow_percent = 0.5});
    for (const auto& [input, start, stop] :
         {std::tuple{1, 2, 3}, std::tuple{2, 2, 3}, std::tuple{1, 3, 1}, std::tuple{1, 5, 2}}) {
      SCOPED_TRACE(::testing::Message() << input << " " << start << " " << stop);
      const std::vector<Tag> expected = gatedReference(stream.tags, input, start, stop);
      const auto out = checkVirtualChannel<GatedChannel>(stream, {}, input, start, stop);
      EXPECT_TRUE(sameTags(out.inserted, expected));
      EXPECT_TRUE(start == 5 || input == stop || expected.size() > 50);  // 5 never occurs
    }
  }
}

// Each input tag after the first copies itself and schedules t + period * k / m for k = 1 .. m - 1,
// replacing the previous schedule, let out before the first later time tag or at the end; a tag
// that is not a time tag cancels everything.
std::vector<Tag> multiplierReference(const TagStream& stream, int input, int multiplier) {
  std::vector<Tag> out;
  std::deque<int64_t> schedule;
  int64_t last = 0;
  auto emitBefore = [&](int64_t time) {
    for (; !schedule.empty() && schedule.front() < time; schedule.pop_front()) {
      out.push_back(timeTag(kFirstVirtualChannel, schedule.front()));
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
    out.push_back(timeTag(kFirstVirtualChannel, tag.time));
    schedule.clear();
    for (int k = 1; k < multiplier; ++k) {
      schedule.push_back(tag.time + (tag.time - previous) * k / multiplier);
    }
  }
  emitBefore(stream.end_time);
  return out;
}

TEST_F(VirtualChannelTest, FrequencyMultiplierMatchesTheRulesAndAtTimeZeroAndAcrossRestarts) {
  // Multipliers below 2 only copy.
  for (int factor : {1, 0, -5}) {
    EXPECT_EQ(Direct<FrequencyMultiplier>(&tagger, 1, factor).getMultiplier(), 1);
  }
  Direct<FrequencyMultiplier> fm(&tagger, 1, 2);
  const int vc = fm.getChannel();
  // A tag at 0 is no tag, so 1000 gives no copy yet.
  EXPECT_TRUE(sameTags(fm.feed({timeTag(1, 0), timeTag(1, 1000), timeTag(1, 2000)}, 0, 2200),
                       {timeTag(1, 0), timeTag(1, 1000), timeTag(1, 2000), timeTag(vc, 2000)}));
  // The extrapolation at 2500 crosses the block end, a clear and a restart.
  fm.clear();
  fm.restart();
  EXPECT_TRUE(sameTags(fm.feed({}, 2200, 3000), {timeTag(vc, 2500)}));

  for (uint64_t seed = 1; seed <= 3; ++seed) {
    std::mt19937_64 rng(seed);
    const TagStream with_overflows =
        makeRandomStream(rng, {.channels = {1, 2, 3}, .tags = 1500, .mean_gap = 700});
    const TagStream time_tags_only = makeRandomStream(rng, {.channels = {1, 2, 3},
                                                            .tags = 1500,
                                                            .mean_gap = 700,
                                                            .equal_time_percent = 0,
                                                            .burst_percent = 0,
                                                            .error_percent = 0,
                                                            .overflow_percent = 0});
    for (int factor : {1, 2, 3, 7}) {
      SCOPED_TRACE("seed " + std::to_string(seed) + " multiplier " + std::to_string(factor));
      // Time tags alone give the same output however the blocks are cut.
      auto out = checkVirtualChannel<FrequencyMultiplier>(time_tags_only, {}, 1, factor);
      EXPECT_TRUE(sameTags(out.output, multiplierReference(time_tags_only, 1, factor)));
      EXPECT_GE(out.inserted.size(), 400u * static_cast<size_t>(factor) / 2);
      // A non-time tag drops an extrapolation that a block end before it would have let out, so
      // here only the one-block run is compared.
      out = checkVirtualChannel<FrequencyMultiplier>(with_overflows, {.cut_invariant = false}, 1,
                                                     factor);
      EXPECT_TRUE(sameTags(out.output, multiplierReference(with_overflows, 1, factor)));
    }
  }
}

struct GeneratorSetup {
  int trigger;
  std::vector<int64_t> pattern;
  uint64_t divider, offset;
  int stop;
};

// With a negative entry the stream and every entry are shifted by `lag`. A generated tag is
// cancelled by a later stop tag at or before its time, or by an error at or before it that had not
// left the (lagging) stream when its trigger came; inside an overflow it is a missed-events tag.
std::vector<Tag> generatorReference(const std::vector<Tag>& input, const GeneratorSetup& setup,
                                    int64_t run_end) {
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
      if (cancelled) continue;
      bool overflow = false;
      for (const Tag& s : input) {
        if (s.time + lag > g) break;
        if (s.type == Tag::Type::OverflowBegin) overflow = true;
        if (s.type == Tag::Type::OverflowEnd) overflow = false;
      }
      generated.push_back(overflow ? missedTag(kFirstVirtualChannel, g, 1)
                                   : timeTag(kFirstVirtualChannel, g));
    }
  }
  std::vector<Tag> out = input;
  for (Tag& tag : out) tag.time += lag;
  return behindStreamTags(std::move(out), generated, run_end);
}

TEST_F(VirtualChannelTest, EventGeneratorMatchesTheRulesAndWithoutPatternPassesTheStream) {
  Direct<EventGenerator> generator(&tagger, 1, std::vector<int64_t>{}, 1, 0, 2);
  const std::vector<Tag> in = {timeTag(1, 10), marker(Tag::Type::Error, 20)};
  EXPECT_TRUE(sameTags(generator.feed(in, 0, 100), in));
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_EQ(tagger.registrations(2), 0);

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
    const TagStream stream = makeRandomStream(rng, {.tags = 1500,
                                                    .mean_gap = 600,
                                                    .error_percent = 0.5,
                                                    .overflow_percent = 1,
                                                    .missed_outside_percent = 0.5});
    int64_t lag = 0;
    for (int64_t p : setup.pattern) lag = std::max(lag, -p);
    const VirtualChannelRules rules{
        .shift = [lag](const Tag&) { return lag; }, .tail = 3000, .seed = k + 1};
    const auto out = checkVirtualChannel<EventGenerator>(
        stream, rules, setup.trigger, setup.pattern, setup.divider, setup.offset, setup.stop);
    EXPECT_TRUE(sameTags(out.output, generatorReference(stream.tags, setup, out.end_time)));
    EXPECT_GT(out.inserted.size(), 50u);
  }
}

// Sorted by time and then by every field: the channel may emit tags of one time in any order.
std::vector<Tag> sortedWithinEqualTimes(std::vector<Tag> tags) {
  std::sort(tags.begin(), tags.end(), [](const Tag& a, const Tag& b) {
    return std::tuple(a.time, a.type, a.channel, a.missed_events) <
           std::tuple(b.time, b.type, b.channel, b.missed_events);
  });
  return tags;
}

// A pulse is a tag on a listed channel then one on its inverted channel, no pulse end between; its
// midpoint counts if narrower than the window. Every time tag reappears half a window later. A
// non-time tag drops every pulse begun and every delayed tag not yet out, i.e. not yet passed by
// a later time tag or block end. Entry i of `channels` leads the pulses `numbers[i]` marks.
std::vector<Tag> cfdReference(const std::vector<Tag>& input, const std::vector<Block>& blocks,
                              const std::vector<int>& channels, const std::vector<int>& numbers,
                              int64_t window) {
  const int64_t half = window / 2;
  std::vector<Tag> out;
  std::vector<Tag> held;        // delayed or midpoint tags since the last drop
  std::map<int, int64_t> open;  // leading channel -> time of its open pulse
  int64_t passed_limit = INT64_MIN;
  size_t next_end = 0;
  auto release = [&] {
    for (const Tag& tag : held) {
      if (tag.time < passed_limit) out.push_back(tag);
    }
    held.clear();
  };
  for (const Tag& tag : input) {
    while (next_end < blocks.size() && blocks[next_end].end_time <= tag.time) {
      passed_limit = std::max(passed_limit, blocks[next_end++].end_time);
    }
    if (tag.type != Tag::Type::TimeTag) {
      release();
      open.clear();
      passed_limit = INT64_MIN;
      out.push_back(tag);
      continue;
    }
    passed_limit = std::max(passed_limit, tag.time);
    if (std::count(channels.begin(), channels.end(), tag.channel) > 0) open[tag.channel] = tag.time;
    const auto closes = std::find(channels.begin(), channels.end(), -tag.channel);
    if (closes != channels.end()) {
      auto pulse = open.find(*closes);
      if (pulse != open.end()) {
        const int64_t width = tag.time - pulse->second;
        open.erase(pulse);
        if (width < window) {
          const int number = numbers[static_cast<size_t>(closes - channels.begin())];
          held.push_back(timeTag(number, tag.time + half - width / 2));
        }
      }
    }
    Tag shifted = tag;
    shifted.time += half;
    held.push_back(shifted);
  }
  passed_limit = std::max(passed_limit, blocks.back().end_time);  // the ends only grow
  release();
  return sortedWithinEqualTimes(out);
}

TEST_F(VirtualChannelTest, CfdNumbersOneVirtualChannelPerPairAndMatchesTheRulesCutAnywhere) {
  CFD numbered(&tagger, {2, 3, 2}, 100);
  EXPECT_EQ(numbered.getChannels(), (std::vector<int>{1000, 1001, 1000}));
  for (int channel : {2, -2, 3, -3}) EXPECT_EQ(tagger.registrations(channel), 1) << channel;

  std::mt19937_64 rng(99);
  for (int trial = 0; trial < 30; ++trial) {
    // Both edges of one input listed: each closes the pulse the other opened.
    const std::vector<int> channels =
        trial % 3 == 2 ? std::vector<int>{1, -1} : std::vector<int>{1, 2, 1};
    StreamShape shape;
    shape.channels = {1, -1, 2, -2, 3};
    shape.tags = 400;
    shape.mean_gap = 300;
    shape.error_percent = shape.overflow_percent = shape.missed_outside_percent = 1;
    const TagStream stream = makeRandomStream(rng, shape);
    const int64_t window = std::vector<int64_t>{1, 2, 301, 900, 5000}[trial % 5];
    const std::vector<Block> blocks = cutStream(stream, randomCuts(rng, stream, 40));

    Direct<CFD> cfd(&tagger, channels, window);
    const std::vector<Block> out = cfd.feed(blocks);
    ASSERT_TRUE(blocksInOrder(out)) << "trial " << trial;
    const std::vector<Tag> expected =
        cfdReference(stream.tags, blocks, channels, cfd.getChannels(), window);
    ASSERT_TRUE(sameTags(sortedWithinEqualTimes(concatenate(out)), expected))
        << "trial " << trial << ", window " << window;
  }
}

// If every input's latest time lies within the window before a time tag on an input, a mean tag
// goes out at its time less the rounded-down mean difference. Anything but a time tag forgets all
// latest times. Only what lies more than a window before the end leaves.
std::vector<Tag> averageReference(const std::vector<Tag>& input, const std::vector<int>& channels,
                                  int64_t window, int64_t run_end) {
  std::vector<Tag> means;
  std::vector<std::optional<int64_t>> latest(channels.size());
  for (const Tag& tag : input) {
    if (tag.type != Tag::Type::TimeTag) {
      std::fill(latest.begin(), latest.end(), std::nullopt);
      continue;
    }
    for (size_t i = 0; i < channels.size(); ++i) {
      if (channels[i] != tag.channel) continue;
      latest[i] = tag.time;
      int64_t sum = 0;
      bool complete = true;
      for (const auto& last : latest) {
        complete = complete && last && tag.time - *last < window;
        if (complete) sum += tag.time - *last;
      }
      if (complete) {
        means.push_back(timeTag(kFirstVirtualChannel, tag.time - sum / int64_t(channels.size())));
      }
    }
  }
  return behindStreamTags(input, means, run_end - window);
}

TEST(AverageChannelTest, NeedsAnUltra18SetsTheInputMultiplexersAndMatchesTheRules) {
  TestZeptick small("TEST-1", 2, 17);
  EXPECT_EQ(invalidArgument([&] {
              AverageChannel average(&small, 1, {1, 2});
            }),
            "runtime_error: The AverageChannel measurement class is only supported on Zeptick "
            "Ultra 18 devices.");
  EXPECT_EQ(small.registrations(1), 0);

  // Smaller in magnitude than the reference: 2; larger: 1; equal (the reference itself or its other
  // edge): left alone.
  TestZeptick tagger("TEST-1", 2, 18);
  AverageChannel average(&tagger, 3, {3, 2, -4, -3, 7, -1});
  EXPECT_EQ(average.getChannel(), kFirstVirtualChannel);
  for (auto [channel, mux] : {std::pair{3, 0}, {2, 2}, {-4, 1}, {-3, 0}, {7, 1}, {-1, 2}}) {
    EXPECT_EQ(tagger.getInputMux(channel), mux) << channel;
    EXPECT_EQ(tagger.registrations(channel), 1);
  }

  std::mt19937_64 rng(31);
  // With the window the channel picks: 4000 ps, plus 1000 ps per channel the farthest input lies
  // from the reference.
  const std::vector<std::pair<std::vector<int>, int64_t>> setups = {
      {{1, 2, 3}, 6000}, {{2, -2, 2}, 7000}, {{4, 1, 3, 2, -1}, 7000}};
  for (size_t k = 0; k < setups.size(); ++k) {
    const auto& [channels, window] = setups[k];
    SCOPED_TRACE("setup " + std::to_string(k));
    StreamShape shape;
    shape.channels = {1, 2, 3, 4, -1, -2, 5};
    shape.tags = 1500;
    shape.mean_gap = 900;
    shape.grid = k == 1 ? 1 : 100;  // differences of exactly one window: strictly outside
    shape.error_percent = shape.overflow_percent = shape.missed_outside_percent = 0.5;
    const TagStream stream = makeRandomStream(rng, shape);
    // Held back a window at their own times: the tail lets the last of them out.
    const auto out = checkVirtualChannel<AverageChannel>(
        stream, {.held_back = window, .tail = window + 1, .seed = k + 1, .inputs = 18}, 1,
        channels);
    EXPECT_GT(out.inserted.size(), 30u);
    EXPECT_TRUE(
        sameTags(out.output, averageReference(stream.tags, channels, window, out.end_time)));
  }
}

}  // namespace
}  // namespace zeptick
