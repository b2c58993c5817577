#include "zeptick/coincidences.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/recording_measurement.h"
#include "support/virtual_channel_harness.h"
#include "zeptick/coincidence.h"

namespace zeptick {
namespace {

using testing::checkVirtualChannel;
using testing::invalidArgument;
using testing::kFirstVirtualChannel;
using testing::marker;
using testing::sameTags;
using testing::TagStream;
using testing::TestZeptick;
using testing::timeTag;
using testing::VirtualChannelRules;
using Groups = std::vector<std::vector<int>>;
using Stamp = CoincidenceTimestamp;

// The whole output stream worked out from the rules with plain scans: a group
// fires on a time tag of one of its channels when the latest tag of each of
// its channels, not behind an error or overflow tag, is less than `window`
// old. The delayed stamps shift everything by `window` and order by time,
// keeping stream order among equal times with new tags right after their
// source.
std::vector<Tag> reference(const TagStream& stream, const Groups& groups, int64_t window,
                           Stamp stamp, int64_t run_end) {
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
        int64_t sum = 0;
        for (int64_t t : latest) sum += t;
        const auto n = static_cast<int64_t>(latest.size());
        stamp_time = now + (sum - now * n) / n;
      } else if (stamp == Stamp::First) {
        stamp_time = *std::min_element(latest.begin(), latest.end());
      } else if (stamp == Stamp::ListedFirst) {
        stamp_time = latest.front();
      }
      const int64_t lag = stamp == Stamp::Last ? 0 : window;
      out.push_back(Tag{Tag::Type::TimeTag, 0, 0, kFirstVirtualChannel + static_cast<int>(g),
                        stamp_time + lag});
    }
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  std::erase_if(out, [run_end](const Tag& tag) { return tag.time >= run_end; });
  return out;
}

std::vector<Tag> onVirtual(const std::vector<Tag>& tags) {
  std::vector<Tag> out;
  for (const Tag& tag : tags) {
    if (tag.channel >= kFirstVirtualChannel) out.push_back(tag);
  }
  return out;
}

VirtualChannelRules rulesFor(int64_t window, Stamp stamp, int64_t tail) {
  VirtualChannelRules rules;
  if (stamp != Stamp::Last) rules.shift = [window](const Tag&) { return window; };
  rules.tail = tail;
  return rules;
}

// Runs the stream through the harness and compares the whole output with the reference.
void expectMatchesReference(const TagStream& stream, const Groups& groups, int64_t window,
                            Stamp stamp, int64_t tail, size_t at_least) {
  SCOPED_TRACE("stamp " + std::to_string(static_cast<int>(stamp)));
  const auto out = checkVirtualChannel(
      stream,
      [&](TestZeptick* tagger) {
        return std::make_unique<Coincidences>(tagger, groups, window, stamp);
      },
      rulesFor(window, stamp, tail));
  const std::vector<Tag> expected = reference(stream, groups, window, stamp, out.end_time);
  EXPECT_TRUE(sameTags(out.inserted, onVirtual(expected)));
  EXPECT_TRUE(sameTags(out.output, expected));
  EXPECT_GE(out.inserted.size(), at_least);
}

TagStream handStream(std::vector<Tag> tags, int64_t begin, int64_t end) {
  return TagStream{std::move(tags), begin, end};
}

class CoincidencesTest : public ::testing::Test {
 protected:
  CoincidencesTest() { tagger.setIdleSpan(0); }
  TestZeptick tagger{"TEST-1", 2};
};

TEST_F(CoincidencesTest, RejectsBadArgumentsWithTheirMessages) {
  testing::LogCapture quiet;  // channels 100 and up are unknown to the test tagger
  EXPECT_EQ(invalidArgument([&] {
              Coincidences(&tagger, {{1, 2}}, 100, static_cast<Stamp>(4));
            }),
            "invalid coincidence timestamp type");
  EXPECT_EQ(invalidArgument([&] {
              Coincidences(&tagger, {{1, 2}}, 100, static_cast<Stamp>(-1));
            }),
            "invalid coincidence timestamp type");
  EXPECT_EQ(invalidArgument([&] { Coincidences(&tagger, {}, 100, Stamp::Last); }),
            "coincidences groups are empty");
  EXPECT_EQ(invalidArgument([&] {
              Coincidences(&tagger, {{1, 2}, {}}, 100, Stamp::Last);
            }),
            "one of the groups is empty");
  EXPECT_EQ(invalidArgument([&] { Coincidence(&tagger, {}, 100, Stamp::Last); }),
            "one of the groups is empty");

  // 64 distinct channels pass however they spread over groups, repeats included; 65 fail.
  Groups spread;
  for (int base = 0; base < 64; base += 16) {
    std::vector<int> group;
    for (int c = base; c < base + 16; ++c) group.push_back(100 + c);
    group.push_back(100);  // a repeat across groups counts once
    spread.push_back(group);
  }
  EXPECT_NO_THROW(Coincidences(&tagger, spread, 100, Stamp::Last));
  spread.back().push_back(164);
  EXPECT_EQ(invalidArgument([&] { Coincidences(&tagger, spread, 100, Stamp::Last); }),
            "no more than 64 different channels can be used at once on a single Coincidences "
            "measurement. Split the groups into multiple measurements");
}

