#include "engine/native_decoder.h"

#include <algorithm>

#include "core/log.h"

namespace zeptick {

namespace {

constexpr uint32_t kFirstControlCode = 58;
constexpr uint32_t kRolloverCode = 62;
constexpr uint32_t kDeviceCode = 63;
constexpr int64_t kTicksPerRollover = 65536;

}  // namespace

void NativeDecoder::setup(const DecoderDevice& d, uint32_t streamFence) {
  device = d;
  const size_t n = static_cast<size_t>(std::max(device.channelCount, 0));
  distributionRecords.assign(n * stride(), Distribution{0, 0});
  delaySnapshot.assign(n, 0);
  channels.assign(n, CHANNEL_UNUSED);
  recomputeAll = true;
  updateDistributions(normalization);

  base = 0;
  overflowCount = 0;
  fenceConfirmed = streamFence;
  stage.reset(0);
  stage.setBlockSettings(DelaySettings{});

  syncBase = 0;
  syncAccumulator = 0;
  lastSyncCount = 0;
  lastSyncTime = 0;
  syncMask = 0;
  synced = false;
  syncSeen = false;
  epoch = 0;
}

void NativeDecoder::takeSettings(const DecoderBlockSettings& settings) {
  normalization = settings.normalization;
  uint64_t trigger = 0;
  uint64_t filtered = 0;
  int64_t maxDelay = 0;
  const size_t given = settings.channels.size();
  for (size_t index = 0; index < channels.size(); ++index) {
    const DecoderChannelSettings s =
        index < given ? settings.channels[index] : DecoderChannelSettings{};
    channels[index] = s.channel;
    delaySnapshot[index] = s.delay;
    maxDelay = std::max(maxDelay, s.delay);
    const uint64_t bit = uint64_t{1} << (index & 63);
    if (s.conditionalTrigger) trigger |= bit;
    if (s.conditionalFiltered) filtered |= bit;
  }
  // A channel delayed far behind the others would make most tags pass its tags
  // held in the sorted buffer; it waits in a queue of its own instead.
  int64_t minDelay = maxDelay;
  for (size_t index = 0; index < channels.size(); ++index) {
    if (channels[index] != CHANNEL_UNUSED) minDelay = std::min(minDelay, delaySnapshot[index]);
  }
  uint64_t lagging = 0;
  for (size_t index = 0; index < std::min<size_t>(channels.size(), 64); ++index) {
    if (delaySnapshot[index] - minDelay > kLaggingDelay) lagging |= uint64_t{1} << index;
  }
  stage.setBlockSettings(DelaySettings{trigger, filtered, delaySnapshot.data(), maxDelay,
                                       distributionRecords.data(), static_cast<int32_t>(stride()),
                                       lagging});
}

void NativeDecoder::decodeBlock(std::span<const NativeTag> words, uint32_t fence,
                                const DecoderBlockSettings& settings, DecodedBlock& block) {
  updateDistributions(settings.normalization);
  block.tags.clear();
  block.begin = stage.decodedUntil();
  block.fence = fenceConfirmed;
  takeSettings(settings);

  const bool filtered = stage.blockSettings().filteredMask != 0;

  std::vector<Tag>& out = block.tags;
  const int64_t ps = device.psPerClock;
  const uint32_t eventCodes =
      static_cast<uint32_t>(std::clamp(device.channelCount, 0, int32_t{kFirstControlCode}));
  const uint32_t bins = static_cast<uint32_t>(std::max(device.binCount, 0));
  const size_t binStride = stride();
  Distribution* const records = distributionRecords.data();
  const int64_t* const delays = delaySnapshot.data();
  const int32_t* const channelOf = channels.data();
  const bool dither = normalization;
  const bool gated = device.syncMode;

  // Events move the stream position along without releasing anything; what
  // they passed leaves in one go at the next control word or the block's end.
  // A tag held behind the position (a damaged control word) waits, as it
  // would for the next event, until the position moves again.
  int64_t until = stage.decodedUntil();
  // Kept in registers: the tag stores in the loop could alias the members.
  uint64_t state = rng;
  uint64_t counted = countedMask;
  const uint64_t lagging = stage.blockSettings().laggingMask;
  for (const NativeTag word : words) {
    const uint32_t kind = word.kind();
    const uint32_t code = word.code();
    if (kind == 1 && code < kFirstControlCode) {
      if (gated && !synced) {
        block.invalid = true;
        continue;
      }
      const uint32_t bin = word.bin();
      // A device never sends these; a damaged word must not index past the tables.
      if (code >= eventCodes || bin >= bins) continue;
      Distribution* const d = records + code * binStride + bin;
      const int64_t raw = timeSum(base, word.tick() * ps);
      int64_t t = timeSum(raw, d->psecs);
      if (dither) {
        uint64_t x = state;
        x ^= x >> 12;
        x ^= x << 25;
        x ^= x >> 27;
        state = x;
        const uint64_t r = (x * 0x2545F4914F6CDD1DULL) >> 32;
        t = timeSum(t,
                    static_cast<int64_t>((static_cast<uint64_t>(d[1].psecs - d->psecs) * r) >> 32));
      }
      if (timeDifference(raw, until) < 0) continue;
      until = raw;
      if (!filtered) {
        ++d->count;
        counted |= uint64_t{1} << code;
        stage.pushEvent(code, channelOf[code], timeSum(t, delays[code]), lagging);
      } else {
        stage.pushPreDelay(
            PreDelayTag::make(Tag{Tag::Type::TimeTag, 0, 0, channelOf[code], t}, bin, code));
      }
    } else if (kind != 0) {
      if (until != stage.decodedUntil()) stage.advanceTo(until, out);
      controlWord(word, block, fence);
      until = stage.decodedUntil();
    }
  }
  if (until != stage.decodedUntil()) stage.advanceTo(until, out);
  rng = state;
  countedMask = counted;

  block.end = stage.decodedUntil();
  block.epoch = epoch;
  if (gated && !synced) block.invalid = true;
}

void NativeDecoder::controlWord(NativeTag word, DecodedBlock& block, uint32_t fence) {
  const uint32_t kind = word.kind();
  const uint32_t code = word.code();
  if (code == kRolloverCode) {
    rollover(word, fence);
    advance(base, block);
  } else if (code == kDeviceCode) {
    deviceWord(word, block);
  } else if (code >= kFirstControlCode) {
    if (!device.syncMode) return;
    if (kind == 1) {
      syncWord(word, block);
    } else {
      syncSeen = true;
    }
  } else {
    // Missed events: the device's 16-bit count, in at most two words.
    if (device.syncMode && !synced) return;
    if (code >= channels.size()) return;
    const uint16_t missed = static_cast<uint16_t>(kind == 2 ? word.bin() : word.bin() * 256);
    stage.pushOutput(Tag{Tag::Type::MissedEvents, 0, missed, channels[code], stage.decodedUntil()});
  }
}

void NativeDecoder::advance(int64_t t, DecodedBlock& block) {
  // The stream position never moves back: a rollover word of zero periods
  // comes after the events of its period, and releasing is strict anyway.
  if (timeDifference(t, stage.decodedUntil()) > 0) stage.advanceTo(t, block.tags);
}

void NativeDecoder::rollover(NativeTag word, uint32_t fence) {
  const int64_t period = device.psPerClock * kTicksPerRollover;
  switch (word.kind()) {
    case 1: {
      base = timeSum(base, period);
      // The word carries the low byte of the fence the device has taken up;
      // it lies within 127 of the runner's fence.
      const auto delta = static_cast<int8_t>(static_cast<uint8_t>(word.bin() - (fence & 0xFF)));
      fenceConfirmed = fence + static_cast<uint32_t>(static_cast<int32_t>(delta));
      if (device.syncMode) watchdog();
      break;
    }
    case 2:
      base = timeSum(base, static_cast<int64_t>(word.bin()) * period);
      break;
    default:
      base = timeSum(base, static_cast<int64_t>(word.bin()) * 256 * period);
      break;
  }
}

void NativeDecoder::deviceWord(NativeTag word, DecodedBlock& block) {
  const uint32_t kind = word.kind();
  if (kind == 1) {
    // After an error nothing held can be trusted.
    stage.clear();
    if (synced) {
      ZT_LOG_ERROR(
          "Error event received from %s, please make sure that the CLK is connected properly.",
          device.serial.c_str());
      synced = false;
    }
    base = timeSum(base, device.psPerClock * kTicksPerRollover);
  }
  const int64_t time = timeSum(base, word.tick() * device.psPerClock);
  Tag tag{static_cast<Tag::Type>(kind), 0, 0, CHANNEL_UNUSED, time};
  advance(time, block);
  if (kind == 2) stage.setOverflowActive();
  // The end must sort behind every tag delayed out of the overflow.
  if (kind == 3) tag.time = timeSum(tag.time, stage.blockSettings().maxDelay);
  stage.pushOutput(tag);
  if (kind != 3) ++overflowCount;
  stage.closeFilter();
}

}  // namespace zeptick
