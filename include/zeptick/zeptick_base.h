#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "zeptick/export.h"

namespace zeptick {

class IteratorBase;
struct IteratorBaseListNode;

namespace detail {
struct TaggerDeleter;
}

/// A callback run by runSynchronized on one measurement.
using SynchronizedCallback = std::function<void(IteratorBase*)>;
/// Callbacks keyed by the measurement they run on.
using SynchronizedCallbacks = std::map<IteratorBase*, SynchronizedCallback>;

/// The interface every tagger offers, hardware or replay. Obtain taggers with
/// createZeptick or createZeptickVirtual and give them back with freeZeptick.
/// All operations are thread-safe.
class ZEPTICK_API ZeptickBase {
 public:
  ZeptickBase(const ZeptickBase&) = delete;
  ZeptickBase& operator=(const ZeptickBase&) = delete;

  /// The current fence; with `alloc_fence` a new one is allocated first unless
  /// one is pending. Blocks while 100 fences are outstanding.
  virtual uint32_t getFence(bool alloc_fence = true) = 0;
  /// True once every measurement has seen the first block taken after `fence`
  /// was allocated. `timeout` in ms: negative waits for ever, 0 only polls.
  virtual bool waitForFence(uint32_t fence, int timeout = -1) = 0;
  /// Returns when every tag that had reached the tagger has passed every measurement.
  virtual bool sync() = 0;
  /// The channel of the other edge of the same input.
  virtual int getInvertedChannel(int channel) = 0;
  /// True for CHANNEL_UNUSED, and for -1 under the zero-based numbering scheme.
  virtual bool isUnusedChannel(int channel) = 0;
  /// Runs each callback on a worker, just before the next block reaches its
  /// measurement, so all of them act at the same stream position. With `block`
  /// it waits for them and throws std::runtime_error if any failed; without,
  /// failures are logged. A blocking call waits for ever on a tagger that
  /// delivers no block.
  virtual void runSynchronized(const SynchronizedCallbacks& callbacks, bool block = true) = 0;
  /// JSON text describing the tagger.
  virtual std::string getConfiguration() = 0;
  /// Delay of `channel` in picoseconds, clamped to +-1e17 ps (about 28 hours);
  /// getInputDelay returns the value in force.
  virtual void setInputDelay(int channel, int64_t delay) = 0;
  virtual int64_t getInputDelay(int channel) = 0;
  /// Dead time of `channel` in picoseconds; returns the value in force after rounding.
  /// Values beyond what the instrument can hold are clamped to its range.
  virtual int64_t setDeadtime(int channel, int64_t deadtime) = 0;
  virtual int64_t getDeadtime(int channel) = 0;
  virtual void setTestSignal(std::vector<int> channels, bool enabled) = 0;
  virtual void setTestSignal(int channel, bool enabled) = 0;
  virtual bool getTestSignal(int channel) = 0;
  /// Number of overflow spans and error events since the last clear.
  virtual int64_t getOverflows() = 0;
  virtual void clearOverflows() = 0;
  virtual int64_t getOverflowsAndClear() = 0;

 protected:
  ZeptickBase() = default;
  /// Taggers are destroyed by freeZeptick, never by the caller.
  virtual ~ZeptickBase();
  friend struct detail::TaggerDeleter;

 public:
  /// Used by IteratorBase: enters a new measurement at the tail of the chain.
  virtual IteratorBaseListNode* addIterator(IteratorBase* iterator) = 0;
  /// Used by measurement constructors: a channel number no input uses.
  virtual int getNewVirtualChannel() = 0;
  /// Used by IteratorBase: a measurement wants this channel delivered.
  virtual void registerChannel(int channel) = 0;
  virtual void unregisterChannel(int channel) = 0;
};

}  // namespace zeptick
