#pragma once

#include <cstdint>
#include <vector>

namespace zeptick::emulator {

/// One hardware channel index as the host last configured it through the
/// channel table (pipe-in 0x80, 8 bytes per index) and the DACs.
struct ChannelSetup {
  bool enabled = false;          ///< byte 0 bit 0
  bool filtered = false;         ///< byte 0 bit 1: passes only when armed by a trigger channel
  bool trigger = false;          ///< byte 0 bit 2: arms the filtered channels
  uint8_t mux = 0;               ///< byte 0 bits 3-4; 3 = internal test signal
  uint16_t deadtime_clocks = 1;  ///< bytes 2-3
  uint16_t divider_field = 0;    ///< bytes 4-5: event divider minus 1 (0 passes every event)
};

/// Everything the firmware applies to the stream, decoded by the board model
/// from wires, the channel table and the DAC writes. Indices follow the
/// hardware: index i < inputs is the rising edge of input i, inputs + i its falling edge.
struct FirmwareSetup {
  std::vector<ChannelSetup> channels;  ///< 2 * inputs entries
  std::vector<double> trigger_volts;   ///< per input, from the DAC codes and the model's range
  uint32_t test_period_word = 0;       ///< wire-in 0x09
  uint32_t test_half_period_word = 0;  ///< wire-in 0x0B
  uint32_t buffer_words = 0;           ///< wire-in 0x12: hardware buffer size in words
  uint8_t fence = 0;                   ///< low byte of wire-in 0x08, echoed in rollover words
  bool started = false;                ///< wire-in 0x0D
};

}  // namespace zeptick::emulator
