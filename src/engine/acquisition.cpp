// Reading blocks from the devices: which worker reads which device, how long
// a read is, the upload of the configuration, and surviving an unplugged device.

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <thread>
#include <utility>

#include "core/log.h"
#include "device/endpoints.h"
#include "engine/block_rule.h"
#include "engine/zeptick_impl.h"

namespace zeptick {

namespace {

// What a failed read turns into: an error word (code 63, kind 1, tick 0), so
// the stream shows the gap as one error tag.
constexpr NativeTag kErrorWord{0x7F000000};
constexpr auto kReconnectInterval = std::chrono::milliseconds(100);

// The words of the block a worker reads, kept for their capacity: each worker is a thread of
// its own, and reading and decoding one block happen on the same thread.
std::vector<NativeTag>& workerWords() {
  thread_local std::vector<NativeTag> words;
  return words;
}

}  // namespace

bool ZeptickImpl::readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock, uint32_t fence,
                                const std::function<void()>& ready) {
  {
    detail::MutexLock guard(configMutex);
    if (fence != streamFence) {
      streamFence = fence;
      markDirty(CHANNEL_UNUSED);
    }
  }
  // Members of a group in the order of their progress: with the first free one taken always,
  // the later members would fall behind, their buffers would overflow, and the merge, which
  // waits for the last of them, would hold the others' blocks meanwhile.
  // The progress is read once: other workers move it on meanwhile, and a sort whose keys change
  // under it has no consistent order and may run off its range.
  std::array<std::pair<int64_t, FPGA_DEVICE*>, kMaxGroupSize> order{};
  const size_t count = std::min(devices.size(), order.size());
  for (size_t i = 0; i < count; ++i) {
    order[i] = {devices[i]->decodedUntil.load(std::memory_order_relaxed), devices[i].get()};
  }
  if (count > 1) {
    std::sort(order.begin(), order.begin() + static_cast<ptrdiff_t>(count),
              [](const auto& a, const auto& b) { return a.first < b.first; });
  }
  for (size_t i = 0; i < count; ++i) {
    FPGA_DEVICE& device = *order[i].second;
    std::unique_lock<std::mutex> reader(device.readerMutex, std::try_to_lock);
    if (!reader.owns_lock()) continue;
    // Giving up block_mutex here lets the next worker claim another device.
    lock = std::move(reader);
    device.reading.store(true, std::memory_order_release);
    const bool connected = readDevice(worker, device);
    // The decoder lock is taken before the reader lock falls, so two blocks of
    // one device never swap places; another worker may now read while we decode.
    std::unique_lock<std::mutex> decoder(device.decoderMutex);
    device.reading.store(false, std::memory_order_release);
    lock = std::move(decoder);
    ready();
    // A dead device must not hold up a fence.
    if (!connected) device.decoder.setDeviceFence(fence);
    const int32_t epoch = decodeBlock(worker, device, fence);
    if (devices.size() > 1) {
      // The merge lock is taken before the decoder lock falls, so one device's blocks reach the
      // merger in order while its next block is already being decoded.
      std::unique_lock<std::mutex> merge(mergeMutex);
      lock = std::move(merge);
      if (mergeBlock(*worker, device, epoch)) {
        lock.unlock();
        return true;
      }
    }
    return false;
  }
  const bool any_free = std::any_of(devices.begin(), devices.end(), [](const auto& device) {
    return !device->reading.load(std::memory_order_acquire);
  });
  lock.unlock();
  return any_free;
}

bool ZeptickImpl::readDevice(Worker* worker, FPGA_DEVICE& device) {
  std::lock_guard<std::mutex> queue(device.queueMutex);
  // Passing the gate lets a control operation waiting on it overtake us.
  { std::lock_guard<std::mutex> gate(device.priorityGate); }
  std::lock_guard<std::mutex> usb(device.usbMutex);
  if (!device.backend->isConnected() && !reconnect(worker, device)) return false;

  size_t words;
  {
    detail::MutexLock guard(configMutex);
    words = blockWords(transferBytes, maxLatency, maxEvents, device.wordsPerMs);
  }
  applyConfiguration(device);

  workerWords().resize(words);
  const auto bytes = static_cast<int64_t>(words * sizeof(NativeTag));
  const auto start = std::chrono::steady_clock::now();
  const int64_t got =
      device.backend->readBlock(reinterpret_cast<unsigned char*>(workerWords().data()), bytes);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  const double ns =
      static_cast<double>(std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count());
  device.wordsPerMs = static_cast<double>(words) / (std::max(ns, 1.0) / 1000000.0);

  worker->streamInvalid = false;
  if (got < 0 || got > bytes) {
    workerWords().assign(1, kErrorWord);
    device.disconnected = true;
    worker->streamInvalid = true;
  } else if (got != bytes) {
    workerWords().resize(static_cast<size_t>(got) / sizeof(NativeTag));
    device.disconnected = true;
    worker->streamInvalid = true;
  }
  return true;
}

