#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "device/frontpanel_api.h"
#include "emulator/control/board_control.h"
#include "emulator/control/i2c_chips.h"

namespace zeptick::emulator {

/// The firmware's I2C master core behind registers 0 to 4, with the board's
/// MAX6615 (0x30/0x31) and MAX11611 (0x6A/0x6B) on its bus. Register 4 takes
/// commands (0x80 start, 0x40 stop, 0x20 read, 0x10 write) and reads back the
/// status: bit 1 while a byte is on the bus, bit 7 when the slave did not
/// acknowledge. Not thread-safe: the board's mutex guards it.
class I2cMaster {
 public:
  explicit I2cMaster(const BoardConfig& config);

  /// Returns ok_InvalidEndpoint for a register above 4. Bytes that reach the
  /// bus are appended to `traffic`.
  ok_ErrorCode writeRegister(uint32_t address, uint32_t value, std::vector<I2cByte>& traffic);
  ok_ErrorCode readRegister(uint32_t address, uint32_t& value);

  /// Firmware load: the core's registers go back to zero; the chips keep their state.
  void resetCore();

  Max6615& fanController() { return fan; }
  Max11611& converter() { return adc; }

 private:
  I2cChip* chipAt(uint8_t address_byte);
  void execute(uint8_t command, std::vector<I2cByte>& traffic);

  Max6615 fan;
  Max11611 adc;
  std::set<int> absent;
  int busy_polls;

  uint8_t prescale_low = 0;
  uint8_t prescale_high = 0;
  uint8_t control = 0;
  uint8_t transmit = 0;
  uint8_t receive = 0;
  bool no_ack = false;
  int busy_left = 0;
  I2cChip* selected = nullptr;  ///< addressed since the last START, until STOP
};

}  // namespace zeptick::emulator
