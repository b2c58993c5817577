// The channel and device settings of the hardware tagger. A setter stores its
// value and marks the device dirty; the next read of the device uploads it.

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "core/input_delay.h"
#include "core/log.h"
#include "engine/zeptick_impl.h"

namespace zeptick {

namespace {

constexpr const char* kModel20 = "Zeptick 20";
constexpr int kMinBufferSize = 32768;
constexpr int kMaxBufferSize = 536870912;
constexpr int kMaxBlockEvents = 32 * 1024 * 1024;
constexpr int kTestSignalMux = 3;

template <class T>
std::string joined(const std::vector<T>& items, const std::string& separator) {
  std::string out;
  for (size_t i = 0; i < items.size(); ++i) out += (i == 0 ? "" : separator) + items[i];
  return out;
}

}  // namespace

// ---- Helpers. REQUIRES: configMutex held. ----

void ZeptickImpl::markDirty(int channel) {
  auto route = routes.find(channel);
  if (route != routes.end()) {
    route->second.first->dirty = true;
    return;
  }
  for (auto& device : devices) device->dirty = true;
}

CHANNEL_CONFIG* ZeptickImpl::findConfig(int channel) {
  auto found = configs.find(channel);
  return found == configs.end() ? nullptr : &found->second;
}

// The usual start of a channel operation: the channel's config, or a warning and null.
CHANNEL_CONFIG* ZeptickImpl::configOrWarn(int channel, const char* unknown_message) {
  CHANNEL_CONFIG* config = findConfig(channel);
  if (config == nullptr) ZT_LOG_WARNING("%s", unknown_message);
  return config;
}

// Both edges of an input share its trigger level, multiplexer and test signal,
// which the rising channel holds.
CHANNEL_CONFIG* ZeptickImpl::findRising(int& channel, const char* unknown_message) {
  CHANNEL_CONFIG* config = findConfig(channel);
  if (config == nullptr || !config->risingEdge) {
    channel = config == nullptr ? CHANNEL_UNUSED : config->invertedChannel;
    config = findConfig(channel);
  }
  if (config == nullptr || !config->risingEdge) {
    ZT_LOG_WARNING("%s", unknown_message);
    return nullptr;
  }
  return config;
}

FPGA_DEVICE* ZeptickImpl::deviceOf(int channel) {
  auto route = routes.find(channel);
  return route == routes.end() ? nullptr : route->second.first;
}

void ZeptickImpl::storeTriggerLevel(int channel, CHANNEL_CONFIG& config, double voltage) {
  const FPGA_DEVICE* device = deviceOf(channel);
  const double code = std::clamp(
      (voltage - device->dacMin) * 65535.0 / (device->dacMax - device->dacMin), 0.0, 65535.0);
  config.triggerDac = static_cast<int32_t>(std::lround(code));
}

void ZeptickImpl::computeDelays(FPGA_DEVICE& device) {
  for (int index = 0; index < device.channelCount; ++index) {
    const auto slot = static_cast<size_t>(index);
    const CHANNEL_CONFIG* config = findConfig(device.channels[slot]);
    device.delays[slot] = config == nullptr
                              ? 0
                              : effectiveInputDelay(config->inputDelay, device.hardwareDelays[slot],
                                                    compensationEnabled, minInputDelay);
  }
}

// ---- Device-wide settings. ----

void ZeptickImpl::setTestSignalDivider(int divider) {
  detail::MutexLock guard(configMutex);
  testSignalDivider = divider;
  markDirty(CHANNEL_UNUSED);
}

int ZeptickImpl::getTestSignalDivider() {
  detail::MutexLock guard(configMutex);
  return testSignalDivider;
}

void ZeptickImpl::setNormalization(bool enabled) {
  // With every decoder held, no block mixes dithered and plain times.
  std::vector<std::unique_lock<std::mutex>> decoders;
  for (auto& device : devices) decoders.emplace_back(device->decoderMutex);
  detail::MutexLock guard(configMutex);
  normalization = enabled;
}

bool ZeptickImpl::getNormalization() {
  detail::MutexLock guard(configMutex);
  return normalization;
}

void ZeptickImpl::setHardwareBufferSize(int size) {
  if (getModel() == kModel20) {
    ZT_LOG_WARNING("Zeptick 20 does not support variable hardware buffer sizes.");
    return;
  }
  detail::MutexLock guard(configMutex);
  hardwareBufferSize = std::clamp(size, kMinBufferSize, kMaxBufferSize);
  markDirty(CHANNEL_UNUSED);
}

int ZeptickImpl::getHardwareBufferSize() {
  detail::MutexLock guard(configMutex);
  return hardwareBufferSize;
}

void ZeptickImpl::setStreamBlockSize(int max_events, int max_latency) {
  if (max_latency < 1 || max_latency > 10000) {
    throw std::invalid_argument("max_latency must be between 1 millisecond and 10 seconds");
  }
  detail::MutexLock guard(configMutex);
  if (max_events < transferBytes / 4 || max_events > kMaxBlockEvents) {
    throw std::invalid_argument("max_events must be between 256 and 32*10^6 events");
  }
  // The block rule is the host's alone: nothing to upload.
  maxEvents = max_events;
  maxLatency = max_latency;
}

int ZeptickImpl::getStreamBlockSizeEvents() {
  detail::MutexLock guard(configMutex);
  return maxEvents;
}

int ZeptickImpl::getStreamBlockSizeLatency() {
  detail::MutexLock guard(configMutex);
  return maxLatency;
}

void ZeptickImpl::setLED(uint32_t bitmask) {
  detail::MutexLock guard(configMutex);
  ledBits = bitmask;
  markDirty(CHANNEL_UNUSED);
}

// ---- Per-channel settings. ----

void ZeptickImpl::setTriggerLevel(int channel, double voltage) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config =
      findRising(channel, "Tried to configure the trigger level for an unknown channel");
  if (config == nullptr) return;
  storeTriggerLevel(channel, *config, voltage);
  markDirty(channel);
}

