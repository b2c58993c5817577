#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "emulator/control/board_config.h"

namespace zeptick::emulator {

/// A slave on the board's I2C bus, seen byte by byte. Not thread-safe: the
/// board's mutex guards it.
class I2cChip {
 public:
  virtual ~I2cChip() = default;
  /// A START with this chip's address; `read` is the address's R/W bit.
  virtual void start(bool read) = 0;
  virtual void write(uint8_t byte) = 0;
  virtual uint8_t read() = 0;
  virtual void stop() {}
};

/// Temperature and fan controller: a register file behind a register pointer.
/// A write transaction sets the pointer with its first byte and stores the
/// bytes after it; a read transaction returns the register at the pointer.
class Max6615 : public I2cChip {
 public:
  explicit Max6615(const BoardConfig& config);
  void start(bool read) override;
  void write(uint8_t byte) override;
  uint8_t read() override;
  uint8_t reg(int address) const { return registers[address & 0xFF]; }

 private:
  std::array<uint8_t, 256> registers{};
  uint8_t pointer = 0;
  bool pointer_set = false;
};

/// Twelve-channel 10-bit converter. A written byte with bit 7 set is the set-up
/// byte (bit 6 chooses the internal 2.048 V reference over the 3.3 V supply);
/// one with bit 7 clear selects the channel in bits 1-4. Each read transaction
/// converts once and returns two bytes: six high bits set and the code's top
/// two bits, then its low eight bits.
class Max11611 : public I2cChip {
 public:
  explicit Max11611(const BoardConfig& config);
  void start(bool read) override;
  void write(uint8_t byte) override;
  uint8_t read() override;

  /// The value the host's scale for `channel` should turn into `value`.
  void setValue(int channel, double value);
  uint8_t setupByte() const { return setup; }

  /// The converter input in volts that makes the host's scale give `value`.
  static double inputVolts(int channel, double value);

 private:
  uint16_t convert();

  std::array<double, kVoltageChannels> values{};
  std::array<bool, kVoltageChannels> unstable{};
  uint8_t setup = 0;
  int channel = 0;
  int conversions = 0;  ///< since the channel was selected
  uint16_t code = 0;
  bool high_byte_next = true;
};

}  // namespace zeptick::emulator
