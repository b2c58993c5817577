#include "zeptick/constant_fraction_discriminator.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;
using CFD = ConstantFractionDiscriminator;

// The discriminator's rules worked out on the whole stream at once. A pulse is
// a tag on a listed channel followed by one on its inverted channel with no
// pulse end between; its midpoint counts if narrower than the window. Every
// time tag reappears half a window later. A tag that is not a time tag throws
// away every pulse begun and every delayed tag that had not yet left; a
// delayed tag has left once some later time tag or block end (in `block_ends`)
// was beyond it.
std::vector<Tag> reference(const std::vector<Tag>& input, const std::vector<int64_t>& block_ends,
                           const std::map<int, int>& closing_to_leading,
                           const std::map<int, int>& virtual_of_closing, int64_t window) {
  const int64_t half = window / 2;
  std::vector<Tag> out;
  std::vector<Tag> held;        // delayed or midpoint tags since the last drop
  std::map<int, int64_t> open;  // leading channel -> time of its open pulse
  int64_t passed_limit = INT64_MIN;
  size_t next_end = 0;
  auto release = [&](bool all_below_limit) {
    for (const Tag& tag : held) {
      if (all_below_limit && tag.time < passed_limit) out.push_back(tag);
    }
    held.clear();
  };
  auto isLeading = [&](int channel) {
    for (const auto& [closing, leading] : closing_to_leading) {
      if (leading == channel) return true;
    }
    return false;
  };
  for (const Tag& tag : input) {
    while (next_end < block_ends.size() && block_ends[next_end] <= tag.time) {
      passed_limit = std::max(passed_limit, block_ends[next_end++]);
    }
    if (tag.type != Tag::Type::TimeTag) {
      release(true);
      open.clear();
      passed_limit = INT64_MIN;
      out.push_back(tag);
      continue;
    }
    passed_limit = std::max(passed_limit, tag.time);
    if (isLeading(tag.channel)) open[tag.channel] = tag.time;
    auto closes = closing_to_leading.find(tag.channel);
    if (closes != closing_to_leading.end()) {
      auto pulse = open.find(closes->second);
      if (pulse != open.end()) {
        const int64_t width = tag.time - pulse->second;
        open.erase(pulse);
        if (width < window) {
          held.push_back(timeTag(virtual_of_closing.at(tag.channel), tag.time + half - width / 2));
        }
      }
    }
    Tag shifted = tag;
    shifted.time += half;
    held.push_back(shifted);
  }
  for (; next_end < block_ends.size(); ++next_end) {
    passed_limit = std::max(passed_limit, block_ends[next_end]);
  }
  release(true);
  return sortedWithinEqualTimes(out);
}

using CfdTest = QuietTaggerTest;

TEST_F(CfdTest, NumbersOneVirtualChannelPerPair) {
  CFD cfd(&tagger, {2, 3, 2}, 100);
  EXPECT_EQ(cfd.getChannels(), (std::vector<int>{1000, 1001, 1000}));
  for (int channel : {2, -2, 3, -3}) EXPECT_EQ(tagger.registrations(channel), 1) << channel;
}

TEST_F(CfdTest, MidpointOfAPulseStandsBetweenItsDelayedEdges) {
  Direct<CFD> cfd(&tagger, std::vector<int>{1}, 1000);
  const int v = cfd.getChannels()[0];
  // Edges at 1000 and 1200: midpoint 1100 plus the 500 ps delay of the stream.
  std::vector<Tag> out = cfd.feed({timeTag(1, 1000), timeTag(-1, 1200), timeTag(5, 1300)}, 0, 3000);
  EXPECT_TRUE(
      sameTags(out, {timeTag(1, 1500), timeTag(v, 1600), timeTag(-1, 1700), timeTag(5, 1800)}));
  // Width 999 passes (midpoint 2999 + 500 - 499), 1000 is dropped; the strict flush keeps 3500 and
  // later back.
  out = cfd.feed({timeTag(1, 2000), timeTag(-1, 2999), timeTag(1, 3000), timeTag(-1, 4000)}, 3000,
                 3501);
  EXPECT_TRUE(
      sameTags(out, {timeTag(1, 2500), timeTag(v, 3000), timeTag(-1, 3499), timeTag(1, 3500)}));
  // An overflow drops what is held back and the open pulse: nothing spans it.
  out = cfd.feed({timeTag(1, 4100), marker(Tag::Type::OverflowBegin, 4200),
                  marker(Tag::Type::OverflowEnd, 4300), timeTag(-1, 4400)},
                 3501, 6000);
  EXPECT_TRUE(sameTags(out, {marker(Tag::Type::OverflowBegin, 4200),
                             marker(Tag::Type::OverflowEnd, 4300), timeTag(-1, 4900)}));
}

