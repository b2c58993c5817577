#include "core/zeptick_runner.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <latch>
#include <stdexcept>

#include "core/iterator_base_list_node.h"
#include "core/log.h"
#include "core/worker_priority.h"

namespace zeptick {

namespace {

// The callbacks of one runSynchronized batch run at one stream position, on one
// worker, but other workers may claim blocks while it walks the chain. A fence
// allocated by one callback is therefore handed to every later callback of the
// batch, so that all of them start on the same block.
struct BatchFence {
  const ZeptickRunner* runner = nullptr;
  bool allocated = false;
  uint32_t fence = 0;
};
thread_local BatchFence* current_batch_fence = nullptr;

}  // namespace

ZeptickRunner::~ZeptickRunner() {
  // A tagger stops its workers in its own destructor, while readNextBlock still
  // exists; this is only the last line against joinable threads.
  if (!workers.empty()) stopWorkers();
}

void ZeptickRunner::startWorkers(unsigned count) {
  {
    detail::MutexLock guard(fence_mutex);
    current_fence = 0;
    finished_fence = 0;
    fence_pending = false;
  }
  first_node = nullptr;
  claimed_end = -1;
  {
    detail::MutexLock guard(idle_mutex);
    workers_stopping = false;
  }
  if (count == 0) count = std::max(1u, std::thread::hardware_concurrency());
  std::latch running(count);
  for (unsigned i = 0; i < count; ++i) {
    Worker& worker = workers.emplace_back();
    worker.runner = this;
    worker.thread = std::thread([this, &worker, &running] {
      raiseWorkerPriority();
      running.count_down();
      workerLoop(&worker);
    });
  }
  running.wait();
}

void ZeptickRunner::workerLoop(Worker* worker) {
  while (!worker->stop.load(std::memory_order_acquire)) runAllIterators(worker);
}

void ZeptickRunner::stopWorkers() {
  {
    detail::MutexLock guard(idle_mutex);
    workers_stopping = true;
    for (Worker& worker : workers) worker.stop.store(true, std::memory_order_release);
  }
  idle_cv.notify_all();
  for (Worker& worker : workers) {
    if (worker.thread.joinable()) worker.thread.join();
  }
  workers.clear();
  orphanChain();

  // Nobody will run what is still queued: release blocking callers rather
  // than leave them waiting on a tagger that is going away.
  detail::MutexLock guard(callbacks_mutex);
  for (auto& entry : callbacks) {
    if (entry.second != nullptr) entry.second->finished = true;
  }
  callbacks.clear();
  callbacks_cv.notify_all();
}

void ZeptickRunner::orphanChain() {
  std::deque<IteratorBaseListNode*> unlinked;
  {
    detail::MutexLock guard(new_nodes_mutex);
    unlinked.swap(new_nodes);
  }
  // An orphan keeps its data, its channel operations no longer reach the
  // tagger, and it frees its own node. A node whose measurement is gone is ours.
  auto orphan = [](IteratorBaseListNode* node) {
    std::unique_lock<std::mutex> guard(node->measurement_mutex.native());
    IteratorBase* iterator = node->iterator.load();
    if (iterator == nullptr) {
      guard.unlock();
      delete node;
      return;
    }
    iterator->measurement_mutex.assertHeld();  // the node's mutex
    iterator->tagger = nullptr;
    if (!iterator->running) return;
    iterator->running = false;
    try {
      iterator->on_stop();
    } catch (const std::exception& e) {
      ZT_LOG_ERROR("Unhandled exception on stopping IteratorBase %p: %s",
                   static_cast<void*>(iterator), e.what());
    } catch (...) {
      ZT_LOG_ERROR("Unhandled exception on stopping IteratorBase %p", static_cast<void*>(iterator));
    }
  };
  while (first_node != nullptr) {
    IteratorBaseListNode* node = first_node;
    first_node = node->next;
    orphan(node);
  }
  for (IteratorBaseListNode* node : unlinked) orphan(node);
}

IteratorBaseListNode* ZeptickRunner::addIterator(IteratorBase* iterator) {
  auto* node = new IteratorBaseListNode();
  node->iterator = iterator;
  detail::MutexLock guard(new_nodes_mutex);
  new_nodes.push_back(node);
  return node;
}

IteratorBaseListNode* ZeptickRunner::linkNextNewNode(IteratorBaseListNode** link) {
  detail::MutexLock guard(new_nodes_mutex);
  if (new_nodes.empty()) return nullptr;
  *link = new_nodes.front();
  new_nodes.pop_front();
  return *link;
}

void ZeptickRunner::runCallbacks(const CallbackBatch& batch, IteratorBase* iterator) {
  if (iterator == nullptr) return;
  for (const auto& [callback_map, result] : batch) {
    auto found = callback_map.find(iterator);
    if (found == callback_map.end()) continue;
    std::string error;
    bool failed = false;
    try {
      found->second(iterator);
    } catch (const std::exception& e) {
      failed = true;
      error = e.what();
    } catch (...) {
      failed = true;
    }
    if (!failed) continue;
    if (result != nullptr) {
      result->error_text << "IteratorBase " << static_cast<void*>(iterator) << ": " << error
                         << "\n";
      result->failed = true;
    } else {
      ZT_LOG_ERROR("Unhandled exception on runSynchronized with IteratorBase %p: %s",
                   static_cast<void*>(iterator), error.c_str());
    }
  }
}

bool ZeptickRunner::tagsInsideTheirSpan(const Worker& worker) {
  if (worker.blockBegin > worker.blockEnd) return false;
  int64_t previous = worker.blockBegin;
  for (const Tag& tag : worker.tags) {
    if (tag.time < previous || tag.time > worker.blockEnd) return false;
    previous = tag.time;
  }
  return true;
}

void ZeptickRunner::runAllIterators(Worker* worker) {
  // Taken before trying for a block: a wake-up given after this point, even before this
  // worker starts waiting, lets it try again instead of idling for a block.
  uint64_t seen_generation;
  {
    detail::MutexLock guard(idle_mutex);
    seen_generation = wake_generation;
  }
  std::unique_lock<std::mutex> lock(block_mutex);
  uint32_t fence;
  {
    detail::MutexLock guard(fence_mutex);
    fence = current_fence;
    // A fence allocated from here on cannot apply to this block.
    fence_pending = false;
  }

  bool next_worker_woken = false;
  auto wake_next_worker = [this, &next_worker_woken] {
    if (next_worker_woken) return;
    {
      detail::MutexLock guard(idle_mutex);
      ++wake_generation;
    }
    idle_cv.notify_one();
    next_worker_woken = true;
  };
  const bool retry = readNextBlock(worker, lock, fence, wake_next_worker);
  if (!lock.owns_lock()) {
    if (retry) {
      std::this_thread::yield();
      return;
    }
    detail::MutexLock idle(idle_mutex);
    idle.wait(idle_cv, [&]() ZT_REQUIRES(idle_mutex) {
      return workers_stopping || wake_generation != seen_generation;
    });
    return;
  }

  // Claiming is sequential while `lock` is held, so the previous claim's end is stable here.
  assert(claimed_end < 0 || worker->blockBegin == claimed_end);
  assert(tagsInsideTheirSpan(*worker));
  claimed_end = worker->blockEnd;

  CallbackBatch batch;
  {
    detail::MutexLock guard(callbacks_mutex);
    batch.swap(callbacks);
  }

  // Hand over hand: the lock on one position falls only once this worker holds
  // the turnstile of the next, so no block can overtake another in the chain.
  BatchFence batch_fence{this};
  IteratorBaseListNode** link = &first_node;
  while (*link != nullptr || linkNextNewNode(link) != nullptr) {
    IteratorBaseListNode* node = *link;
    if (!batch.empty()) {
      current_batch_fence = &batch_fence;
      runCallbacks(batch, node->iterator.load());
      current_batch_fence = nullptr;
    }
    std::unique_lock<std::mutex> turnstile(node->turnstile_mutex);
    IteratorBase* iterator = node->iterator.load();
    if (iterator == nullptr) {
      *link = node->next;
      turnstile.unlock();
      delete node;
      continue;
    }
    lock.unlock();
    lock = std::move(turnstile);
    wake_next_worker();
    iterator->next(node, lock, worker->tags, worker->blockBegin, worker->blockEnd, worker->fence);
    // A virtual channel may have edited the block: what the next measurement sees must still
    // be a block.
    assert(tagsInsideTheirSpan(*worker));
    link = &node->next;
  }

  if (!batch.empty()) finishCallbacks(batch);
  finishFence(worker, lock);
}

void ZeptickRunner::finishCallbacks(CallbackBatch& batch) {
  {
    detail::MutexLock guard(callbacks_mutex);
    for (auto& entry : batch) {
      if (entry.second != nullptr) entry.second->finished = true;
    }
  }
  callbacks_cv.notify_all();
}

void ZeptickRunner::finishFence(Worker* worker, std::unique_lock<std::mutex>& lock) {
  bool changed;
  {
    detail::MutexLock guard(fence_mutex);
    if (lock.owns_lock()) lock.unlock();
    // Taken before the chain's last lock fell, so finished_fence moves in block order.
    changed = finished_fence != worker->fence;
    finished_fence = worker->fence;
  }
  if (changed) fence_cv.notify_all();
}

uint32_t ZeptickRunner::getFence(bool alloc_fence) {
  BatchFence* batch = current_batch_fence;
  if (alloc_fence && batch != nullptr && batch->runner == this) {
    if (!batch->allocated) {
      current_batch_fence = nullptr;
      batch->fence = getFence(true);
      batch->allocated = true;
      current_batch_fence = batch;
    }
    return batch->fence;
  }
  detail::MutexLock guard(fence_mutex);
  if (!alloc_fence || fence_pending) return current_fence;
  // At most 100 fences outstanding, so that the signed distance stays meaningful.
  guard.wait(fence_cv, [this]() ZT_REQUIRES(fence_mutex) {
    return static_cast<int32_t>(finished_fence - current_fence) > -100;
  });
  if (fence_pending) return current_fence;
  ++current_fence;
  fence_pending = true;
  return current_fence;
}

uint32_t ZeptickRunner::takeFence() {
  detail::MutexLock guard(fence_mutex);
  fence_pending = false;
  return current_fence;
}

bool ZeptickRunner::fencePending() {
  detail::MutexLock guard(fence_mutex);
  return fence_pending;
}

bool ZeptickRunner::waitForFence(uint32_t fence, int timeout) {
  detail::MutexLock guard(fence_mutex);
  auto passed = [this, fence]() ZT_REQUIRES(fence_mutex) {
    return static_cast<int32_t>(finished_fence - fence) >= 0;
  };
  if (timeout == 0) return passed();
  if (timeout < 0) {
    guard.wait(fence_cv, passed);
    return true;
  }
  return guard.waitFor(fence_cv, std::chrono::milliseconds(timeout), passed);
}

bool ZeptickRunner::sync() { return waitForFence(getFence(true), -1); }

void ZeptickRunner::runSynchronized(const SynchronizedCallbacks& callback_map, bool block) {
  detail::MutexLock guard(callbacks_mutex);
  if (!block) {
    callbacks.emplace_back(callback_map, nullptr);
    return;
  }
  CallbacksReturnArguments result;
  callbacks.emplace_back(callback_map, &result);
  guard.wait(callbacks_cv, [&result] { return result.finished; });
  if (result.failed) throw std::runtime_error(result.error_text.str());
}

}  // namespace zeptick
