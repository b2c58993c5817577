#pragma once

// Building device words and running them through a NativeDecoder block by block.

#include <cstdint>
#include <vector>

#include "engine/native_decoder.h"

namespace zeptick::engine_testing {

inline uint32_t word(uint32_t kind, uint32_t code, uint32_t bin, uint32_t tick) {
  return (kind << 30) | ((code & 0x3F) << 24) | ((bin & 0xFF) << 16) | (tick & 0xFFFF);
}
inline uint32_t event(uint32_t index, uint32_t bin, uint32_t tick) {
  return word(1, index, bin, tick);
}
inline uint32_t rollover(uint32_t fenceByte = 0) { return word(1, 62, fenceByte, 0); }

struct Block {
  std::vector<Tag> tags;
  int64_t begin = 0;
  int64_t end = 0;
  uint32_t fence = 0;
  bool invalid = false;
};

inline DecoderDevice device(int64_t ps, int32_t bins, int32_t channelCount) {
  return {.psPerClock = ps, .binCount = bins, .channelCount = channelCount, .serial = "TEST"};
}

/// User channel = hardware index + 1, no delay, no filter.
inline DecoderBlockSettings plainSettings(int32_t channelCount, bool normalization = false) {
  DecoderBlockSettings s;
  s.normalization = normalization;
  for (int32_t i = 0; i < channelCount; ++i) s.channels.push_back({i + 1, 0, false, false});
  return s;
}

inline Block decode(NativeDecoder& decoder, const std::vector<uint32_t>& words,
                    const DecoderBlockSettings& settings, uint32_t fence = 0) {
  std::vector<NativeTag> native;
  for (uint32_t w : words) native.push_back(NativeTag{w});
  std::vector<Tag> tags;
  DecodedBlock block(tags);
  decoder.decodeBlock(native, fence, settings, block);
  return Block{tags, block.begin, block.end, block.fence, block.invalid};
}

}  // namespace zeptick::engine_testing
