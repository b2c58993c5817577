#pragma once

// Streams and feeding helpers shared by the measurement tests: one random
// stream generator, one way to cut a stream into blocks, a measurement fed by
// the test's own thread, and readers for the getData-style accessors.

#include <cstdint>
#include <functional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tags.h"
#include "test_tagger.h"
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
  int64_t grid = 1;  ///< every step is a multiple of it, so differences hit bin edges
};

/// A random stream with every tag type: time tags on `shape.channels`, equal
/// times, bursts, errors, overflow spans holding missed-events tags.
TagStream makeRandomStream(std::mt19937_64& rng, const StreamShape& shape = {});

/// Splits `stream` at the given times (repeats give zero-length blocks, cuts
/// outside the span are dropped). A tag goes to the block whose span holds it.
std::vector<Block> cutStream(const TagStream& stream, std::vector<int64_t> cuts);

/// Up to `most` random cuts: anywhere, at tag times, and repeated ones.
std::vector<int64_t> randomCuts(std::mt19937_64& rng, const TagStream& stream, size_t most);

/// The tags of `blocks`, in order.
std::vector<Tag> concatenate(const std::vector<Block>& blocks);

/// Queues `blocks` on a running tagger, waits until every measurement has
/// processed them and returns them as delivered (shifted to where the stream
/// stood). Works with and without idle blocks; throws after waiting 60 s.
std::vector<Block> deliver(TestTaggerCore& tagger, std::vector<Block> blocks);

/// Field by field equality of two tag sequences; on failure, the first
/// difference with a few tags of context on either side.
::testing::AssertionResult sameTags(const std::vector<Tag>& actual,
                                    const std::vector<Tag>& expected);

/// "type channel@time" (plus the count of a missed-events tag), for messages.
std::string describe(const Tag& tag);

/// A tagger that serves only the blocks a test pushes: no idle blocks, so a
/// measurement fed directly never meets a worker.
class QuietTaggerTest : public ::testing::Test {
 protected:
  QuietTaggerTest() { tagger.setIdleSpan(0); }
  TestZeptick tagger{"TEST-1", 2};
};

/// A measurement fed by hand, block by block, on the test's thread. It is
/// stopped right after construction, so no worker calls it meanwhile; on a
/// tagger that serves idle blocks, some may have reached it before.
template <class Measurement>
class Direct : public Measurement {
 public:
  using Measurement::Measurement;
  /// Runs one block through next_impl under the lock; returns the block as it leaves.
  std::vector<Tag> feed(std::vector<Tag> tags, int64_t begin_time, int64_t end_time) {
    this->lock();
    this->next_impl(tags, begin_time, end_time);
    this->unlock();
    last_end = end_time;
    return tags;
  }
  /// The next block, beginning where the last one ended.
  std::vector<Tag> feed(std::vector<Tag> tags, int64_t end_time) {
    return feed(std::move(tags), last_end, end_time);
  }
  /// Each of `blocks` in turn; returns them as they left.
  std::vector<Block> feed(const std::vector<Block>& blocks) {
    std::vector<Block> out;
    for (const Block& b : blocks) {
      out.push_back({feed(b.tags, b.begin_time, b.end_time), b.begin_time, b.end_time});
    }
    return out;
  }
  /// Runs the start hook as start() would, leaving the measurement stopped.
  void restart() {
    this->start();
    this->stop();
  }

 private:
  // Initialised after the measurement is built, whichever constructor built it.
  bool stopped = (this->stop(), true);
  int64_t last_end = 0;
};

/// The message of the std::invalid_argument that `call` throws, that of a std::runtime_error after
/// "runtime_error: "; "no exception" or "another exception" otherwise.
template <class Call>
std::string invalidArgument(Call call) {
  try {
    call();
  } catch (const std::invalid_argument& error) {
    return error.what();
  } catch (const std::runtime_error& error) {
    return std::string("runtime_error: ") + error.what();
  } catch (...) {
    return "another exception";
  }
  return "no exception";
}

/// What a getData-style accessor hands out. Cells start at -1 so that one it
/// failed to write shows; `sizes` receives the sizes it asked for.
template <class Object, class Class, class T, class... Sizes>
std::vector<T> collect(Object& object, void (Class::*get)(std::function<T*(Sizes...)>),
                       std::vector<size_t>* sizes = nullptr) {
  std::vector<T> out;
  (object.*get)([&](Sizes... n) {
    if (sizes != nullptr) *sizes = {n...};
    out.assign((n * ... * size_t{1}), static_cast<T>(-1));
    return out.data();
  });
  return out;
}

}  // namespace zeptick::testing
