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
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "test_tagger.h"
#include "zeptick/iterator_base.h"
#include "zeptick/tag.h"

namespace zeptick::testing {

/// First channel number TestZeptick hands out for virtual channels.
inline constexpr int kFirstVirtualChannel = 1000;

/// Tags in non-decreasing time order, all inside [begin_time, end_time).
struct TagStream {
  std::vector<Tag> tags;
  int64_t begin_time = 0;
  int64_t end_time = 0;
};

/// What makeRandomStream produces. Percentages are per step of the generator.
struct StreamShape {
  std::vector<int> channels = {1, 2, 3, 4};
  size_t tags = 2000;                 ///< stops after at least this many tags
  int64_t mean_gap = 1000;            ///< mean spacing of successive times, ps
  int64_t begin_time = 1000000;       ///< kept well above 0: some channels read 0 as "none"
  double equal_time_percent = 10;     ///< next tag at the same time as the last
  double burst_percent = 3;           ///< 2 to 8 tags within a few ps
  double error_percent = 0.2;         ///< an Error tag
  double overflow_percent = 0.2;      ///< OverflowBegin, MissedEvents, later OverflowEnd
  double missed_outside_percent = 0;  ///< a MissedEvents tag outside any overflow
};

/// A random stream with every tag type: time tags on `shape.channels`, equal
/// times, bursts, errors, overflow spans holding missed-events tags.
TagStream makeRandomStream(std::mt19937_64& rng, const StreamShape& shape = {});

/// Time tags only, on `channels`, `count` of them with the given mean gap.
TagStream makeTimeTagStream(std::mt19937_64& rng, const std::vector<int>& channels, size_t count,
                            int64_t mean_gap, int64_t begin_time = 1000000);

/// Splits `stream` at the given times (sorted, inside the span, repeats give
/// zero-length blocks). A tag goes to the block whose span holds it.
std::vector<Block> cutStream(const TagStream& stream, std::vector<int64_t> cuts);

/// How a channel treats the stream it passes on.
struct VirtualChannelRules {
  /// Time a passing tag gains (a channel that holds the whole stream back).
  std::function<int64_t(const Tag&)> shift;
  /// The pass-through stream expected for `input`, shifted, without the tags
  /// the channel's rules drop. Default: every input tag, shifted by `shift`.
  /// Tags at or after the end of the run are cut off by the harness.
  std::function<std::vector<Tag>(const std::vector<Tag>& input)> passed;
  /// Tells an inserted tag from a passing one. Default: a virtual channel
  /// (kFirstVirtualChannel and above); streams from makeRandomStream never use one.
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

/// Runs `stream` through the channel in every cutting and checks the
/// invariants with gtest (non-fatal failures, tagged with the cutting).
VirtualChannelOutput checkVirtualChannel(const TagStream& stream,
                                         const VirtualChannelFactory& factory,
                                         const VirtualChannelRules& rules = {});

/// The same for several channels in a row, in the order the factory returns them.
VirtualChannelOutput checkVirtualChain(const TagStream& stream, const VirtualChainFactory& factory,
                                       const VirtualChannelRules& rules = {});

/// Stable sort by time and then by every field: the canonical order of a
/// stream whose tags of equal time may come in any order.
std::vector<Tag> sortedWithinEqualTimes(std::vector<Tag> tags);

/// Field by field equality of two tag sequences; on failure, the first
/// difference with a few tags of context on either side.
::testing::AssertionResult sameTags(const std::vector<Tag>& actual,
                                    const std::vector<Tag>& expected);

/// "type channel@time" (plus the count of a missed-events tag), for messages.
std::string describe(const Tag& tag);

}  // namespace zeptick::testing
