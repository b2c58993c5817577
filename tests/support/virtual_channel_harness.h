#pragma once

// Invariants every virtual channel owes the measurements behind it, checked by
// running one stream through a real runner cut into blocks in several ways:
//   - each block leaves in non-decreasing time order, inside its span;
//   - every input tag passes through once, in order (unless the channel's
//     rules drop it), with only the time shift the channel's rules give it;
//   - the whole output stream does not depend on where the blocks were cut.
// The tags the channel inserted are handed back, so that each test can compare
// them with a reference worked out from the channel's rules.

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "measurement_streams.h"
#include "zeptick/iterator_base.h"

namespace zeptick::testing {

/// How a channel treats the stream it passes on.
struct VirtualChannelRules {
  /// Time a passing tag gains (a channel that holds the whole stream back).
  std::function<int64_t(const Tag&)> shift;
  /// The pass-through stream expected for `input`, shifted, without the tags
  /// the channel's rules drop. Default: every input tag, shifted by `shift`.
  /// Tags at or after the end of the run are cut off by the harness.
  std::function<std::vector<Tag>(const std::vector<Tag>& input)> passed;
  /// Tells an inserted tag from a passing one. Default: a virtual channel.
  std::function<bool(const Tag&)> inserted;
  /// Tags of equal time may leave in any order (channels sorting with a heap).
  bool order_free_among_equal_times = false;
  /// The output is the same however the stream is cut.
  bool cut_invariant = true;
  /// Span of an empty block appended after the stream, to let held-back tags out.
  int64_t tail = 0;
  /// Number of cuttings: the whole stream as one block, one cut at every tag
  /// time (alternately at t and t + 1), then random cuts with empty and
  /// zero-length blocks.
  int cuttings = 5;
  uint64_t seed = 1;
  unsigned workers = 3;
};

/// The stream as it left the channel in the first cutting.
struct VirtualChannelOutput {
  std::vector<Tag> output;    ///< every tag, in order
  std::vector<Tag> inserted;  ///< the tags the channel added, in order
  std::vector<Tag> passed;    ///< the rest
  int64_t end_time = 0;       ///< end of the last block, tail included
};

/// Builds the channel(s) on a fresh tagger; a recorder is placed behind them.
using VirtualChannelFactory = std::function<std::unique_ptr<IteratorBase>(TestZeptick*)>;
using VirtualChainFactory = std::function<std::vector<std::unique_ptr<IteratorBase>>(TestZeptick*)>;

/// Runs `stream` through the channel(s) in every cutting and checks the
/// invariants with gtest (non-fatal failures, tagged with the cutting).
VirtualChannelOutput checkVirtualChain(const TagStream& stream, const VirtualChainFactory& factory,
                                       const VirtualChannelRules& rules = {});
VirtualChannelOutput checkVirtualChannel(const TagStream& stream,
                                         const VirtualChannelFactory& factory,
                                         const VirtualChannelRules& rules = {});

/// The same channel made with the given arguments, for checkVirtualChannel.
template <class Channel, class... Args>
VirtualChannelFactory makes(Args... args) {
  return [=](TestZeptick* tagger) { return std::make_unique<Channel>(tagger, args...); };
}

}  // namespace zeptick::testing
