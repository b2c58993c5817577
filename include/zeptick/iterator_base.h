#pragma once

#include <cstdint>
#include <mutex>
#include <set>
#include <vector>

#include "zeptick/detail/annotated_mutex.h"
#include "zeptick/export.h"
#include "zeptick/ordered_barrier.h"
#include "zeptick/tag.h"
#include "zeptick/zeptick_base.h"

namespace zeptick {

struct IteratorBaseListNode;
class SynchronizedMeasurements;
class ZeptickRunner;

/// Base of every measurement and virtual channel. A subclass registers its
/// channels in its constructor, calls finishInitialization() last, calls stop()
/// first in its destructor, and takes getLock() in every accessor. Blocks reach
/// next_impl one at a time, in stream order, with the measurement's lock held.
/// A measurement must not outlive its tagger's registry entry unless the tagger
/// was freed first, in which case it stays stopped and readable.
class ZEPTICK_API IteratorBase {
 public:
  IteratorBase(const IteratorBase&) = delete;
  IteratorBase& operator=(const IteratorBase&) = delete;
  virtual ~IteratorBase();

  /// Starts taking data with no time limit; a running measurement only loses its limit.
  void start();
  /// Takes data for `capture_duration` ps of stream time and then stops by
  /// itself, cutting the last block exactly. With `clear` the data are reset
  /// first; without, the limit counts from the present capture duration.
  void startFor(int64_t capture_duration, bool clear = true);
  /// Stops taking data; collected data stay readable.
  void stop();
  /// Forgets collected data; blocks fetched before the call are not seen.
  void clear();
  bool isRunning();
  /// Stream time in ps this measurement has taken data for since the last clear.
  int64_t getCaptureDuration();

 protected:
  explicit IteratorBase(ZeptickBase* tagger);

  /// Forgets all collected data. Runs with the lock held.
  virtual void clear_impl() {}
  /// The measurement is about to run. Runs with the lock held.
  virtual void on_start() {}
  /// The measurement has just stopped. Runs with the lock held, on any thread.
  virtual void on_stop() {}
  /// Processes one block, tags in [begin_time, end_time) in time order. Runs
  /// with the lock held and must return with it held. Returns true if `tags`
  /// was changed (virtual channels), false if only read.
  virtual bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) = 0;

  void registerChannel(int channel);
  void unregisterChannel(int channel);
  /// Only while the tagger lives, i.e. from a constructor.
  int getNewVirtualChannel();
  /// Starts the measurement unless it was made on a synchronized group's tagger.
  void finishInitialization();
  void lock() ZT_NO_THREAD_SAFETY_ANALYSIS;
  void unlock() ZT_NO_THREAD_SAFETY_ANALYSIS;
  std::unique_lock<std::mutex> getLock();
  /// Ticket for the next ordered stage of this block. REQUIRES: lock held.
  /// Between unlock() and lock() in next_impl nothing may escape: catch every
  /// exception there and re-lock before rethrowing, since next_impl must always
  /// return holding the lock.
  OrderedBarrier::OrderInstance parallelize(OrderedPipeline& pipeline);
  /// The tagger, or null once it has been freed. Stable only under the lock.
  ZeptickBase* getTagger() const { return tagger; }
  /// From next_impl only: the measurement stops for good once this block is
  /// done, exactly as if stop() had been called then; on_stop follows.
  void stopAfterThisBlock() {
    measurement_mutex.assertHeld();
    stop_after_block = true;
  }

 private:
  friend class ZeptickRunner;
  friend class SynchronizedMeasurements;
  friend class ZeptickProxy;

  void clearWithoutLock() ZT_REQUIRES(measurement_mutex);
  void pre_stop() ZT_REQUIRES(measurement_mutex);
  void startLocked() ZT_REQUIRES(measurement_mutex);
  void allocateFence() ZT_REQUIRES(measurement_mutex);
  // `node` is this measurement's node, passed by the worker that found it: the
  // worker may arrive before the constructor has stored iterator_node.
  void next(IteratorBaseListNode* node, std::unique_lock<std::mutex>& lock, std::vector<Tag>& tags,
            int64_t begin_time, int64_t end_time, uint32_t fence);
  void processCutBlock(std::vector<Tag>& tags, int64_t begin_time, int64_t capture_end)
      ZT_REQUIRES(measurement_mutex);

  std::set<int> channels;
  bool autostart = true;
  ZeptickBase* tagger;
  bool running ZT_GUARDED_BY(measurement_mutex) = false;
  int64_t capture_duration ZT_GUARDED_BY(measurement_mutex) = 0;
  int64_t max_capture_duration ZT_GUARDED_BY(measurement_mutex) = -1;
  uint32_t fence ZT_GUARDED_BY(measurement_mutex) = 0;
  bool stop_after_block ZT_GUARDED_BY(measurement_mutex) = false;
  // The group this measurement belongs to, so that it can leave it when destroyed.
  // Written under the group's mutex.
  SynchronizedMeasurements* group = nullptr;
  // Last, so that every member above is set when the tagger learns of this measurement.
  IteratorBaseListNode* iterator_node;
  /// The node's mutex: the measurement's lock, which guards all its state. It lives in the
  /// node, which outlives the measurement, so a worker may still take it after the end.
  detail::Mutex& measurement_mutex;
};

}  // namespace zeptick
