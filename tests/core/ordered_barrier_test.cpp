#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <latch>
#include <list>
#include <mutex>
#include <ostream>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/iterator_base_list_node.h"
#include "support/test_tagger.h"
#include "zeptick/iterator_base.h"
#include "zeptick/ordered_barrier.h"

namespace zeptick::testing {
namespace {

using Turn = OrderedBarrier::OrderInstance;

// Generous: only a lost turn, which never comes back, should ever reach it.
constexpr auto kHangGuard = std::chrono::seconds(30);

// A lost turn leaves a thread blocked for ever, and joining it would stall the
// whole suite. Abort instead, naming the step that hung.
template <typename T>
T getOrAbort(std::future<T>& done, const char* what) {
  if (done.wait_for(kHangGuard) == std::future_status::timeout) {
    std::fprintf(stderr, "hung: %s\n", what);
    std::abort();
  }
  return done.get();
}

template <typename F>
auto runGuarded(const char* what, F body) {
  auto done = std::async(std::launch::async, std::move(body));
  return getOrAbort(done, what);
}

// Only makes a particular arrival order likely; no assertion depends on it.
void letOthersRun() { std::this_thread::sleep_for(std::chrono::milliseconds(5)); }

TEST(OrderedBarrierTest, RandomArrivalsAreServedInTicketOrder) {
  constexpr int kTickets = 3000;
  constexpr int kThreads = 8;
  OrderedBarrier barrier;
  std::vector<Turn> turns;
  for (int i = 0; i < kTickets; ++i) turns.push_back(barrier.queue());

  // Each thread takes its tickets in rising order, so the lowest open ticket
  // always has a thread on its way; which thread holds which is random.
  std::mt19937 rng(20240917);
  std::vector<std::vector<int>> mine(kThreads);
  for (int ticket = 0; ticket < kTickets; ++ticket) mine[rng() % kThreads].push_back(ticket);

  std::vector<int> order;  // guarded by the turn
  std::vector<std::future<void>> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.push_back(std::async(std::launch::async, [&, t] {
      std::mt19937 jitter(static_cast<unsigned>(t));
      for (int ticket : mine[t]) {
        for (unsigned spin = jitter() % 2000; spin > 0; --spin)
          std::atomic_signal_fence(std::memory_order_seq_cst);
        if (ticket % 5 == 0) {
          // Left to the destructor, as when the ordered stage throws.
          Turn local = turns[ticket];
          local.sync();
          order.push_back(ticket);
        } else {
          turns[ticket].sync();
          order.push_back(ticket);
          turns[ticket].release();
        }
      }
    }));
  }
  for (auto& thread : threads) getOrAbort(thread, "randomized ordered stages");

  std::vector<int> expected(kTickets);
  for (int i = 0; i < kTickets; ++i) expected[i] = i;
  EXPECT_EQ(order, expected);
  runGuarded("waitUntilFinished after the last turn", [&barrier] { barrier.waitUntilFinished(); });
}

TEST(OrderedBarrierTest, WaitUntilFinishedWaitsForTheLastTicket) {
  OrderedBarrier barrier;
  runGuarded("waitUntilFinished on a fresh barrier", [&barrier] { barrier.waitUntilFinished(); });

  Turn first = barrier.queue();
  Turn second = barrier.queue();
  std::atomic<int> released{0};
  std::latch waiting(1);
  auto waiter = std::async(std::launch::async, [&] {
    waiting.count_down();
    barrier.waitUntilFinished();
    return released.load();
  });
  waiting.wait();
  first.sync();
  released = 1;
  first.release();
  letOthersRun();
  second.sync();
  released = 2;
  second.release();
  EXPECT_EQ(getOrAbort(waiter, "waitUntilFinished with tickets out"), 2);

  // A barrier that has caught up serves new tickets as before.
  Turn third = barrier.queue();
  third.sync();
  third.release();
  runGuarded("waitUntilFinished after catching up", [&barrier] { barrier.waitUntilFinished(); });
}

TEST(OrderedBarrierTest, TurnReleasedThenDestroyedIsReleasedOnce) {
  OrderedBarrier barrier;
  std::vector<int> order;  // guarded by the turn
  {
    Turn first = barrier.queue();
    first.sync();
    order.push_back(0);
    first.release();
  }
  Turn second = barrier.queue();
  Turn third = barrier.queue();
  // The third ticket comes first: a second release of the first would let it
  // in now, and leave the second waiting for a turn that has gone by.
  auto late = std::async(std::launch::async, [&] {
    third.sync();
    order.push_back(2);
    third.release();
  });
  letOthersRun();
  auto early = std::async(std::launch::async, [&] {
    second.sync();
    order.push_back(1);
    second.release();
  });
  getOrAbort(early, "second ticket");
  getOrAbort(late, "third ticket");
  EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
  runGuarded("waitUntilFinished", [&barrier] { barrier.waitUntilFinished(); });
}

// --- Ordered stages of a measurement on the worker threads ---------------------------------

constexpr int64_t kSpan = 1000;
constexpr int kMarkerChannel = 2;

// One block as an ordered stage saw it.
struct Span {
  int64_t begin = 0;
  int64_t end = 0;
  size_t tags = 0;
  bool operator==(const Span&) const = default;
};

void PrintTo(const Span& span, std::ostream* out) {
  *out << "[" << span.begin << ", " << span.end << ") with " << span.tags << " tags";
}

// A test tagger that remembers the chain node of the last measurement made on
// it, so a test can look at the ordered stages the measurement has grown.
class NodeExposingTagger final : public TestTaggerCore {
 public:
  explicit NodeExposingTagger(unsigned workers) { startWorkers(workers); }
  ~NodeExposingTagger() override { stopWorkers(); }

