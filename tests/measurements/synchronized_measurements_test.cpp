#include "zeptick/synchronized_measurements.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"

namespace zeptick {
namespace {

using namespace testing;

bool contiguous(const std::vector<Block>& blocks) {
  auto gap = [](const Block& a, const Block& b) { return b.begin_time != a.end_time; };
  return std::adjacent_find(blocks.begin(), blocks.end(), gap) == blocks.end();
}

void pause() { std::this_thread::sleep_for(std::chrono::milliseconds(3)); }

// The test tagger serves idle blocks whenever none are queued, so several workers are always in
// flight while the test acts on the group.
TEST(SynchronizedMeasurements, MembersSeeTheSameBlocksThroughStartClearStopAndStartFor) {
  TestZeptick tagger("TEST-1", 4);
  SynchronizedMeasurements group(&tagger);
  // Members sit at different places in the chain, with slow outsiders between them, so that every
  // group operation races with blocks in flight.
  std::vector<std::unique_ptr<RecordingMeasurement>> members;
  std::vector<std::unique_ptr<RecordingMeasurement>> outsiders;
  for (int i = 0; i < 3; ++i) {
    outsiders.push_back(std::make_unique<RecordingMeasurement>(&tagger));
    outsiders.back()->setMaxDelay(200);
    members.push_back(std::make_unique<RecordingMeasurement>(group.getTagger()));
    members.back()->setMaxDelay(100);
  }
  // One member made on the real tagger joins later; it started by itself.
  members.push_back(std::make_unique<RecordingMeasurement>(&tagger));
  EXPECT_TRUE(members.back()->isRunning());
  members.back()->stop();
  group.registerMeasurement(members.back().get());
  for (size_t i = 0; i + 1 < members.size(); ++i) EXPECT_FALSE(members[i]->isRunning());
  EXPECT_FALSE(group.isRunning());

  auto expectAllAlike = [&](const char* when) {
    const std::vector<Block> first = members[0]->blocks();
    EXPECT_FALSE(first.empty()) << when;
    EXPECT_TRUE(contiguous(first)) << when;
    for (size_t i = 1; i < members.size(); ++i) {
      EXPECT_EQ(spans(first), spans(members[i]->blocks())) << when << ", member " << i;
    }
  };

  for (int round = 0; round < 5; ++round) {
    group.start();
    EXPECT_TRUE(group.isRunning());
    pause();
    group.clear();  // every member drops its blocks and resumes on the same one
    ASSERT_TRUE(eventually([&] { return members[0]->blocks().size() > 2; }));
    group.stop();
    EXPECT_FALSE(group.isRunning());
    expectAllAlike("start, clear, stop");
    // Stopped members take nothing more.
    const size_t seen = members[0]->blocks().size();
    pause();
    EXPECT_EQ(members[0]->blocks().size(), seen);

    group.startFor(1000000);
    ASSERT_TRUE(eventually([&] { return !group.isRunning(); }));
    expectAllAlike("startFor");
    for (auto& member : members) EXPECT_EQ(member->getCaptureDuration(), 1000000);
  }
}

TEST(SynchronizedMeasurements, StartLeavesARunningMemberUndisturbed) {
  TestZeptick tagger("TEST-1", 4);
  SynchronizedMeasurements group(&tagger);
  RecordingMeasurement running(group.getTagger());
  RecordingMeasurement idle(group.getTagger());
  running.start();
  std::mt19937_64 rng(7);
  const TagStream stream = makeRandomStream(rng, {.channels = {1, 2}, .tags = 400});
  const std::vector<Block> blocks = cutStream(stream, randomCuts(rng, stream, 40));
  for (int round = 0; round < 10; ++round) {
    // Had its fence moved on, the running member would skip the queued blocks.
    pause();
    tagger.pushBlocks(blocks);
    group.start();
    idle.stop();
  }
  running.stop();
  EXPECT_GT(running.blocks().size(), 10u);
  EXPECT_TRUE(contiguous(running.blocks()));
}

class FailingStart : public RecordingMeasurement {
 public:
  using RecordingMeasurement::RecordingMeasurement;

 protected:
  void on_start() override { throw std::logic_error("refuses to start"); }
};

TEST(SynchronizedMeasurements, MembershipFollowsRegistrationAndDestructionAndFailuresStopNoOne) {
  LogCapture log;
  TestZeptick tagger("TEST-1", 2);
  auto group = std::make_unique<SynchronizedMeasurements>(&tagger);
  // With no member nothing waits for a block, even on a tagger that serves none.
  tagger.setIdleSpan(0);
  group->start();
  group->stop();
  group->clear();
  EXPECT_FALSE(group->isRunning());
  tagger.setIdleSpan(1000000);

  RecordingMeasurement outsider(&tagger);
  group->unregisterMeasurement(&outsider);
  EXPECT_TRUE(log.contains(LOGGER_WARNING, "Unregistering a non-registered measurement"));

  auto gone = std::make_unique<RecordingMeasurement>(group->getTagger(), std::vector<int>{3});
  EXPECT_EQ(tagger.registrations(3), 1);
  gone.reset();  // leaves the group: the group must not touch it again
  EXPECT_EQ(tagger.registrations(3), 0);
  group->start();
  EXPECT_FALSE(group->isRunning());

  // A measurement belongs to one group at a time.
  SynchronizedMeasurements other(&tagger);
  RecordingMeasurement mover(group->getTagger());
  other.registerMeasurement(&mover);
  group->start();
  EXPECT_FALSE(mover.isRunning());
  other.start();
  EXPECT_TRUE(mover.isRunning());
  other.unregisterMeasurement(&mover);
  other.stop();
  EXPECT_TRUE(mover.isRunning());
  mover.stop();

  // A member made on the group's tagger outlives the group and still works.
  RecordingMeasurement survivor(group->getTagger(), {4});
  group.reset();
  EXPECT_EQ(tagger.registrations(4), 1);
  survivor.start();
  ASSERT_TRUE(eventually([&] { return !survivor.blocks().empty(); }));
  survivor.stop();

  // A member that fails to start stops neither the others nor the caller.
  SynchronizedMeasurements failing(&tagger);
  RecordingMeasurement good(failing.getTagger());
  FailingStart bad(failing.getTagger());
  EXPECT_THAT(invalidArgument([&] { failing.start(); }),
              ::testing::MatchesRegex("runtime_error: .*refuses to start.*"));
  EXPECT_TRUE(good.isRunning());
  EXPECT_FALSE(bad.isRunning());
  failing.stop();
  EXPECT_FALSE(good.isRunning());
}

}  // namespace
}  // namespace zeptick
