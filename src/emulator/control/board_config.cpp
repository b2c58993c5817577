#include "emulator/control/board_config.h"

#include <cmath>
#include <set>
#include <stdexcept>

namespace zeptick::emulator {

namespace {

// Rails of a healthy board, in the units the host's scales produce (volts,
// amperes for channel 10, the raw converter input for channel 11).
constexpr std::array<double, kVoltageChannels> kHealthyVoltages = {
    -5.0, -5.0, 2.5, 2.99, 5.0, -5.52, 5.6, 5.0, 2.5, 12.0, 1.0, 1.0};

[[noreturn]] void fail(const std::string& where, const std::string& what) {
  throw std::invalid_argument("emulator configuration: " + where + " " + what);
}

// FNV-1a, to derive a stable identifier from the serial.
uint64_t hashSerial(const std::string& serial) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : serial) {
    hash = (hash ^ c) * 0x100000001b3ULL;
  }
  return hash;
}

// Reads the fields of one device object; `where` is e.g. "devices[0]".
class DeviceReader {
 public:
  DeviceReader(const nlohmann::json& object, std::string where)
      : object(object), where(std::move(where)) {}

  const nlohmann::json* find(const char* key) {
    seen.insert(key);
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
  }

  std::string name(const char* key) const { return where + "." + key; }

  int64_t integer(const char* key, int64_t fallback, int64_t low, int64_t high) {
    const nlohmann::json* value = find(key);
    if (value == nullptr) return fallback;
    if (!value->is_number_integer() || value->get<int64_t>() < low ||
        value->get<int64_t>() > high) {
      fail(name(key),
           "must be an integer from " + std::to_string(low) + " to " + std::to_string(high));
    }
    return value->get<int64_t>();
  }

  uint64_t unsignedInteger(const char* key, uint64_t fallback) {
    const nlohmann::json* value = find(key);
    if (value == nullptr) return fallback;
    if (!value->is_number_unsigned()) fail(name(key), "must be a non-negative integer");
    return value->get<uint64_t>();
  }

  double number(const char* key, double fallback, const std::string& where_from = "") {
    const nlohmann::json* value = find(key);
    if (value == nullptr) return fallback;
    return checkedNumber(*value, where_from.empty() ? name(key) : where_from);
  }

  static double checkedNumber(const nlohmann::json& value, const std::string& where) {
    if (!value.is_number() || !std::isfinite(value.get<double>())) {
      fail(where, "must be a finite number");
    }
    return value.get<double>();
  }

  /// Rejects keys nobody asked for, which are almost always typing errors.
  void rejectUnknownKeys() const {
    for (const auto& item : object.items()) {
      if (seen.count(item.key()) == 0) fail(where, "has an unknown key \"" + item.key() + "\"");
    }
  }

 private:
  const nlohmann::json& object;
  std::string where;
  std::set<std::string> seen;
};

int readModel(DeviceReader& reader) {
  const nlohmann::json* value = reader.find("model");
  if (value == nullptr) return kModelUltra;
  if (value->is_number_integer()) {
    const int64_t model = value->get<int64_t>();
    if (model == kModel20 || model == kModelUltra) return static_cast<int>(model);
  } else if (value->is_string()) {
    const std::string text = value->get<std::string>();
    if (text == "Zeptick 20" || text == "ZT-20") return kModel20;
    if (text == "Zeptick Ultra" || text == "ZT-Ultra") return kModelUltra;
  }
  fail(reader.name("model"), "must be 4, 36, \"Zeptick 20\" or \"Zeptick Ultra\"");
}

std::string readSerial(DeviceReader& reader, size_t index) {
  const nlohmann::json* value = reader.find("serial");
  if (value == nullptr) return "ZTEMU" + std::to_string(10001 + index);
  if (!value->is_string()) fail(reader.name("serial"), "must be a string");
  const std::string serial = value->get<std::string>();
  bool printable = !serial.empty() && serial.size() <= 10;
  for (char c : serial) {
    // The host splits serial lists at commas and trims blanks.
    printable = printable && c > ' ' && c < 127 && c != ',';
  }
  if (!printable) {
    fail(reader.name("serial"),
         "must be 1 to 10 printable characters without blanks or commas, not \"" + serial + "\"");
  }
  return serial;
}

