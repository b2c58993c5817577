#include "emulator/control/i2c_chips.h"

#include <algorithm>
#include <cmath>

namespace zeptick::emulator {

namespace {

// MAX6615 registers the host reads.
constexpr int kTemperature1 = 0x00;
constexpr int kTemperature2 = 0x01;
constexpr int kDuty1 = 0x0D;
constexpr int kDuty2 = 0x0E;
constexpr int kTachometer1 = 0x18;
constexpr int kTachometer2 = 0x19;
constexpr int kFanStatus = 0x1C;
constexpr int kExtended1 = 0x1E;
constexpr int kExtended2 = 0x1F;

// The converter's codes per volt with the internal reference, and the reference
// it falls back to before the set-up byte chose the internal one.
constexpr double kInternalReference = 2.048;
constexpr double kSupplyReference = 3.3;
constexpr int kFullScale = 1024;
// Readings of one selection over which the fractional part is spread.
constexpr int kDitherSpan = 8;

void setTemperature(std::array<uint8_t, 256>& registers, int whole, int extended, double t) {
  // Whole degrees, then eighths of a degree in the top three bits.
  const int eighths = static_cast<int>(std::floor(t * 8));
  registers[whole] = static_cast<uint8_t>(eighths / 8);
  registers[extended] = static_cast<uint8_t>((eighths % 8) << 5);
}

}  // namespace

Max6615::Max6615(const BoardConfig& config) {
  setTemperature(registers, kTemperature1, kExtended1, config.temperatures[0]);
  setTemperature(registers, kTemperature2, kExtended2, config.temperatures[1]);
  registers[kDuty1] = static_cast<uint8_t>(config.fan_duty[0]);
  registers[kDuty2] = static_cast<uint8_t>(config.fan_duty[1]);
  registers[kTachometer1] = static_cast<uint8_t>(config.fan_tachometer[0]);
  registers[kTachometer2] = static_cast<uint8_t>(config.fan_tachometer[1]);
  registers[kFanStatus] = static_cast<uint8_t>(config.fan_status);
}

void Max6615::start(bool read) {
  if (!read) pointer_set = false;
}

void Max6615::write(uint8_t byte) {
  if (!pointer_set) {
    pointer = byte;
    pointer_set = true;
  } else {
    registers[pointer] = byte;
  }
}

uint8_t Max6615::read() { return registers[pointer]; }

Max11611::Max11611(const BoardConfig& config) : values(config.voltages) {
  for (int channel : config.unstable_voltage_channels) unstable[channel] = true;
}

double Max11611::inputVolts(int channel, double value) {
  switch (channel) {
    case 0:
    case 1:
    case 5:
      return 1.906 + value / 3.683;  // negative rails through an offset divider
    case 10:
      return value * 0.63;  // input current sense
    case 11:
      return value;
    default:
      return value * 0.15;  // positive rails through a divider
  }
}

void Max11611::setValue(int index, double value) {
  if (index >= 0 && index < kVoltageChannels) values[index] = value;
}

void Max11611::start(bool read) {
  if (read) high_byte_next = true;
}

void Max11611::write(uint8_t byte) {
  if (byte & 0x80) {
    setup = byte;
    return;
  }
  channel = (byte >> 1) & 15;
  conversions = 0;
}

uint8_t Max11611::read() {
  if (high_byte_next) {
    code = convert();
    high_byte_next = false;
    return static_cast<uint8_t>(0xFC | (code >> 8));
  }
  high_byte_next = true;
  return static_cast<uint8_t>(code & 0xFF);
}

// Real rails wander by a fraction of a code. Within the readings of one
// selection the code steps up at most once, by one, so that the average
// carries the fraction while the readings never turn direction (which the
// host takes for an unstable rail). Unstable channels zig-zag on purpose.
uint16_t Max11611::convert() {
  if (channel >= kVoltageChannels) return 0;
  const double reference = (setup & 0x40) ? kInternalReference : kSupplyReference;
  const double exact = inputVolts(channel, values[channel]) / reference * kFullScale;
  const int sample = std::min(conversions++, kDitherSpan - 1);
  double code_value;
  if (unstable[channel]) {
    code_value = std::round(exact) + (sample % 2 == 0 ? -3 : 3);
  } else {
    const double whole = std::floor(exact);
    const int steps_up = static_cast<int>(std::lround((exact - whole) * kDitherSpan));
    code_value = whole + (sample >= kDitherSpan - steps_up ? 1 : 0);
  }
  return static_cast<uint16_t>(std::clamp(code_value, 0.0, double(kFullScale - 1)));
}

}  // namespace zeptick::emulator
