#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <mutex>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "zeptick/detail/annotated_mutex.h"
#include "zeptick/iterator_base.h"
#include "zeptick/tag.h"
#include "zeptick/zeptick_base.h"

namespace zeptick {

struct IteratorBaseListNode;

/// The engine every tagger shares: worker threads that each carry one block
/// through the chain of measurements. Locks are handed over hand along the
/// chain, so every measurement sees blocks one at a time, in stream order, and
/// all measurements in the same order, however many workers run.
///
/// A tagger derives from ZeptickRunner and from Zeptick or ZeptickVirtual,
/// implements readNextBlock, calls startWorkers() in its constructor and
/// stopWorkers() first in its destructor.
class ZeptickRunner : public virtual ZeptickBase {
 public:
  struct Worker {
    bool streamInvalid = false;  ///< the block's data cannot be trusted (merged groups)
    std::vector<Tag> tags;       // reused from block to block to keep its capacity
    int64_t blockBegin = 0;
    int64_t blockEnd = 0;
    uint32_t fence = 0;
    std::atomic<bool> stop{false};
    ZeptickRunner* runner = nullptr;
    std::thread thread;
  };

  uint32_t getFence(bool alloc_fence = true) override;
  bool waitForFence(uint32_t fence, int timeout = -1) override;
  bool sync() override;
  void runSynchronized(const SynchronizedCallbacks& callbacks, bool block = true) override;
  IteratorBaseListNode* addIterator(IteratorBase* iterator) override;

 protected:
  ZeptickRunner() = default;
  ~ZeptickRunner() override;

  /// Fills worker->tags, blockBegin, blockEnd and fence. `lock` holds
  /// block_mutex on entry; the tagger may move one of its own mutexes into it.
  /// Whatever `lock` holds on return keeps later blocks behind this one.
  /// `ready` tells the runner that the next worker may start claiming.
  /// Returns with `lock` owning: a block is ready (result ignored). Without:
  /// true = no block now, try again; false = wait until another worker is done.
  virtual bool readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock, uint32_t fence,
                             const std::function<void()>& ready) = 0;

  /// Starts `count` workers, one per hardware thread when 0. Returns once all run.
  /// Fences restart from 0 and the chain starts empty.
  void startWorkers(unsigned count = 0);
  /// Joins the workers and orphans every linked measurement: it stops, keeps
  /// its data, and no longer reaches the tagger.
  void stopWorkers();
  /// One pass of a worker: claims one block and carries it through the chain.
  void runAllIterators(Worker* worker);
  /// The current fence, marked as taken the way a claimed block takes it: for
  /// a tagger that stamps data with the fence of its arrival, not of its claim.
  uint32_t takeFence();
  /// Whether a fence was asked for that no block has taken yet.
  bool fencePending();

 private:
  struct CallbacksReturnArguments {
    std::ostringstream error_text;
    bool failed = false;
    bool finished = false;
  };
  using CallbackBatch = std::deque<std::pair<SynchronizedCallbacks, CallbacksReturnArguments*>>;

  void workerLoop(Worker* worker);
  IteratorBaseListNode* linkNextNewNode(IteratorBaseListNode** link);
  static void runCallbacks(const CallbackBatch& batch, IteratorBase* iterator);
  void finishCallbacks(CallbackBatch& batch);
  void finishFence(Worker* worker, std::unique_lock<std::mutex>& lock);
  void orphanChain();
  /// True if the block's tags lie in [blockBegin, blockEnd] in time order.
  static bool tagsInsideTheirSpan(const Worker& worker);

  detail::Mutex idle_mutex;
  std::condition_variable idle_cv;
  std::list<Worker> workers;
  bool workers_stopping ZT_GUARDED_BY(idle_mutex) = true;
  uint64_t wake_generation ZT_GUARDED_BY(idle_mutex) = 0;

  detail::Mutex fence_mutex;
  std::condition_variable fence_cv;
  uint32_t current_fence ZT_GUARDED_BY(fence_mutex) = 0;
  bool fence_pending ZT_GUARDED_BY(fence_mutex) = false;
  uint32_t finished_fence ZT_GUARDED_BY(fence_mutex) = 0;

  detail::Mutex callbacks_mutex;
  std::condition_variable callbacks_cv;
  CallbackBatch callbacks ZT_GUARDED_BY(callbacks_mutex);

  detail::Mutex new_nodes_mutex;
  std::deque<IteratorBaseListNode*> new_nodes ZT_GUARDED_BY(new_nodes_mutex);
  IteratorBaseListNode* first_node = nullptr;

 protected:
  /// Held by a worker while it claims a block; makes claiming sequential.
  std::mutex block_mutex;
  /// End of the last block claimed, -1 before the first; written while claiming.
  int64_t claimed_end = -1;
};

}  // namespace zeptick
