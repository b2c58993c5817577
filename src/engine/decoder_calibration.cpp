#include <algorithm>
#include <stdexcept>

#include "core/log.h"
#include "engine/native_decoder.h"

namespace zeptick {

namespace {

// Below this many events a table is too noisy to trust, and bins count as equally wide.
constexpr uint64_t kMinimumEvents = 10001;
// Above this many events the counts decay, so the table follows a drifting device.
constexpr uint64_t kDecayAbove = 1000000;

void uniformEdges(Distribution* r, uint32_t bins, uint32_t ps) {
  for (uint32_t i = 0; i < bins; ++i) r[i].psecs = (ps * i) / bins;
}

// Code density: a bin's width is its share of events, since events arrive
// uniformly relative to the clock edge.
void learnedEdges(Distribution* r, uint32_t bins, uint64_t ps, uint64_t total, bool lowerEdge) {
  uint64_t below = 0;
  for (uint32_t i = 0; i < bins; ++i) {
    const uint64_t at = lowerEdge ? below : below + r[i].count / 2;
    r[i].psecs = static_cast<uint32_t>((at * ps) / total);
    below += r[i].count;
  }
}

}  // namespace

void NativeDecoder::updateDistributions(bool withNormalization) {
  const bool all = recomputeAll || withNormalization != lastNormalization;
  // Events of a filtered device are counted as they leave the first heap.
  const uint64_t changed = countedMask | stage.takeCounted();
  recomputeAll = false;
  countedMask = 0;
  lastNormalization = withNormalization;

  const uint32_t bins = static_cast<uint32_t>(std::max(device.binCount, 0));
  const auto ps = static_cast<uint32_t>(device.psPerClock);
  for (int32_t index = 0; index < device.channelCount; ++index) {
    // Unchanged counts give the same table; skipping them keeps small blocks cheap.
    if (!all && (index >= 64 || !(changed & (uint64_t{1} << index)))) continue;
    Distribution* const r = distributionRecords.data() + static_cast<size_t>(index) * stride();
    uint64_t total = 0;
    for (uint32_t i = 0; i < bins; ++i) total += r[i].count;
    if (total < kMinimumEvents) {
      uniformEdges(r, bins, ps);
    } else {
      learnedEdges(r, bins, ps, total, withNormalization);
    }
    r[bins].psecs = ps;
    if (total > kDecayAbove) {
      for (uint32_t i = 0; i < bins; ++i) {
        r[i].count = static_cast<uint32_t>(static_cast<double>(r[i].count) * 0.9);
      }
      // The next table is computed from the decayed counts.
      if (index < 64) countedMask |= uint64_t{1} << index;
    }
  }
}

double NativeDecoder::getResolution(int32_t modelCode, uint32_t resolutionMask) {
  if (modelCode == 4) return 34.0;
  if (modelCode != 36) return -1.0;
  const uint32_t inverse = ~resolutionMask;
  if (inverse == 0) return 9.0;
  if (inverse == 7) return 42.0;
  ZT_LOG_ERROR("Unknown resolution mask 0x%x found!", resolutionMask);
  throw std::runtime_error("No Zeptick model recognized!");
}

}  // namespace zeptick
