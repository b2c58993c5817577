#pragma once

#include <cstdint>

namespace zeptick {

// The words a board sends on its stream pipe: the protocol the host's decoder and the emulated
// firmware share, so both sides include this and nothing else of each other.

/// One little-endian 32-bit word as a board sends it.
struct NativeTag {
  uint32_t word;

  /// Clock cycles since the last rollover.
  constexpr uint16_t tick() const { return static_cast<uint16_t>(word & 0xFFFF); }
  /// Fine-time bin, or the payload byte of a control word.
  constexpr uint8_t bin() const { return static_cast<uint8_t>((word >> 16) & 0xFF); }
  /// Hardware channel index, or a control code (58 to 63).
  constexpr uint8_t code() const { return static_cast<uint8_t>((word >> 24) & 0x3F); }
  /// 0 filler, 1 to 3 word kinds.
  constexpr uint8_t kind() const { return static_cast<uint8_t>(word >> 30); }
};

static_assert(sizeof(NativeTag) == 4);

}  // namespace zeptick
