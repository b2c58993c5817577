#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <random>
#include <sstream>
#include <thread>
#include <tuple>

#include "support/log_capture.h"
#include "support/recording_measurement.h"
#include "support/test_tagger.h"

namespace zeptick::testing {
namespace {

bool sameBlock(const Block& a, const Block& b) {
  auto key = [](const Tag& t) { return std::tie(t.type, t.channel, t.time, t.missed_events); };
  return a.begin_time == b.begin_time && a.end_time == b.end_time &&
         std::equal(a.tags.begin(), a.tags.end(), b.tags.begin(), b.tags.end(),
                    [&](const Tag& x, const Tag& y) { return key(x) == key(y); });
}

// Index in `stream` where `run` appears as a contiguous stretch, or -1.
long findRun(const std::vector<Block>& stream, const std::vector<Block>& run) {
  if (run.empty()) return 0;
  for (size_t start = 0; start + run.size() <= stream.size(); ++start) {
    bool match = true;
    for (size_t i = 0; i < run.size() && match; ++i) match = sameBlock(stream[start + i], run[i]);
    if (match) return static_cast<long>(start);
  }
  return -1;
}

std::string pointerText(const void* pointer) {
  char text[64];
  std::snprintf(text, sizeof text, "%p", pointer);
  return text;
}

// A switch a measurement's hook can wait on, opened by the test.
struct Gate {
  std::mutex mutex;
  std::condition_variable cv;
  bool open = false;
  bool reached = false;

  void waitOpen() {
    std::unique_lock<std::mutex> lock(mutex);
    reached = true;
    cv.notify_all();
    cv.wait(lock, [this] { return open; });
  }
  void waitReached() {
    std::unique_lock<std::mutex> lock(mutex);
    cv.wait(lock, [this] { return reached; });
  }
  void release() {
    std::lock_guard<std::mutex> lock(mutex);
    open = true;
    cv.notify_all();
  }
};

bool hasChannel(const std::vector<Tag>& tags, int channel) {
  return std::any_of(tags.begin(), tags.end(), [&](const Tag& t) { return t.channel == channel; });
}

TEST(Runner, EveryMeasurementSeesEachBlockOnceInStreamOrder) {
  TestZeptick tagger("T", 8);
  std::mt19937_64 rng(7);
  std::vector<std::unique_ptr<RecordingMeasurement>> alive;
  std::vector<std::vector<Block>> finished;
  alive.push_back(std::make_unique<RecordingMeasurement>(&tagger, std::vector<int>{1}));
  RecordingMeasurement* first = alive.front().get();

  for (int round = 0; round < 40; ++round) {
    tagger.pushBlocks(makeRandomBlocks(rng, 15, {1, 2, 3}));
    const int action = static_cast<int>(rng() % 4);
    if (action == 0 || alive.size() < 3) {
      alive.push_back(std::make_unique<RecordingMeasurement>(&tagger));
      alive.back()->setMaxDelay(static_cast<int>(rng() % 150));
    } else if (action == 1 && alive.size() > 3) {
      // Never the first one: it must see the whole stream.
      const size_t victim = 1 + rng() % (alive.size() - 1);
      finished.push_back(alive[victim]->blocks());
      alive.erase(alive.begin() + static_cast<long>(victim));
    }
  }
  const int64_t pushed_end = tagger.streamEnd();
  ASSERT_TRUE(tagger.sync());

  // Snapshots before the claim log: idle blocks keep flowing meanwhile. After sync() every
  // measurement, however slow, has passed the end of what was pushed.
  for (auto& measurement : alive) {
    finished.push_back(measurement->blocks());
    ASSERT_FALSE(finished.back().empty());
    EXPECT_GE(finished.back().back().end_time, pushed_end);
  }
  const std::vector<Block> whole = first->blocks();
  const std::vector<Block> claimed = tagger.claimedBlocks();

  // Contiguous spans, nothing missing, nothing twice, from the first block on.
  ASSERT_FALSE(whole.empty());
  for (size_t i = 1; i < whole.size(); ++i) {
    ASSERT_EQ(whole[i].begin_time, whole[i - 1].end_time) << "block " << i;
  }
  EXPECT_GE(findRun(claimed, whole), 0);
  // Every measurement saw one unbroken stretch of the same stream, in the same order.
  for (const auto& record : finished) {
    EXPECT_GE(findRun(claimed, record), 0) << "a measurement saw blocks out of order or twice";
  }
}

TEST(Runner, TagsOfAVirtualChannelReachOnlyLaterMeasurements) {
  TestZeptick tagger("T", 6);
  const int virtual_channel = tagger.getNewVirtualChannel();
  auto duplicate = [virtual_channel](std::vector<Tag>& tags, int64_t, int64_t) {
    std::vector<Tag> out;
    for (const Tag& tag : tags) {
      out.push_back(tag);
      if (tag.type == Tag::Type::TimeTag && tag.channel == 1) {
        out.push_back(Tag{Tag::Type::TimeTag, 0, 0, virtual_channel, tag.time});
      }
    }
    tags.swap(out);
    return true;
  };
  RecordingMeasurement before(&tagger);
  RecordingMeasurement channel(&tagger, {}, duplicate);
  RecordingMeasurement after(&tagger);
  RecordingMeasurement second_copy(&tagger, {}, duplicate);
  RecordingMeasurement last(&tagger);
  before.setMaxDelay(50);
  after.setMaxDelay(50);

  std::mt19937_64 rng(3);
  const std::vector<Block> pushed = tagger.pushBlocks(makeRandomBlocks(rng, 200, {1, 2}));
  ASSERT_TRUE(tagger.sync());

  // Each pushed block, found in order in each record; idle blocks around them differ.
  auto locate = [&](const std::vector<Block>& record) {
    std::vector<Block> found;
    size_t cursor = 0;
    for (const Block& p : pushed) {
      while (cursor < record.size() &&
             (record[cursor].begin_time != p.begin_time || record[cursor].end_time != p.end_time)) {
        ++cursor;
      }
      if (cursor == record.size()) break;
      found.push_back(record[cursor++]);
    }
    return found;
  };
  const auto seen_before = locate(before.blocks());
  const auto seen_after = locate(after.blocks());
  const auto seen_last = locate(last.blocks());
  ASSERT_EQ(seen_before.size(), pushed.size());
  ASSERT_EQ(seen_after.size(), pushed.size());
  ASSERT_EQ(seen_last.size(), pushed.size());
  // Behind one copying measurement each channel-1 event has its copy, behind two it has two.
  for (size_t b = 0; b < pushed.size(); ++b) {
    EXPECT_TRUE(sameBlock(seen_before[b], pushed[b]));
    Block expected = pushed[b];
    duplicate(expected.tags, 0, 0);
    EXPECT_TRUE(sameBlock(seen_after[b], expected));
    duplicate(expected.tags, 0, 0);
    EXPECT_TRUE(sameBlock(seen_last[b], expected));
  }
}

// Blocks of fixed length 1000 ps with one tag at each multiple of 250 ps, channel 1.
std::vector<Block> gridBlocks(size_t count) {
  std::vector<Block> blocks;
  for (size_t i = 0; i < count; ++i) {
    Block block{{}, static_cast<int64_t>(i) * 1000, static_cast<int64_t>(i + 1) * 1000};
    for (int64_t t = block.begin_time; t < block.end_time; t += 250) {
      block.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, 1, t});
    }
    blocks.push_back(block);
  }
  return blocks;
}

