#include "engine/device_merger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <utility>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using Type = Tag::Type;

struct Block {
  std::vector<Tag> tags;
  int64_t end = 0;
};

struct Member {
  std::vector<Tag> tags;  // the whole stream, in time order
  std::vector<Block> blocks;
};

// A member's stream: time tags on its own channels at distinct times, an overflow span now and
// then, cut into blocks. Without `ties` a member's times end in its ordinal, so members never
// tie; with it all members share one grid and tie often, and member order must decide. Long
// blocks (`block_scale` 30) hold runs long enough to be merged in bulk.
Member makeMember(std::mt19937_64& rng, int ordinal, int members, bool ties, int block_scale) {
  Member member;
  int64_t t = 0;
  bool in_overflow = false;
  for (int i = 0; i < 400; ++i) {
    t += static_cast<int64_t>(1 + rng() % 50) * members;
    const int64_t time = ties ? t : t + ordinal;
    if (rng() % 40 == 0) {
      member.tags.push_back(
          Tag{in_overflow ? Type::OverflowEnd : Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, time});
      in_overflow = !in_overflow;
    } else {
      member.tags.push_back(Tag{Type::TimeTag, 0, 0, 100 * (ordinal + 1) + 1, time});
    }
  }
  // Blocks end between tags; some are empty.
  size_t next = 0;
  int64_t end = 0;
  while (next < member.tags.size()) {
    end += static_cast<int64_t>(rng() % (200 * members * block_scale));
    Block block;
    while (next < member.tags.size() && member.tags[next].time < end) {
      block.tags.push_back(member.tags[next++]);
    }
    block.end = end;
    member.blocks.push_back(block);
  }
  member.blocks.push_back(Block{{}, end + 1000000});  // carries the horizon past the end
  return member;
}

// The merged stream by brute force: all tags by time, with the overflow rules applied.
std::vector<Tag> referenceMerge(const std::vector<Member>& members) {
  std::vector<std::pair<Tag, int>> all;
  for (int m = 0; m < static_cast<int>(members.size()); ++m) {
    for (const Tag& tag : members[m].tags) all.emplace_back(tag, m);
  }
  std::stable_sort(all.begin(), all.end(),
                   [](const auto& a, const auto& b) { return a.first.time < b.first.time; });
  std::vector<bool> open(members.size(), false);
  std::vector<Tag> out;
  for (auto [tag, m] : all) {
    const bool any_open = std::count(open.begin(), open.end(), true) > 0;
    if (tag.type == Type::OverflowBegin) {
      open[m] = true;
      if (any_open) continue;
    } else if (tag.type == Type::OverflowEnd) {
      open[m] = false;
    } else if (any_open) {
      tag.type = Type::MissedEvents;
      tag.missed_events = 1;
    }
    out.push_back(tag);
  }
  return out;
}

struct Merged {
  std::vector<Tag> tags;
  int64_t blockBegin, blockEnd;
  uint32_t fence;
};

// One block of `member` through the merger, and the merged block that comes out.
Merged feed(DeviceMerger& merger, size_t member, std::vector<Tag> tags, int64_t end, uint32_t fence,
            uint64_t max_events = 256, bool invalid = false) {
  ZeptickRunner::Worker worker;
  worker.tags = std::move(tags);
  worker.blockEnd = end;
  worker.fence = fence;
  worker.streamInvalid = invalid;
  merger.add(worker, member, max_events);
  return Merged{worker.tags, worker.blockBegin, worker.blockEnd, worker.fence};
}

