#pragma once

// Invariants every virtual channel owes the measurements behind it, checked by feeding one stream
// to the channel cut into blocks in several ways: each block leaves in non-decreasing time order,
// inside its span; every input tag passes through once, in order (unless the channel's rules drop
// it), with only the time shift the rules give it; the whole output does not depend on where the
// blocks were cut. The tags the channel inserted are handed back for each test to compare with a
// reference worked out from the channel's rules.

#include <cstdint>
#include <functional>
#include <vector>

#include "measurement_streams.h"

namespace zeptick::testing {

/// How a channel treats the stream it passes on.
struct VirtualChannelRules {
  /// Time a passing tag gains (a channel that holds the whole stream back).
  /// Passing tags at or after the end of the run are not expected.
  std::function<int64_t(const Tag&)> shift = nullptr;
  /// The output is the same however the stream is cut.
  bool cut_invariant = true;
  /// At least 0 for a channel that holds tags back at their own times: each leaves only in a block
  /// that ends more than this after it. Below 0, each tag leaves inside its block's span.
  int64_t held_back = -1;
  /// Span of an empty block appended after the stream, to let held-back tags out.
  int64_t tail = 0;
  uint64_t seed = 1;
  /// Inputs of the tagger the channel runs on.
  int inputs = 8;
};

/// The stream as it left the channel in the first cutting.
struct VirtualChannelOutput {
  std::vector<Tag> output;    ///< every tag, in order
  std::vector<Tag> inserted;  ///< the tags the channel added, in order
  int64_t end_time = 0;       ///< end of the last block, tail included
};

/// Each tag of `blocks` in time order and inside its block's span, or as `held_back` allows.
::testing::AssertionResult blocksInOrder(const std::vector<Block>& blocks, int64_t held_back = -1);

/// Runs blocks through a fresh channel; returns them as they left it.
using VirtualChannelRun = std::function<std::vector<Block>(const std::vector<Block>&)>;

/// Runs `stream` through the channel cut five ways (as one block, at every tag time alternately at
/// t and t + 1, then random cuts with empty and zero-length blocks) and checks the invariants with
/// gtest. Tags on virtual channels count as inserted, all others as passed.
VirtualChannelOutput checkVirtualChannelRuns(const TagStream& stream, const VirtualChannelRun& run,
                                             const VirtualChannelRules& rules);

/// The same with a Direct<Channel>(tagger, args...) on a fresh quiet tagger, so that its virtual
/// channels begin at kFirstVirtualChannel.
template <class Channel, class... Args>
VirtualChannelOutput checkVirtualChannel(const TagStream& stream, const VirtualChannelRules& rules,
                                         const Args&... args) {
  return checkVirtualChannelRuns(
      stream,
      [&](const std::vector<Block>& blocks) {
        TestZeptick tagger("TEST-1", 4, rules.inputs);
        tagger.setIdleSpan(0);
        Direct<Channel> channel(&tagger, args...);
        return channel.feed(blocks);
      },
      rules);
}

}  // namespace zeptick::testing