TEST(Runner, StartForCutsExactlyAtTheLimitAndWritesBackAVirtualChannelsChanges) {
  TestZeptick tagger("T", 4);
  tagger.setIdleSpan(0);  // the first block after startFor is then the first pushed one
  auto mark = [](std::vector<Tag>& tags, int64_t, int64_t) {
    std::vector<Tag> out;
    for (const Tag& tag : tags) {
      out.push_back(tag);
      out.push_back(Tag{Tag::Type::TimeTag, 0, 0, 1000, tag.time});
    }
    tags.swap(out);
    return true;
  };
  RecordingMeasurement edge(&tagger);  // ahead of the copies
  RecordingMeasurement zero(&tagger);
  RecordingMeasurement limited(&tagger, {}, mark);
  RecordingMeasurement downstream(&tagger);
  for (RecordingMeasurement* m : {&limited, &edge, &zero}) m->stop();
  limited.startFor(2500);  // ends on the tag at 2500 ps into the third block
  edge.startFor(1000);     // exactly on the first block's end
  zero.startFor(0);

  const std::vector<Block> pushed = tagger.pushBlocks(gridBlocks(6));
  const int64_t start = pushed.front().begin_time;
  ASSERT_TRUE(eventually([&] { return !limited.isRunning() && !edge.isRunning(); }));
  ASSERT_TRUE(eventually([&] { return !zero.isRunning() && downstream.blocks().size() >= 6; }));

  EXPECT_EQ(limited.getCaptureDuration(), 2500);
  EXPECT_EQ(limited.stops(), 2);  // once by stop(), once at the limit
  const auto seen = limited.blocks();
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[2].begin_time, start + 2000);
  EXPECT_EQ(seen[2].end_time, start + 2500);
  // Tags strictly before the limit, with the copies the measurement made.
  ASSERT_EQ(seen[2].tags.size(), 4u);
  EXPECT_EQ(seen[2].tags.back().time, start + 2250);

  // Downstream: before the cut every tag has its copy, in the cut block the copies stop at the
  // limit and the untouched rest follows, afterwards the stream is as pushed.
  const auto later = downstream.blocks();
  auto count_marks = [](const Block& block) {
    return std::count_if(block.tags.begin(), block.tags.end(),
                         [](const Tag& t) { return t.channel == 1000; });
  };
  ASSERT_GE(later.size(), 6u);
  EXPECT_EQ(count_marks(later[0]), 4);
  EXPECT_EQ(count_marks(later[1]), 4);
  EXPECT_EQ(count_marks(later[2]), 2);
  EXPECT_EQ(later[2].tags.size(), 6u);
  EXPECT_EQ(later[2].tags[4].time, start + 2500);
  EXPECT_EQ(later[2].tags[4].channel, 1);
  EXPECT_EQ(later[2].end_time, start + 3000);
  for (size_t b = 3; b < 6; ++b) EXPECT_TRUE(sameBlock(later[b], pushed[b]));

  // A limit on a block edge ends with an empty block there; a zero limit with one empty block.
  const auto edge_seen = edge.blocks();
  ASSERT_EQ(edge_seen.size(), 2u);
  EXPECT_TRUE(sameBlock(edge_seen[0], pushed[0]));
  EXPECT_TRUE(sameBlock(edge_seen[1], Block{{}, pushed[1].begin_time, pushed[1].begin_time}));
  EXPECT_EQ(edge.getCaptureDuration(), 1000);
  const auto zero_seen = zero.blocks();
  ASSERT_EQ(zero_seen.size(), 1u);
  EXPECT_TRUE(sameBlock(zero_seen[0], Block{{}, start, start}));
  EXPECT_EQ(zero.getCaptureDuration(), 0);
  EXPECT_EQ(zero.stops(), 2);
}