double ZeptickImpl::getTriggerLevel(int channel) {
  detail::MutexLock guard(configMutex);
  const CHANNEL_CONFIG* config =
      findRising(channel, "Tried to fetch the trigger level for an unknown channel");
  if (config == nullptr) return 0;
  const FPGA_DEVICE* device = deviceOf(channel);
  return config->triggerDac * (device->dacMax - device->dacMin) / 65535 + device->dacMin;
}

int64_t ZeptickImpl::getHardwareDelayCompensation(int channel) {
  detail::MutexLock guard(configMutex);
  auto route = routes.find(channel);
  if (route == routes.end()) {
    ZT_LOG_WARNING("Tried to get the hardware delay compensation of an unknown channel");
    return 0;
  }
  if (!compensationEnabled) return 0;
  return route->second.first->hardwareDelays[static_cast<size_t>(route->second.second)];
}

void ZeptickImpl::setInputMux(int channel, int mux_mode) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config =
      findRising(channel, "Tried to set the input multiplexer of an unknown channel");
  if (config == nullptr) return;
  config->inputMux = mux_mode;
  markDirty(channel);
}

int ZeptickImpl::getInputMux(int channel) {
  detail::MutexLock guard(configMutex);
  const CHANNEL_CONFIG* config =
      findRising(channel, "Tried to get the input multiplexer of an unknown channel");
  return config == nullptr ? 0 : config->inputMux;
}

void ZeptickImpl::setTestSignal(int channel, bool enabled) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config =
      findRising(channel, "Tried to set the test signal of an unknown channel");
  if (config == nullptr) return;
  config->inputMux = enabled ? kTestSignalMux : 0;
  markDirty(channel);
}

void ZeptickImpl::setTestSignal(std::vector<int> channels, bool enabled) {
  for (int channel : channels) setTestSignal(channel, enabled);
}

bool ZeptickImpl::getTestSignal(int channel) {
  detail::MutexLock guard(configMutex);
  const CHANNEL_CONFIG* config =
      findRising(channel, "Tried to query the test signal of an unknown channel");
  return config != nullptr && config->inputMux == kTestSignalMux;
}

void ZeptickImpl::setEventDivider(int channel, uint32_t divider) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config =
      configOrWarn(channel, "Tried to configure the event divider for an unknown channel");
  if (config == nullptr) return;
  config->eventDivider = static_cast<uint16_t>(std::min<uint32_t>(divider, 65535));
  markDirty(channel);
}

