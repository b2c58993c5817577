#include "zeptick/iterator_base.h"

#include <stdexcept>
#include <utility>

#include "core/iterator_base_list_node.h"
#include "core/log.h"
#include "zeptick/synchronized_measurements.h"

namespace zeptick {

namespace {
ZeptickBase* checked(ZeptickBase* tagger) {
  if (tagger == nullptr) throw std::invalid_argument("tagger must not be null");
  return tagger;
}
}  // namespace

IteratorBase::IteratorBase(ZeptickBase* tagger)
    : tagger(checked(tagger)),
      iterator_node(tagger->addIterator(this)),
      measurement_mutex(iterator_node->measurement_mutex) {}

IteratorBase::~IteratorBase() {
  // Before any lock of ours: the group takes its own lock and then ours.
  if (group != nullptr) group->forget(this);
  IteratorBaseListNode* node = iterator_node;
  // The turnstile keeps out a worker that has seen this node alive but not yet
  // entered next(); it is released last, because once it falls a worker may
  // unlink and delete the node.
  std::unique_lock<std::mutex> turnstile(node->turnstile_mutex);
  bool orphaned = false;
  {
    detail::MutexLock guard(measurement_mutex);
    if (running) ZT_LOG_ERROR("Iterator still running, please call stop() within the destructor");
    if (tagger != nullptr) {
      for (int channel : channels) tagger->unregisterChannel(channel);
    }
    channels.clear();
    node->iterator = nullptr;
    orphaned = tagger == nullptr;
  }
  turnstile.unlock();
  // An orphan's node is no longer in any chain, so nobody else will free it.
  if (orphaned) delete node;
}

void IteratorBase::start() {
  detail::MutexLock guard(measurement_mutex);
  startLocked();
}

void IteratorBase::finishInitialization() {
  if (!autostart) return;
  start();
}

void IteratorBase::startLocked() {
  max_capture_duration = -1;
  if (!running) {
    allocateFence();
    on_start();
  }
  running = true;
}

void IteratorBase::allocateFence() {
  if (tagger != nullptr) fence = tagger->getFence(true);
}

void IteratorBase::startFor(int64_t duration, bool clear) {
  detail::MutexLock guard(measurement_mutex);
  if (clear) {
    clearWithoutLock();
    max_capture_duration = duration;
    allocateFence();
  } else {
    max_capture_duration = capture_duration + duration;
    // A running measurement only gets its new limit.
    if (tagger != nullptr && running) return;
    allocateFence();
  }
  if (!running) on_start();
  running = true;
}

void IteratorBase::clear() {
  detail::MutexLock guard(measurement_mutex);
  clearWithoutLock();
  allocateFence();
}

void IteratorBase::clearWithoutLock() {
  capture_duration = 0;
  clear_impl();
}

void IteratorBase::stop() {
  // Waiting at the turnstile first lets a worker about to hand over its block go first.
  std::lock_guard<std::mutex> turnstile(iterator_node->turnstile_mutex);
  detail::MutexLock guard(measurement_mutex);
  if (!running) return;
  running = false;
  pre_stop();
  on_stop();
}

void IteratorBase::pre_stop() {
  iterator_node->measurement_mutex.assertHeld();  // the node's mutex is measurement_mutex
  auto& barriers = iterator_node->barriers;
  if (barriers.empty()) return;
  // Snapshot: the list may grow once the lock is released.
  std::vector<OrderedBarrier*> pending;
  for (auto& barrier : barriers) pending.push_back(&barrier);
  measurement_mutex.unlock();
  for (OrderedBarrier* barrier : pending) barrier->waitUntilFinished();
  measurement_mutex.lock();
}

bool IteratorBase::isRunning() {
  detail::MutexLock guard(measurement_mutex);
  return running;
}

int64_t IteratorBase::getCaptureDuration() {
  detail::MutexLock guard(measurement_mutex);
  return capture_duration;
}

void IteratorBase::registerChannel(int channel) {
  if (tagger == nullptr || tagger->isUnusedChannel(channel)) return;
  if (channels.insert(channel).second) tagger->registerChannel(channel);
}

void IteratorBase::unregisterChannel(int channel) {
  if (tagger == nullptr || tagger->isUnusedChannel(channel)) return;
  if (channels.erase(channel) > 0) tagger->unregisterChannel(channel);
}

int IteratorBase::getNewVirtualChannel() { return tagger->getNewVirtualChannel(); }

void IteratorBase::lock() { measurement_mutex.lock(); }

void IteratorBase::unlock() { measurement_mutex.unlock(); }

std::unique_lock<std::mutex> IteratorBase::getLock() {
  return std::unique_lock<std::mutex>(measurement_mutex.native());
}

OrderedBarrier::OrderInstance IteratorBase::parallelize(OrderedPipeline& pipeline) {
  // Called from next_impl, which runs with the lock held.
  iterator_node->measurement_mutex.assertHeld();
  auto& barriers = iterator_node->barriers;
  if (!pipeline.started) {
    pipeline.started = true;
    pipeline.position = barriers.begin();
  }
  if (pipeline.position == barriers.end()) {
    barriers.emplace_back();
    pipeline.position = std::prev(barriers.end());
  }
  OrderedBarrier::OrderInstance instance = pipeline.position->queue();
  ++pipeline.position;
  return instance;
}

namespace {

void logUnhandled(const void* iterator, const char* what) {
  if (what != nullptr) {
    ZT_LOG_ERROR("Unhandled exception on IteratorBase %p: %s", iterator, what);
  } else {
    ZT_LOG_ERROR("Unhandled exception on IteratorBase %p", iterator);
  }
}

void logUnhandledOnStop(const void* iterator, const char* what) {
  if (what != nullptr) {
    ZT_LOG_ERROR("Unhandled exception on stopping IteratorBase %p: %s", iterator, what);
  } else {
    ZT_LOG_ERROR("Unhandled exception on stopping IteratorBase %p", iterator);
  }
}

}  // namespace

void IteratorBase::next(IteratorBaseListNode* node, std::unique_lock<std::mutex>& lock,
                        std::vector<Tag>& tags, int64_t begin_time, int64_t end_time,
                        uint32_t block_fence) {
  // A plain lock, since it is handed on to `lock` below.
  std::unique_lock<std::mutex> guard(node->measurement_mutex.native());
  measurement_mutex.assertHeld();
  node->measurement_mutex.assertHeld();  // the same mutex, named through the node
  // A block behind one that is stopping this measurement waits until that one is through:
  // passing it now would reach the measurements behind first, and there be dropped as older.
  while (node->stopping) node->stopped.wait(guard);
  // Running implies start() has run, so the constructor's stores are visible from here on.
  if (!running) return;
  // Blocks fetched before this measurement's fence was allocated are not ours.
  // The signed difference lets the fence counter wrap.
  if (static_cast<int32_t>(fence - block_fence) > 0) return;
  fence = block_fence;
  bool stop_requested = false;

  try {
    // Compared as remaining time so that huge limits cannot overflow.
    const int64_t remaining = max_capture_duration - capture_duration;
    if (max_capture_duration < 0 || remaining >= end_time - begin_time) {
      // Whole block: hand the turnstile on so the next block may queue here.
      lock.unlock();
      lock = std::move(guard);
      // Counted before the block is processed: a later block may enter while this one waits
      // in an ordered stage, and must see the limit as this one left it.
      capture_duration += end_time - begin_time;
      next_impl(tags, begin_time, end_time);
    } else {
      processCutBlock(tags, begin_time, begin_time + remaining);
      // Stopped below like stop(): ordered stages of earlier blocks finish before on_stop.
      stop_requested = true;
    }
  } catch (const std::exception& e) {
    logUnhandled(this, e.what());
    stop_requested = true;
  } catch (...) {
    logUnhandled(this, nullptr);
    stop_requested = true;
  }

  // A measurement that asked to stop and whose block was not cut short stops now.
  if (std::exchange(stop_after_block, false) && running) stop_requested = true;
  if (stop_requested) {
    running = false;
    node->stopping = true;
    try {
      pre_stop();
      on_stop();
    } catch (const std::exception& e) {
      logUnhandledOnStop(this, e.what());
    } catch (...) {
      logUnhandledOnStop(this, nullptr);
    }
    node->stopping = false;
    node->stopped.notify_all();
  }
}

void IteratorBase::processCutBlock(std::vector<Tag>& tags, int64_t begin_time,
                                   int64_t capture_end) {
  size_t seen = 0;
  while (seen < tags.size() && tags[seen].time < capture_end) ++seen;
  std::vector<Tag> copy(tags.begin(), tags.begin() + static_cast<ptrdiff_t>(seen));
  capture_duration += capture_end - begin_time;
  const bool changed = next_impl(copy, begin_time, capture_end);
  if (changed) {
    // The measurement's edits travel on together with the tags it never saw.
    copy.insert(copy.end(), tags.begin() + static_cast<ptrdiff_t>(seen), tags.end());
    tags.swap(copy);
  }
}

}  // namespace zeptick