TEST(Runner, StartForWithoutClearCountsFromThePresentCaptureDuration) {
  TestZeptick tagger("T", 3);
  tagger.setIdleSpan(0);
  RecordingMeasurement m(&tagger);
  std::vector<Block> pushed = tagger.pushBlocks(gridBlocks(2));
  ASSERT_TRUE(eventually([&] { return m.getCaptureDuration() == 2000; }));

  m.startFor(1500, false);  // running: only the limit moves, to 3500
  EXPECT_EQ(m.starts(), 1);
  pushed = tagger.pushBlocks(gridBlocks(3));
  ASSERT_TRUE(eventually([&] { return !m.isRunning(); }));
  EXPECT_EQ(m.getCaptureDuration(), 3500);
  const auto seen = m.blocks();
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_EQ(seen.back().begin_time, pushed[1].begin_time);
  EXPECT_EQ(seen.back().end_time, pushed[1].begin_time + 500);
  EXPECT_EQ(seen.back().tags.size(), 2u);

  // start() on a limited, running measurement lifts the limit.
  m.startFor(500, true);
  m.start();
  pushed = tagger.pushBlocks(gridBlocks(3));
  ASSERT_TRUE(eventually([&] { return m.getCaptureDuration() == 3000; }));
  EXPECT_TRUE(m.isRunning());
}