// Feeds every member's blocks in a random interleaving (each member's in order) and checks the
// merged blocks against the reference: complete, in order, touching, cut only at maxEvents.
TEST(DeviceMergerTest, RandomInterleavingsMergeLikeASortAndCutOnlyBetweenTimes) {
  for (int members : {2, 3, 4}) {
    for (uint64_t seed = 1; seed <= 8; ++seed) {
      std::mt19937_64 rng(seed * 31 + static_cast<uint64_t>(members));
      std::vector<Member> group;
      const int block_scale = seed % 2 == 0 ? 30 : 1;
      for (int m = 0; m < members; ++m) {
        group.push_back(makeMember(rng, m, members, seed > 4, block_scale));
      }
      const uint64_t max_events = 1 + rng() % (64 * static_cast<uint64_t>(block_scale));
      DeviceMerger merger(static_cast<size_t>(members));
      std::vector<size_t> next(static_cast<size_t>(members), 0);
      std::vector<Tag> merged;
      int64_t previous_end = 0;
      for (;;) {
        std::vector<int> left;
        for (int m = 0; m < members; ++m) {
          if (next[m] < group[m].blocks.size()) left.push_back(m);
        }
        if (left.empty()) break;
        const int m = left[rng() % left.size()];
        const Block& block = group[m].blocks[next[m]++];
        const Merged worker =
            feed(merger, static_cast<size_t>(m), block.tags, block.end, 7, max_events);
        ASSERT_EQ(worker.blockBegin, previous_end) << "merged blocks touch";
        ASSERT_GE(worker.blockEnd, worker.blockBegin);
        for (const Tag& tag : worker.tags) {
          ASSERT_GE(tag.time, worker.blockBegin);
          ASSERT_LT(tag.time, worker.blockEnd);
        }
        if (worker.tags.size() > max_events) {
          // Only a run of equal times may overrun the cut.
          ASSERT_EQ(worker.tags[max_events - 1].time, worker.tags.back().time);
        }
        previous_end = worker.blockEnd;
        merged.insert(merged.end(), worker.tags.begin(), worker.tags.end());
      }
      // Blocks cut at maxEvents leave the rest for later blocks: empty ones bring it out.
      for (int flush = 0; flush < 1000 && previous_end < group[0].blocks.back().end; ++flush) {
        const Merged worker = feed(merger, 0, {}, group[0].blocks.back().end, 0, max_events);
        previous_end = worker.blockEnd;
        merged.insert(merged.end(), worker.tags.begin(), worker.tags.end());
      }
      ASSERT_TRUE(testing::sameTags(merged, referenceMerge(group)))
          << members << " members, seed " << seed;
    }
  }
}

// 300 tags of one time pass in one block even with maxEvents 256, and the next block starts at
// the cut; once a member's invalid chunk is merged only errors pass until its next valid block;
// a merged block carries the oldest fence among the chunks it may take tags from, even when it
// takes several chunks of one member, or a chunk followed by an empty block with a newer fence.
TEST(DeviceMergerTest, EqualTimesInvalidMembersAndFences) {
  DeviceMerger merger(2);
  std::vector<Tag> first(300, Tag{Type::TimeTag, 0, 0, 101, 1000});
  first.push_back(Tag{Type::TimeTag, 0, 0, 101, 2000});
  first.push_back(Tag{Type::TimeTag, 0, 0, 101, 3000});
  EXPECT_TRUE(feed(merger, 0, first, 5000, 3).tags.empty()) << "the other member has not spoken";

  const std::vector<Tag> second = {Tag{Type::Error, 0, 0, CHANNEL_UNUSED, 1500},
                                   Tag{Type::TimeTag, 0, 0, 201, 1600}};
  const auto cut = feed(merger, 1, second, 1800, 2, 256, true);
  // Cut at the first later time, under the fence of member 1's waiting chunk.
  EXPECT_EQ(std::tuple(cut.tags.size(), cut.blockEnd, cut.fence), std::tuple(300u, 1500, 2u));

  const auto invalid = feed(merger, 1, {}, 2500, 2, 256, true);
  EXPECT_EQ(invalid.blockBegin, 1500);
  EXPECT_TRUE(testing::sameTags(invalid.tags, second)) << "the 2000 falls while 1 is invalid";

  const auto valid = feed(merger, 1, {}, 6000, 4);
  EXPECT_TRUE(testing::sameTags(valid.tags, {first.back()}));
  EXPECT_EQ(std::pair(valid.blockEnd, valid.fence), std::pair(int64_t{5000}, 3u));

  // Member 0 runs ahead under fence 4, then confirms 5 and 6 (the second time in an empty
  // block); member 1 lets everything through at once: every tag of member 0 came before 5.
  DeviceMerger ahead(2);
  feed(ahead, 1, {}, 0, 6);
  feed(ahead, 0, {Tag{Type::TimeTag, 0, 0, 101, 100}}, 200, 4);
  feed(ahead, 0, {Tag{Type::TimeTag, 0, 0, 101, 300}}, 400, 5);
  feed(ahead, 0, {}, 500, 6);
  const auto all = feed(ahead, 1, {}, 1000, 6);
  EXPECT_EQ(std::pair(all.tags.size(), all.fence), std::pair(size_t{2}, 4u));
  EXPECT_EQ(feed(ahead, 1, {}, 1100, 6).fence, 6u) << "nothing of member 0 before 6 is left";
}

}  // namespace
}  // namespace zeptick
