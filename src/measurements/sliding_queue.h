#pragma once

#include <cstddef>
#include <cstring>
#include <memory>

namespace zeptick::detail {

/// A first-in first-out queue in one contiguous run of memory: pops advance the
/// front, and a push that finds the end of the storage first slides the live
/// elements back to the start, growing only when they fill more than half of
/// it. Unlike std::deque it allocates only when it grows past its largest size
/// so far, and the live elements are one array for the hot loops that scan
/// them. T must be trivially copyable.
template <typename T>
class SlidingQueue {
 public:
  bool empty() const { return head == tail; }
  size_t size() const { return static_cast<size_t>(tail - head); }
  /// REQUIRES: not empty.
  const T& front() const { return *head; }
  /// REQUIRES: not empty.
  void pop_front() { ++head; }
  void push_back(const T& value) {
    if (tail == end) makeRoom();
    *tail++ = value;
  }
  void clear() { head = tail = storage.get(); }
  /// Empties the queue and gives its storage back.
  void release() {
    storage.reset();
    head = tail = end = nullptr;
  }
  /// Calls fn(element) from the front to the back.
  template <typename Fn>
  void forEach(Fn&& fn) const {
    for (const T* element = head; element != tail; ++element) fn(*element);
  }

 private:
  void makeRoom() {
    const size_t live = size();
    const size_t capacity = static_cast<size_t>(end - storage.get());
    if (live > capacity / 2 || capacity == 0) {
      const size_t new_capacity = capacity == 0 ? 32 : capacity * 2;
      std::unique_ptr<T[]> bigger(new T[new_capacity]);
      if (live != 0) std::memcpy(bigger.get(), head, live * sizeof(T));
      storage = std::move(bigger);
      end = storage.get() + new_capacity;
    } else if (live != 0) {
      std::memmove(storage.get(), head, live * sizeof(T));
    }
    head = storage.get();
    tail = head + live;
  }

  std::unique_ptr<T[]> storage;
  T* head = nullptr;
  T* tail = nullptr;
  T* end = nullptr;
};

}  // namespace zeptick::detail
