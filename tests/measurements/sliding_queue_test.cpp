#include "measurements/sliding_queue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

namespace zeptick::detail {
namespace {

// Random pushes, pops, clears and releases against std::deque, with phases of
// mostly pushing and mostly popping so that the storage slides and grows.
TEST(SlidingQueueTest, BehavesLikeADequeThroughSlidesAndGrowth) {
  std::mt19937_64 rng(99);
  SlidingQueue<int64_t> queue;
  std::deque<int64_t> reference;
  int64_t next_value = 0;
  for (int step = 0; step < 200000; ++step) {
    const int phase = (step / 5000) % 3;  // 0 grows, 1 shrinks, 2 steady
    const int roll = static_cast<int>(rng() % 1000);
    const int push_per_mille = phase == 0 ? 700 : phase == 1 ? 300 : 500;
    if (roll < 2) {
      queue.clear();
      reference.clear();
    } else if (roll < 3) {
      queue.release();
      reference.clear();
    } else if (roll < push_per_mille || reference.empty()) {
      queue.push_back(next_value);
      reference.push_back(next_value++);
    } else {
      ASSERT_EQ(queue.front(), reference.front());
      queue.pop_front();
      reference.pop_front();
    }
    ASSERT_EQ(queue.size(), reference.size());
    ASSERT_EQ(queue.empty(), reference.empty());
    if (step % 97 == 0) {
      std::vector<int64_t> seen;
      queue.forEach([&seen](int64_t value) { seen.push_back(value); });
      ASSERT_EQ(seen, std::vector<int64_t>(reference.begin(), reference.end()));
    }
  }
}

}  // namespace
}  // namespace zeptick::detail