  IteratorBaseListNode* addIterator(IteratorBase* iterator) override {
    last_node = ZeptickRunner::addIterator(iterator);
    return last_node;
  }
  IteratorBaseListNode* lastNode() const { return last_node; }

 private:
  IteratorBaseListNode* last_node = nullptr;  // set on the constructing thread
};

// Does "heavy" per-block work with its lock let go, then logs each block in
// one or two ordered stages, the way a file writer appends.
class StagedWork final : public IteratorBase {
 public:
  using Heavy = std::function<void(StagedWork& self, const std::vector<Tag>& tags)>;

  // With `skip_empty`, a block without tags returns at once, taking no turn.
  StagedWork(ZeptickBase* tagger, int stages, Heavy heavy, bool skip_empty = false)
      : IteratorBase(tagger), stages(stages), heavy(std::move(heavy)), skip_empty(skip_empty) {
    if (auto* exposing = dynamic_cast<NodeExposingTagger*>(tagger)) {
      barriers = &exposing->lastNode()->barriers;
    }
    finishInitialization();
  }
  ~StagedWork() override { stop(); }

  // Stage k appends under its turn, not under the lock: read only once
  // stopped, since stop() waits for every ordered stage.
  std::vector<Span> stageLog(int stage) {
    auto guard = getLock();
    return logs[stage];
  }
  std::vector<size_t> barrierCounts() {
    auto guard = getLock();
    return barrier_counts;
  }
  // Blocks between parallelize and their last release when on_stop ran; -1 before.
  int inParallelAtStop() {
    auto guard = getLock();
    return in_parallel_at_stop;
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override {
    if (skip_empty && tags.empty()) return false;
    OrderedPipeline pipeline;
    std::vector<Turn> turns;
    for (int stage = 0; stage < stages; ++stage) turns.push_back(parallelize(pipeline));
    if (barriers != nullptr) barrier_counts.push_back(barriers->size());
    ++in_parallel;
    unlock();
    for (int stage = 0; stage < stages; ++stage) {
      heavy(*this, tags);
      turns[stage].sync();
      logs[stage].push_back(Span{begin_time, end_time, tags.size()});
      if (stage + 1 == stages) lock();
      turns[stage].release();
    }
    --in_parallel;
    return false;
  }
  void on_stop() override { in_parallel_at_stop = in_parallel; }

 private:
  const int stages;
  const Heavy heavy;
  const bool skip_empty;
  const std::list<OrderedBarrier>* barriers = nullptr;
  std::vector<Span> logs[2];  // logs[k] guarded by the turn of stage k
  std::vector<size_t> barrier_counts;
  int in_parallel = 0;
  int in_parallel_at_stop = -1;
};

// `count` touching blocks with one tag each, on the marker channel for `markers`.
std::vector<Block> makeBlocks(int count, const std::set<int>& markers = {}) {
  std::vector<Block> blocks(count);
  for (int i = 0; i < count; ++i) {
    blocks[i].begin_time = i * kSpan;
    blocks[i].end_time = (i + 1) * kSpan;
    const int channel = markers.count(i) != 0 ? kMarkerChannel : 1;
    blocks[i].tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, i * kSpan + kSpan / 2});
  }
  return blocks;
}

bool isMarker(const std::vector<Tag>& tags) {
  return !tags.empty() && tags.front().channel == kMarkerChannel;
}

// Sleeps 0-300 us, a different length on every call.
void randomPause() {
  thread_local std::mt19937 rng(std::random_device{}());
  std::this_thread::sleep_for(std::chrono::microseconds(rng() % 301));
}

// The stream seen by a stage must touch from span to span (idle blocks of the
// tagger included), and the pushed blocks must appear in it in push order.
void expectBlockOrder(const std::vector<Span>& log, const std::vector<Block>& pushed,
                      size_t pushed_seen) {
  ASSERT_FALSE(log.empty());
  for (size_t i = 1; i < log.size(); ++i) {
    if (log[i].begin != log[i - 1].end) {
      ADD_FAILURE() << "gap or reordering at entry " << i << ": " << log[i - 1].end << " then "
                    << log[i].begin;
      break;
    }
  }
  std::vector<int64_t> seen;
  for (const Span& span : log) {
    if (span.tags > 0) seen.push_back(span.begin);
  }
  std::vector<int64_t> expected;
  for (size_t i = 0; i < pushed_seen; ++i) expected.push_back(pushed[i].begin_time);
  EXPECT_EQ(seen, expected);
}