TEST_F(CoincidencesTest, RegistersEachChannelOnceAndHandsOutOneChannelPerGroup) {
  {
    Coincidences coincidences(&tagger, {{1, 2}, {2, 3, 3}, {1, 2}}, 100, Stamp::Average);
    EXPECT_EQ(tagger.registrations(1), 1);
    EXPECT_EQ(tagger.registrations(2), 1);
    EXPECT_EQ(tagger.registrations(3), 1);
    const std::vector<int> channels = coincidences.getChannels();
    ASSERT_EQ(channels.size(), 3u);
    EXPECT_LT(channels[0], channels[1]);
    EXPECT_LT(channels[1], channels[2]);
    Coincidence single(&tagger, {4, 5}, 100, Stamp::First);
    EXPECT_EQ(single.getChannels(), std::vector<int>{single.getChannel()});
    EXPECT_GT(single.getChannel(), channels[2]);
  }
  EXPECT_EQ(tagger.registrations(2), 0);
}

TEST(CoincidencesEdgeTest, WindowIsStrictAndOverflowForgetsEverything) {
  // Hand-worked: 1 and 2 exactly `window` apart do not coincide, one ps closer they do;
  // after the error the memory is empty, so 2@5050 finds no partner.
  const auto stream =
      handStream({timeTag(1, 1000), timeTag(2, 1100), timeTag(1, 2000), timeTag(2, 2099),
                  timeTag(1, 5000), marker(Tag::Type::Error, 5010), timeTag(2, 5050)},
                 500, 6000);
  const auto out = checkVirtualChannel(stream, [](TestZeptick* tagger) {
    return std::make_unique<Coincidence>(tagger, std::vector<int>{1, 2}, 100, Stamp::Last);
  });
  EXPECT_TRUE(sameTags(out.inserted, {timeTag(kFirstVirtualChannel, 2099)}));
  EXPECT_TRUE(sameTags(out.output, reference(stream, {{1, 2}}, 100, Stamp::Last, 6000)));
}

TEST(CoincidencesEdgeTest, DelayedStampsLagTheStreamByTheWindow) {
  // 1@1000, 2@1040, 3@1070 complete (1,1,2,3); window 100 shifts all by 100.
  const auto stream = handStream({timeTag(1, 1000), timeTag(2, 1040), timeTag(3, 1070)}, 900, 1100);
  auto run = [&](Stamp stamp, int64_t tail) {
    return checkVirtualChannel(
        stream,
        [stamp](TestZeptick* tagger) {
          return std::make_unique<Coincidence>(tagger, std::vector<int>{1, 1, 2, 3}, 100, stamp);
        },
        rulesFor(100, stamp, tail));
  };
  // Average of 1000, 1000, 1040, 1070 is 1027.5, rounded towards zero from
  // the completing tag: 1070 + (-70 - 70 - 30) / 4 = 1070 - 42 = 1028.
  EXPECT_TRUE(sameTags(run(Stamp::Average, 100).inserted, {timeTag(kFirstVirtualChannel, 1128)}));
  const auto first = run(Stamp::First, 100);
  EXPECT_TRUE(sameTags(first.output, {timeTag(1, 1100), timeTag(kFirstVirtualChannel, 1100),
                                      timeTag(2, 1140), timeTag(3, 1170)}));
  EXPECT_TRUE(
      sameTags(run(Stamp::ListedFirst, 100).inserted, {timeTag(kFirstVirtualChannel, 1100)}));
  // Without a tail, whatever is at or after end_time - window stays queued.
  const auto held = run(Stamp::First, 0);
  EXPECT_TRUE(held.output.empty());
}

