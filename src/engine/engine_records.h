#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "device/pipe_backend.h"
#include "zeptick/tag.h"

namespace zeptick {

/// Settings of one user channel, shared by all devices of a group.
struct CHANNEL_CONFIG {
  int32_t triggerDac = 0;       ///< 16-bit DAC code of the trigger level
  int64_t inputDelay = 0;       ///< picoseconds, applied on the host
  int32_t registrations = 0;    ///< measurements using the channel; above 0 the device sends it
  uint16_t deadtimeClocks = 1;  ///< hardware dead time in clock cycles
  uint16_t eventDivider = 0;    ///< 0 and 1 both pass every event
  bool risingEdge = true;       ///< first half of the hardware indices
  int32_t invertedChannel = CHANNEL_UNUSED;  ///< the other edge of the same input
  int32_t inputMux = 0;                      ///< 3 selects the internal test signal
  bool conditionalTrigger = false;           ///< arms the filtered channels of its device
  bool conditionalFiltered = false;          ///< passes one event per arming
};

/// Fine-bin record of the online calibration: events seen in the bin, and the
/// bin's offset from the clock edge. Each channel ends in a guard record whose
/// `psecs` is the clock period, so record bin + 1 is always bin's upper edge.
struct Distribution {
  uint32_t count = 0;
  uint32_t psecs = 0;
};

/// An event held for the conditional filter, before its delay: the filter
/// must see events in arrival order across channels.
struct PreDelayTag {
  Tag tag;
  uint64_t binAndIndex;  ///< fine bin in bits 0-15, hardware index in bits 16-21

  uint16_t bin() const { return static_cast<uint16_t>(binAndIndex & 0xFFFF); }
  int index() const { return static_cast<int>((binAndIndex >> 16) & 0x3F); }
};

/// All state of one device. The locks are taken in the order queue mutex,
/// priority gate, USB mutex (readers), or priority gate, USB mutex (control);
/// reader mutex, decoder mutex, then the tagger's merge mutex (blocks).
struct FPGA_DEVICE {
  int64_t ordinal = 0;  ///< position in the chain, from 0
  std::unique_ptr<device::PipeBackend> backend;

  std::mutex priorityGate;
  std::mutex queueMutex;
  std::mutex usbMutex;
  std::mutex readerMutex;
  std::mutex decoderMutex;

  std::atomic<bool> reading{false};  ///< a worker is inside readDevice
  bool dirty = true;                 ///< the configuration must be uploaded; configuration mutex
  double wordsPerMs = 0;             ///< measured read rate; queue mutex
  bool disconnected = false;         ///< the last read failed or was short; queue mutex
  int32_t deviceFence = 0;           ///< last fence the device confirmed; decoder mutex

  // Decoder and delay stage, all under the decoder mutex.
  std::vector<PreDelayTag> preDelayHeap;
  std::vector<Tag> outputHeap;
  int64_t baseTime = 0;
  int64_t decodedUntil = 0;
  bool overflowActive = false;
  uint64_t filterState = 0;
  std::vector<Distribution> distributions;
  std::vector<int64_t> hardwareDelays;
  std::vector<int32_t> channels;       ///< user channel per hardware index, or CHANNEL_UNUSED
  std::vector<int64_t> delays;         ///< per hardware index; configuration mutex
  std::vector<int64_t> delaySnapshot;  ///< this block's copy of delays
  uint64_t rngState = 1;
  int64_t overflows = 0;

  int32_t binCount = 0;
  int64_t psPerClock = 0;
  int32_t channelCount = 0;

  std::string model;  ///< display name, e.g. "Zeptick Ultra"
  std::string serial;
  std::string firmware;
  std::set<int32_t> availableChannels;
  int32_t pcbVersion = 0;
  double dacMin = 0;
  double dacMax = 0;

  // Alignment to the Synchronizer, used in a group of more than one device.
  int64_t syncBase = 0;
  uint32_t syncAccumulator = 0;
  uint32_t lastSyncCount = 0;
  int64_t lastSyncTime = 0;
  uint8_t syncMask = 0;
  bool syncValid = false;
  bool syncSeen = false;
  bool syncMode = false;
  int32_t syncEpoch = 0;
  uint8_t identifier = 0;
  uint8_t probeId = 0;
  bool isFirst = false;
  int32_t loopSource = 0;
  int32_t channelOffset = 0;
};

}  // namespace zeptick