TEST(OrderedStagesTest, OverlapTheHeavyWorkAndKeepBlockOrder) {
  TestZeptick tagger("ORDER-1", 6);
  std::mutex mutex;
  std::condition_variable changed;
  int inside = 0;
  int most_inside = 0;
  bool rendezvous_missed = false;

  // A marker block stays in its heavy section until another block joins it,
  // which can only happen if the lock was really let go.
  StagedWork work(&tagger, 1, [&](StagedWork&, const std::vector<Tag>& tags) {
    {
      std::unique_lock<std::mutex> guard(mutex);
      most_inside = std::max(most_inside, ++inside);
      changed.notify_all();
      if (isMarker(tags) && !changed.wait_for(guard, kHangGuard, [&] { return inside > 1; })) {
        rendezvous_missed = true;
      }
    }
    randomPause();
    std::lock_guard<std::mutex> guard(mutex);
    --inside;
  });

  const std::vector<Block> pushed = tagger.pushBlocks(makeBlocks(300, {5, 120, 250}));
  tagger.sync();
  work.stop();
  expectBlockOrder(work.stageLog(0), pushed, pushed.size());
  std::lock_guard<std::mutex> guard(mutex);
  EXPECT_FALSE(rendezvous_missed);
  EXPECT_GT(most_inside, 1);
}

TEST(OrderedStagesTest, SecondStageUsesASecondBarrierForEveryBlock) {
  NodeExposingTagger tagger(6);
  StagedWork work(&tagger, 2, [](StagedWork&, const std::vector<Tag>&) { randomPause(); });

  const std::vector<Block> pushed = tagger.pushBlocks(makeBlocks(200));
  tagger.sync();
  work.stop();
  const std::vector<Span> first = work.stageLog(0);
  expectBlockOrder(first, pushed, pushed.size());
  EXPECT_EQ(work.stageLog(1), first);

  const std::vector<size_t> counts = work.barrierCounts();
  ASSERT_GE(counts.size(), pushed.size());
  EXPECT_EQ(std::count(counts.begin(), counts.end(), 2u), static_cast<ptrdiff_t>(counts.size()));
}

// A capture limit that ends inside a block stops the measurement as stop() does: on_stop runs
// only once every earlier block has left its parallel section, even when the cut block itself
// holds nothing to wait for.
TEST(OrderedStagesTest, CaptureLimitInsideABlockWaitsForTheOrderedStages) {
  TestZeptick tagger("STOP-CUT", 6);
  constexpr int kCutBlock = 30;
  StagedWork work(
      &tagger, 1,
      [](StagedWork&, const std::vector<Tag>& tags) {
        if (tags.front().time / kSpan == kCutBlock - 1) {
          std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
      },
      true);
  // The cut falls before the cut block's only tag, so that block reaches the measurement empty.
  work.startFor(kCutBlock * kSpan + kSpan / 4);
  tagger.pushBlocks(makeBlocks(60));
  tagger.sync();
  const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
  while (work.isRunning() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  ASSERT_FALSE(work.isRunning());
  EXPECT_EQ(work.inParallelAtStop(), 0);
}

TEST(OrderedStagesTest, StopWaitsForTheLastOrderedStage) {
  TestZeptick tagger("STOP-1", 6);
  std::mutex mutex;
  std::condition_variable changed;
  bool marker_inside = false;
  bool stop_seen = false;

  // The marker block holds its turn open until stop() has begun, so the stop
  // surely meets it, and the blocks queued behind it, in the parallel section.
  StagedWork work(&tagger, 1, [&](StagedWork& self, const std::vector<Tag>& tags) {
    if (!isMarker(tags)) {
      randomPause();
      return;
    }
    {
      std::lock_guard<std::mutex> guard(mutex);
      marker_inside = true;
    }
    changed.notify_all();
    const auto deadline = std::chrono::steady_clock::now() + kHangGuard;
    while (self.isRunning() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    const bool stopped = !self.isRunning();
    std::lock_guard<std::mutex> guard(mutex);
    stop_seen = stopped;
  });

  constexpr int kMarker = 40;
  const std::vector<Block> pushed = tagger.pushBlocks(makeBlocks(200, {kMarker}));
  {
    std::unique_lock<std::mutex> guard(mutex);
    ASSERT_TRUE(changed.wait_for(guard, kHangGuard, [&] { return marker_inside; }));
  }
  work.stop();

  EXPECT_EQ(work.inParallelAtStop(), 0);
  {
    std::lock_guard<std::mutex> guard(mutex);
    EXPECT_TRUE(stop_seen);
  }
  // Everything up to the marker went through the ordered stage, in order, and
  // nothing after the stop.
  const std::vector<Span> log = work.stageLog(0);
  size_t pushed_seen = 0;
  for (const Span& span : log) pushed_seen += span.tags > 0 ? 1 : 0;
  EXPECT_GT(pushed_seen, static_cast<size_t>(kMarker));
  expectBlockOrder(log, pushed, pushed_seen);
  tagger.sync();
  EXPECT_EQ(work.stageLog(0).size(), log.size());
}

}  // namespace
}  // namespace zeptick::testing
