// Bringing the devices up: opening, defaults by model, and the numbering of
// channels; also construction, reset and the calibration pass.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <random>
#include <stdexcept>
#include <thread>

#include "core/log.h"
#include "device/endpoints.h"
#include "engine/zeptick_impl.h"
#include "zeptick/library.h"

namespace zeptick {

namespace {

constexpr const char* kModel20 = "Zeptick 20";

std::vector<std::string> splitSerials(const std::string& text) {
  std::vector<std::string> out;
  size_t begin = 0;
  while (true) {
    const size_t comma = text.find(',', begin);
    std::string entry = text.substr(begin, comma == std::string::npos ? comma : comma - begin);
    const size_t first = entry.find_first_not_of(" \t");
    const size_t last = entry.find_last_not_of(" \t");
    out.push_back(first == std::string::npos ? "" : entry.substr(first, last - first + 1));
    if (comma == std::string::npos) return out;
    begin = comma + 1;
  }
}

void sleepMilliseconds(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace

ZeptickImpl::ZeptickImpl(const std::string& serial) : requestedSerial(serial) {
  channelNumberScheme = getZeptickChannelNumberScheme();
  initDevices();
  startWorkers(workerCount());
  try {
    calibrateAndClear();
  } catch (...) {
    stopWorkers();
    throw;
  }
}

ZeptickImpl::~ZeptickImpl() {
  {
    detail::MutexLock guard(configMutex);
    ledBits = (ledBits & ~7u) | 0x70000;
    markDirty(CHANNEL_UNUSED);
  }
  stopWorkers();
  writeFarewellLeds();
}

// No worker reads any more, so the last upload is done here: the LEDs show
// that the instrument is no longer in use.
void ZeptickImpl::writeFarewellLeds() {
  for (auto& device : devices) {
    std::lock_guard<std::mutex> queue(device->queueMutex);
    std::lock_guard<std::mutex> usb(device->usbMutex);
    applyConfiguration(*device);
  }
}

void ZeptickImpl::reset() {
  stopWorkers();
  initDevices();
  startWorkers(workerCount());
  calibrateAndClear();
}

void ZeptickImpl::calibrateAndClear() {
  std::vector<double> discarded;
  autoCalibration([&discarded](size_t size) {
    discarded.resize(size);
    return discarded.data();
  });
  clearOverflows();
}

unsigned ZeptickImpl::workerCount() const {
  // A worker reads one device at a time and takes the first free one: with fewer workers than
  // members, the members late in the list would wait while the first ones are read again.
  const unsigned threads = std::max(1u, std::thread::hardware_concurrency());
  return devices.size() > 1 ? std::max(threads, static_cast<unsigned>(devices.size()) + 1)
                            : threads;
}

void ZeptickImpl::initDevices() {
  merger.reset();
  {
    std::lock_guard<std::mutex> guard(syncEpoch.mutex);
    syncEpoch.hostTimeValid = false;
  }
  {
    detail::MutexLock guard(configMutex);
    routes.clear();
    configs.clear();
    devices.clear();
    minInputDelay = 0;
    compensationEnabled = true;
    nextVirtualChannel = 0;
    streamFence = 0;
    transferBytes = 1024;
    maxEvents = 131072;
    maxLatency = 20;
  }
  std::mt19937 random(std::random_device{}());
  const auto probe_id = static_cast<uint8_t>(std::uniform_int_distribution<int>(1, 255)(random));
  uint8_t identifier = 0;
  DeviceList list;
  for (const std::string& serial : splitSerials(requestedSerial)) {
    openDevice(serial, list, identifier, probe_id);
  }
  // One serial of a device wired to a Synchronizer: the rest of its group is found by probing.
  // Several serials name a group in their order, unprobed.
  if (list.size() == 1) findGroup(list, identifier, probe_id);
  if (list.empty()) throw std::runtime_error("No valid Zeptick device found.");
  if (list.size() > 1) {
    for (size_t ordinal = 0; ordinal < list.size(); ++ordinal) {
      list[ordinal]->ordinal = static_cast<int64_t>(ordinal);
      list[ordinal]->channelOffset = static_cast<int32_t>(ordinal + 1) * 100;
      list[ordinal]->syncMode = true;
    }
  }
  detail::MutexLock guard(configMutex);
  for (auto& device : list) setupChannels(*device, list.size());
  devices.swap(list);
  markDirty(CHANNEL_UNUSED);
  nextVirtualChannel = 1000;
  std::string serials;
  for (const auto& device : devices) serials += (serials.empty() ? "" : ", ") + device->serial;
  requestedSerial = serials;
}

void ZeptickImpl::openDevice(const std::string& serial, DeviceList& list, uint8_t& identifier,
                             uint8_t probe_id) {
  auto backend = std::make_unique<device::PipeBackend>(transferBytes);
  backend->openDevice(serial);
  auto device = std::make_unique<FPGA_DEVICE>();
  device->identifier = identifier;
  device->probeId = probe_id;
  // The word the device sends around the ring of a synchronized group.
  const uint32_t probe = identifier | static_cast<uint32_t>(probe_id) << 8 |
                         (identifier < 16 ? (1u << identifier) << 16 : 0u);
  backend->setWire(device::kWireRingProbe, probe);
  backend->updateWires();
  identifier = static_cast<uint8_t>(identifier + 1);

  device->serial = backend->serial();
  device->model = backend->displayName();
  device->firmware = backend->firmwareVersion();
  device->availableChannels = backend->availableChannels();
  device->pcbVersion = static_cast<int32_t>(backend->getWire(device::kWireOutRevision));
  device->binCount = static_cast<int32_t>(backend->getWire(device::kWireOutBinCount));
  device->psPerClock = static_cast<int64_t>(backend->getWire(device::kWireOutPsPerClock));
  const int inputs = static_cast<int>(backend->getWire(device::kWireOutInputs));
  device->channelCount = 2 * inputs;
  device->channels.assign(static_cast<size_t>(device->channelCount), CHANNEL_UNUSED);
  device->backend = std::move(backend);

  const bool model20 = device->model == kModel20;
  detail::MutexLock guard(configMutex);
  if (channelNumberScheme == ZT_CHANNEL_NUMBER_SCHEME_AUTO) {
    channelNumberScheme =
        device->pcbVersion == 0 ? ZT_CHANNEL_NUMBER_SCHEME_ZERO : ZT_CHANNEL_NUMBER_SCHEME_ONE;
  }
  normalization = true;
  ledBits = 0;
  testSignalDivider = model20 ? 74 : 63;
  hardwareBufferSize = model20 ? 8388608 : 67108864;
  device->dacMin = model20 ? 0.0 : -2.5;
  device->dacMax = 2.5;
  list.push_back(std::move(device));
}

// REQUIRES: configMutex held.
void ZeptickImpl::setupChannels(FPGA_DEVICE& device, size_t group_size) {
  if (group_size > 1 && channelNumberScheme != ZT_CHANNEL_NUMBER_SCHEME_ONE) {
    ZT_LOG_ERROR(
        "Only the channel numbering schema ZT_CHANNEL_NUMBER_SCHEME_ONE is supported for "
        "synchronizing Zepticks.");
    channelNumberScheme = ZT_CHANNEL_NUMBER_SCHEME_ONE;
  }
  const int half = device.channelCount / 2;
  int top = 0;
  for (int index : device.availableChannels) {
    if (index >= 0 && index < device.channelCount) top = std::max(top, index % half + 1);
  }
  // Offsets move a group member's numbers away from zero, keeping their sign.
  auto offset = [&device](int number) {
    return number < 0 ? number - device.channelOffset : number + device.channelOffset;
  };
  device.hardwareDelays = hardwareDelayTable(device.model, device.channelCount, group_size > 1);
  device.hardwareDelays.resize(static_cast<size_t>(device.channelCount), 0);
  std::vector<int> numbered;
  for (int index = 0; index < device.channelCount; ++index) {
    const int input = index % half;
    const bool rising = index < half;
    const auto slot = static_cast<size_t>(index);
    if (device.availableChannels.count(index) == 0) {
      device.channels[slot] = CHANNEL_UNUSED;
      continue;
    }
    int number;
    int partner;
    if (channelNumberScheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO) {
      number = rising ? input : top + input;
      partner = rising ? top + input : input;
    } else {
      number = rising ? input + 1 : -1 - input;
      partner = rising ? -1 - input : input + 1;
    }
    number = offset(number);
    CHANNEL_CONFIG config;
    config.risingEdge = rising;
    config.invertedChannel = offset(partner);
    configs[number] = config;
    routes[number] = Route(&device, index);
    device.channels[slot] = number;
    numbered.push_back(number);
  }
  for (int channel : numbered) {
    CHANNEL_CONFIG& config = configs[channel];
    if (config.risingEdge) storeTriggerLevel(channel, config, 0.5);
  }
  device.delays.assign(static_cast<size_t>(device.channelCount), 0);
  device.blockSettings.channels.assign(static_cast<size_t>(device.channelCount), {});
  device.wordsPerMs = 0;
  DecoderDevice facts;
  facts.psPerClock = device.psPerClock;
  facts.binCount = device.binCount;
  facts.channelCount = device.channelCount;
  facts.serial = device.serial;
  facts.syncMode = device.syncMode;
  facts.sync = &syncEpoch;
  device.decoder.setup(facts, streamFence);
}

void ZeptickImpl::autoCalibration(std::function<double*(size_t)> array_out) {
  if (!array_out) throw std::bad_function_call();
  std::vector<int> channels;
  std::map<int, bool> rising;
  {
    detail::MutexLock guard(configMutex);
    for (const auto& [channel, config] : configs) {
      channels.push_back(channel);
      rising[channel] = config.risingEdge;
    }
  }
  std::map<int, bool> test_signal_before;
  for (int channel : channels) {
    registerChannel(channel);
    if (!rising[channel]) continue;
    test_signal_before[channel] = getTestSignal(channel);
    setTestSignal(channel, true);
  }
  sync();
  sleepMilliseconds(500);

  std::vector<int64_t> counts;
  size_t width = 0;
  auto fetchCounts = [&] {
    getDistributionCount([&counts, &width](size_t rows, size_t columns) {
      counts.assign(rows * columns, 0);
      width = columns;
      return counts.data();
    });
  };
  // The test signal's edges sweep the fine bins evenly, so a table learned from them is nearly
  // exact, while the events that follow (photons arrive at random) add counting noise. How far
  // that noise can move a bin edge later depends on how many test edges the pass learned, so
  // the pass counts edges, not time: an instrument's half second gives every input 560 000 to
  // 790 000 of them, but a host that falls behind the stream (or an emulated board on a busy
  // computer) sees far fewer in that time, and a user's timing must not depend on it. The pass
  // therefore goes on, for at most ten seconds more, until every counting input has that many;
  // an input without a single event is not waited for.
  constexpr int64_t kEnoughEvents = 500000;
  fetchCounts();
  for (int waited = 0; waited < 10000; waited += 50) {
    bool enough = true;
    for (size_t row = 0; width > 0 && row < counts.size() / width; ++row) {
      int64_t sum = 0;
      for (size_t j = 0; j < width; ++j) sum += counts[row * width + j];
      enough &= sum == 0 || sum >= kEnoughEvents;
    }
    if (enough) break;
    sleepMilliseconds(50);
    fetchCounts();
  }
  const std::vector<int> list = getChannelList(ZT_CHANNEL_ALL);
  double* out = array_out(list.size());
  for (size_t row = 0; row < list.size(); ++row) {
    int64_t sum = 0;
    int64_t cubes = 0;
    for (size_t j = 0; j < width; ++j) {
      const int64_t x = counts[row * width + j];
      sum += x;
      cubes += x * x * x;
    }
    if (width == 0 || sum == 0) {
      out[row] = -1.0;
      continue;
    }
    // RMS quantisation error: a bin holding x of S events is psPerClock * x / S
    // wide, and a uniform error over width w has variance w * w / 12.
    const double ps = static_cast<double>(getPsPerClockOf(list[row]));
    out[row] = ps * (std::sqrt(static_cast<double>(cubes) / (static_cast<double>(sum) * 12.0)) /
                     static_cast<double>(sum));
  }

  for (int channel : channels) {
    unregisterChannel(channel);
    if (rising[channel]) setTestSignal(channel, test_signal_before[channel]);
  }
  sync();
}

int64_t ZeptickImpl::getPsPerClockOf(int channel) {
  detail::MutexLock guard(configMutex);
  FPGA_DEVICE* device = deviceOf(channel);
  return device != nullptr ? device->psPerClock : 0;
}

}  // namespace zeptick
