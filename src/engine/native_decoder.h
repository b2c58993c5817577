#pragma once

#include <cstdint>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "device/device_words.h"
#include "engine/decoder_distribution.h"
#include "engine/delay_stage.h"
#include "zeptick/tag.h"

namespace zeptick {

/// Settings of one hardware index for one block, copied by the tagger from the
/// channel's CHANNEL_CONFIG. An index without a configuration keeps the defaults.
struct DecoderChannelSettings {
  int32_t channel = CHANNEL_UNUSED;  ///< user channel number of the index
  int64_t delay = 0;                 ///< software delay in ps, from effectiveInputDelay
  bool conditionalTrigger = false;
  bool conditionalFiltered = false;
};

/// Everything a block is decoded under. Fill it under the configuration mutex;
/// decodeBlock copies what it needs, so the mutex need not be held while decoding.
struct DecoderBlockSettings {
  bool normalization = true;                     ///< dither and lower bin edges, else bin middles
  std::vector<DecoderChannelSettings> channels;  ///< one per hardware index (channelCount)
};

/// The tagger-wide time axis of a synchronized group: the counter of the
/// Synchronizer is unwrapped against the host clock, and a jump of more than a
/// minute starts a new epoch. One per tagger, shared by its decoders.
struct DecoderSyncEpoch {
  std::mutex mutex;  ///< the epoch mutex
  int32_t syncEpoch = 0;
  int64_t hostTimeNs = 0;
  int64_t lastSyncBase = 0;
  bool hostTimeValid = false;
  /// Monotonic host clock in ns; replaceable for tests.
  int64_t (*hostClockNs)() = &steadyClockNs;

  static int64_t steadyClockNs();
};

/// Facts of one device that shape its words, read when the device is opened.
struct DecoderDevice {
  int64_t psPerClock = 0;
  int32_t binCount = 0;
  int32_t channelCount = 0;          ///< two per input; at most 58 carry events
  std::string serial;                ///< for log lines
  bool syncMode = false;             ///< part of a synchronized group of more than one device
  DecoderSyncEpoch* sync = nullptr;  ///< the group's shared time axis; required with syncMode
};

/// One decoded block: plain data, filled by NativeDecoder::decodeBlock.
struct DecodedBlock {
  explicit DecodedBlock(std::vector<Tag>& tags) : tags(tags) {}
  std::vector<Tag>& tags;  ///< the tags, in time order; kept for its capacity by the caller
  int64_t begin = 0;       ///< the block spans [begin, end)
  int64_t end = 0;
  uint32_t fence = 0;    ///< the fence the device had taken up
  bool invalid = false;  ///< the device's data cannot be trusted (unaligned group member)
  int32_t epoch = 0;     ///< the group's time axis the block's times belong to
};

/// Turns the 32-bit words of one device into time-ordered tags: widens the
/// clock count with rollover words, replaces the fine bin by its calibrated
/// offset (code-density calibration learned from the events themselves),
/// dithers within the bin, recognises control and sync-board words, and passes
/// every tag through the device's DelayStage.
///
/// Not thread-safe: the caller holds the device's decoder mutex for every call,
/// which also orders the blocks of one device. No allocation in steady state.
class NativeDecoder {
 public:
  NativeDecoder() = default;

  /// Starts over for a freshly opened device: zero calibration counts, time 0,
  /// no overflows, empty heaps, `deviceFence` at `streamFence`. The dither
  /// generator keeps its state (1 in a new decoder).
  void setup(const DecoderDevice& device, uint32_t streamFence);

  /// Decodes `words` into `block.tags` (cleared first, then ascending in time)
  /// and sets `block.begin`, `block.end` and `block.fence`; may set
  /// `block.invalid`, never clears it. `fence` is the runner's current fence.
  /// Calls updateDistributions first.
  void decodeBlock(std::span<const NativeTag> words, uint32_t fence,
                   const DecoderBlockSettings& settings, DecodedBlock& block);

  /// Recomputes the offsets of all bins from the counts; with `normalization`
  /// the lower bin edges (dither spreads events over the bin), else the bin
  /// middles. Decays counts above a million events.
  void updateDistributions(bool normalization);

  /// The figure reported under "resolution" in the configuration report, from
  /// the backend's model code and resolution mask; -1.0 for an unknown model.
  /// Throws std::runtime_error for an unknown resolution mask of the Ultra model.
  static double getResolution(int32_t modelCode, uint32_t resolutionMask);

  /// All records, `channelCount * (binCount + 1)`; see Distribution.
  std::span<const Distribution> distributions() const { return distributionRecords; }
  const Distribution& distribution(int index, int bin) const {
    return distributionRecords[static_cast<size_t>(index) * stride() + static_cast<size_t>(bin)];
  }
  int64_t psPerClock() const { return device.psPerClock; }
  int32_t binCount() const { return device.binCount; }
  int32_t channelCount() const { return device.channelCount; }

  /// Overflow-begin, error and alignment count since the last clear.
  int64_t overflows() const { return overflowCount; }
  void clearOverflows() { overflowCount = 0; }
  int64_t takeOverflows() {
    const int64_t n = overflowCount;
    overflowCount = 0;
    return n;
  }

  /// The last fence the device has confirmed, widened to 32 bits.
  uint32_t deviceFence() const { return fenceConfirmed; }
  /// A dead device must not hold up a fence: the tagger forces it forward.
  void setDeviceFence(uint32_t fence) { fenceConfirmed = fence; }

  int64_t baseTime() const { return base; }
  int64_t decodedUntil() const { return stage.decodedUntil(); }
  uint64_t rngState() const { return rng; }

  bool syncValid() const { return synced; }
  /// The epoch of this device's last alignment; blocks of an older epoch are dropped.
  int32_t syncEpoch() const { return epoch; }

  DelayStage& delayStage() { return stage; }
  const DelayStage& delayStage() const { return stage; }

 private:
  size_t stride() const { return static_cast<size_t>(device.binCount) + 1; }
  void takeSettings(const DecoderBlockSettings& settings);
  void controlWord(NativeTag word, DecodedBlock& block, uint32_t fence);
  void advance(int64_t t, DecodedBlock& block);
  void rollover(NativeTag word, uint32_t fence);
  void deviceWord(NativeTag word, DecodedBlock& block);
  void watchdog();
  void syncWord(NativeTag word, DecodedBlock& block);
  void align(uint32_t counter, DecodedBlock& block);

  DecoderDevice device;
  DelayStage stage;
  std::vector<Distribution> distributionRecords;
  std::vector<int64_t> delaySnapshot;
  std::vector<int32_t> channels;
  uint64_t countedMask = 0;  ///< indices whose counts changed since the last update
  bool recomputeAll = true;
  bool lastNormalization = true;
  bool normalization = true;

  int64_t base = 0;
  uint64_t rng = 1;
  int64_t overflowCount = 0;
  uint32_t fenceConfirmed = 0;

  int64_t syncBase = 0;
  uint32_t syncAccumulator = 0;
  uint32_t lastSyncCount = 0;
  int64_t lastSyncTime = 0;
  uint8_t syncMask = 0;
  bool synced = false;
  bool syncSeen = false;
  int32_t epoch = 0;
};

}  // namespace zeptick
