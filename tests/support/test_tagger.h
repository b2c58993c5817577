#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "support/inert_input_runner.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::testing {

/// A block as a tagger hands it to the chain.
struct Block {
  std::vector<Tag> tags;
  int64_t begin_time = 0;
  int64_t end_time = 0;
};

/// A tagger for tests: serves blocks pushed by the test, in order, and empty
/// idle blocks when none are queued so that fences and sync() keep moving.
/// A block carries the fence current when it was queued, as data that reached
/// an instrument does, so sync() covers every block pushed before it.
/// Inputs are 1..N with falling edges -1..-N (N is 8 unless a test asks for more);
/// virtual channels start at 1000.
class TestTaggerCore : public InertInputRunner {
 public:
  /// Shifts `blocks` so the first begins where the stream ends, queues them,
  /// and returns them as they will be delivered. Spans must touch.
  std::vector<Block> pushBlocks(std::vector<Block> blocks);
  /// Length of the empty blocks served when the queue is empty; 0 serves none.
  void setIdleSpan(int64_t span_ps);
  /// Blocks queued and not yet claimed by a worker.
  size_t queuedBlocks();
  /// Current registration count of `channel`.
  int registrations(int channel);

  int getInvertedChannel(int channel) override {
    return isInput(channel) ? -channel : CHANNEL_UNUSED;
  }
  std::string getConfiguration() override { return "{\"tagger\": \"test\"}"; }
  int getNewVirtualChannel() override;
  void registerChannel(int channel) override { countRegistration(channel, 1); }
  void unregisterChannel(int channel) override { countRegistration(channel, -1); }

 protected:
  bool readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock, uint32_t fence,
                     const std::function<void()>& ready) override;
  bool isInput(int channel) const {
    return channel != 0 && channel >= -inputs && channel <= inputs;
  }
  /// Adds `step` to the registrations of a known channel; otherwise warns as the real taggers do.
  void countRegistration(int channel, int step);

  std::mutex config_mutex;
  int inputs = 8;

 private:
  std::map<int, int> registration_counts;
  int next_virtual_channel = 1000;
  std::mutex queue_mutex;
  std::condition_variable queue_cv;
  struct Queued {
    Block block;
    uint32_t fence;  // the fence current when the block was queued
  };
  std::deque<Queued> queue;
  int64_t stream_end = 0;
  int64_t idle_span = 1000000;
};

/// Test double of the hardware tagger: streams what the test pushes; settings of the
/// instrument are ignored but for the input multiplexers, nothing reaches a device.
class TestZeptick final : public TestTaggerCore, public Zeptick {
 public:
  /// `workers` 0 starts one per hardware thread.
  explicit TestZeptick(std::string serial = "TEST-1", unsigned workers = 4, int input_count = 8);
  ~TestZeptick() override { stopWorkers(); }

  void reset() override {}
  void setTestSignalDivider(int) override {}
  int getTestSignalDivider() override { return 63; }
  void setTriggerLevel(int, double) override {}
  double getTriggerLevel(int) override { return 0.5; }
  int64_t getHardwareDelayCompensation(int) override { return 0; }
  void setInputMux(int channel, int mux) override;
  int getInputMux(int channel) override;
  void setConditionalFilter(std::vector<int>, std::vector<int>, bool) override {}
  void clearConditionalFilter() override {}
  std::vector<int> getConditionalFilterTrigger() override { return {}; }
  std::vector<int> getConditionalFilterFiltered() override { return {}; }
  void setNormalization(bool) override {}
  bool getNormalization() override { return true; }
  void setHardwareBufferSize(int) override {}
  int getHardwareBufferSize() override { return 67108864; }
  void setStreamBlockSize(int, int) override {}
  int getStreamBlockSizeEvents() override { return 131072; }
  int getStreamBlockSizeLatency() override { return 20; }
  void setEventDivider(int, uint32_t) override {}
  uint32_t getEventDivider(int) override { return 1; }
  void autoCalibration(std::function<double*(size_t)>) override {}
  std::string getSerial() override { return serial; }
  std::string getModel() override { return "Zeptick Ultra"; }
  int getChannelNumberScheme() override { return ZT_CHANNEL_NUMBER_SCHEME_ONE; }
  std::vector<double> getDACRange() override { return {-2.5, 2.5}; }
  void getDistributionCount(std::function<int64_t*(size_t, size_t)>) override {}
  void getDistributionPSecs(std::function<int64_t*(size_t, size_t)>) override {}
  std::vector<int> getChannelList(int type) override;
  int64_t getPsPerClock() override { return 2000; }
  std::string getPcbVersion() override { return "1.4"; }
  std::string getFirmwareVersion() override { return "test"; }
  std::string getSensorData() override { return ""; }
  void setLED(uint32_t) override {}
  uint32_t factoryAccess(uint32_t, uint32_t, uint32_t, uint32_t) override { return 0; }

 private:
  std::string serial;
  std::map<int, int> input_muxes;
};

/// Test double of the replay tagger: streams what the test pushes; it replays no file and
/// ignores the pace.
class TestZeptickVirtual final : public TestTaggerCore, public ZeptickVirtual {
 public:
  explicit TestZeptickVirtual(unsigned workers = 4) { startWorkers(workers); }
  ~TestZeptickVirtual() override { stopWorkers(); }

  uint64_t replay(const std::string&, int64_t, int64_t, bool) override { return 1; }
  void stop() override {}
  bool waitForCompletion(uint64_t, int32_t) override { return queuedBlocks() == 0; }
  void setReplaySpeed(double) override {}
  double getReplaySpeed() override { return -1.0; }
};

}  // namespace zeptick::testing
