// The board's two I2C chips (fan controller and supply-voltage converter) and
// the health report built from them and from the wire-outs.

#include <cstdio>
#include <string>

#include "device/board_model.h"
#include "device/endpoints.h"
#include "device/pipe_backend.h"

namespace zeptick::device {
namespace {

constexpr float kVoltageFailure = 42.0f;
constexpr int kVoltageSamples = 8;

// Report rows of the converter, in report order. The scale undoes the board's
// dividers: negative rails sit on an offset, positive ones behind a divider.
enum class Scale { kNegative, kPositive, kCurrent, kRaw };
struct VoltageChannel {
  int channel;
  const char* label;  ///< null: readable but not reported
  Scale scale;
};
constexpr VoltageChannel kVoltageChannels[] = {
    {0, "11611 -5VD", Scale::kNegative},   {1, "11611 -5VA", Scale::kNegative},
    {5, "11611 -5.52V", Scale::kNegative}, {7, "11611 +5VD", Scale::kPositive},
    {4, "11611 +5VA", Scale::kPositive},   {6, "11611 +5.6V", Scale::kPositive},
    {2, "11611 +2.5VD", Scale::kPositive}, {8, "11611 +2.5VA", Scale::kPositive},
    {3, "11611 +2.99V", Scale::kPositive}, {9, "11611 12V", Scale::kPositive},
    {10, "11611 incurr", Scale::kCurrent}, {11, nullptr, Scale::kRaw},
};

const VoltageChannel* findVoltageChannel(int channel) {
  for (const VoltageChannel& entry : kVoltageChannels) {
    if (entry.channel == channel) return &entry;
  }
  return nullptr;
}

float applyScale(Scale scale, double average) {
  switch (scale) {
    case Scale::kNegative:
      return static_cast<float>((1.906 - average) * -3.683);
    case Scale::kPositive:
      return static_cast<float>(average / 0.15);
    case Scale::kCurrent:
      return static_cast<float>(average / 0.63);
    case Scale::kRaw:
      break;
  }
  return static_cast<float>(average);
}

// Register and value pairs the fan controller gets at start-up.
constexpr uint8_t kFanSetup[][2] = {{12, 0}, {7, 96}, {15, 40}, {19, 136}};

std::string row(const char* label, const char* format, double value) {
  char text[64];
  std::snprintf(text, sizeof(text), format, value);
  return std::string(label) + "\t" + text + "\n";
}

int sign(int value) { return (value > 0) - (value < 0); }

}  // namespace

float PipeBackend::readVoltage(int channel, bool* stable) {
  if (stable != nullptr) *stable = true;
  const auto command = static_cast<uint8_t>((channel & 15) * 2 + 97);
  if (!i2cWrite(kVoltageConverterWrite, kI2cStartWrite)) return kVoltageFailure;
  if (!i2cWrite(command, kI2cWriteStop)) return kVoltageFailure;
  const VoltageChannel* entry = findVoltageChannel(channel);
  if (entry == nullptr) return kVoltageFailure;

  int sum = 0;
  int previous = 0;
  int direction = 0;
  for (int sample = 0; sample < kVoltageSamples; ++sample) {
    if (!i2cWrite(kVoltageConverterRead, kI2cStartWrite)) return kVoltageFailure;
    const std::optional<uint8_t> high = i2cRead(false);
    if (!high) return kVoltageFailure;
    const std::optional<uint8_t> low = i2cRead(true);
    if (!low) return kVoltageFailure;
    const int value = (*high & 3) * 256 + *low;
    sum += value;
    // A rail that drifts one way is settling; one that turns back is noisy or oscillating.
    if (sample > 0) {
      const int step = sign(value - previous);
      if (step != 0) {
        if (direction != 0 && step != direction && stable != nullptr) *stable = false;
        direction = step;
      }
    }
    previous = value;
  }
  return applyScale(entry->scale, sum / 4000.0);
}

void PipeBackend::configureFanController() {
  for (const auto& [reg, value] : kFanSetup) {
    i2cWrite(kFanControllerWrite, kI2cStartWrite);
    i2cWrite(reg, kI2cWrite);
    i2cWrite(value, kI2cWriteStop);
  }
}

std::optional<uint8_t> PipeBackend::readFanRegister(uint8_t reg) {
  if (!i2cWrite(kFanControllerWrite, kI2cStartWrite)) return std::nullopt;
  if (!i2cWrite(reg, kI2cWrite)) return std::nullopt;
  if (!i2cWrite(kFanControllerRead, kI2cStartWrite)) return std::nullopt;
  return i2cRead(true);
}

std::string PipeBackend::fanRows() {
  const auto temperature = [this](uint8_t whole, uint8_t fraction) {
    const auto high = readFanRegister(whole);
    const auto low = readFanRegister(fraction);
    return high && low ? *high + *low / 256.0 : kVoltageFailure;
  };
  const auto duty = [this](uint8_t reg) {
    const auto value = readFanRegister(reg);
    return value ? static_cast<double>(*value * 100 / 240) : kVoltageFailure;
  };
  const auto plain = [this](uint8_t reg) {
    const auto value = readFanRegister(reg);
    return value ? static_cast<double>(*value) : kVoltageFailure;
  };
  std::string text;
  text += row("6615 Temp #1", "%.3f", temperature(0x00, 0x1E));
  text += row("6615 Temp #2", "%.3f", temperature(0x01, 0x1F));
  text += row("6615 DutyCyc #1", "%g", duty(0x0D));
  text += row("6615 DutyCyc #2", "%g", duty(0x0E));
  text += row("6615 FanTach #1", "%g", plain(0x18));
  text += row("6615 FanTach #2", "%g", plain(0x19));
  text += row("6615 Fan status", "%g", plain(0x1C));
  return text;
}

std::string PipeBackend::voltageRows() {
  std::string text;
  for (const VoltageChannel& entry : kVoltageChannels) {
    if (entry.label == nullptr) continue;
    text += row(entry.label, "%.3f", readVoltage(entry.channel));
  }
  return text;
}

std::string PipeBackend::platformSensorRows() {
  if (handle == nullptr) return "";
  std::string text;
  okDeviceSensors_HANDLE sensors = api->okDeviceSensors_Construct();
  if (sensors == nullptr) return "";
  if (api->okFrontPanel_GetDeviceSensors(handle, sensors) == ok_NoError) {
    const int count = api->okDeviceSensors_GetSensorCount(sensors);
    for (int index = 0; index < count; ++index) {
      okTDeviceSensor sensor = api->okDeviceSensors_GetSensor(sensors, index);
      sensor.name[sizeof(sensor.name) - 1] = '\0';
      text += row(sensor.name, "%g", sensor.value);
    }
  }
  api->okDeviceSensors_Destruct(sensors);
  return text;
}

std::string PipeBackend::synchronizerRows() {
  const uint32_t flags = getWire(kWireOutSyncFlags);
  const uint32_t data = getWire(kWireOutSyncData);
  char text[160];
  std::snprintf(text, sizeof(text), "Synchronizer flags\t%u %u %u\nSynchronizer data\t0x%08X\n",
                flags >> 28, (flags >> 16) & 63, (flags >> 22) & 63, data);
  std::string rows = text;
  // The offsets mean something only while CLK IN and SYNC IN see the Synchronizer.
  if ((flags & 4) != 0) {
    rows += row("SYNC IN offset", "%g", (flags >> 6) & 31);
    if ((flags & 16) != 0) rows += row("LOOP IN offset", "%g", (flags >> 11) & 31);
  }
  return rows;
}

std::string PipeBackend::getSensorReport() {
  std::string report = "Serial\t" + device_serial + "\n";
  report += platformSensorRows();
  const bool ultra = board_model == kModelZeptickUltra;
  const uint32_t revision = ultra ? getWire(kWireOutRevision) : 0;
  if (ultra && revision > 2) report += fanRows();
  if (ultra && revision > 3) report += voltageRows();
  const double clock_scale = ultra ? 0.001 : 3e-05;
  report += row("CLK IN freq", "%.0f", (getWire(kWireOutClockInput) & 0x0FFFFFFF) / clock_scale);
  if (ultra) report += synchronizerRows();
  return report;
}

}  // namespace zeptick::device
