#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "core/zeptick_runner.h"
#include "engine/device_merger.h"
#include "engine/engine_records.h"
#include "zeptick/detail/annotated_mutex.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick {

/// The hardware tagger: reads blocks of device words on the runner's workers,
/// decodes them into time-ordered tags, and holds the channel configuration.
/// Setters only store and mark the device dirty; the next read of the device
/// uploads the change, and the fence sent with it tells which blocks carry it.
///
/// Locks: configMutex guards configs, routes and every scalar setting; it is
/// never held across USB traffic except inside applyConfiguration. Per device
/// see FPGA_DEVICE. Channel maps and the device list change only while the
/// workers are stopped (construction, reset).
class ZeptickImpl final : public ZeptickRunner, public Zeptick {
 public:
  /// `serial`: one serial, several separated by commas, or "" for the first
  /// free device. Opens, starts and calibrates; throws std::runtime_error when
  /// no device can be opened.
  explicit ZeptickImpl(const std::string& serial);
  ~ZeptickImpl() override;

  // Zeptick.
  void reset() override;
  void setTestSignalDivider(int divider) override;
  int getTestSignalDivider() override;
  void setTriggerLevel(int channel, double voltage) override;
  double getTriggerLevel(int channel) override;
  int64_t getHardwareDelayCompensation(int channel) override;
  void setInputMux(int channel, int mux_mode) override;
  int getInputMux(int channel) override;
  void setConditionalFilter(std::vector<int> trigger, std::vector<int> filtered,
                            bool hardwareDelayCompensation = true) override;
  void clearConditionalFilter() override;
  std::vector<int> getConditionalFilterTrigger() override;
  std::vector<int> getConditionalFilterFiltered() override;
  void setNormalization(bool enabled) override;
  bool getNormalization() override;
  void setHardwareBufferSize(int size) override;
  int getHardwareBufferSize() override;
  void setStreamBlockSize(int max_events, int max_latency) override;
  int getStreamBlockSizeEvents() override;
  int getStreamBlockSizeLatency() override;
  void setEventDivider(int channel, uint32_t divider) override;
  uint32_t getEventDivider(int channel) override;
  void autoCalibration(std::function<double*(size_t)> array_out) override;
  std::string getSerial() override;
  std::string getModel() override;
  int getChannelNumberScheme() override;
  std::vector<double> getDACRange() override;
  void getDistributionCount(std::function<int64_t*(size_t, size_t)> array_out) override;
  void getDistributionPSecs(std::function<int64_t*(size_t, size_t)> array_out) override;
  std::vector<int> getChannelList(int type = ZT_CHANNEL_ALL) override;
  int64_t getPsPerClock() override;
  std::string getPcbVersion() override;
  std::string getFirmwareVersion() override;
  std::string getSensorData() override;
  void setLED(uint32_t bitmask) override;
  uint32_t factoryAccess(uint32_t pin, uint32_t address, uint32_t data, uint32_t mask) override;

  // ZeptickBase, the channel part.
  std::string getConfiguration() override;
  int getInvertedChannel(int channel) override;
  bool isUnusedChannel(int channel) override;
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
  int getNewVirtualChannel() override;
  void registerChannel(int channel) override;
  void unregisterChannel(int channel) override;

  /// The service pin that unlocks factoryAccess.
  static constexpr uint32_t kFactoryPin = 0x5A7E1C00;

 protected:
  bool readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock, uint32_t fence,
                     const std::function<void()>& ready) override;

 private:
  using Route = std::pair<FPGA_DEVICE*, int32_t>;
  using DeviceList = std::vector<std::unique_ptr<FPGA_DEVICE>>;

  // Opening and numbering (workers stopped).
  void initDevices();
  /// One per hardware thread, and more than the members of a group.
  unsigned workerCount() const;
  void openDevice(const std::string& serial, DeviceList& list, uint8_t& identifier,
                  uint8_t probe_id);
  void setupChannels(FPGA_DEVICE& device, size_t group_size) ZT_REQUIRES(configMutex);
  // A synchronized group (group_setup.cpp).
  void findGroup(DeviceList& list, uint8_t& identifier, uint8_t probe_id);
  void probeDevices(DeviceList& list);
  void orderChain(DeviceList& list);
  /// Under mergeMutex. True if the block (of time axis `epoch`) belongs to an
  /// older epoch and is dropped.
  bool mergeBlock(Worker& worker, FPGA_DEVICE& device, int32_t epoch);

  // Acquisition (workers).
  bool readDevice(Worker* worker, FPGA_DEVICE& device);
  bool reconnect(Worker* worker, FPGA_DEVICE& device);
  void applyConfiguration(FPGA_DEVICE& device);
  /// Returns the epoch of the group's time axis that the block belongs to.
  int32_t decodeBlock(Worker* worker, FPGA_DEVICE& device, uint32_t fence);

  // Configuration helpers. REQUIRES: configMutex held.
  void markDirty(int channel) ZT_REQUIRES(configMutex);
  CHANNEL_CONFIG* findConfig(int channel) ZT_REQUIRES(configMutex);
  CHANNEL_CONFIG* configOrWarn(int channel, const char* unknown_message) ZT_REQUIRES(configMutex);
  CHANNEL_CONFIG* findRising(int& channel, const char* unknown_message) ZT_REQUIRES(configMutex);
  FPGA_DEVICE* deviceOf(int channel) ZT_REQUIRES(configMutex);
  void storeTriggerLevel(int channel, CHANNEL_CONFIG& config, double voltage)
      ZT_REQUIRES(configMutex);
  void computeDelays(FPGA_DEVICE& device) ZT_REQUIRES(configMutex);

  void calibrateAndClear();
  int64_t getPsPerClockOf(int channel);
  void fillDistributions(const std::function<int64_t*(size_t, size_t)>& array_out, bool counts);
  std::string pcbVersionText(const FPGA_DEVICE& device) const;
  void writeFarewellLeds();

  detail::Mutex configMutex;
  std::map<int32_t, CHANNEL_CONFIG> configs ZT_GUARDED_BY(configMutex);
  std::map<int32_t, Route> routes ZT_GUARDED_BY(configMutex);
  DeviceList devices;

  int32_t channelNumberScheme = ZT_CHANNEL_NUMBER_SCHEME_AUTO;
  bool normalization = true;
  uint32_t ledBits = 0;
  int32_t hardwareBufferSize = 67108864;
  int32_t testSignalDivider = 63;
  int32_t nextVirtualChannel = 0;

  int32_t transferBytes = 1024;
  int32_t maxEvents = 131072;
  int32_t maxLatency = 20;
  uint32_t streamFence = 0;

  int64_t minInputDelay = 0;
  bool compensationEnabled = true;

  std::string requestedSerial;
  /// The group's shared time axis (epoch mutex inside).
  DecoderSyncEpoch syncEpoch;
  /// Taken before a group member's decoder mutex falls: blocks reach the merger in order.
  std::mutex mergeMutex;
  std::unique_ptr<DeviceMerger> merger;  // guarded by mergeMutex
  int32_t mergerEpoch = 0;               // guarded by mergeMutex
};

}  // namespace zeptick
