#pragma once

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>

#include "zeptick/detail/annotated_mutex.h"
#include "zeptick/ordered_barrier.h"

namespace zeptick {

class IteratorBase;

/// A measurement's link in the tagger's chain. It outlives the measurement
/// until a worker unlinks it, so a worker never touches freed memory.
struct IteratorBaseListNode {
  /// Next link; guarded by the chain of turnstiles, changed only by the worker
  /// standing at this position.
  IteratorBaseListNode* next = nullptr;
  /// Nulled by the measurement's destructor, which holds both mutexes; atomic
  /// because a pending synchronized callback looks it up without them.
  std::atomic<IteratorBase*> iterator{nullptr};
  /// Guards all state of the measurement.
  detail::Mutex measurement_mutex;
  /// Held by a worker from before it reaches measurement_mutex until next()
  /// takes that; keeps blocks in order through the chain.
  std::mutex turnstile_mutex;
  /// Ordered stages of the measurement, grown by parallelize().
  std::list<OrderedBarrier> barriers ZT_GUARDED_BY(measurement_mutex);
  /// Set while a block's failure or capture limit stops the measurement from inside next(),
  /// which lets go of measurement_mutex while earlier blocks finish their ordered stages.
  bool stopping ZT_GUARDED_BY(measurement_mutex) = false;
  /// Signalled when `stopping` falls.
  std::condition_variable stopped;
};

}  // namespace zeptick
