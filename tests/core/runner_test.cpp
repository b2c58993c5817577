#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <latch>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>

#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"

namespace zeptick::testing {
namespace {

// How the runner names a measurement in its messages.
std::string named(const void* measurement) {
  char text[64];
  std::snprintf(text, sizeof text, "IteratorBase %p", measurement);
  return text;
}

// A worker holds a block inside the first measurement while that one is destroyed from another
// thread and the one behind it is cleared: the clear skips the held block, fetched before it,
// and the destruction waits for the worker and releases the channel.
TEST(Runner, ClearAndDestructionWhileAWorkerHoldsABlock) {
  TestZeptick tagger("T", 4);
  std::latch reached(1);
  std::latch open(1);
  auto doomed = std::make_unique<RecordingMeasurement>(
      &tagger, std::vector<int>{3}, [&](std::vector<Tag>& tags, int64_t, int64_t) {
        if (!tags.empty() && tags[0].channel == 7) {
          reached.count_down();
          open.wait();
        }
        return false;
      });
  RecordingMeasurement measurement(&tagger);
  EXPECT_EQ(tagger.registrations(3), 1);

  const int64_t held_begin = tagger.pushBlocks({{{timeTag(7, 10)}, 0, 100}}).front().begin_time;
  reached.wait();  // the block has been fetched and is in the chain
  measurement.clear();
  std::thread destroyer([&] { doomed.reset(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  open.count_down();
  destroyer.join();
  EXPECT_EQ(tagger.registrations(3), 0);
  std::mt19937_64 rng(2);
  const TagStream stream = makeRandomStream(rng, {.channels = {1}, .tags = 300});
  const int64_t fresh_begin =
      tagger.pushBlocks(cutStream(stream, randomCuts(rng, stream, 30))).front().begin_time;
  ASSERT_TRUE(tagger.sync());

  const auto seen = measurement.blocks();
  EXPECT_EQ(std::ranges::count(seen, held_begin, &Block::begin_time), 0);
  EXPECT_EQ(std::ranges::count(seen, fresh_begin, &Block::begin_time), 1);
  for (size_t i = 1; i < seen.size(); ++i) EXPECT_EQ(seen[i].begin_time, seen[i - 1].end_time);
  EXPECT_EQ(measurement.clears(), 1);
  EXPECT_TRUE(measurement.isRunning());
}

TEST(Runner, FencesWaitAtOneHundredOutstandingAndTimeOutAsAsked) {
  TestZeptick tagger("T", 2);
  tagger.setIdleSpan(0);  // no block ever finishes, yet workers keep claiming fences
  // A pending fence is handed out again until a worker's pass claims it.
  uint32_t fence = tagger.getFence(true);
  EXPECT_EQ(fence, 1u);
  while (fence < 100) {
    fence = tagger.getFence(true);
    std::this_thread::sleep_for(std::chrono::microseconds(300));
  }
  ASSERT_TRUE(eventually([&] { return tagger.getFence(false) == 100; }));

  EXPECT_FALSE(tagger.waitForFence(100, 0));
  const auto before = std::chrono::steady_clock::now();
  EXPECT_FALSE(tagger.waitForFence(1, 30));
  EXPECT_GE(std::chrono::steady_clock::now() - before, std::chrono::milliseconds(30));

  std::atomic<bool> allocated{false};
  std::atomic<uint32_t> next{0};
  std::thread waiter([&] {
    next = tagger.getFence(true);
    allocated = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(allocated.load()) << "a 101st outstanding fence was handed out";
  EXPECT_EQ(tagger.getFence(false), 100u);  // never waits

  tagger.setIdleSpan(1000);  // blocks flow again and finish fences
  waiter.join();
  EXPECT_EQ(next.load(), 101u);
  EXPECT_TRUE(tagger.waitForFence(101, -1));
  EXPECT_TRUE(tagger.waitForFence(50, 0));
  EXPECT_TRUE(tagger.waitForFence(101, 10));
}

TEST(Runner, SynchronizedCallbackFailuresAreReportedOrLogged) {
  TestZeptick tagger("T", 4);
  LogCapture log;
  RecordingMeasurement a(&tagger);
  RecordingMeasurement b(&tagger);
  RecordingMeasurement c(&tagger);
  bool c_ran = false;
  SynchronizedCallbacks failing{
      {&a, [](IteratorBase*) { throw std::runtime_error("boom"); }},
      {&b, [](IteratorBase*) { throw 42; }},
      {&c, [&](IteratorBase*) { c_ran = true; }},
  };
  EXPECT_THAT(
      [&] { tagger.runSynchronized(failing, true); },
      ::testing::ThrowsMessage<std::runtime_error>(named(&a) + ": boom\n" + named(&b) + ": \n"));
  EXPECT_TRUE(c_ran);

  tagger.runSynchronized({{&a, [](IteratorBase*) { throw std::runtime_error("late"); }}}, false);
  EXPECT_TRUE(log.waitFor(LOGGER_ERROR,
                          "Unhandled exception on runSynchronized with " + named(&a) + ": late"));
  EXPECT_TRUE(a.isRunning());
}

// With `failing`, throws from its start and its clear; never stops in its destructor, which the
// base class must report when it is destroyed running.
class Careless : public IteratorBase {
 public:
  Careless(ZeptickBase* tagger, bool failing) : IteratorBase(tagger), failing(failing) {}
  void begin() { finishInitialization(); }

 protected:
  void on_start() override {
    if (failing) throw std::runtime_error("cannot start");
  }
  void clear_impl() override {
    if (failing) throw std::logic_error("cannot clear");
  }
  bool next_impl(std::vector<Tag>&, int64_t, int64_t) override { return false; }

 private:
  const bool failing;
};

// Channels are registered once and released at destruction, quietly; failed starts and clears
// reach the caller, and a measurement destroyed running is reported.
TEST(IteratorBase, ChannelsCountOnceAndFailuresReachTheCallerOrTheLog) {
  LogCapture log;
  TestZeptick tagger("T", 2);
  tagger.setIdleSpan(0);  // no block may reach the half-destroyed object
  auto first =
      std::make_unique<RecordingMeasurement>(&tagger, std::vector<int>{1, 1, 2, CHANNEL_UNUSED});
  RecordingMeasurement second(&tagger, {1});
  EXPECT_EQ(tagger.registrations(1), 2);
  EXPECT_EQ(tagger.registrations(2), 1);
  first->unregisterChannel(2);
  first->unregisterChannel(2);  // a second time does nothing
  first->unregisterChannel(3);  // never registered
  EXPECT_EQ(tagger.registrations(2), 0);
  first.reset();
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_TRUE(log.messages().empty()) << log.messages().front();

  {
    Careless failing(&tagger, true);
    EXPECT_THROW(failing.begin(), std::runtime_error);
    EXPECT_FALSE(failing.isRunning());
    EXPECT_THROW(failing.clear(), std::logic_error);
  }
  Careless(&tagger, false).begin();
  EXPECT_TRUE(log.contains(LOGGER_ERROR,
                           "Iterator still running, please call stop() within the destructor"));
}

}  // namespace
}  // namespace zeptick::testing
