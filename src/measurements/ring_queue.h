#pragma once

#include <cstddef>
#include <memory>

namespace zeptick::detail {

/// A first-in first-out queue on one power-of-two ring. Unlike std::deque it
/// allocates only when it grows past its largest size so far, so a histogram's
/// queue of recent starts costs nothing per event in steady state.
/// T must be trivially copyable.
template <typename T>
class RingQueue {
 public:
  bool empty() const { return count == 0; }
  size_t size() const { return count; }
  /// REQUIRES: not empty.
  const T& front() const { return ring[head]; }
  /// REQUIRES: not empty.
  void pop_front() {
    head = (head + 1) & mask;
    --count;
  }
  void push_back(const T& value) {
    if (count == capacity) grow();
    ring[(head + count) & mask] = value;
    ++count;
  }
  void clear() {
    head = 0;
    count = 0;
  }
  /// Empties the queue and gives its storage back.
  void release() {
    clear();
    ring.reset();
    capacity = 0;
    mask = 0;
  }
  /// Calls fn(element) from the front to the back, over at most two contiguous runs.
  template <typename Fn>
  void forEach(Fn&& fn) const {
    const size_t first_run = count < capacity - head ? count : capacity - head;
    const T* const data = ring.get();
    for (size_t i = 0; i < first_run; ++i) fn(data[head + i]);
    for (size_t i = 0; i < count - first_run; ++i) fn(data[i]);
  }

 private:
  void grow() {
    const size_t new_capacity = capacity == 0 ? 16 : capacity * 2;
    std::unique_ptr<T[]> bigger(new T[new_capacity]);
    for (size_t i = 0; i < count; ++i) bigger[i] = ring[(head + i) & mask];
    ring = std::move(bigger);
    capacity = new_capacity;
    mask = new_capacity - 1;
    head = 0;
  }

  std::unique_ptr<T[]> ring;
  size_t capacity = 0;
  size_t mask = 0;
  size_t head = 0;
  size_t count = 0;
};

}  // namespace zeptick::detail