uint32_t ZeptickImpl::getEventDivider(int channel) {
  detail::MutexLock guard(configMutex);
  const CHANNEL_CONFIG* config =
      configOrWarn(channel, "Tried to query the event divider for an unknown channel");
  if (config == nullptr) return 0;
  return config->eventDivider;
}

void ZeptickImpl::setInputDelay(int channel, int64_t delay) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config =
      configOrWarn(channel, "Tried to set the input delay of an unknown channel");
  if (config == nullptr) return;
  config->inputDelay = detail::clampInputDelay(delay);
  markDirty(channel);
  int64_t smallest = 0;
  bool first = true;
  for (const auto& entry : configs) {
    smallest = first ? entry.second.inputDelay : std::min(smallest, entry.second.inputDelay);
    first = false;
  }
  // Every device's delays move with the smallest one.
  if (smallest != minInputDelay) {
    minInputDelay = smallest;
    markDirty(CHANNEL_UNUSED);
  }
}

int64_t ZeptickImpl::getInputDelay(int channel) {
  detail::MutexLock guard(configMutex);
  const CHANNEL_CONFIG* config =
      configOrWarn(channel, "Tried to get the input delay of an unknown channel");
  if (config == nullptr) return 0;
  return config->inputDelay;
}

int64_t ZeptickImpl::setDeadtime(int channel, int64_t deadtime) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config =
      configOrWarn(channel, "Tried to configure the deadtime for an unknown channel");
  if (config == nullptr) return 0;
  const int64_t ps = deviceOf(channel)->psPerClock;
  // Bounded first, so that rounding cannot overflow on extreme requests.
  const int64_t bounded = std::clamp<int64_t>(deadtime, 0, 65535 * ps);
  const int64_t clocks = std::clamp<int64_t>((bounded + ps / 2) / ps, 1, 65535);
  config->deadtimeClocks = static_cast<uint16_t>(clocks);
  markDirty(channel);
  return clocks * ps;
}

int64_t ZeptickImpl::getDeadtime(int channel) {
  detail::MutexLock guard(configMutex);
  const CHANNEL_CONFIG* config =
      configOrWarn(channel, "Tried to query the deadtime for an unknown channel");
  if (config == nullptr) return 0;
  return config->deadtimeClocks * deviceOf(channel)->psPerClock;
}

// ---- Conditional filter. ----

void ZeptickImpl::setConditionalFilter(std::vector<int> trigger, std::vector<int> filtered,
                                       bool hardwareDelayCompensation) {
  detail::MutexLock guard(configMutex);
  std::map<FPGA_DEVICE*, std::pair<int, int>> per_device;
  auto count = [&per_device](const std::map<int32_t, Route>& known,
                             const std::vector<int>& channels, bool is_trigger) {
    for (int channel : channels) {
      if (channel == CHANNEL_UNUSED) continue;
      auto route = known.find(channel);
      if (route == known.end()) {
        throw std::invalid_argument(
            "Tried to configure the conditional filter for the unknown channel " +
            std::to_string(channel));
      }
      auto& counters = per_device[route->second.first];
      ++(is_trigger ? counters.first : counters.second);
    }
  };
  count(routes, trigger, true);
  count(routes, filtered, false);
  // Visit devices in chain order so that the message names the first one.
  for (const auto& device : devices) {
    auto found = per_device.find(device.get());
    if (found == per_device.end()) continue;
    if (found->second.first == 0 || found->second.second == 0) {
      std::string message = "The conditional filter on device " + device->serial +
                            " requires at least one trigger and at least one filtered channel.";
      if (devices.size() > 1) {
        message +=
            " The conditional filter is applied per hardware unit, not for the "
            "synchronized Zeptick.";
      }
      throw std::invalid_argument(message);
    }
  }
  for (auto& [channel, config] : configs) {
    config.conditionalTrigger = std::find(trigger.begin(), trigger.end(), channel) != trigger.end();
    config.conditionalFiltered =
        std::find(filtered.begin(), filtered.end(), channel) != filtered.end();
  }
  compensationEnabled = hardwareDelayCompensation;
  markDirty(CHANNEL_UNUSED);
}

void ZeptickImpl::clearConditionalFilter() { setConditionalFilter({}, {}, true); }