TEST(Runner, ClearSkipsBlocksFetchedBeforeIt) {
  TestZeptick tagger("T", 4);
  Gate gate;
  RecordingMeasurement holder(&tagger, {}, [&](std::vector<Tag>& tags, int64_t, int64_t) {
    if (hasChannel(tags, 7)) gate.waitOpen();
    return false;
  });
  RecordingMeasurement measurement(&tagger);

  Block held{{Tag{Tag::Type::TimeTag, 0, 0, 7, 10}}, 0, 100};
  const int64_t held_begin = tagger.pushBlocks({held}).front().begin_time;
  gate.waitReached();  // the block has been fetched and is in the chain
  measurement.clear();
  gate.release();
  Block fresh{{Tag{Tag::Type::TimeTag, 0, 0, 8, 10}}, 0, 100};
  const int64_t fresh_begin = tagger.pushBlocks({fresh}).front().begin_time;
  ASSERT_TRUE(tagger.sync());

  const auto seen = measurement.blocks();
  EXPECT_TRUE(std::none_of(seen.begin(), seen.end(),
                           [&](const Block& b) { return b.begin_time == held_begin; }));
  EXPECT_TRUE(std::any_of(seen.begin(), seen.end(),
                          [&](const Block& b) { return b.begin_time == fresh_begin; }));
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

TEST(Runner, SynchronizedStartGivesTheSameFirstBlockToAll) {
  TestZeptick tagger("T", 8);
  std::vector<std::unique_ptr<RecordingMeasurement>> group;
  for (int i = 0; i < 5; ++i) {
    group.push_back(std::make_unique<RecordingMeasurement>(&tagger));
    group.back()->setMaxDelay(40 * i);
    group.back()->stop();
  }
  std::mt19937_64 rng(5);
  for (int repeat = 0; repeat < 5; ++repeat) {
    tagger.pushBlocks(makeRandomBlocks(rng, 100, {1, 2}));
    SynchronizedCallbacks callbacks;
    for (auto& m : group) {
      callbacks[m.get()] = [](IteratorBase* it) {
        static_cast<RecordingMeasurement*>(it)->clear();
        static_cast<RecordingMeasurement*>(it)->start();
      };
    }
    tagger.runSynchronized(callbacks, true);
    tagger.pushBlocks(makeRandomBlocks(rng, 50, {1, 2}));
    ASSERT_TRUE(tagger.sync());
    const auto reference = group.front()->blocks();
    ASSERT_FALSE(reference.empty());
    for (auto& m : group) {
      const auto seen = m->blocks();
      ASSERT_FALSE(seen.empty());
      EXPECT_TRUE(sameBlock(seen.front(), reference.front()));
      m->stop();
    }
  }
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
  std::string error;
  try {
    tagger.runSynchronized(failing, true);
  } catch (const std::runtime_error& e) {
    error = e.what();
  }
  std::ostringstream expected_a;
  std::ostringstream expected_b;
  expected_a << "IteratorBase " << static_cast<void*>(&a) << ": boom\n";
  expected_b << "IteratorBase " << static_cast<void*>(&b) << ": \n";
  EXPECT_NE(error.find(expected_a.str()), std::string::npos) << error;
  EXPECT_NE(error.find(expected_b.str()), std::string::npos) << error;
  EXPECT_TRUE(c_ran);

  tagger.runSynchronized({{&a, [](IteratorBase*) { throw std::runtime_error("late"); }}}, false);
  EXPECT_TRUE(log.waitFor(
      LOGGER_ERROR,
      "Unhandled exception on runSynchronized with IteratorBase " + pointerText(&a) + ": late"));
  EXPECT_TRUE(a.isRunning());
}

TEST(Runner, AFailingMeasurementStopsAloneAndTheRestGoOn) {
  TestZeptick tagger("T", 4);
  LogCapture log;
  int blocks = 0;
  RecordingMeasurement failing(&tagger, {}, [&](std::vector<Tag>&, int64_t, int64_t) -> bool {
    if (++blocks == 3) throw std::runtime_error("bad block");
    return false;
  });
  RecordingMeasurement odd(&tagger, {},
                           [](std::vector<Tag>&, int64_t, int64_t) -> bool { throw 7; });
  RecordingMeasurement healthy(&tagger);
  std::mt19937_64 rng(9);
  tagger.pushBlocks(makeRandomBlocks(rng, 20, {1}));
  ASSERT_TRUE(tagger.sync());

  EXPECT_FALSE(failing.isRunning());
  EXPECT_FALSE(odd.isRunning());
  EXPECT_TRUE(healthy.isRunning());
  EXPECT_EQ(failing.stops(), 1);
  EXPECT_EQ(failing.blocks().size(), 2u);  // what it took before failing stays readable
  EXPECT_TRUE(log.contains(LOGGER_ERROR, "Unhandled exception on IteratorBase " +
                                             pointerText(&failing) + ": bad block"));
  EXPECT_TRUE(
      log.contains(LOGGER_ERROR, "Unhandled exception on IteratorBase " + pointerText(&odd)));
  const auto all = healthy.blocks();
  for (size_t i = 1; i < all.size(); ++i) EXPECT_EQ(all[i].begin_time, all[i - 1].end_time);
}

TEST(Runner, AMeasurementDestroyedWhileAWorkerHoldsItsBlock) {
  TestZeptick tagger("T", 4);
  Gate gate;
  auto doomed = std::make_unique<RecordingMeasurement>(
      &tagger, std::vector<int>{3}, [&](std::vector<Tag>& tags, int64_t, int64_t) {
        if (hasChannel(tags, 7)) gate.waitOpen();
        return false;
      });
  RecordingMeasurement behind(&tagger);
  EXPECT_EQ(tagger.registrations(3), 1);

  tagger.pushBlocks({Block{{Tag{Tag::Type::TimeTag, 0, 0, 7, 5}}, 0, 10}});
  gate.waitReached();
  std::thread destroyer([&] { doomed.reset(); });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  gate.release();
  destroyer.join();
  EXPECT_EQ(tagger.registrations(3), 0);

  std::mt19937_64 rng(2);
  tagger.pushBlocks(makeRandomBlocks(rng, 30, {1}));
  ASSERT_TRUE(tagger.sync());
  const auto seen = behind.blocks();
  ASSERT_GT(seen.size(), 30u);
  for (size_t i = 1; i < seen.size(); ++i) EXPECT_EQ(seen[i].begin_time, seen[i - 1].end_time);
}

}  // namespace
}  // namespace zeptick::testing
