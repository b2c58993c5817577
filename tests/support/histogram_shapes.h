#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "test_tagger.h"

namespace zeptick::testing {

inline Tag timeTag(int channel, int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}
inline Tag marker(Tag::Type type, int64_t time) { return Tag{type, 0, 0, CHANNEL_UNUSED, time}; }

/// A measurement fed by the test's own thread. It is stopped before the first
/// block, so no worker calls next_impl while the test does (the tagger must
/// serve no block meanwhile), and each block goes in under the lock as a
/// worker's would.
template <typename Measurement>
class DirectFeed : public Measurement {
 public:
  using Measurement::Measurement;
  void feed(int64_t begin_time, int64_t end_time, std::vector<Tag> tags) {
    if (this->isRunning()) this->stop();
    this->lock();
    this->next_impl(tags, begin_time, end_time);
    this->unlock();
  }
  /// A block spanning exactly its tags.
  void feed(std::vector<Tag> tags) { feed(tags.front().time, tags.back().time + 1, tags); }
};

/// A tagger serving only the blocks a test pushes: no idle blocks, so a
/// measurement fed directly never meets a worker.
class QuietTaggerTest : public ::testing::Test {
 protected:
  QuietTaggerTest() { tagger.setIdleSpan(0); }
  TestZeptick tagger{"TEST-1", 2};
};

/// What a getData with two sizes hands out: the sizes it asked for and the values.
template <typename T>
struct Table {
  size_t rows = 0;
  size_t columns = 0;
  std::vector<T> cells;
};

template <typename T, typename Measurement>
Table<T> readTable(Measurement& measurement) {
  Table<T> table;
  measurement.getData([&table](size_t rows, size_t columns) {
    table.rows = rows;
    table.columns = columns;
    table.cells.assign(rows * columns, T{});
    return table.cells.data();
  });
  return table;
}

/// Shape of a random stream for the histogram measurements.
struct StreamShape {
  std::vector<int> channels;  ///< time tags pick one of these uniformly
  int64_t max_gap = 1000;     ///< plain gaps are uniform in [0, max_gap]
  size_t n_tags = 2000;       ///< time tags, bursts included
  int burst_percent = 5;      ///< chance that a tag starts a burst of equal or close times
  int error_permille = 5;     ///< chance per tag of an Error tag
  int overflow_permille = 5;  ///< chance per tag of an overflow with missed events
};

/// One time line of tags in stream order, from `begin` to the returned end:
/// equal times, dense bursts, errors and framed overflows included.
inline std::vector<Tag> makeTagLine(std::mt19937_64& rng, const StreamShape& shape, int64_t begin,
                                    int64_t* end) {
  std::uniform_int_distribution<int64_t> gap(0, shape.max_gap);
  std::uniform_int_distribution<size_t> pick(0, shape.channels.size() - 1);
  std::uniform_int_distribution<int> percent(0, 99);
  std::uniform_int_distribution<int> permille(0, 999);
  std::vector<Tag> tags;
  int64_t time = begin;
  size_t emitted = 0;
  while (emitted < shape.n_tags) {
    time += gap(rng);
    const int special = permille(rng);
    if (special < shape.error_permille) {
      tags.push_back(Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, time});
    } else if (special < shape.error_permille + shape.overflow_permille) {
      tags.push_back(Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, time});
      for (int k = percent(rng) % 4; k > 0; --k) {
        time += gap(rng);
        tags.push_back(Tag{Tag::Type::MissedEvents, 0, 3, shape.channels[pick(rng)], time});
      }
      time += gap(rng) * 3;
      tags.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, time});
    }
    int burst = percent(rng) < shape.burst_percent ? 2 + percent(rng) : 1;
    while (burst-- > 0 && emitted < shape.n_tags) {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, shape.channels[pick(rng)], time});
      ++emitted;
      time += percent(rng) < 50 ? 0 : gap(rng) / 64;
    }
  }
  *end = time + 1 + gap(rng);
  return tags;
}

/// Cuts a time line covering [begin, end) into contiguous blocks at random
/// times: empty blocks, zero-length blocks and blocks of a single tag occur.
inline std::vector<Block> cutIntoBlocks(std::mt19937_64& rng, const std::vector<Tag>& tags,
                                        int64_t begin, int64_t end, size_t n_cuts) {
  std::uniform_int_distribution<int64_t> at(begin, end);
  std::vector<int64_t> cuts(n_cuts);
  for (int64_t& cut : cuts) cut = at(rng);
  cuts.push_back(begin);
  cuts.push_back(end);
  std::sort(cuts.begin(), cuts.end());
  std::vector<Block> blocks;
  size_t next = 0;
  for (size_t k = 0; k + 1 < cuts.size(); ++k) {
    Block block{{}, cuts[k], cuts[k + 1]};
    while (next < tags.size() && tags[next].time < block.end_time)
      block.tags.push_back(tags[next++]);
    blocks.push_back(std::move(block));
  }
  return blocks;
}

/// Queues `blocks` and returns once every measurement has processed them,
/// without idle blocks (the tagger's idle span must be 0). An empty block of
/// zero length follows them to carry the fence waited for; it is returned too.
inline std::vector<Block> pushAndWait(TestTaggerCore& tagger, std::vector<Block> blocks) {
  std::vector<Block> pushed = tagger.pushBlocks(std::move(blocks));
  const uint32_t fence = tagger.getFence(true);
  const std::vector<Block> marker = tagger.pushBlocks({Block{{}, 0, 0}});
  tagger.waitForFence(fence, -1);
  pushed.insert(pushed.end(), marker.begin(), marker.end());
  return pushed;
}

}  // namespace zeptick::testing
