#pragma once

#include <cstddef>
#include <memory>
#include <type_traits>

namespace zeptick::detail {

/// The first-in first-out queue of the measurements that hold part of the
/// stream back (pending starts, delayed tags, open windows): a ring buffer of
/// a power-of-two size that only grows, so that in the steady state pushes and
/// pops allocate nothing, unlike std::deque, which allocates and frees a chunk
/// every few dozen elements. T must be trivially copyable.
template <typename T>
class RingQueue {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  bool empty() const { return count == 0; }
  size_t size() const { return count; }
  /// REQUIRES: not empty.
  const T& front() const { return ring[head]; }
  /// REQUIRES: i < size().
  T& operator[](size_t i) { return ring[(head + i) & mask]; }
  const T& operator[](size_t i) const { return ring[(head + i) & mask]; }

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

  /// Puts `value` behind every queued element of earlier or equal `time`. The
  /// queue must be in time order; new values usually belong at or near the back.
  void insertSorted(const T& value) {
    push_back(value);
    size_t i = count - 1;
    for (; i > 0 && value.time - (*this)[i - 1].time < 0; --i) (*this)[i] = (*this)[i - 1];
    (*this)[i] = value;
  }

  /// Calls fn(element) from the front to the back: two plain runs, for hot loops.
  template <typename Fn>
  void forEach(Fn&& fn) const {
    const size_t first_run = count < capacity - head ? count : capacity - head;
    const T* data = ring.get();
    for (const T* element = data + head; element != data + head + first_run; ++element) {
      fn(*element);
    }
    for (const T* element = data; element != data + (count - first_run); ++element) fn(*element);
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

 private:
  void grow() {
    const size_t larger = capacity == 0 ? 64 : 2 * capacity;
    std::unique_ptr<T[]> bigger(new T[larger]);
    for (size_t i = 0; i < count; ++i) bigger[i] = (*this)[i];
    ring = std::move(bigger);
    capacity = larger;
    head = 0;
    mask = larger - 1;
  }

  std::unique_ptr<T[]> ring;
  size_t capacity = 0;
  size_t head = 0;
  size_t count = 0;
  size_t mask = 0;
};

}  // namespace zeptick::detail
