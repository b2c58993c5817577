#include "virtual_channel_harness.h"

#include <algorithm>
#include <utility>

namespace zeptick::testing {
namespace {

std::vector<int64_t> cutsAtTagTimes(const TagStream& stream) {
  std::vector<int64_t> cuts;
  bool after = false;
  for (size_t i = 0; i < stream.tags.size(); ++i) {
    if (i > 0 && stream.tags[i].time == stream.tags[i - 1].time) continue;
    // Alternately a tag opens its block and closes the one before at end - 1.
    cuts.push_back(std::min(stream.tags[i].time + (after ? 1 : 0), stream.end_time));
    after = !after;
  }
  return cuts;
}

}  // namespace

::testing::AssertionResult blocksInOrder(const std::vector<Block>& seen, int64_t held_back) {
  for (size_t b = 0; b < seen.size(); ++b) {
    const Block& block = seen[b];
    for (size_t i = 0; i < block.tags.size(); ++i) {
      const Tag& tag = block.tags[i];
      if (held_back < 0 ? tag.time < block.begin_time || tag.time >= block.end_time
                        : tag.time + held_back >= block.end_time) {
        return ::testing::AssertionFailure()
               << "block " << b << " [" << block.begin_time << ", " << block.end_time << ") holds "
               << describe(tag) << " at index " << i;
      }
      if (i > 0 && tag.time < block.tags[i - 1].time) {
        return ::testing::AssertionFailure() << "block " << b << " has " << describe(tag)
                                             << " after " << describe(block.tags[i - 1]);
      }
    }
  }
  return ::testing::AssertionSuccess();
}

VirtualChannelOutput checkVirtualChannelRuns(const TagStream& stream, const VirtualChannelRun& run,
                                             const VirtualChannelRules& rules) {
  std::mt19937_64 rng(rules.seed);
  const int64_t run_end = stream.end_time + std::max<int64_t>(rules.tail, 0);
  std::vector<Tag> expected_passed = stream.tags;
  if (rules.shift) {
    for (Tag& tag : expected_passed) tag.time += rules.shift(tag);
  }
  std::erase_if(expected_passed, [run_end](const Tag& tag) { return tag.time >= run_end; });

  VirtualChannelOutput first;
  for (int cutting = 0; cutting < 5; ++cutting) {
    // One block, one cut at every tag time, then a few and many random cuts in turn.
    std::vector<int64_t> cuts;
    if (cutting == 1) {
      cuts = cutsAtTagTimes(stream);
    } else if (cutting > 1) {
      cuts = randomCuts(rng, stream, cutting % 2 == 1 ? stream.tags.size() / 2 : 12);
    }
    SCOPED_TRACE("cutting " + std::to_string(cutting));
    std::vector<Block> blocks = cutStream(stream, cuts);
    if (rules.tail > 0) blocks.push_back(Block{{}, stream.end_time, run_end});

    const std::vector<Block> seen = run(blocks);
    EXPECT_TRUE(blocksInOrder(seen, rules.held_back));

    VirtualChannelOutput out{concatenate(seen), {}, run_end};
    std::vector<Tag> passed;
    for (const Tag& tag : out.output) {
      (tag.channel >= kFirstVirtualChannel ? out.inserted : passed).push_back(tag);
    }
    EXPECT_TRUE(sameTags(passed, expected_passed))
        << "the stream passed through the channel differs from its input";

    if (cutting == 0) {
      first = std::move(out);
    } else if (rules.cut_invariant) {
      EXPECT_TRUE(sameTags(out.output, first.output))
          << "the output depends on where the blocks were cut";
    }
  }
  return first;
}

}  // namespace zeptick::testing