std::vector<int> ZeptickImpl::getConditionalFilterTrigger() {
  detail::MutexLock guard(configMutex);
  std::vector<int> out;
  for (const auto& [channel, config] : configs) {
    if (config.conditionalTrigger) out.push_back(channel);
  }
  return out;
}

std::vector<int> ZeptickImpl::getConditionalFilterFiltered() {
  detail::MutexLock guard(configMutex);
  std::vector<int> out;
  for (const auto& [channel, config] : configs) {
    if (config.conditionalFiltered) out.push_back(channel);
  }
  return out;
}

// ---- Channel numbers and registration. ----

int ZeptickImpl::getInvertedChannel(int channel) {
  detail::MutexLock guard(configMutex);
  const CHANNEL_CONFIG* config = findConfig(channel);
  return config == nullptr ? CHANNEL_UNUSED : config->invertedChannel;
}

bool ZeptickImpl::isUnusedChannel(int channel) {
  if (channel == CHANNEL_UNUSED) return true;
  detail::MutexLock guard(configMutex);
  return channelNumberScheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO && channel == -1;
}

int ZeptickImpl::getChannelNumberScheme() {
  detail::MutexLock guard(configMutex);
  return channelNumberScheme;
}

std::vector<int> ZeptickImpl::getChannelList(int type) {
  detail::MutexLock guard(configMutex);
  std::vector<int> all;
  for (const auto& entry : configs) all.push_back(entry.first);
  const size_t n = all.size();
  const bool zero = channelNumberScheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO;
  if (type == ZT_CHANNEL_ALL) return all;
  if (type == ZT_CHANNEL_RISING) {
    return zero ? std::vector<int>(all.begin(), all.begin() + static_cast<long>(n / 2))
                : std::vector<int>(all.begin() + static_cast<long>(n / 2), all.end());
  }
  if (type == ZT_CHANNEL_FALLING) {
    if (zero) return std::vector<int>(all.begin() + static_cast<long>(n / 2), all.end());
    return std::vector<int>(all.rend() - static_cast<long>(n / 2), all.rend());
  }
  return {};
}

void ZeptickImpl::registerChannel(int channel) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config = findConfig(channel);
  if (config == nullptr) {
    if (channel < 1 || channel >= nextVirtualChannel) {
      ZT_LOG_WARNING("Tried to register an unknown channel");
    }
    return;
  }
  if (++config->registrations == 1) markDirty(channel);
}

void ZeptickImpl::unregisterChannel(int channel) {
  detail::MutexLock guard(configMutex);
  CHANNEL_CONFIG* config = findConfig(channel);
  if (config == nullptr) {
    if (channel < 1 || channel >= nextVirtualChannel) {
      ZT_LOG_WARNING("Tried to unregister an unknown channel");
    }
    return;
  }
  if (--config->registrations == 0) markDirty(channel);
}

int ZeptickImpl::getNewVirtualChannel() {
  detail::MutexLock guard(configMutex);
  return nextVirtualChannel++;
}

// ---- Overflows. ----

int64_t ZeptickImpl::getOverflows() {
  int64_t sum = 0;
  for (auto& device : devices) {
    std::lock_guard<std::mutex> decoder(device->decoderMutex);
    sum += device->decoder.overflows();
  }
  return sum;
}

void ZeptickImpl::clearOverflows() {
  for (auto& device : devices) {
    std::lock_guard<std::mutex> decoder(device->decoderMutex);
    device->decoder.clearOverflows();
  }
}

int64_t ZeptickImpl::getOverflowsAndClear() {
  int64_t sum = 0;
  for (auto& device : devices) {
    std::lock_guard<std::mutex> decoder(device->decoderMutex);
    sum += device->decoder.takeOverflows();
  }
  return sum;
}

// ---- Identity and device access. ----

std::string ZeptickImpl::getSerial() {
  std::vector<std::string> serials;
  for (const auto& device : devices) serials.push_back(device->serial);
  return joined(serials, ", ");
}

std::string ZeptickImpl::getModel() {
  return devices.empty() ? std::string() : devices.front()->model;
}

std::vector<double> ZeptickImpl::getDACRange() {
  if (devices.empty()) return {0.0, 0.0};
  return {devices.front()->dacMin, devices.front()->dacMax};
}

