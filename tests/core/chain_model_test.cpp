#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"
#include "zeptick/iterator_base.h"

namespace zeptick::testing {
namespace {

// Behind each time tag of input 1, a copy on `channel`; nothing when `channel` is 0.
bool copyInput1(std::vector<Tag>& tags, int channel) {
  if (channel == 0) return false;
  std::vector<Tag> out;
  for (const Tag& tag : tags) {
    out.push_back(tag);
    if (tag.type == Tag::Type::TimeTag && tag.channel == 1) {
      out.push_back(timeTag(channel, tag.time));
    }
  }
  tags.swap(out);
  return true;
}

// What sets a measurement of the chain apart. It copies input 1 to `copy_to` (unless 0) and logs
// each block it is handed, under its lock or, with `stages` of 1 or 2, in that many ordered stages
// run with the lock let go. With `fail_at` > 0 it throws on the fail_at-th block handed to it, a
// standard exception when `fail_at` is odd, an int when even. With `skip_empty`, blocks without
// tags skip the stages and are not logged, so a stop at a limit in such a block has nothing of its
// own to wait for; such a block may overtake the ones in the stages, so only the last may skip.
struct Setup {
  int copy_to = 0;
  int stages = 1;
  int fail_at = 0;
  bool skip_empty = false;
};

// A measurement of the chain, pausing by `pause` before each stage.
class ChainMember final : public IteratorBase, Setup {
 public:
  using Pause = std::function<void(ChainMember& self, const std::vector<Tag>& tags)>;

  ChainMember(ZeptickBase* tagger, Setup setup, Pause pause)
      : IteratorBase(tagger), Setup(setup), pause(std::move(pause)) {
    registerChannel(1);
    finishInitialization();
  }
  ~ChainMember() override { stop(); }

  // Stages log under their turns: read only once no block is inside the measurement.
  std::vector<Block> log(int stage) {
    auto guard = getLock();
    return logs[stage];
  }
  std::array<int, 3> startsStopsAndInParallelAtStop() {
    auto guard = getLock();
    return {starts, stops, in_parallel_at_stop};
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override {
    if (++handed == fail_at && fail_at % 2 == 1) throw std::runtime_error("bad block");
    if (handed == fail_at) throw fail_at;
    const bool changed = copyInput1(tags, copy_to);
    const Block block{tags, begin_time, end_time};
    if (skip_empty && tags.empty()) return changed;
    if (stages == 0) {
      pause(*this, tags);
      logs[0].push_back(block);
      return changed;
    }
    OrderedPipeline pipeline;
    std::vector<OrderedBarrier::OrderInstance> turns;
    for (int stage = 0; stage < stages; ++stage) turns.push_back(parallelize(pipeline));
    ++in_parallel;
    unlock();
    for (int stage = 0; stage < stages; ++stage) {
      pause(*this, block.tags);
      turns[stage].sync();
      logs[stage].push_back(block);
      if (stage + 1 == stages) lock();
      turns[stage].release();
    }
    --in_parallel;
    return changed;
  }
  void clear_impl() override {
    logs[0].clear();
    logs[1].clear();
  }
  void on_start() override { ++starts; }
  void on_stop() override {
    ++stops;
    in_parallel_at_stop = std::max(in_parallel_at_stop, in_parallel);
  }

 private:
  const Pause pause;
  int handed = 0;
  std::vector<Block> logs[2];  // logs[k] guarded by the turn of stage k
  int starts = 0;
  int stops = 0;
  int in_parallel = 0;  // blocks between parallelize and their last release
  int in_parallel_at_stop = 0;
};

// Blocks of random lengths, some empty, often cut at a tag, with equal times on inputs 1 and 2
// and the unregistered 5; the chain passes every kind of tag on alike.
std::vector<Block> randomBlocks(std::mt19937_64& rng) {
  const TagStream stream =
      makeRandomStream(rng, {.channels = {1, 2, 5}, .tags = 200, .mean_gap = 250, .begin_time = 0});
  return cutStream(stream, randomCuts(rng, stream, 80));
}

// What one measurement of the chain should do, worked out block by block.
struct Model : Setup {
  int handed = 0;
  bool running = true;
  int64_t limit = -1;
  int64_t capture = 0;
  int starts = 1;
  int stops = 0;
  std::vector<Block> seen;

