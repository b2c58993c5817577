#pragma once

#include <condition_variable>
#include <cstdint>
#include <list>
#include <mutex>

#include "zeptick/export.h"

namespace zeptick {

/// A ticket lock that lets a measurement drop its lock for heavy per-block work
/// and still run one stage strictly in block order. Tickets are drawn with the
/// measurement's lock held (IteratorBase::parallelize), so ticket order is block order.
class ZEPTICK_API OrderedBarrier {
 public:
  /// One block's ticket. Copies share the ticket, so use only one of them.
  class ZEPTICK_API OrderInstance {
   public:
    OrderInstance() = default;
    OrderInstance(OrderedBarrier* barrier, uint64_t ticket);
    OrderInstance(const OrderInstance&) = default;
    OrderInstance& operator=(const OrderInstance&) = default;
    /// Releases the turn if this instance still holds it, so an exception
    /// between sync() and release() cannot block the stages behind it.
    ~OrderInstance();

    /// Waits until every earlier ticket was released; returns holding the turn.
    void sync();
    /// Hands the turn to the next ticket. Only after sync(), on the same thread.
    void release();

   private:
    OrderedBarrier* barrier = nullptr;
    bool owns_turn = false;
    uint64_t ticket = 0;
  };

  OrderedBarrier() = default;
  OrderedBarrier(const OrderedBarrier&) = delete;
  OrderedBarrier& operator=(const OrderedBarrier&) = delete;

  /// Draws the next ticket. REQUIRES: the owning measurement's lock held.
  OrderInstance queue();
  /// Blocks until every ticket handed out has been released.
  void waitUntilFinished();

 private:
  void obtain(uint64_t ticket);
  void release(uint64_t ticket);

  uint64_t next_ticket = 0;  // guarded by the measurement's lock
  uint64_t serving = 0;      // guarded by mutex
  std::mutex mutex;
  std::condition_variable condition;
};

/// Cursor over a measurement's ordered stages, local to one next_impl call:
/// the n-th parallelize() of every block lands on the same barrier.
class ZEPTICK_API OrderedPipeline {
 public:
  OrderedPipeline() = default;
  OrderedPipeline(const OrderedPipeline&) = default;
  OrderedPipeline& operator=(const OrderedPipeline&) = default;
  ~OrderedPipeline() = default;

 private:
  friend class IteratorBase;
  bool started = false;
  std::list<OrderedBarrier>::iterator position;
};

}  // namespace zeptick
