#include "zeptick/iterator.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;
using DirectIterator = testing::Direct<Iterator>;
using IteratorTest = QuietTaggerTest;

TEST_F(IteratorTest, DeliversTheChannelsTagsInOrderAndMarksWhatItDropped) {
  std::mt19937_64 rng(5);
  // No overflows of its own, so every overflow mark read is one the iterator made.
  const TagStream stream =
      makeRandomStream(rng, StreamShape{.error_percent = 0, .overflow_percent = 0});
  const auto blocks = cutStream(stream, randomCuts(rng, stream, 40));
  // Room for about a third of the stream: the caller reads only after everything arrived.
  DirectIterator iterator(&tagger, std::vector<int>{1, 3}, stream.tags.size() / 3);
  for (const Block& block : blocks) iterator.feed(block.tags, block.begin_time, block.end_time);

  std::vector<Tag> kept;
  for (const Tag& tag : stream.tags) {
    const bool channel_tag = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
    if (!channel_tag || tag.channel == 1 || tag.channel == 3) kept.push_back(tag);
  }
  Iterator::Block block;
  std::vector<Tag> read;
  int64_t expected_begin = stream.begin_time;
  while (iterator.next(block, 0)) {
    EXPECT_EQ(block.begin_time, expected_begin);  // spans touch, even across merged empties
    expected_begin = block.end_time;
    read.insert(read.end(), block.tags.begin(), block.tags.end());
  }
  // What was read is the stream with whole blocks left out, each gap marked by one
  // overflow pair, and every tag left out counted.
  const uint64_t dropped = iterator.getDroppedTags();
  ASSERT_GT(dropped, 0u);
  std::vector<Tag> unmarked;
  size_t gaps = 0;
  for (size_t i = 0; i < read.size(); ++i) {
    if (read[i].type == Tag::Type::OverflowBegin) {
      ASSERT_EQ(read.at(i + 1).type, Tag::Type::OverflowEnd);
      gaps += 1;
      i += 1;
    } else {
      unmarked.push_back(read[i]);
    }
  }
  EXPECT_GT(gaps, 0u);
  EXPECT_EQ(unmarked.size() + dropped, kept.size());
  size_t k = 0;
  for (const Tag& tag : unmarked) {
    while (k < kept.size() && !sameTags({kept[k]}, {tag})) ++k;
    ASSERT_LT(k++, kept.size()) << "read a tag out of order: " << describe(tag);
  }

  // With room again, the next block begins with the marks of the gap.
  iterator.feed({timeTag(1, stream.end_time + 10)}, stream.end_time, stream.end_time + 100);
  ASSERT_TRUE(iterator.next(block, 0));
  ASSERT_EQ(block.tags.size(), 3u);
  EXPECT_EQ(block.tags[0].type, Tag::Type::OverflowBegin);
  EXPECT_EQ(block.tags[1].type, Tag::Type::OverflowEnd);
  EXPECT_EQ(block.tags[1].time, stream.end_time);
  EXPECT_EQ(block.begin_time, block.tags[0].time);
  EXPECT_EQ(block.tags[0].time, expected_begin);  // where the last block read ended
}

TEST_F(IteratorTest, ConsumerThreadReadsEveryTagWhileWorkersFill) {
  TestZeptick live{"TEST-2", 2};
  live.setIdleSpan(0);
  std::mt19937_64 rng(9);
  const TagStream stream = makeRandomStream(rng, StreamShape{.tags = 20000});
  Iterator iterator(&live, {}, 1u << 20);
  std::vector<Tag> read;
  std::thread consumer([&] {
    for (const Tag& tag : iterator) read.push_back(tag);
  });
  deliver(live, cutStream(stream, randomCuts(rng, stream, 200)));
  iterator.stop();  // ends the range-for once drained
  consumer.join();
  EXPECT_EQ(iterator.getDroppedTags(), 0u);
  EXPECT_EQ(read.size(), stream.tags.size());
}

}  // namespace
}  // namespace zeptick