TEST(CoincidencesEdgeTest, TagAtEndMinusWindowWaitsForTheNextBlock) {
  Groups groups{{1}};
  TestZeptick tagger("TEST-1", 2);
  tagger.setIdleSpan(0);
  testing::Direct<Coincidences> direct(&tagger, groups, 100, Stamp::First);
  const int vc = direct.getChannels()[0];
  EXPECT_TRUE(sameTags(direct.feed({timeTag(1, 899), timeTag(1, 900)}, 0, 1000),
                       {timeTag(1, 999), timeTag(vc, 999)}));
  // Stop, clear and restart keep what is queued.
  direct.clear();
  direct.restart();
  EXPECT_TRUE(sameTags(direct.feed({}, 1000, 1001), {timeTag(1, 1000), timeTag(vc, 1000)}));
}

TEST(CoincidencesEdgeTest, WindowChangesApplyFromTheNextBlock) {
  TestZeptick tagger("TEST-1", 2);
  tagger.setIdleSpan(0);
  testing::Direct<Coincidences> direct(&tagger, Groups{{1, 2}}, 100, Stamp::Last);
  const int vc = direct.getChannels()[0];
  EXPECT_EQ(direct.feed({timeTag(1, 1000), timeTag(2, 1150)}, 0, 2000).size(), 2u);
  direct.setCoincidenceWindow(200);
  EXPECT_TRUE(sameTags(direct.feed({timeTag(1, 2000), timeTag(2, 2150)}, 2000, 3000),
                       {timeTag(1, 2000), timeTag(2, 2150), timeTag(vc, 2150)}));

  // A shrinking window lets later tags overtake queued ones, but never out of time order.
  testing::Direct<Coincidences> delayed(&tagger, Groups{{3}}, 1000, Stamp::Average);
  const int single = delayed.getChannels()[0];
  EXPECT_TRUE(delayed.feed({timeTag(3, 500)}, 0, 1000).empty());
  delayed.setCoincidenceWindow(100);
  EXPECT_TRUE(
      sameTags(delayed.feed({timeTag(3, 1200)}, 1000, 2000),
               {timeTag(3, 1300), timeTag(single, 1300), timeTag(3, 1500), timeTag(single, 1500)}));
}

TEST(CoincidencesStreamTest, MatchesReferenceOnRandomStreamsInEveryMode) {
  // Overlapping groups, a repeated channel, a single-channel group, over 8 inputs.
  const Groups groups = {{1, 2}, {1, 2, 3}, {3, 4, 4, 5}, {6}, {7, 8, 1}, {2, 7}};
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = {1, 2, 3, 4, 5, 6, 7, 8, -1, -3};
    shape.tags = 1500;
    shape.mean_gap = 400;
    const TagStream stream = testing::makeRandomStream(rng, shape);
    const int64_t window = 1500;
    for (Stamp stamp : {Stamp::Last, Stamp::Average, Stamp::First, Stamp::ListedFirst}) {
      // Half the runs let the held-back end of the stream out.
      expectMatchesReference(stream, groups, window, stamp, seed % 2 == 0 ? window : 0, 300);
    }
  }
}

TEST(CoincidencesChainTest, OnlyMeasurementsBehindSeeTheNewTags) {
  TestZeptick tagger("TEST-1", 3);
  tagger.setIdleSpan(0);
  testing::RecordingMeasurement before(&tagger);
  Coincidence coincidence(&tagger, {1, 2}, 100, Stamp::Last);
  testing::RecordingMeasurement after(&tagger);
  // Idle blocks may have run before the idle span was cleared: times are relative to `s`.
  const int64_t s = tagger
                        .pushBlocks({testing::Block{{timeTag(1, 10), timeTag(2, 20)}, 0, 100},
                                     testing::Block{{timeTag(2, 150)}, 100, 200}})
                        .front()
                        .begin_time;
  ASSERT_TRUE(testing::eventually([&] { return after.blocks().size() == 2; }));
  const int vc = coincidence.getChannel();
  EXPECT_TRUE(sameTags(before.blocks()[0].tags, {timeTag(1, s + 10), timeTag(2, s + 20)}));
  EXPECT_TRUE(sameTags(after.blocks()[0].tags,
                       {timeTag(1, s + 10), timeTag(2, s + 20), timeTag(vc, s + 20)}));
  EXPECT_TRUE(sameTags(after.blocks()[1].tags, {timeTag(2, s + 150)}));
}

}  // namespace
}  // namespace zeptick
