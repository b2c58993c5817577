#include "zeptick/time_tag_stream.h"

#include <gtest/gtest.h>

#include <random>
#include <utility>
#include <vector>

#include "file_format_testing.h"

namespace zeptick::testing {
namespace {

// Fed by hand on the test's thread: stopped at once, so no worker calls next_impl too.
class DirectStream : public TimeTagStream {
 public:
  DirectStream(ZeptickBase* tagger, uint64_t n_max, std::vector<int> channels)
      : TimeTagStream(tagger, n_max, std::move(channels)) {
    stop();
  }
  void feed(Block block) {
    lock();
    next_impl(block.tags, block.begin_time, block.end_time);
    unlock();
  }
};

class TimeTagStreamTest : public ::testing::Test {
 protected:
  TimeTagStreamTest() { tagger.setIdleSpan(0); }
  TestZeptick tagger{"TEST-1", 2};
  std::mt19937_64 rng{2024};
};

TEST_F(TimeTagStreamTest, CollectsFilteredTagsAndChainsSpansAcrossGetData) {
  const std::vector<Block> blocks = makeRandomBlocks(rng, 60, {1, 2, 3, -1});
  DirectStream stream(&tagger, 1u << 20, {2, -1});
  const TimeTagStreamBuffer empty = stream.getData();
  EXPECT_TRUE(bufferTags(empty).empty());
  EXPECT_FALSE(empty.hasOverflows);
  std::vector<Tag> expected;
  bool expect_overflow = false;
  int64_t span_start = -1;
  for (size_t i = 0; i < blocks.size(); ++i) {
    stream.feed(blocks[i]);
    if (span_start == -1) span_start = blocks[i].end_time;
    for (const Tag& tag : blocks[i].tags) {
      const bool on_channel = tag.channel == 2 || tag.channel == -1;
      const bool counted = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
      expect_overflow |= tag.type != Tag::Type::TimeTag;
      if (on_channel || !counted) expected.push_back(tag);
    }
    if (i % 20 != 19) continue;
    EXPECT_EQ(stream.getCounts(), expected.size());
    const TimeTagStreamBuffer buffer = stream.getData();
    EXPECT_EQ(fields(bufferTags(buffer)), fields(expected)) << "after block " << i;
    EXPECT_EQ(buffer.hasOverflows, expect_overflow);
    EXPECT_EQ(buffer.tGetData, blocks[i].end_time);
    EXPECT_EQ(buffer.tStart, span_start);
    span_start = blocks[i].end_time;  // the next span begins where this one ended
    expected.clear();
    expect_overflow = false;
  }
  EXPECT_EQ(stream.getCounts(), 0u);
}

TEST_F(TimeTagStreamTest, StopsCollectingAtTheLimitUntilDrained) {
  std::vector<Tag> tags;
  for (int i = 0; i < 10; ++i) tags.push_back(timeTag(1 + i % 2, i * 10));
  tags.push_back(specialTag(Tag::Type::OverflowBegin, 100));
  for (const std::vector<int>& filter : {std::vector<int>{}, std::vector<int>{1, 2}}) {
    DirectStream stream(&tagger, 4, filter);
    stream.feed(Block{tags, 0, 200});
    stream.feed(Block{tags, 200, 400});
    TimeTagStreamBuffer buffer = stream.getData();
    EXPECT_EQ(fields(bufferTags(buffer)), fields({tags.begin(), tags.begin() + 4}));
    // The overflow mark beyond the limit still says that data are missing.
    EXPECT_TRUE(buffer.hasOverflows);
    EXPECT_EQ(buffer.tStart, 200);
    EXPECT_EQ(buffer.tGetData, 400);
    stream.feed(Block{tags, 400, 600});
    buffer = stream.getData();
    EXPECT_EQ(buffer.size, 4u);
    EXPECT_EQ(buffer.tStart, 400);
  }
}

}  // namespace
}  // namespace zeptick::testing
