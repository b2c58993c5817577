#pragma once

#include <cstddef>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick::detail {

/// A FIFO of tags in a ring buffer that only ever grows, so that a virtual
/// channel holding part of the stream back allocates nothing in steady state
/// (a deque would allocate and free a chunk every few dozen tags).
class TagQueue {
 public:
  bool empty() const { return count == 0; }
  size_t size() const { return count; }
  const Tag& front() const { return ring[head]; }
  Tag& operator[](size_t i) { return ring[(head + i) & mask]; }

  void pop_front() {
    head = (head + 1) & mask;
    --count;
  }

  void push_back(const Tag& tag) {
    if (count == ring.size()) grow();
    ring[(head + count) & mask] = tag;
    ++count;
  }

  /// Puts `tag` behind every queued tag of earlier or equal time. The queue
  /// must be in time order; new tags usually belong at or near the back.
  void insertSorted(const Tag& tag) {
    push_back(tag);
    size_t i = count - 1;
    for (; i > 0 && tag.time - (*this)[i - 1].time < 0; --i) (*this)[i] = (*this)[i - 1];
    (*this)[i] = tag;
  }

  void clear() {
    head = 0;
    count = 0;
  }

  /// Empties the queue and gives its storage back.
  void release() {
    clear();
    std::vector<Tag>().swap(ring);
    mask = 0;
  }

 private:
  void grow() {
    std::vector<Tag> larger(ring.empty() ? 64 : 2 * ring.size());
    for (size_t i = 0; i < count; ++i) larger[i] = (*this)[i];
    ring.swap(larger);
    head = 0;
    mask = ring.size() - 1;
  }

  std::vector<Tag> ring;
  size_t head = 0;
  size_t count = 0;
  size_t mask = 0;
};

}  // namespace zeptick::detail