void readSpeed(DeviceReader& reader, BoardConfig& board) {
  const nlohmann::json* value = reader.find("usb_speed");
  if (value == nullptr) return;
  if (value->is_string()) {
    const std::string text = value->get<std::string>();
    const std::array<const char*, 4> names = {"unknown", "full", "high", "super"};
    for (int speed = 0; speed < 4; ++speed) {
      if (text == names[speed]) {
        board.usb_speed = speed;
        return;
      }
    }
  } else if (value->is_number_integer() && value->get<int64_t>() >= 0 &&
             value->get<int64_t>() <= 3) {
    board.usb_speed = value->get<int>();
    return;
  }
  fail(reader.name("usb_speed"), "must be 0 to 3 or \"unknown\", \"full\", \"high\", \"super\"");
}

void readPacing(DeviceReader& reader, BoardConfig& board) {
  const nlohmann::json* value = reader.find("pacing");
  if (value == nullptr) return;
  if (value->is_string() && value->get<std::string>() == "realtime") {
    board.paced = true;
  } else if (value->is_string() && value->get<std::string>() == "free") {
    board.paced = false;
  } else if (value->is_number() && value->get<double>() > 0 && value->get<double>() <= 1) {
    board.paced = true;
    board.pace = value->get<double>();
  } else {
    fail(reader.name("pacing"), "must be \"realtime\", \"free\" or a number in (0, 1]");
  }
}

template <size_t N>
void readPair(DeviceReader& reader, const char* key, std::array<double, N>& out) {
  const nlohmann::json* value = reader.find(key);
  if (value == nullptr) return;
  if (!value->is_array() || value->size() != N) {
    fail(reader.name(key), "must be an array of " + std::to_string(N) + " numbers");
  }
  for (size_t i = 0; i < N; ++i) {
    out[i] = DeviceReader::checkedNumber((*value)[i], reader.name(key));
  }
}

void readBytePair(DeviceReader& reader, const char* key, std::array<int, 2>& out, int high) {
  const nlohmann::json* value = reader.find(key);
  if (value == nullptr) return;
  const std::string rule = "must be an array of 2 integers from 0 to " + std::to_string(high);
  if (!value->is_array() || value->size() != 2) fail(reader.name(key), rule);
  for (size_t i = 0; i < 2; ++i) {
    const nlohmann::json& item = (*value)[i];
    if (!item.is_number_integer() || item.get<int64_t>() < 0 || item.get<int64_t>() > high) {
      fail(reader.name(key), rule);
    }
    out[i] = item.get<int>();
  }
}

// "voltages" is either an array indexed by channel or an object keyed by the
// channel number, so that one rail can be changed without repeating the rest.
void readVoltages(DeviceReader& reader, BoardConfig& board) {
  const nlohmann::json* value = reader.find("voltages");
  if (value == nullptr) return;
  const std::string where = reader.name("voltages");
  if (value->is_array()) {
    if (value->size() > kVoltageChannels) fail(where, "has more than 12 channels");
    for (size_t i = 0; i < value->size(); ++i) {
      board.voltages[i] = DeviceReader::checkedNumber((*value)[i], where);
    }
    return;
  }
  if (!value->is_object()) fail(where, "must be an array or an object keyed by channel");
  for (const auto& item : value->items()) {
    size_t used = 0;
    int channel = -1;
    try {
      channel = std::stoi(item.key(), &used);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used != item.key().size() || channel < 0 || channel >= kVoltageChannels) {
      fail(where, "has the key \"" + item.key() + "\"; channels are \"0\" to \"11\"");
    }
    board.voltages[channel] = DeviceReader::checkedNumber(item.value(), where);
  }
}

std::vector<int> readIntegerList(DeviceReader& reader, const char* key, int low, int high) {
  std::vector<int> result;
  const nlohmann::json* value = reader.find(key);
  if (value == nullptr) return result;
  const std::string rule =
      "must be an array of integers from " + std::to_string(low) + " to " + std::to_string(high);
  if (!value->is_array()) fail(reader.name(key), rule);
  for (const nlohmann::json& item : *value) {
    if (!item.is_number_integer() || item.get<int64_t>() < low || item.get<int64_t>() > high) {
      fail(reader.name(key), rule);
    }
    result.push_back(item.get<int>());
  }
  return result;
}

