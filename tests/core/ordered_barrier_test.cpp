#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <latch>
#include <numeric>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "zeptick/ordered_barrier.h"

namespace zeptick::testing {
namespace {

using Turn = OrderedBarrier::OrderInstance;

// A lost turn leaves a thread blocked for ever, and joining it would stall the whole suite. Abort
// instead, naming the step that hung; the wait is generous, only a lost turn should reach it.
template <typename T>
T getOrAbort(std::future<T>& done, const char* what) {
  if (done.wait_for(std::chrono::seconds(30)) == std::future_status::timeout) {
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
        // Every fifth turn is left to the destructor, as when the ordered stage throws; the
        // others are released and then destroyed, which must not release them again.
        Turn turn = std::exchange(turns[ticket], Turn());
        turn.sync();
        order.push_back(ticket);
        if (ticket % 5 != 0) turn.release();
      }
    }));
  }
  for (auto& thread : threads) getOrAbort(thread, "randomized ordered stages");

  std::vector<int> expected(kTickets);
  std::iota(expected.begin(), expected.end(), 0);
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
  // Lets a waiter that wrongly returns after the first ticket do so; nothing depends on the time.
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  second.sync();
  released = 2;
  second.release();
  EXPECT_EQ(getOrAbort(waiter, "waitUntilFinished with tickets out"), 2);
}

}  // namespace
}  // namespace zeptick::testing
