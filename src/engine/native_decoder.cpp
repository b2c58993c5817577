#include "engine/native_decoder.h"

#include <chrono>

namespace zeptick {

int64_t DecoderSyncEpoch::steadyClockNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void NativeDecoder::setup(const DecoderDevice& d, uint32_t streamFence) {
  device = d;
  fenceConfirmed = streamFence;
}
void NativeDecoder::decodeBlock(ZeptickRunner::Worker&, uint32_t, const DecoderBlockSettings&) {}
void NativeDecoder::updateDistributions(bool) {}
double NativeDecoder::getResolution(int32_t, uint32_t) { return -1.0; }
void NativeDecoder::takeSettings(const DecoderBlockSettings&) {}
void NativeDecoder::controlWord(NativeTag, ZeptickRunner::Worker&) {}
void NativeDecoder::syncWord(NativeTag, ZeptickRunner::Worker&) {}
void NativeDecoder::align(uint32_t, ZeptickRunner::Worker&) {}
void NativeDecoder::rollover(NativeTag, ZeptickRunner::Worker&, uint32_t) {}

}  // namespace zeptick