TEST_F(CfdTest, BothEdgesListedPairBothWays) {
  // 1 opens a pulse that -1 closes, and -1 one that 1 closes.
  Direct<CFD> cfd(&tagger, std::vector<int>{1, -1}, 400);
  const std::vector<int> v = cfd.getChannels();
  ASSERT_EQ(v.size(), 2u);
  std::vector<Tag> out = cfd.feed({timeTag(1, 1000), timeTag(-1, 1100), timeTag(1, 1300)}, 0, 5000);
  std::vector<Tag> expected = {timeTag(1, 1200), timeTag(v[0], 1250), timeTag(-1, 1300),
                               timeTag(v[1], 1400), timeTag(1, 1500)};
  EXPECT_TRUE(sameTags(sortedWithinEqualTimes(out), sortedWithinEqualTimes(expected)));
}

std::map<int, int> closingToLeading(const std::vector<int>& channels) {
  std::map<int, int> pairs;
  for (int channel : channels) pairs.try_emplace(-channel, channel);
  return pairs;
}

std::map<int, int> virtualsOf(CFD& cfd, const std::vector<int>& channels) {
  std::map<int, int> virtuals;
  const std::vector<int> numbers = cfd.getChannels();
  for (size_t i = 0; i < channels.size(); ++i) virtuals[-channels[i]] = numbers[i];
  return virtuals;
}

TEST_F(CfdTest, MatchesTheRulesOnRandomStreamsCutAnywhere) {
  std::mt19937_64 rng(99);
  const std::vector<int> channels = {1, 2, 1};
  for (int trial = 0; trial < 30; ++trial) {
    StreamShape shape;
    shape.channels = {1, -1, 2, -2, 3};
    shape.tags = 400;
    shape.mean_gap = 300;
    shape.error_percent = shape.overflow_percent = shape.missed_outside_percent = 1;
    const TagStream stream = makeRandomStream(rng, shape);
    const int64_t window = std::vector<int64_t>{1, 2, 301, 900, 5000}[trial % 5];
    const std::vector<Block> blocks = cutStream(stream, randomCuts(rng, stream, 40));

    Direct<CFD> cfd(&tagger, channels, window);
    std::vector<Tag> actual;
    std::vector<int64_t> ends;
    for (const Block& block : blocks) {
      std::vector<Tag> out = cfd.feed(block.tags, block.begin_time, block.end_time);
      for (const Tag& tag : out) {
        EXPECT_GE(tag.time, block.begin_time);
        EXPECT_LT(tag.time, block.end_time);
      }
      actual.insert(actual.end(), out.begin(), out.end());
      ends.push_back(block.end_time);
    }
    ASSERT_TRUE(std::is_sorted(actual.begin(), actual.end(),
                               [](const Tag& a, const Tag& b) { return a.time < b.time; }))
        << "trial " << trial;
    const std::vector<Tag> expected =
        reference(stream.tags, ends, closingToLeading(channels), virtualsOf(cfd, channels), window);
    ASSERT_TRUE(sameTags(sortedWithinEqualTimes(actual), expected))
        << "trial " << trial << ", window " << window;
  }
}

}  // namespace
}  // namespace zeptick
