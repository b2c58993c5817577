#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "device/pipe_backend.h"
#include "engine/native_decoder.h"
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

/// The most devices one synchronized group can hold: the ring word carries one bit per member.
inline constexpr size_t kMaxGroupSize = 16;

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
  /// Where this device's last decoded block ended: a worker reads the free member of a group
  /// furthest behind, since the merge can release nothing past it.
  std::atomic<int64_t> decodedUntil{std::numeric_limits<int64_t>::min()};
  bool dirty = true;          ///< the configuration must be uploaded; configuration mutex
  double wordsPerMs = 0;      ///< measured read rate; queue mutex
  bool disconnected = false;  ///< the last read failed or was short; queue mutex

  /// Widening, calibration, delays and filter of this device's words; its
  /// state (time base, heaps, bin counts, overflows, fence) lives there.
  /// Decoder mutex.
  NativeDecoder decoder;
  /// Reused from block to block; filled under the configuration mutex.
  DecoderBlockSettings blockSettings;

  std::vector<int64_t> hardwareDelays;  ///< fixed compensation per hardware index
  std::vector<int32_t> channels;        ///< user channel per hardware index, or CHANNEL_UNUSED
  std::vector<int64_t> delays;          ///< per hardware index; configuration mutex

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

  // The ring of a synchronized group; the alignment to the Synchronizer's
  // counter lives in the decoder.
  bool syncMode = false;  ///< part of a group of more than one device
  uint8_t identifier = 0;
  uint8_t probeId = 0;
  bool isFirst = false;
  int32_t loopSource = 0;
  int32_t channelOffset = 0;
};

}  // namespace zeptick