// REQUIRES: the device's queue and USB mutexes held.
bool ZeptickImpl::reconnect(Worker* worker, FPGA_DEVICE& device) {
  bool connected = false;
  try {
    connected = device.backend->openDevice(device.serial, true);
  } catch (const std::exception&) {
    // A board half-way back (firmware, voltages) counts as still away.
    connected = false;
  }
  {
    detail::MutexLock guard(configMutex);
    device.dirty = true;
  }
  if (connected) {
    ZT_LOG_INFO("Zeptick %s reconnected", device.serial.c_str());
    device.disconnected = false;
    return true;
  }
  // One error tag per outage, not one per retry.
  if (!device.disconnected) {
    device.disconnected = true;
    workerWords().assign(1, kErrorWord);
  } else {
    workerWords().clear();
  }
  std::this_thread::sleep_for(kReconnectInterval);
  worker->streamInvalid = true;
  return false;
}

// REQUIRES: the device's USB mutex held (or the workers stopped).
void ZeptickImpl::applyConfiguration(FPGA_DEVICE& device) {
  detail::MutexLock guard(configMutex);
  if (!device.dirty || !device.backend->isConnected()) return;
  device::PipeBackend& backend = *device.backend;
  // A trigger channel must stay enabled while a filtered channel is in use,
  // even unregistered, or the filter would never open.
  const bool any_filtered = std::any_of(configs.begin(), configs.end(), [](const auto& entry) {
    return entry.second.conditionalFiltered && entry.second.registrations > 0;
  });
  constexpr size_t kEntryBytes = 8;
  std::vector<unsigned char> table(static_cast<size_t>(device.channelCount) * kEntryBytes, 0);
  for (int index = 0; index < device.channelCount; ++index) {
    const CHANNEL_CONFIG* config = findConfig(device.channels[static_cast<size_t>(index)]);
    if (config == nullptr) continue;
    unsigned char* entry = table.data() + static_cast<size_t>(index) * kEntryBytes;
    const bool enabled = config->registrations > 0 || (config->conditionalTrigger && any_filtered);
    entry[0] = static_cast<unsigned char>(
        (enabled ? 1 : 0) | (config->conditionalFiltered ? 2 : 0) |
        (config->conditionalTrigger ? 4 : 0) | ((config->inputMux & 3) << 3));
    entry[2] = static_cast<unsigned char>(config->deadtimeClocks & 0xFF);
    entry[3] = static_cast<unsigned char>(config->deadtimeClocks >> 8);
    const uint16_t divider = config->eventDivider == 0 ? 0 : config->eventDivider - 1;
    entry[4] = static_cast<unsigned char>(divider & 0xFF);
    entry[5] = static_cast<unsigned char>(divider >> 8);
    if (config->risingEdge) backend.setDac(index, static_cast<uint32_t>(config->triggerDac));
  }
  computeDelays(device);
  backend.trigger(device::kTriggerConfiguration, 0);
  backend.writePipe(device::kPipeChannelTable, table.data(), static_cast<int64_t>(table.size()));
  backend.setWire(device::kWireBufferSize, static_cast<uint32_t>(hardwareBufferSize));
  backend.setWire(device::kWireConfiguration, static_cast<uint32_t>(hardwareBufferSize / 2));
  backend.setLed(ledBits);
  backend.setTestSignalDivider(testSignalDivider);
  backend.updateWires();
  // The fence goes last: it comes back in the stream only once the device
  // works under everything above.
  backend.setWire(device::kWireFence, streamFence);
  backend.updateWires();
  device.dirty = false;
}

// The one place where device words become tags.
int32_t ZeptickImpl::decodeBlock(Worker* worker, FPGA_DEVICE& device, uint32_t fence) {
  {
    detail::MutexLock guard(configMutex);
    DecoderBlockSettings& settings = device.blockSettings;
    settings.normalization = normalization;
    for (int index = 0; index < device.channelCount; ++index) {
      const auto slot = static_cast<size_t>(index);
      DecoderChannelSettings& channel = settings.channels[slot];
      const CHANNEL_CONFIG* config = findConfig(device.channels[slot]);
      channel.channel = device.channels[slot];
      channel.delay = device.delays[slot];
      channel.conditionalTrigger = config != nullptr && config->conditionalTrigger;
      channel.conditionalFiltered = config != nullptr && config->conditionalFiltered;
    }
  }
  DecodedBlock block(worker->tags);
  block.invalid = worker->streamInvalid;
  device.decoder.decodeBlock(workerWords(), fence, device.blockSettings, block);
  worker->blockBegin = block.begin;
  worker->blockEnd = block.end;
  device.decodedUntil.store(block.end, std::memory_order_relaxed);
  worker->fence = block.fence;
  worker->streamInvalid = block.invalid;
  return block.epoch;
}

}  // namespace zeptick
