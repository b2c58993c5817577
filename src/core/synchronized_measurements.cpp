#include "zeptick/synchronized_measurements.h"

#include <utility>

#include "core/iterator_base_list_node.h"
#include "core/log.h"

namespace zeptick {

ZeptickProxy::ZeptickProxy(ZeptickBase* tagger, SynchronizedMeasurements* group)
    : tagger(tagger), group(group) {}

ZeptickProxy::~ZeptickProxy() = default;

uint32_t ZeptickProxy::getFence(bool alloc_fence) { return tagger->getFence(alloc_fence); }

bool ZeptickProxy::waitForFence(uint32_t fence, int timeout) {
  return tagger->waitForFence(fence, timeout);
}

bool ZeptickProxy::sync() { return tagger->sync(); }

int ZeptickProxy::getInvertedChannel(int channel) { return tagger->getInvertedChannel(channel); }

bool ZeptickProxy::isUnusedChannel(int channel) { return tagger->isUnusedChannel(channel); }

void ZeptickProxy::runSynchronized(const SynchronizedCallbacks& callbacks, bool block) {
  tagger->runSynchronized(callbacks, block);
}

std::string ZeptickProxy::getConfiguration() { return tagger->getConfiguration(); }

void ZeptickProxy::setInputDelay(int channel, int64_t delay) {
  tagger->setInputDelay(channel, delay);
}

int64_t ZeptickProxy::getInputDelay(int channel) { return tagger->getInputDelay(channel); }

int64_t ZeptickProxy::setDeadtime(int channel, int64_t deadtime) {
  return tagger->setDeadtime(channel, deadtime);
}

int64_t ZeptickProxy::getDeadtime(int channel) { return tagger->getDeadtime(channel); }

void ZeptickProxy::setTestSignal(std::vector<int> channels, bool enabled) {
  tagger->setTestSignal(std::move(channels), enabled);
}

void ZeptickProxy::setTestSignal(int channel, bool enabled) {
  tagger->setTestSignal(channel, enabled);
}

bool ZeptickProxy::getTestSignal(int channel) { return tagger->getTestSignal(channel); }

int64_t ZeptickProxy::getOverflows() { return tagger->getOverflows(); }

void ZeptickProxy::clearOverflows() { tagger->clearOverflows(); }

int64_t ZeptickProxy::getOverflowsAndClear() { return tagger->getOverflowsAndClear(); }

IteratorBaseListNode* ZeptickProxy::addIterator(IteratorBase* iterator) {
  IteratorBaseListNode* node = tagger->addIterator(iterator);
  // Called from IteratorBase's constructor, before finishInitialization can
  // read the flag: the measurement waits for the group's start.
  iterator->autostart = false;
  group->registerMeasurement(iterator);
  return node;
}

int ZeptickProxy::getNewVirtualChannel() { return tagger->getNewVirtualChannel(); }

void ZeptickProxy::registerChannel(int channel) { tagger->registerChannel(channel); }

void ZeptickProxy::unregisterChannel(int channel) { tagger->unregisterChannel(channel); }

SynchronizedMeasurements::SynchronizedMeasurements(ZeptickBase* tagger)
    : tagger(tagger), proxy(std::make_unique<ZeptickProxy>(tagger, this)) {}

SynchronizedMeasurements::~SynchronizedMeasurements() {
  std::lock_guard<std::mutex> guard(measurements_mutex);
  for (IteratorBase* measurement : measurements) {
    measurement->group = nullptr;
    // Members made on the proxy carry on with the real tagger, so that they
    // stay usable, and destructible, after the proxy is gone.
    detail::MutexLock member(measurement->measurement_mutex);
    if (measurement->tagger == proxy.get()) measurement->tagger = tagger;
  }
}

void SynchronizedMeasurements::registerMeasurement(IteratorBase* measurement) {
  SynchronizedMeasurements* previous = measurement->group;
  if (previous != nullptr && previous != this) previous->forget(measurement);
  std::lock_guard<std::mutex> guard(measurements_mutex);
  measurements.insert(measurement);
  measurement->group = this;
}

void SynchronizedMeasurements::unregisterMeasurement(IteratorBase* measurement) {
  std::lock_guard<std::mutex> guard(measurements_mutex);
  if (measurements.erase(measurement) == 0) {
    ZT_LOG_WARNING("Unregistering a non-registered measurement");
    return;
  }
  measurement->group = nullptr;
}

void SynchronizedMeasurements::forget(IteratorBase* measurement) {
  std::lock_guard<std::mutex> guard(measurements_mutex);
  measurements.erase(measurement);
  if (measurement->group == this) measurement->group = nullptr;
}

ZeptickBase* SynchronizedMeasurements::getTagger() { return proxy.get(); }

bool SynchronizedMeasurements::isRunning() {
  std::lock_guard<std::mutex> guard(measurements_mutex);
  for (IteratorBase* measurement : measurements) {
    if (measurement->isRunning()) return true;
  }
  return false;
}

void SynchronizedMeasurements::runCallback(const SynchronizedCallback& callback, bool block) {
  SynchronizedCallbacks callbacks;
  {
    std::lock_guard<std::mutex> guard(measurements_mutex);
    for (IteratorBase* measurement : measurements) callbacks.emplace(measurement, callback);
  }
  // An empty batch would wait for a block for nothing, and for ever on an idle tagger.
  if (callbacks.empty()) return;
  tagger->runSynchronized(callbacks, block);
}

void SynchronizedMeasurements::setFence(IteratorBase* measurement, uint32_t fence) {
  // A worker with an earlier block may be inside this measurement right now.
  detail::MutexLock guard(measurement->measurement_mutex);
  measurement->fence = fence;
}

void SynchronizedMeasurements::startWith(const std::function<void(IteratorBase*)>& start_one) {
  // One fence for all: each measurement ignores every block fetched before the
  // call, whichever block its callback happens to run in front of.
  const uint32_t fence = tagger->getFence(true);
  runCallback(
      [fence, &start_one](IteratorBase* measurement) {
        const bool was_running = measurement->isRunning();
        start_one(measurement);
        if (!was_running) setFence(measurement, fence);
      },
      true);
}

void SynchronizedMeasurements::start() {
  startWith([](IteratorBase* measurement) { measurement->start(); });
}

void SynchronizedMeasurements::startFor(int64_t capture_duration, bool clear) {
  startWith([capture_duration, clear](IteratorBase* measurement) {
    measurement->startFor(capture_duration, clear);
  });
}

void SynchronizedMeasurements::stop() {
  runCallback([](IteratorBase* measurement) { measurement->stop(); }, true);
}

void SynchronizedMeasurements::clear() {
  const uint32_t fence = tagger->getFence(true);
  runCallback(
      [fence](IteratorBase* measurement) {
        measurement->clear();
        setFence(measurement, fence);
      },
      true);
}

}  // namespace zeptick
