#include "zeptick/combiner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

#include "support/virtual_channel_harness.h"

namespace zeptick {
namespace {

using namespace testing;

std::vector<int64_t> counts(Combiner& combiner) {
  return testing::collect(combiner, &Combiner::getData);
}

// The whole output from the rules: each tag, then one copy per listing of its
// channel, whatever its type.
std::vector<Tag> reference(const std::vector<Tag>& in, const std::vector<int>& listed) {
  std::vector<Tag> out;
  for (const Tag& tag : in) {
    out.push_back(tag);
    Tag copy = tag;
    copy.channel = kFirstVirtualChannel;
    out.insert(out.end(), std::count(listed.begin(), listed.end(), tag.channel), copy);
  }
  return out;
}

TagStream randomStream(uint64_t seed) {
  std::mt19937_64 rng(seed);
  testing::StreamShape shape;
  shape.channels = {1, 2, 3, -1, 4};
  shape.tags = 2000;
  shape.overflow_percent = 1;
  shape.missed_outside_percent = 1;
  return testing::makeRandomStream(rng, shape);
}

TEST(CombinerStreamTest, CopiesEveryListedTagOncePerListingOnRandomStreams) {
  for (uint64_t seed = 1; seed <= 3; ++seed) {
    SCOPED_TRACE(seed);
    const TagStream stream = randomStream(seed);
    for (const std::vector<int>& listed :
         {std::vector<int>{1, 2}, std::vector<int>{-1, 4, -1, 7}, std::vector<int>{}}) {
      const auto out = checkVirtualChannel(stream, [&listed](TestZeptick* tagger) {
        return std::make_unique<Combiner>(tagger, listed);
      });
      EXPECT_TRUE(sameTags(out.output, reference(stream.tags, listed)));
    }
  }
}

TEST(CombinerTest, CountsPerEntryUntilClearedAndAcrossRestarts) {
  TestZeptick tagger("TEST-1", 2);
  tagger.setIdleSpan(0);
  const std::vector<int> listed = {2, -1, 2, 9};
  testing::Direct<Combiner> combiner(&tagger, listed);
  const TagStream stream = randomStream(4);
  // Missed-events tags bear a channel and count like time tags.
  std::vector<int64_t> expected(listed.size(), 0);
  for (const Tag& tag : stream.tags) {
    for (size_t i = 0; i < listed.size(); ++i) expected[i] += tag.channel == listed[i];
  }
  ASSERT_GT(expected[0], 100);
  const auto blocks = cutStream(stream, {stream.begin_time + 100000, stream.begin_time + 900000});
  for (const auto& block : blocks) {
    combiner.feed(block.tags, block.begin_time, block.end_time);
    combiner.restart();  // counts survive stop and start
  }
  EXPECT_EQ(counts(combiner), expected);
  EXPECT_EQ(tagger.registrations(2), 1);
  combiner.clear();
  EXPECT_EQ(counts(combiner), std::vector<int64_t>(4, 0));

  testing::Direct<Combiner> none(&tagger, std::vector<int>{});
  EXPECT_TRUE(counts(none).empty());
}

}  // namespace
}  // namespace zeptick
