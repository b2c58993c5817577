#include "zeptick/counter.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"

namespace zeptick {
namespace {

using namespace testing;
using Rows = std::vector<std::vector<int32_t>>;

// Fed by hand on the test's thread (see Direct).
class DirectCounter : public testing::Direct<Counter> {
 public:
  using Direct::Direct;
  void feed(int64_t begin_time, int64_t end_time, std::vector<Tag> tags = {}) {
    Direct::feed(std::move(tags), begin_time, end_time);
  }
  Rows rows() {
    std::vector<size_t> sizes;
    const std::vector<int32_t> flat = testing::collect(*this, &Counter::getData, &sizes);
    Rows out;
    for (size_t i = 0; i < flat.size(); i += sizes[1]) {
      out.emplace_back(flat.begin() + i, flat.begin() + i + sizes[1]);
    }
    return out;
  }
};

// The counter's rules kept as a plain list of every finished bin: no ring.
class ReferenceCounter {
 public:
  ReferenceCounter(std::vector<int> channels, int64_t binwidth, int32_t n)
      : channels(std::move(channels)), binwidth(binwidth), n(n), open(this->channels.size()) {}

  void feed(const Block& block) {
    if (!origin) origin = block.begin_time;
    for (const Tag& tag : block.tags) {
      if (tag.type != Tag::Type::TimeTag) {
        origin.reset();
        open.assign(channels.size(), 0);
        continue;
      }
      for (size_t row = 0; row < channels.size(); ++row) {
        if (channels[row] != tag.channel) continue;
        if (!origin) origin = tag.time;
        moveTo(tag.time);
        ++open[row];
      }
    }
    if (!origin) origin = block.end_time;
    moveTo(block.end_time);
  }

  Rows rows() const {
    Rows out(channels.size(), std::vector<int32_t>(static_cast<size_t>(n), 0));
    const size_t shown = std::min(history.size(), static_cast<size_t>(n));
    for (size_t k = 0; k < shown; ++k) {
      const std::vector<int32_t>& bin = history[history.size() - shown + k];
      for (size_t row = 0; row < channels.size(); ++row) {
        out[row][static_cast<size_t>(n) - shown + k] = bin[row];
      }
    }
    return out;
  }

 private:
  void moveTo(int64_t time) {
    if (time - *origin >= (n + 1) * binwidth) {
      // Everything kept is older than the ring: forgotten, and a fresh grid
      // 1 ps before a multiple of the bin width.
      history.clear();
      open.assign(channels.size(), 0);
      origin = -1 + binwidth * ((time + 1) / binwidth);
      return;
    }
    while (time >= *origin + binwidth) {
      history.push_back(open);
      open.assign(channels.size(), 0);
      *origin += binwidth;
    }
  }

