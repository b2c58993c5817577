#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/inert_input_runner.h"
#include "zeptick/iterator_base.h"
#include "zeptick/tag.h"

namespace zeptick::bench {

/// A tagger that hands out one fixed pattern of tags as fast as the runner
/// claims blocks, up to a budget the benchmark grants. A worker's tag vector is
/// filled only when it does not hold the pattern yet, so steady state copies
/// nothing and the figures show the runner and the measurements alone.
class BenchTagger final : public testing::InertInputRunner {
 public:
  /// `pattern` is shifted per block by `block_span`; its times must lie in [0, block_span).
  BenchTagger(std::vector<Tag> pattern, int64_t block_span, unsigned workers = 0)
      : pattern(std::move(pattern)), block_span(block_span) {
    startWorkers(workers);
  }

  ~BenchTagger() override {
    {
      std::lock_guard<std::mutex> guard(block_mutex);
      closing = true;
    }
    budget_cv.notify_all();
    stopWorkers();
  }

  /// Lets `blocks` more blocks out.
  void grant(uint64_t blocks) {
    {
      std::lock_guard<std::mutex> guard(block_mutex);
      budget += blocks;
    }
    budget_cv.notify_all();
  }

  uint64_t blocksServed() {
    std::lock_guard<std::mutex> guard(block_mutex);
    return served;
  }

  int getInvertedChannel(int channel) override { return -channel; }
  std::string getConfiguration() override { return "{}"; }
  int getNewVirtualChannel() override { return 1000; }
  void registerChannel(int) override {}
  void unregisterChannel(int) override {}

 protected:
  bool readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock, uint32_t fence,
                     const std::function<void()>& /*ready*/) override {
    if (budget == 0) {
      // Waiting on block_mutex itself cannot miss a grant. Afterwards go round
      // the runner's loop, so that the block takes the fence current by then.
      budget_cv.wait(lock, [this] { return budget > 0 || closing; });
      lock.unlock();
      return !closing;
    }
    --budget;
    if (worker->tags.size() != pattern.size()) worker->tags = pattern;
    // Only the span moves: measurements here count, they do not look at absolute times.
    worker->blockBegin = next_begin;
    worker->blockEnd = next_begin + block_span;
    worker->fence = fence;
    next_begin += block_span;
    ++served;
    return true;
  }

 private:
  const std::vector<Tag> pattern;
  const int64_t block_span;
  std::condition_variable budget_cv;
  // Guarded by block_mutex.
  uint64_t budget = 0;
  uint64_t served = 0;
  int64_t next_begin = 0;
  bool closing = false;
};

/// Counts the blocks that reach the end of the chain and wakes a waiter when a
/// target is met; created last, it marks a block as done with every measurement.
class BlockCounter : public IteratorBase {
 public:
  explicit BlockCounter(ZeptickBase* tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~BlockCounter() override { stop(); }

  /// Blocks until `blocks` blocks arrived since the last call.
  void waitFor(uint64_t blocks) {
    std::unique_lock<std::mutex> guard(done_mutex);
    target += blocks;
    done_cv.wait(guard, [this] { return seen >= target; });
  }

 protected:
  bool next_impl(std::vector<Tag>&, int64_t, int64_t) override {
    std::lock_guard<std::mutex> guard(done_mutex);
    if (++seen == target) done_cv.notify_one();
    return false;
  }

 private:
  std::mutex done_mutex;
  std::condition_variable done_cv;
  uint64_t seen = 0;
  uint64_t target = 0;
};

/// A measurement that does nothing: what is left is the runner's cost per block.
class NullMeasurement : public IteratorBase {
 public:
  explicit NullMeasurement(ZeptickBase* tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~NullMeasurement() override { stop(); }

 protected:
  bool next_impl(std::vector<Tag>&, int64_t, int64_t) override { return false; }
};

}  // namespace zeptick::bench