int64_t ZeptickImpl::getPsPerClock() { return devices.empty() ? 0 : devices.front()->psPerClock; }

std::string ZeptickImpl::pcbVersionText(const FPGA_DEVICE& device) const {
  static const std::vector<std::string> kVersions20 = {"2.0", "2.2", "2.3"};
  static const std::vector<std::string> kVersionsUltra = {"1.0", "1.1", "1.2",
                                                          "1.3", "1.4", "1.4b"};
  const std::vector<std::string>* versions = nullptr;
  if (device.model == kModel20) versions = &kVersions20;
  if (device.model == "Zeptick Ultra") versions = &kVersionsUltra;
  if (versions == nullptr) throw std::runtime_error("Unknown device.");
  if (device.pcbVersion < 0 || device.pcbVersion >= static_cast<int>(versions->size())) {
    throw std::runtime_error("Unknown pcb version.");
  }
  return (*versions)[static_cast<size_t>(device.pcbVersion)];
}

std::string ZeptickImpl::getPcbVersion() {
  std::string out;
  for (const auto& device : devices) out += pcbVersionText(*device);
  return out;
}

std::string ZeptickImpl::getFirmwareVersion() {
  std::vector<std::string> versions;
  for (const auto& device : devices) versions.push_back(device->firmware);
  return joined(versions, ", ");
}

std::string ZeptickImpl::getSensorData() {
  std::string out;
  for (auto& device : devices) {
    std::lock_guard<std::mutex> gate(device->priorityGate);
    std::lock_guard<std::mutex> usb(device->usbMutex);
    out += device->backend->getSensorReport();
  }
  return out;
}

uint32_t ZeptickImpl::factoryAccess(uint32_t pin, uint32_t address, uint32_t data, uint32_t mask) {
  if (pin != kFactoryPin || devices.size() != 1) return 0;
  FPGA_DEVICE& device = *devices.front();
  std::lock_guard<std::mutex> gate(device.priorityGate);
  std::lock_guard<std::mutex> usb(device.usbMutex);
  if (address < 32) {
    const auto wire = static_cast<int>(address);
    if (mask != 0) {
      const uint32_t old = device.backend->getWireIn(wire);
      device.backend->setWire(wire, (old & ~mask) | (data & mask));
      device.backend->updateWires();
    }
    return device.backend->getWireIn(wire);
  }
  if (address < 64) return device.backend->getWire(static_cast<int>(address));
  return 0;
}

// ---- Calibration tables. ----

void ZeptickImpl::getDistributionCount(std::function<int64_t*(size_t, size_t)> array_out) {
  fillDistributions(array_out, true);
}

void ZeptickImpl::getDistributionPSecs(std::function<int64_t*(size_t, size_t)> array_out) {
  fillDistributions(array_out, false);
}

void ZeptickImpl::fillDistributions(const std::function<int64_t*(size_t, size_t)>& array_out,
                                    bool counts) {
  size_t width = 0;
  for (const auto& device : devices) width = std::max(width, static_cast<size_t>(device->binCount));
  const std::vector<int> list = getChannelList(ZT_CHANNEL_ALL);
  int64_t* out = array_out(list.size(), width);
  for (size_t row = 0; row < list.size(); ++row) {
    Route route;
    {
      detail::MutexLock guard(configMutex);
      route = routes.at(list[row]);
    }
    FPGA_DEVICE& device = *route.first;
    const auto bins = static_cast<size_t>(device.binCount);
    const size_t first = static_cast<size_t>(route.second) * (bins + 1);
    int64_t* cells = out + row * width;
    std::lock_guard<std::mutex> decoder(device.decoderMutex);
    const std::span<const Distribution> records = device.decoder.distributions();
    for (size_t bin = 0; bin < width; ++bin) {
      // A device with fewer bins reads as empty, or as the whole clock period.
      const size_t at = first + std::min(bin, bins);
      const Distribution record = at < records.size()
                                      ? records[at]
                                      : Distribution{0, static_cast<uint32_t>(device.psPerClock)};
      if (counts) {
        cells[bin] = bin < bins ? record.count : 0;
      } else {
        cells[bin] = bin < bins ? record.psecs : device.psPerClock;
      }
    }
  }
}

}  // namespace zeptick