  void startFor(int64_t duration, bool clear) {
    if (clear) seen.clear();
    capture = clear ? 0 : capture;
    limit = duration < 0 ? -1 : capture + duration;
    starts += running ? 0 : 1;
    running = true;
  }
  void stop() {
    stops += running ? 1 : 0;
    running = false;
  }
  void clear() {
    seen.clear();
    capture = 0;
  }
  // Passes `block` on as the chain hands it to the next measurement. Cut at the limit, the
  // measurement sees the tags before it and stops; its copies travel on with the tags it never saw.
  // A block counts towards the capture as it is handed over, so also when the measurement fails.
  void step(Block& block) {
    if (!running) return;
    const int64_t room = limit < 0 ? block.end_time - block.begin_time : limit - capture;
    const bool cut = room < block.end_time - block.begin_time;
    Block inside{{}, block.begin_time, cut ? block.begin_time + room : block.end_time};
    const auto end = std::ranges::find_if(
        block.tags, [&](const Tag& tag) { return tag.time >= inside.end_time; });
    capture += inside.end_time - inside.begin_time;
    if (++handed == fail_at) return stop();
    inside.tags.assign(block.tags.begin(), end);
    if (copyInput1(inside.tags, copy_to)) {
      block.tags.erase(block.tags.begin(), end);
      block.tags.insert(block.tags.begin(), inside.tags.begin(), inside.tags.end());
    }
    seen.push_back(std::move(inside));
    if (cut) stop();
  }
};

// A duration from `origin` to near an interesting place of `blocks`: a block edge or a tag
// time, or one below or above it; sometimes zero, sometimes beyond the stream.
int64_t limitNear(std::mt19937_64& rng, const std::vector<Block>& blocks, int64_t origin) {
  const unsigned roll = rng() % 10;
  if (roll < 2) return roll == 0 ? 0 : int64_t{1} << 40;
  const Block& block = blocks[rng() % blocks.size()];
  const int64_t at = roll < 6 || block.tags.empty() ? block.end_time : block.tags.front().time;
  return std::max<int64_t>(0, at + static_cast<int64_t>(rng() % 3) - 1 - origin);
}

void randomPause(int most_us) {
  thread_local std::mt19937 rng(std::random_device{}());
  if (most_us > 0) std::this_thread::sleep_for(std::chrono::microseconds(rng() % most_us));
}

// Blocks of 1000 ps holding one time tag each, on input 1, or on input 2 in block `marked_at`.
std::vector<Block> numberedBlocks(int64_t count, int64_t marked_at) {
  std::vector<Block> blocks;
  for (int64_t i = 0; i < count; ++i) {
    blocks.push_back(
        Block{{timeTag(i == marked_at ? 2 : 1, i * 1000 + 10)}, i * 1000, i * 1000 + 1000});
  }
  return blocks;
}
bool marked(const std::vector<Tag>& tags) { return !tags.empty() && tags[0].channel == 2; }

// A chain of measurements, some copying input 1 to a virtual channel, some limited by startFor,
// some logging in ordered stages, fed in two phases with restarts between them, against the
// chain worked out block by block. Each seed draws its worker count, blocks, limits and delays.
TEST(Runner, ChainOfMeasurementsMatchesTheSequentialModel) {
  for (uint64_t seed = 1; seed <= 10; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    LogCapture messages;
    TestZeptick tagger("T", 2 + rng() % 5);
    tagger.setIdleSpan(0);
    const std::vector<Block> first = randomBlocks(rng);
    std::vector<std::unique_ptr<ChainMember>> chain;
    std::vector<Model> models(6);
    for (Model& model : models) {
      // The last one skips empty blocks in its stages and always has a limit.
      const bool last = model.skip_empty = &model == &models.back();
      model.stages = last ? 1 + static_cast<int>(rng() % 2) : static_cast<int>(rng() % 3);
      model.copy_to = model.stages == 0 && rng() % 2 == 0 ? tagger.getNewVirtualChannel() : 0;
      model.fail_at = rng() % 5 == 0 && model.stages == 0 ? static_cast<int>(1 + rng() % 60) : 0;
      const int most_us = static_cast<int>(rng() % (model.stages > 0 ? 2000 : 400));
      chain.push_back(std::make_unique<ChainMember>(
          &tagger, model,
          [most_us](ChainMember&, const std::vector<Tag>&) { randomPause(most_us); }));
      if (rng() % 2 == 0 && !last) continue;
      chain.back()->stop();
      model.stop();
      const int64_t limit = limitNear(rng, first, 0);
      chain.back()->startFor(limit);
      model.startFor(limit, true);
    }
    auto run = [&](std::vector<Block> blocks) {
      blocks = tagger.pushBlocks(std::move(blocks));
      // The last block carries the fence waited for; with a tag, so that it cannot overtake.
      const int64_t end = blocks.back().end_time;
      blocks.push_back(Block{{timeTag(2, end)}, end, end + 1});
      const uint32_t fence = tagger.getFence(true);
      tagger.pushBlocks({blocks.back()});
      // A lost turn never comes back, and the destructors would wait for it too.
      if (!tagger.waitForFence(fence, 30000)) std::abort();
      for (Block& block : blocks) {
        for (Model& model : models) model.step(block);
      }
    };
    run(first);
    // Then a new limit counted from the present duration, a restart with clearing, a plain
    // start, which lifts any limit, a stop given twice, or a clear.
    const std::vector<Block> second = randomBlocks(rng);
    for (size_t i = 0; i < chain.size(); ++i) {
      const unsigned action = rng() % 6;
      const int64_t limit = action == 3 ? -1 : limitNear(rng, second, 0);
      if (action == 1 || action == 2) chain[i]->startFor(limit, action == 2);
      if (action == 3) chain[i]->start();
      if (action >= 1 && action <= 3) models[i].startFor(limit, action == 2);
      for (int twice = 0; twice < 2 && action == 4; ++twice) chain[i]->stop();
      if (action == 4) models[i].stop();
      if (action == 5) chain[i]->clear();
      if (action == 5) models[i].clear();
    }
    run(second);
    for (size_t i = 0; i < chain.size(); ++i) {
      const Model& model = models[i];
      SCOPED_TRACE("measurement " + std::to_string(i) + ", stages " + std::to_string(model.stages));
      // The one skipping empty blocks: the stop waited for the ordered stages, which saw the same.
      const auto [starts, stops, in_parallel_at_stop] = chain[i]->startsStopsAndInParallelAtStop();
      EXPECT_EQ(in_parallel_at_stop, 0);
      EXPECT_EQ(spans(chain[i]->log(0)), spans(chain[i]->log(model.stages == 2 ? 1 : 0)));
      if (model.skip_empty) continue;
      for (int stage = 0; stage < std::max(1, model.stages); ++stage) {
        const std::vector<Block> log = chain[i]->log(stage);
        EXPECT_EQ(spans(log), spans(model.seen));
        EXPECT_TRUE(sameTags(concatenate(log), concatenate(model.seen)));
      }
      EXPECT_EQ(std::tuple(chain[i]->isRunning(), chain[i]->getCaptureDuration(), starts, stops),
                std::tuple(model.running, model.capture, model.starts, model.stops));
      std::ostringstream failure;
      failure << "Unhandled exception on IteratorBase " << static_cast<void*>(chain[i].get());
      if (model.fail_at % 2 == 1) failure << ": bad block";
      const bool failed = model.fail_at > 0 && model.handed >= model.fail_at;
      EXPECT_EQ(messages.contains(LOGGER_ERROR, failure.str()), failed);
    }
  }
}

// stop() meets a block that holds its ordered stage open until the stop has begun, and blocks
// queued behind it: on_stop runs only once all have left, and nothing after the stop is logged.
TEST(Runner, StopWaitsForTheLastOrderedStage) {
  TestZeptick tagger("T", 6);
  std::atomic<bool> marker_inside{false};
  std::atomic<bool> stop_seen{false};
  ChainMember work(&tagger, {}, [&](ChainMember& self, const std::vector<Tag>& tags) {
    randomPause(300);
    if (!marked(tags)) return;
    marker_inside = true;
    stop_seen = eventually([&] { return !self.isRunning(); });
  });
  std::vector<Block> pushed = tagger.pushBlocks(numberedBlocks(200, 40));
  ASSERT_TRUE(eventually([&] { return marker_inside.load(); }));
  work.stop();

  EXPECT_EQ(work.startsStopsAndInParallelAtStop(), (std::array<int, 3>{1, 1, 0}));
  EXPECT_TRUE(stop_seen);
  // Idle blocks aside, the pushed ones in order, past the marker; after the stop nothing more.
  const std::vector<Block> log = work.log(0);
  std::vector<Block> seen = log;
  std::erase_if(seen, [](const Block& block) { return block.tags.empty(); });
  ASSERT_GT(seen.size(), 40u);
  pushed.resize(seen.size());
  EXPECT_EQ(spans(seen), spans(pushed));
  tagger.sync();
  EXPECT_EQ(work.log(0).size(), log.size());
}

// Block 1 fails while block 0 waits 50 ms in its ordered stage: the stop waits with the lock let
// go, and the blocks after it must still reach the measurement behind, all of them and in order.
TEST(Runner, AFailureBehindASlowOrderedStageLetsNoBlockOvertake) {
  LogCapture log;
  TestZeptick tagger("T", 4);
  tagger.setIdleSpan(0);
  ChainMember staged(&tagger, {.fail_at = 2}, [](ChainMember&, const std::vector<Tag>& tags) {
    if (marked(tags)) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  });
  RecordingMeasurement behind(&tagger);
  const std::vector<Block> pushed = deliver(tagger, numberedBlocks(6, 0));
  EXPECT_TRUE(sameTags(concatenate(behind.blocks()), concatenate(pushed)));
}

}  // namespace
}  // namespace zeptick::testing
