#include <chrono>

#include "core/log.h"
#include "engine/native_decoder.h"

namespace zeptick {

namespace {

constexpr uint32_t kFirstSyncCode = 58;
constexpr int64_t kTicksPerRollover = 65536;
// A host clock and a Synchronizer counter apart by more than a minute mean
// the Synchronizer restarted: the old time axis can't be continued.
constexpr int64_t kHostMismatchLimit = 60000000000000;

}  // namespace

int64_t DecoderSyncEpoch::steadyClockNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void NativeDecoder::watchdog() {
  if (synced && !syncSeen) {
    ZT_LOG_ERROR(
        "Nothing received from the sync board between two rollover events. Is AUX IN 1 still "
        "connected to %s?",
        device.serial.c_str());
    synced = false;
  }
  syncSeen = false;
}

void NativeDecoder::syncWord(NativeTag word, DecodedBlock& block) {
  if (word.tick() != 0) {
    ZT_LOG_ERROR(
        "Unexpected syncboard word received after %d clock cycles. Is the clock connected "
        "properly?",
        static_cast<int>(word.tick()));
    synced = false;
    return;
  }
  const uint32_t b = word.code() - kFirstSyncCode;
  if (base != syncBase || (syncMask & (1u << b))) {
    syncAccumulator = 0;
    syncMask = 0;
    syncBase = base;
  }
  syncAccumulator |= static_cast<uint32_t>(word.bin()) << (8 * b);
  syncMask = static_cast<uint8_t>(syncMask | (1u << b));
  if (syncMask != 15) return;

  const uint32_t n = syncAccumulator;
  if (!synced) {
    align(n, block);
  } else {
    const int64_t expected =
        static_cast<int64_t>(n - lastSyncCount) * kTicksPerRollover * device.psPerClock;
    const int64_t seen = timeDifference(base, lastSyncTime);
    if (expected != seen) {
      ZT_LOG_ERROR("Zeptick vs Sync Board counter mismatch: %lld vs %lld.",
                   static_cast<long long>(expected), static_cast<long long>(seen));
      synced = false;
      align(n, block);
    }
  }
  syncSeen = true;
  lastSyncTime = base;
  lastSyncCount = n;
  syncAccumulator = 0;
  syncMask = 0;
}

void NativeDecoder::align(uint32_t counter, DecodedBlock& block) {
  int64_t t = static_cast<int64_t>(counter) * kTicksPerRollover * device.psPerClock;
  if (device.sync != nullptr) {
    DecoderSyncEpoch& shared = *device.sync;
    std::lock_guard<std::mutex> guard(shared.mutex);
    const int64_t now = shared.hostClockNs();
    if (shared.hostTimeValid) {
      // Unwrap the 32-bit counter by the host clock.
      const int64_t period = device.psPerClock << 48;
      const int64_t x = (now - shared.hostTimeNs) * 1000 + shared.lastSyncBase - t + period / 2;
      const int64_t r = x % period - period / 2;
      t += period * (x / period);
      if (r < -kHostMismatchLimit || r > kHostMismatchLimit) {
        ZT_LOG_ERROR("Host computer vs Sync Board timer mismatch by %f seconds",
                     static_cast<double>(r) * 1e-12);
        ++shared.syncEpoch;
      }
    }
    epoch = shared.syncEpoch;
    shared.hostTimeNs = now;
    shared.lastSyncBase = t;
    shared.hostTimeValid = true;
  }

  // The device's stream starts over on the group's time axis, marked by an error.
  base = t;
  stage.clear();
  stage.setDecodedUntil(t);
  block.begin = t;
  block.tags.clear();
  stage.advanceTo(base, block.tags);
  stage.pushOutput(Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, base});
  stage.closeFilter();
  ++overflowCount;
  synced = true;
}

}  // namespace zeptick
