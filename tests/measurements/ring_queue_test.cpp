#include "measurements/ring_queue.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <deque>
#include <random>
#include <vector>

namespace zeptick::detail {
namespace {

struct Timed {
  int64_t time;
  int64_t id;
  bool operator==(const Timed&) const = default;
};

// Random pushes, sorted inserts, pops, clears and releases against std::deque, with phases of
// mostly pushing and mostly popping so that the ring wraps and grows.
TEST(RingQueueTest, BehavesLikeADequeThroughWrapsAndGrowth) {
  std::mt19937_64 rng(99);
  RingQueue<Timed> queue;
  std::deque<Timed> reference;
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
    } else if (roll < 10 && !reference.empty()) {
      // Lands among the last few, behind those of equal time.
      const Timed late{reference.back().time - static_cast<int64_t>(rng() % 4), next_value++};
      queue.insertSorted(late);
      auto at = reference.end();
      while (at != reference.begin() && (at - 1)->time > late.time) --at;
      reference.insert(at, late);
    } else if (roll < push_per_mille || reference.empty()) {
      const Timed value{next_value, next_value};
      ++next_value;
      queue.push_back(value);
      reference.push_back(value);
    } else {
      ASSERT_EQ(queue.front(), reference.front());
      queue.pop_front();
      reference.pop_front();
    }
    ASSERT_EQ(queue.size(), reference.size());
    ASSERT_EQ(queue.empty(), reference.empty());
    if (step % 97 == 0) {
      std::vector<Timed> seen;
      queue.forEach([&seen](const Timed& value) { seen.push_back(value); });
      ASSERT_EQ(seen, std::vector<Timed>(reference.begin(), reference.end()));
      if (!reference.empty()) {
        ASSERT_EQ(queue[reference.size() - 1], reference.back());
      }
    }
  }
}

}  // namespace
}  // namespace zeptick::detail
