#include <fstream>
#include <sstream>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "emulator/control/board_control.h"
#include "zeptick/emulator.h"

namespace zeptick {

void attachEmulatedDevices(const std::string& configuration) {
  nlohmann::json parsed;
  try {
    parsed = nlohmann::json::parse(configuration);
  } catch (const nlohmann::json::exception& error) {
    // Not only syntax: a number too large for a double is an out_of_range.
    throw std::invalid_argument(std::string("emulator configuration: not valid JSON: ") +
                                error.what());
  }
  emulator::attachBoards(parsed);
}

void attachEmulatedDevicesFromFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  if (!file) {
    throw std::runtime_error("Cannot read the emulator configuration file '" + path + "'");
  }
  attachEmulatedDevices(text.str());
}

void attachDefaultEmulatedDevice() { emulator::attachBoards(emulator::defaultConfiguration()); }

std::string defaultEmulatorConfiguration() { return emulator::defaultConfiguration().dump(2); }

void detachEmulatedDevices() { emulator::detachBoards(); }

}  // namespace zeptick