BoardConfig readDevice(const nlohmann::json& object, size_t index) {
  const std::string where = "devices[" + std::to_string(index) + "]";
  if (!object.is_object()) fail(where, "must be an object");
  DeviceReader reader(object, where);
  BoardConfig board;
  board.serial = readSerial(reader, index);
  board.model = readModel(reader);
  const bool ultra = board.model == kModelUltra;
  board.revision = static_cast<int>(reader.integer("revision", ultra ? 5 : 2, 0, ultra ? 5 : 2));
  board.inputs = static_cast<int>(reader.integer("inputs", ultra ? 18 : 8, 1, ultra ? 18 : 8));
  readSpeed(reader, board);
  board.major_version = static_cast<int>(reader.integer("major_version", 1, 0, 0x7FFFFFFF));
  board.minor_version = static_cast<int>(reader.integer("minor_version", 16, 0, 0x7FFFFFFF));
  if (const nlohmann::json* id = reader.find("device_id")) {
    if (!id->is_string() || id->get<std::string>().size() > 32) {
      fail(reader.name("device_id"), "must be a string of at most 32 characters");
    }
    board.device_id = id->get<std::string>();
  } else {
    board.device_id = productName(board.model);
  }
  board.identifier = reader.unsignedInteger("identifier", hashSerial(board.serial));
  board.seed = reader.unsignedInteger("seed", 1 + index);
  readPacing(reader, board);
  board.usb_words_per_second = reader.number("usb_words_per_second", 0);
  if (reader.find("usb_words_per_second") != nullptr && board.usb_words_per_second <= 0) {
    fail(reader.name("usb_words_per_second"), "must be above 0");
  }
  board.voltages = kHealthyVoltages;
  readVoltages(reader, board);
  board.unstable_voltage_channels =
      readIntegerList(reader, "unstable_voltage_channels", 0, kVoltageChannels - 1);
  board.temperatures = {45.5, 41.25};
  readPair(reader, "temperatures", board.temperatures);
  for (double t : board.temperatures) {
    if (t < 0 || t >= 128) fail(reader.name("temperatures"), "must lie in 0 to 127.875");
  }
  board.fan_duty = {120, 120};
  readBytePair(reader, "fan_duty", board.fan_duty, 240);
  board.fan_tachometer = {96, 94};
  readBytePair(reader, "fan_tachometer", board.fan_tachometer, 255);
  board.fan_status = static_cast<int>(reader.integer("fan_status", 0, 0, 255));
  board.fpga_temperature = reader.number("fpga_temperature", 47.0);
  board.absent_i2c_addresses = readIntegerList(reader, "absent_i2c_addresses", 0, 255);
  board.serial_bus_busy_polls =
      static_cast<int>(reader.integer("serial_bus_busy_polls", 2, -1, 1000000));
  board.i2c_busy_polls = static_cast<int>(reader.integer("i2c_busy_polls", 1, 0, 1000000));
  if (const nlohmann::json* sources = reader.find("sources")) {
    if (!sources->is_array()) fail(reader.name("sources"), "must be an array");
    board.sources = *sources;
  }
  reader.rejectUnknownKeys();
  return board;
}

}  // namespace

const char* productName(int model) { return model == kModel20 ? "Zeptick 20" : "Zeptick Ultra"; }

std::vector<BoardConfig> parseConfiguration(const nlohmann::json& config) {
  if (!config.is_object()) fail("the configuration", "must be a JSON object");
  for (const auto& item : config.items()) {
    if (item.key() != "devices" && item.key() != "synchronizer")
      fail("the configuration", "has an unknown key \"" + item.key() + "\"");
  }
  auto devices = config.find("devices");
  if (devices == config.end() || !devices->is_array()) {
    fail("the configuration", "needs a \"devices\" array");
  }
  std::vector<BoardConfig> boards;
  std::set<std::string> serials;
  for (size_t i = 0; i < devices->size(); ++i) {
    boards.push_back(readDevice((*devices)[i], i));
    if (!serials.insert(boards.back().serial).second) {
      fail("devices[" + std::to_string(i) + "].serial",
           "\"" + boards.back().serial + "\" is used by an earlier device");
    }
  }
  return boards;
}

}  // namespace zeptick::emulator
