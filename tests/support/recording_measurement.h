#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "test_tagger.h"
#include "zeptick/iterator_base.h"

namespace zeptick::testing {

/// A measurement that keeps a copy of every block it is given, counts its
/// stops and clears, and can run a hook inside next_impl (to stall, throw or
/// edit the block).
class RecordingMeasurement : public IteratorBase {
 public:
  using Hook = std::function<bool(std::vector<Tag>& tags, int64_t begin, int64_t end)>;

  explicit RecordingMeasurement(ZeptickBase* tagger, std::vector<int> channels = {},
                                Hook hook = nullptr)
      : IteratorBase(tagger), hook(std::move(hook)) {
    for (int channel : channels) registerChannel(channel);
    finishInitialization();
  }
  ~RecordingMeasurement() override { stop(); }

  std::vector<Block> blocks() {
    auto guard = getLock();
    return seen;
  }
  int stops() {
    auto guard = getLock();
    return stop_count;
  }
  int clears() {
    auto guard = getLock();
    return clear_count;
  }
  /// Sleeps up to `max_us` microseconds in every block, to shake up timing.
  void setMaxDelay(int max_us) {
    auto guard = getLock();
    max_delay_us = max_us;
  }
  using IteratorBase::getTagger;
  using IteratorBase::registerChannel;
  using IteratorBase::unregisterChannel;

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override {
    bool changed = hook ? hook(tags, begin_time, end_time) : false;
    seen.push_back(Block{tags, begin_time, end_time});
    if (max_delay_us > 0) {
      std::uniform_int_distribution<int> delay(0, max_delay_us);
      std::this_thread::sleep_for(std::chrono::microseconds(delay(rng)));
    }
    return changed;
  }
  void clear_impl() override {
    ++clear_count;
    seen.clear();
  }
  void on_stop() override { ++stop_count; }

 private:
  Hook hook;
  std::vector<Block> seen;
  int stop_count = 0;
  int clear_count = 0;
  int max_delay_us = 0;
  std::minstd_rand rng{12345};
};

/// Random blocks of random length (some empty) with TimeTags on the given
/// channels, non-decreasing times (equal times included) and, now and then,
/// Error, overflow and MissedEvents tags.
inline std::vector<Block> makeRandomBlocks(std::mt19937_64& rng, size_t count,
                                           const std::vector<int>& channels, int64_t begin = 0) {
  std::vector<Block> blocks;
  std::uniform_int_distribution<int64_t> length(0, 200000);
  std::uniform_int_distribution<int> tag_count(0, 40);
  std::uniform_int_distribution<size_t> pick(0, channels.size() - 1);
  std::uniform_int_distribution<int> kind(0, 99);
  int64_t time = begin;
  for (size_t i = 0; i < count; ++i) {
    Block block;
    block.begin_time = time;
    block.end_time = time + length(rng);
    const int n = block.end_time > block.begin_time ? tag_count(rng) : 0;
    std::vector<int64_t> times;
    std::uniform_int_distribution<int64_t> at(block.begin_time, block.end_time - 1);
    for (int k = 0; k < n; ++k) times.push_back(at(rng));
    std::sort(times.begin(), times.end());
    for (int64_t t : times) {
      Tag tag{Tag::Type::TimeTag, 0, 0, channels[pick(rng)], t};
      const int roll = kind(rng);
      if (roll < 2) {
        tag = Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, t};
      } else if (roll < 4) {
        block.tags.push_back(Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, t});
        tag = Tag{Tag::Type::MissedEvents, 0, static_cast<uint16_t>(roll * 50), tag.channel, t};
        block.tags.push_back(tag);
        tag = Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, t};
      }
      block.tags.push_back(tag);
    }
    time = block.end_time;
    blocks.push_back(std::move(block));
  }
  return blocks;
}

}  // namespace zeptick::testing
