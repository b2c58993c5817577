#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "test_tagger.h"
#include "zeptick/iterator_base.h"

namespace zeptick::testing {

/// A measurement that keeps a copy of every block it is given, counts its stops and clears, and can
/// run a hook inside next_impl (to stall, throw or edit the block).
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

/// Where each block begins and ends: what tells the idle blocks, which carry no tags, apart.
inline std::vector<std::pair<int64_t, int64_t>> spans(const std::vector<Block>& blocks) {
  std::vector<std::pair<int64_t, int64_t>> out;
  for (const Block& block : blocks) out.emplace_back(block.begin_time, block.end_time);
  return out;
}

}  // namespace zeptick::testing
