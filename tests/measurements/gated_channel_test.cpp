#include "zeptick/gated_channel.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "support/virtual_channel_harness.h"

namespace zeptick {
namespace {

using namespace testing;

// Copies expected from the rules, asked per tag by looking back: an input tag
// is copied unless it is a stop tag, when it is itself a start tag or when the
// nearest earlier start tag is not followed by a stop or a non-time tag.
std::vector<Tag> reference(const std::vector<Tag>& in, int input, int start, int stop) {
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

std::vector<Tag> gate(const TagStream& stream, int input, int start, int stop) {
  return checkVirtualChannel(stream,
                             [=](TestZeptick* tagger) {
                               return std::make_unique<GatedChannel>(tagger, input, start, stop);
                             })
      .inserted;
}

TEST(GatedChannelTest, GateFollowsStartStopAndNonTimeTagsInBlockOrder) {
  const int vc = kFirstVirtualChannel;
  // start, input, stop, input: one copy; two starts keep it open; a stop when
  // closed does nothing; an overflow closes it; an input at the start's time
  // but before it in the block is not copied.
  const TagStream stream{{timeTag(2, 10), timeTag(1, 20), timeTag(3, 30), timeTag(1, 40),
                          timeTag(3, 50), timeTag(2, 60), timeTag(2, 70), timeTag(1, 80),
                          marker(Tag::Type::OverflowBegin, 90), marker(Tag::Type::OverflowEnd, 95),
                          timeTag(1, 100), timeTag(1, 110), timeTag(2, 110), timeTag(1, 110)},
                         0,
                         200};
  EXPECT_TRUE(
      sameTags(gate(stream, 1, 2, 3), {timeTag(vc, 20), timeTag(vc, 80), timeTag(vc, 110)}));
  // A start tag on the input is copied, a stop tag on it never is.
  EXPECT_TRUE(sameTags(gate(stream, 2, 2, 3),
                       {timeTag(vc, 10), timeTag(vc, 60), timeTag(vc, 70), timeTag(vc, 110)}));
  EXPECT_TRUE(gate(stream, 3, 2, 3).empty());
}

TEST(GatedChannelTest, GateStaysOpenAcrossBlocksStopsAndClears) {
  TestZeptick tagger("TEST-1", 2);
  tagger.setIdleSpan(0);
  // A refused channel has taken a virtual channel already; it is not given back.
  EXPECT_THROW(GatedChannel(&tagger, 1, 2, 2), std::runtime_error);
  testing::Direct<GatedChannel> gated(&tagger, 1, 2, 3);
  const int vc = gated.getChannel();
  EXPECT_EQ(vc, kFirstVirtualChannel + 1);
  gated.feed({timeTag(2, 10)}, 0, 100);
  gated.clear();
  gated.restart();
  EXPECT_TRUE(
      sameTags(gated.feed({timeTag(1, 150)}, 100, 200), {timeTag(1, 150), timeTag(vc, 150)}));
}

TEST(GatedChannelStreamTest, MatchesReferenceOnRandomStreams) {
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    testing::StreamShape shape;
    shape.channels = {1, 2, 3, 4, 1, 1};
    shape.tags = 2000;
    shape.error_percent = 0.5;
    shape.overflow_percent = 0.5;
    const TagStream stream = testing::makeRandomStream(rng, shape);
    for (const auto& [input, start, stop] :
         {std::tuple{1, 2, 3}, std::tuple{2, 2, 3}, std::tuple{1, 3, 1}, std::tuple{1, 5, 2}}) {
      SCOPED_TRACE(std::to_string(input) + " " + std::to_string(start) + " " +
                   std::to_string(stop));
      const std::vector<Tag> expected = reference(stream.tags, input, start, stop);
      EXPECT_TRUE(sameTags(gate(stream, input, start, stop), expected));
      if (start != 5 && input != stop) {
        EXPECT_GT(expected.size(), 50u);
      }
    }
  }
}

}  // namespace
}  // namespace zeptick
