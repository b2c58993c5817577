#include "emulator/control/i2c_master.h"

namespace zeptick::emulator {

namespace {

constexpr uint8_t kStart = 0x80;
constexpr uint8_t kStop = 0x40;
constexpr uint8_t kRead = 0x20;
constexpr uint8_t kWrite = 0x10;
constexpr uint8_t kEnable = 0x80;
constexpr uint32_t kBusy = 0x02;
constexpr uint32_t kNoAck = 0x80;

constexpr uint8_t kFanAddress = 0x30;
constexpr uint8_t kConverterAddress = 0x6A;

}  // namespace

I2cMaster::I2cMaster(const BoardConfig& config)
    : fan(config),
      adc(config),
      absent(config.absent_i2c_addresses.begin(), config.absent_i2c_addresses.end()),
      busy_polls(config.i2c_busy_polls) {
  // The fan controller came with revision 3 of the Ultra, the converter with
  // revision 4; the Zeptick 20 has neither.
  const bool ultra = config.model == kModelUltra;
  if (!ultra || config.revision < 3) absent.insert({kFanAddress, kFanAddress | 1});
  if (!ultra || config.revision < 4) absent.insert({kConverterAddress, kConverterAddress | 1});
}

void I2cMaster::resetCore() {
  prescale_low = prescale_high = control = transmit = receive = 0;
  no_ack = false;
  busy_left = 0;
  selected = nullptr;
}

I2cChip* I2cMaster::chipAt(uint8_t address_byte) {
  if (absent.count(address_byte) != 0) return nullptr;
  switch (address_byte & 0xFE) {
    case kFanAddress:
      return &fan;
    case kConverterAddress:
      return &adc;
    default:
      return nullptr;
  }
}

void I2cMaster::execute(uint8_t command, std::vector<I2cByte>& traffic) {
  const bool is_read = (command & kRead) != 0;
  if (command & kStart) {
    // The byte after a START is an address with its R/W bit.
    selected = chipAt(transmit);
    if (selected != nullptr) selected->start((transmit & 1) != 0);
    no_ack = selected == nullptr;
  } else if (command & kWrite) {
    no_ack = selected == nullptr;
    if (selected != nullptr) selected->write(transmit);
  } else if (is_read) {
    // With nobody driving the bus the line stays high.
    receive = selected != nullptr ? selected->read() : 0xFF;
  }
  traffic.push_back({is_read ? receive : transmit, command, is_read});
  if (command & kStop) {
    if (selected != nullptr) selected->stop();
    selected = nullptr;
  }
  busy_left = busy_polls;
}

ok_ErrorCode I2cMaster::writeRegister(uint32_t address, uint32_t value,
                                      std::vector<I2cByte>& traffic) {
  const auto byte = static_cast<uint8_t>(value);
  switch (address) {
    case 0:
      prescale_low = byte;
      return ok_NoError;
    case 1:
      prescale_high = byte;
      return ok_NoError;
    case 2:
      control = byte;
      if (!(control & kEnable)) selected = nullptr;
      return ok_NoError;
    case 3:
      transmit = byte;
      return ok_NoError;
    case 4:
      // A disabled core ignores commands, as does one still shifting a byte.
      if ((control & kEnable) && busy_left == 0 && (byte & (kStart | kWrite | kRead | kStop))) {
        execute(byte, traffic);
      }
      return ok_NoError;
    default:
      return ok_InvalidEndpoint;
  }
}

ok_ErrorCode I2cMaster::readRegister(uint32_t address, uint32_t& value) {
  switch (address) {
    case 0:
      value = prescale_low;
      return ok_NoError;
    case 1:
      value = prescale_high;
      return ok_NoError;
    case 2:
      value = control;
      return ok_NoError;
    case 3:
      value = receive;
      return ok_NoError;
    case 4:
      if (busy_left > 0) {
        --busy_left;
        value = kBusy;
      } else {
        value = no_ack ? kNoAck : 0;
      }
      return ok_NoError;
    default:
      return ok_InvalidEndpoint;
  }
}

}  // namespace zeptick::emulator
