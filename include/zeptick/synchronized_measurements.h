#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/iterator_base.h"
#include "zeptick/zeptick_base.h"

namespace zeptick {

class SynchronizedMeasurements;

/// The tagger a group hands out: every operation forwards to the real tagger,
/// except that a measurement created on it joins the group and waits for the
/// group's start instead of starting by itself. Owned by its group.
class ZEPTICK_API ZeptickProxy final : public ZeptickBase {
 public:
  ZeptickProxy(ZeptickBase* tagger, SynchronizedMeasurements* group);
  ~ZeptickProxy() override;

  uint32_t getFence(bool alloc_fence = true) override;
  bool waitForFence(uint32_t fence, int timeout = -1) override;
  bool sync() override;
  int getInvertedChannel(int channel) override;
  bool isUnusedChannel(int channel) override;
  void runSynchronized(const SynchronizedCallbacks& callbacks, bool block = true) override;
  std::string getConfiguration() override;
  void setInputDelay(int channel, int64_t delay) override;
  int64_t getInputDelay(int channel) override;
  int64_t setDeadtime(int channel, int64_t deadtime) override;
  int64_t getDeadtime(int channel) override;
  void setTestSignal(std::vector<int> channels, bool enabled) override;
  void setTestSignal(int channel, bool enabled) override;
  bool getTestSignal(int channel) override;
  int64_t getOverflows() override;
  void clearOverflows() override;
  int64_t getOverflowsAndClear() override;
  IteratorBaseListNode* addIterator(IteratorBase* iterator) override;
  int getNewVirtualChannel() override;
  void registerChannel(int channel) override;
  void unregisterChannel(int channel) override;

 private:
  ZeptickBase* tagger;
  SynchronizedMeasurements* group;
};

/// Starts, stops and clears several measurements at one position of the
/// stream, so that all of them see exactly the same tags. Measurements join by
/// being created on getTagger() or by registerMeasurement(). The group does
/// not own its measurements: one that is destroyed leaves the group by itself.
/// The group must not outlive its tagger; measurements created on getTagger()
/// may outlive the group, and then use the real tagger. A measurement belongs
/// to one group at a time. Thread-safe, but a group and one of its
/// measurements must not be destroyed concurrently.
class ZEPTICK_API SynchronizedMeasurements {
 public:
  explicit SynchronizedMeasurements(ZeptickBase* tagger);
  ~SynchronizedMeasurements();
  SynchronizedMeasurements(const SynchronizedMeasurements&) = delete;
  SynchronizedMeasurements& operator=(const SynchronizedMeasurements&) = delete;

  /// Adds a measurement of the same tagger; registering it twice is harmless.
  void registerMeasurement(IteratorBase* measurement);
  /// Removes a measurement; logs a warning if it was not in the group.
  void unregisterMeasurement(IteratorBase* measurement);
  /// The tagger to create grouped measurements on. Owned by the group.
  ZeptickBase* getTagger();
  /// True if any measurement of the group runs.
  bool isRunning();
  /// Starts every measurement on the same block; running ones only lose their limit.
  /// The four group operations wait for the next block and throw
  /// std::runtime_error if a measurement's operation failed.
  void start();
  /// startFor on every measurement, all beginning on the same block, so all
  /// stop at the same tag.
  void startFor(int64_t capture_duration, bool clear = true);
  /// Stops every measurement between the same two blocks.
  void stop();
  /// Clears every measurement; all resume on the same block.
  void clear();

 protected:
  /// Runs `callback` on every measurement of the group at one stream position.
  void runCallback(const SynchronizedCallback& callback, bool block);

 private:
  friend class IteratorBase;
  friend class ZeptickProxy;

  // Called by a member's destructor, and when a member moves to another group.
  void forget(IteratorBase* measurement);
  void startWith(const std::function<void(IteratorBase*)>& start_one);
  static void setFence(IteratorBase* measurement, uint32_t fence);

  std::set<IteratorBase*> measurements;
  std::mutex measurements_mutex;
  ZeptickBase* tagger;
  std::unique_ptr<ZeptickProxy> proxy;
};

}  // namespace zeptick
