#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zeptick::emulator {

inline constexpr int kModel20 = 4;
inline constexpr int kModelUltra = 36;

/// Number of MAX11611 input channels.
inline constexpr int kVoltageChannels = 12;

/// One emulated board as the configuration describes it, with every default
/// filled in. Plain data; validated by parseConfiguration().
struct BoardConfig {
  std::string serial;
  int model = kModelUltra;
  int revision = 5;
  int inputs = 18;
  int usb_speed = 3;
  int major_version = 1;
  int minor_version = 16;
  std::string device_id;
  uint64_t identifier = 0;
  uint64_t seed = 1;
  bool paced = true;
  /// Stream time per real time of a paced board: below 1 the host sees the stream fall behind.
  double pace = 1.0;
  double usb_words_per_second = 0;  ///< 0 keeps the stream model's default
  /// Analogue value seen by each MAX11611 channel, in the units of the host's scale.
  std::array<double, kVoltageChannels> voltages{};
  /// Channels whose readings zig-zag, so the host's stable flag drops.
  std::vector<int> unstable_voltage_channels;
  std::array<double, 2> temperatures{};  ///< MAX6615 channels 1 and 2, degrees Celsius
  std::array<int, 2> fan_duty{};         ///< MAX6615 duty cycle registers, 0 to 240
  std::array<int, 2> fan_tachometer{};   ///< MAX6615 tachometer registers
  int fan_status = 0;
  double fpga_temperature = 0;
  /// I2C addresses (as on the wire) that nobody acknowledges.
  std::vector<int> absent_i2c_addresses;
  /// UpdateWireOuts polls during which a serial-bus transfer stays busy; -1 never finishes.
  int serial_bus_busy_polls = 2;
  /// Status reads during which an I2C byte stays in progress.
  int i2c_busy_polls = 1;
  nlohmann::json sources = nlohmann::json::array();
};

/// Reads {"devices": [...]} into one BoardConfig per device. Throws
/// std::invalid_argument naming the offending field on any bad value, unknown
/// key or repeated serial. Sources are only checked to be an array here; the
/// stream model validates their content.
std::vector<BoardConfig> parseConfiguration(const nlohmann::json& config);

/// Product name of a model: "Zeptick 20" or "Zeptick Ultra".
const char* productName(int model);

}  // namespace zeptick::emulator
