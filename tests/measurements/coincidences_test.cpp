#include "zeptick/coincidences.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/virtual_channel_harness.h"
#include "zeptick/coincidence.h"

namespace zeptick {
namespace {

using namespace testing;
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

using CoincidencesTest = QuietTaggerTest;

TEST_F(CoincidencesTest, RegistersEachChannelOnceAndHandsOutOneChannelPerGroup) {
  {
    Coincidences coincidences(&tagger, {{1, 2}, {2, 3, 3}, {1, 2}}, 100, Stamp::Average);
    for (int channel : {1, 2, 3}) EXPECT_EQ(tagger.registrations(channel), 1);
    EXPECT_EQ(coincidences.getChannels(), (std::vector<int>{1000, 1001, 1002}));
  }
  EXPECT_EQ(tagger.registrations(2), 0);
}

TEST(CoincidencesEdgeTest, WindowIsStrictAndOverflowForgetsEverything) {
  // Hand-worked: 1 and 2 exactly `window` apart do not coincide, one ps closer they do;
  // after the error the memory is empty, so 2@5050 finds no partner.
  const auto stream =
      TagStream{{timeTag(1, 1000), timeTag(2, 1100), timeTag(1, 2000), timeTag(2, 2099),
                 timeTag(1, 5000), marker(Tag::Type::Error, 5010), timeTag(2, 5050)},
                500,
                6000};
  const auto out = checkVirtualChannel(stream, [](TestZeptick* tagger) {
    return std::make_unique<Coincidence>(tagger, std::vector<int>{1, 2}, 100, Stamp::Last);
  });
  EXPECT_TRUE(sameTags(out.inserted, {timeTag(kFirstVirtualChannel, 2099)}));
  EXPECT_TRUE(sameTags(out.output, reference(stream, {{1, 2}}, 100, Stamp::Last, 6000)));
}

TEST_F(CoincidencesTest, TagAtEndMinusWindowWaitsAndWindowChangesApplyFromTheNextBlock) {
  testing::Direct<Coincidences> direct(&tagger, Groups{{1}}, 100, Stamp::First);
  const int vc = direct.getChannels()[0];
  EXPECT_TRUE(sameTags(direct.feed({timeTag(1, 899), timeTag(1, 900)}, 0, 1000),
                       {timeTag(1, 999), timeTag(vc, 999)}));
  // Stop, clear and restart keep what is queued.
  direct.clear();
  direct.restart();
  EXPECT_TRUE(sameTags(direct.feed({}, 1000, 1001), {timeTag(1, 1000), timeTag(vc, 1000)}));

  testing::Direct<Coincidences> pair(&tagger, Groups{{1, 2}}, 100, Stamp::Last);
  const int pair_vc = pair.getChannels()[0];
  EXPECT_EQ(pair.feed({timeTag(1, 1000), timeTag(2, 1150)}, 0, 2000).size(), 2u);
  pair.setCoincidenceWindow(200);
  EXPECT_TRUE(sameTags(pair.feed({timeTag(1, 2000), timeTag(2, 2150)}, 2000, 3000),
                       {timeTag(1, 2000), timeTag(2, 2150), timeTag(pair_vc, 2150)}));

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

}  // namespace
}  // namespace zeptick
