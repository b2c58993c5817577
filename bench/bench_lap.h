#pragma once

// A stream of blocks played round and round to a measurement that the benchmark feeds itself,
// so the figures hold the measurement's own work and nothing of the runner's.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick::bench {

/// A measurement fed block by block from the benchmark's thread, under its own lock.
template <typename Measurement>
class Driven : public Measurement {
 public:
  template <typename... Args>
  explicit Driven(Args&&... args) : Measurement(std::forward<Args>(args)...) {
    this->stop();
    this->clear();
  }
  void feed(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
    this->lock();
    this->next_impl(tags, begin_time, end_time);
    this->unlock();
  }
};

/// What every measurement must do at least: look at each tag's type and channel (1 and 2).
__attribute__((noinline)) inline int64_t scanTags(const std::vector<Tag>& tags) {
  int64_t first = 0;
  int64_t second = 0;
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::TimeTag) {
      first += tag.channel == 1;
      second += tag.channel == 2;
    }
  }
  return first + 2 * second;
}

/// `count` blocks of `span` ps cut from `tags` (sorted here), played in turn; each new lap goes
/// on later in time, as a stream does.
class Lap {
 public:
  Lap(std::vector<Tag> tags, int64_t span, size_t count) : span(span), blocks(count) {
    std::sort(tags.begin(), tags.end(), [](const Tag& a, const Tag& b) { return a.time < b.time; });
    for (const Tag& tag : tags) {
      const auto block = static_cast<size_t>(tag.time / span);
      if (block < blocks.size()) blocks[block].push_back(tag);
    }
  }
  std::vector<Tag>& tags() { return blocks[block]; }
  int64_t begin() const { return offset + static_cast<int64_t>(block) * span; }
  int64_t end() const { return begin() + span; }
  void advance() {
    if (++block < blocks.size()) return;
    block = 0;
    const int64_t lap = span * static_cast<int64_t>(blocks.size());
    offset += lap;
    for (auto& lap_block : blocks) {
      for (Tag& tag : lap_block) tag.time += lap;
    }
  }

 private:
  int64_t span;
  std::vector<std::vector<Tag>> blocks;
  size_t block = 0;
  int64_t offset = 0;
};

}  // namespace zeptick::bench
