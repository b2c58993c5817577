// A synchronized group: finding the other members of a device wired to a Synchronizer, checking
// the wiring, and bringing the members into the order of their ring.

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>

#include "core/log.h"
#include "device/device_scan.h"
#include "device/endpoints.h"
#include "device/frontpanel_provider.h"
#include "engine/zeptick_impl.h"

namespace zeptick {

namespace {

constexpr uint32_t kSynchronizerConnected = 1u << 2;
constexpr int kLowestPhase = 6;
constexpr int kHighestPhase = 17;

uint8_t byteOf(uint32_t word, int byte) { return static_cast<uint8_t>(word >> (8 * byte)); }

}  // namespace

void ZeptickImpl::findGroup(DeviceList& list, uint8_t& identifier, uint8_t probe_id) {
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  const uint32_t status = list.front()->backend->getWire(device::kWireOutSyncFlags);
  if ((status & kSynchronizerConnected) == 0) return;  // a device on its own
  const std::string first = list.front()->serial;
  for (const std::string& serial : device::scanDevices(device::activeFrontPanelApi())) {
    if (serial == first) continue;
    try {
      openDevice(serial, list, identifier, probe_id);
    } catch (const std::exception& e) {
      ZT_LOG_ERROR("Probing of device '%s' failed: %s", serial.c_str(), e.what());
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  probeDevices(list);
  orderChain(list);
}

void ZeptickImpl::probeDevices(DeviceList& list) {
  DeviceList kept;
  for (auto& entry : list) {
    FPGA_DEVICE& device = *entry;
    const char* serial = device.serial.c_str();
    const uint32_t status = device.backend->getWire(device::kWireOutSyncFlags);
    if (device.identifier >= 16) {
      ZT_LOG_WARNING(
          "Device '%s' skipped. Probing of more than 16 devices is currently not supported. "
          "Current identifier: %d",
          serial, device.identifier);
      continue;
    }
    if ((status & kSynchronizerConnected) == 0) {
      ZT_LOG_WARNING("Device '%s' CLK IN or SYNC IN is not connected to the Synchronizer.", serial);
      continue;
    }
    const uint32_t loop = device.backend->getWire(device::kWireOutSyncData);
    if (byteOf(loop, 1) != device.probeId) {
      ZT_LOG_WARNING("Device '%s' SYNC IN is not connected to the Synchronizer.", serial);
      continue;
    }
    if (byteOf(loop, 3) != device.probeId) {
      ZT_LOG_WARNING("Device '%s' LOOP IN is not connected to any other Zeptick LOOP OUT.", serial);
      continue;
    }
    const int phase = static_cast<int>((status & 0x7C0) >> 6);
    if (phase < kLowestPhase || phase > kHighestPhase) {
      ZT_LOG_ERROR(
          "Device '%s' has a large phase offset between CLK IN and SYNC IN 1: %d Please use "
          "equal cables for this two links to avoid undefined 2 ns offsets.",
          serial, phase);
    }
    device.isFirst = byteOf(loop, 0) == device.identifier;
    device.loopSource = byteOf(loop, 2);
    kept.push_back(std::move(entry));
  }
  list.swap(kept);
}

void ZeptickImpl::orderChain(DeviceList& list) {
  auto first = std::find_if(list.begin(), list.end(), [](const auto& d) { return d->isFirst; });
  if (first == list.end()) {
    list.clear();
    throw std::runtime_error(
        "No first Zeptick device found. Please connect FDBK OUT of the first Zeptick to FDBK IN "
        "of the Synchronizer.");
  }
  std::rotate(list.begin(), first, first + 1);
  // The first device's LOOP IN shows the last one of the ring.
  const int32_t last = list.front()->loopSource;
  size_t current = 0;
  while (list[current]->identifier != last) {
    const int32_t wanted = list[current]->identifier;
    auto next = std::find_if(list.begin() + static_cast<std::ptrdiff_t>(current) + 1, list.end(),
                             [wanted](const auto& d) { return d->loopSource == wanted; });
    if (next == list.end()) {
      throw std::runtime_error(
          "No valid chain of Zepticks found. Please connect LOOP OUT of the "
          "Zeptick '" +
          list[current]->serial + "' to LOOP IN of the next one.");
    }
    const auto behind = list.begin() + static_cast<std::ptrdiff_t>(current) + 1;
    std::rotate(behind, next, next + 1);
    ++current;
  }
  if (current + 1 < list.size()) {
    throw std::runtime_error("Zeptick '" + list[current + 1]->serial +
                             "' outside of the chain found. Please connect LOOP OUT of every "
                             "Zeptick to LOOP IN of the next one.");
  }
}

bool ZeptickImpl::mergeBlock(Worker& worker, FPGA_DEVICE& device, int32_t block_epoch) {
  int32_t epoch;
  {
    std::lock_guard<std::mutex> guard(syncEpoch.mutex);
    epoch = syncEpoch.syncEpoch;
  }
  if (epoch != mergerEpoch || !merger) {
    // A new time axis: what is queued belongs to the old one. Blocks keep touching: the new
    // merger starts where the old one stopped.
    const int64_t horizon = merger ? merger->horizon() : 0;
    mergerEpoch = epoch;
    merger = std::make_unique<DeviceMerger>(devices.size(), horizon);
  }
  if (block_epoch != epoch) {
    worker.tags.clear();
    return true;
  }
  uint64_t max_events;
  {
    detail::MutexLock guard(configMutex);
    max_events = static_cast<uint64_t>(maxEvents);
  }
  merger->add(worker, static_cast<size_t>(device.ordinal), max_events);
  return false;
}

}  // namespace zeptick
