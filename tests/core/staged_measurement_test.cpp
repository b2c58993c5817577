// A measurement with an ordered stage whose blocks are slowed or fail: the capture limit and
// the order of blocks through the chain must hold as for a measurement without stages.

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"
#include "zeptick/iterator_base.h"

namespace zeptick::testing {
namespace {

// One ordered stage per block; block `slow` sleeps 50 ms in it, block `failing` throws first.
class Staged final : public IteratorBase {
 public:
  Staged(ZeptickBase* tagger, int slow, int failing)
      : IteratorBase(tagger), slow(slow), failing(failing) {
    finishInitialization();
  }
  ~Staged() override { stop(); }
  std::vector<Block> log() {
    auto guard = getLock();
    return logged;
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin, int64_t end) override {
    const int index = handed++;
    if (index == failing) throw std::runtime_error("bad block");
    OrderedPipeline pipeline;
    OrderedBarrier::OrderInstance turn = parallelize(pipeline);
    unlock();
    if (index == slow) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    turn.sync();
    logged.push_back(Block{tags, begin, end});
    lock();
    turn.release();
    return false;
  }

 private:
  const int slow;
  const int failing;
  int handed = 0;
  std::vector<Block> logged;
};

std::vector<Block> blocks(int count) {
  std::vector<Block> out;
  for (int64_t i = 0; i < count; ++i) {
    out.push_back(Block{{timeTag(1, i * 1000)}, i * 1000, i * 1000 + 1000});
  }
  return out;
}

// Block [2000, 3000) enters while block 1 still waits in its stage: it must see the 2000 ps
// already taken and be cut at 2500.
TEST(StagedMeasurement, CaptureLimitCutsWhereItShouldWhileABlockWaitsInItsStage) {
  TestZeptick tagger("T", 4);
  tagger.setIdleSpan(0);
  Staged staged(&tagger, 1, -1);
  staged.stop();
  staged.startFor(2500);
  const int64_t origin = deliver(tagger, blocks(6)).at(0).begin_time;
  const std::vector<Block> log = staged.log();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[2].begin_time - origin, 2000);
  EXPECT_EQ(log[2].end_time - origin, 2500);
  EXPECT_EQ(staged.getCaptureDuration(), 2500);
}

// Block 1 fails while block 0 waits in its stage: the stop waits for block 0 with the lock let
// go, and the blocks after it must still reach the measurement behind in order, all of them.
TEST(StagedMeasurement, AFailureBehindASlowStageLetsNoBlockOvertake) {
  LogCapture log;
  TestZeptick tagger("T", 4);
  tagger.setIdleSpan(0);
  Staged staged(&tagger, 0, 1);
  RecordingMeasurement behind(&tagger);
  const std::vector<Block> pushed = deliver(tagger, blocks(6));
  std::vector<int64_t> begins;
  for (const Block& block : behind.blocks()) {
    if (!block.tags.empty()) begins.push_back(block.begin_time - pushed[0].begin_time);
  }
  EXPECT_EQ(begins, (std::vector<int64_t>{0, 1000, 2000, 3000, 4000, 5000}));
}

}  // namespace
}  // namespace zeptick::testing