  std::vector<int> channels;
  int64_t binwidth;
  int32_t n;
  std::optional<int64_t> origin;
  std::vector<int32_t> open;
  std::vector<std::vector<int32_t>> history;
};

using CounterTest = QuietTaggerTest;

TEST_F(CounterTest, BinsFollowTheStreamClockAndReturnOldestFirst) {
  DirectCounter counter(&tagger, std::vector<int>{1, 2, 1}, 100, 3);
  EXPECT_EQ(counter.rows(), Rows(3, {0, 0, 0}));
  EXPECT_EQ(testing::collect(counter, &Counter::getIndex), (std::vector<int64_t>{0, 100, 200}));
  // Grid from 1000: bins [1000,1100), [1100,1200), ... A tag at exactly 1100
  // belongs to the second bin.
  counter.feed(1000, 1150, {timeTag(1, 1000), timeTag(2, 1099), timeTag(1, 1100)});
  EXPECT_EQ(counter.rows(), (Rows{{0, 0, 1}, {0, 0, 1}, {0, 0, 1}}));
  // An empty block moves the grid: the open bin finishes, zero bins follow.
  counter.feed(1150, 1400);
  EXPECT_EQ(counter.rows(), (Rows{{1, 0, 0}, {0, 0, 0}, {1, 0, 0}}));
  // Stop and start: the open bin (holding the tag at 1405) is dropped, the next
  // block starts a new grid at its begin, and the finished bins stay.
  counter.feed(1400, 1410, {timeTag(2, 1405)});
  counter.restart();
  counter.feed(1410, 1450, {timeTag(2, 1420)});
  EXPECT_EQ(counter.rows(), (Rows{{1, 0, 0}, {0, 0, 0}, {1, 0, 0}}));
  counter.feed(1450, 1530);
  EXPECT_EQ(counter.rows(), (Rows{{0, 0, 0}, {0, 0, 1}, {0, 0, 0}}));
}

TEST_F(CounterTest, AGapOfAWholeRingClearsItAndRealignsTheGrid) {
  // Ring of 3 columns of 100 ps, grid from 1000 with one count in the open bin.
  DirectCounter shorter(&tagger, std::vector<int>{1}, 100, 2);
  shorter.feed(1000, 1001, {timeTag(1, 1000)});
  shorter.feed(1001, 1299);  // 299 ps after the grid's start: walks two bins
  EXPECT_EQ(shorter.rows(), (Rows{{1, 0}}));

  DirectCounter whole(&tagger, std::vector<int>{1}, 100, 2);
  whole.feed(1000, 1001, {timeTag(1, 1000)});
  whole.feed(1001, 1300);  // exactly the ring: all forgotten
  EXPECT_EQ(whole.rows(), (Rows{{0, 0}}));
  // The new grid starts at 1299 (one below a multiple of 100), not at 1300.
  whole.feed(1300, 1399, {timeTag(1, 1398)});
  EXPECT_EQ(whole.rows(), (Rows{{0, 1}}));
}

TEST_F(CounterTest, MatchesAPlainListOfBinsOnRandomStreams) {
  std::mt19937_64 rng(2024);
  for (int trial = 0; trial < 24; ++trial) {
    const int64_t binwidth = std::vector<int64_t>{1, 997, 5000, 40000}[trial % 4];
    const int32_t n = std::vector<int32_t>{1, 2, 7}[trial % 3];
    const std::vector<int> channels = {1, 2, 1};
    DirectCounter counter(&tagger, channels, binwidth, n);
    ReferenceCounter reference(channels, binwidth, n);
    // Far from 0, so that no grid lands on -1, which the counter takes for "no bin".
    std::vector<Block> blocks = testing::makeRandomBlocks(rng, 150, {1, 2, 3}, 1000000000);
    for (const Block& block : blocks) {
      counter.feed(block.begin_time, block.end_time, block.tags);
      reference.feed(block);
      ASSERT_EQ(counter.rows(), reference.rows())
          << "trial " << trial << " block ending " << block.end_time;
    }
  }
}

TEST_F(CounterTest, CountsWhileBlocksFlow) {
  Counter counter(&tagger, {1}, 1000000, 4);
  std::vector<Block> blocks(6);
  for (size_t i = 0; i < blocks.size(); ++i) {
    blocks[i].begin_time = static_cast<int64_t>(i) * 1000000;
    blocks[i].end_time = blocks[i].begin_time + 1000000;
    for (size_t k = 0; k <= i; ++k) blocks[i].tags.push_back(timeTag(1, blocks[i].begin_time));
  }
  // The limit falls on a block end, so the block after it ends the run.
  blocks.push_back(Block{{}, 6000000, 7000000});
  counter.startFor(6000000);
  tagger.pushBlocks(blocks);
  ASSERT_TRUE(testing::eventually([&] { return !counter.isRunning(); }));
  EXPECT_EQ(testing::collect(counter, &Counter::getData), (std::vector<int32_t>{3, 4, 5, 6}));
}

}  // namespace
}  // namespace zeptick
