#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "device/pipe_backend.h"
#include "emulator/control/board_control.h"
#include "emulator/control/emulator_api.h"
#include "zeptick/library.h"

namespace zeptick::testing {

/// Sets or unsets an environment variable and puts the old state back.
class ScopedEnvironment {
 public:
  ScopedEnvironment(const char* name, std::optional<std::string> value) : name(name) {
    if (const char* old = std::getenv(name)) previous = old;
    set(value);
  }
  ~ScopedEnvironment() { set(previous); }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  void set(const std::optional<std::string>& value) {
    value ? setenv(name, value->c_str(), 1) : unsetenv(name);
  }
  const char* name;
  std::optional<std::string> previous;
};

/// One emulated board of a test, as a configuration entry: free-running, so that pipe reads never
/// wait for real time, and reporting device version 2.7.
inline nlohmann::json boardEntry(const std::string& serial, int model, int revision) {
  return {{"serial", serial}, {"model", model},     {"revision", revision},
          {"pacing", "free"}, {"major_version", 2}, {"minor_version", 7}};
}

/// Attaches the given boards and finds the firmware in the source tree, as an
/// installed library finds it in its data directory. Detaches on tear-down.
class EmulatedBoards : public ::testing::Test {
 protected:
  static constexpr uint32_t kThreshold = 1000;

  void SetUp() override {
    setCustomBitFileName("");
    emulator::detachBoards();
  }
  void TearDown() override {
    emulator::detachBoards();
    setCustomBitFileName("");
  }

  std::shared_ptr<emulator::BoardControl> attach(const nlohmann::json& entry) {
    return attachAll({entry}).front();
  }
  std::vector<std::shared_ptr<emulator::BoardControl>> attachAll(
      const std::vector<nlohmann::json>& entries) {
    emulator::attachBoards({{"devices", entries}});
    std::vector<std::shared_ptr<emulator::BoardControl>> boards;
    for (const nlohmann::json& entry : entries) {
      boards.push_back(emulator::findBoard(entry.at("serial").get<std::string>()));
      EXPECT_NE(boards.back(), nullptr);
    }
    return boards;
  }

  ScopedEnvironment base{"ZEPTICK_BASE_DIRECTORY", std::string(ZEPTICK_SOURCE_DIR)};
  ScopedEnvironment subdirectory{"ZEPTICK_FIRMWARE_SUBDIRECTORY", std::string("firmware")};
};

/// The text of the runtime error `action` throws; fails the test if none.
template <class Action>
std::string errorOf(Action action) {
  try {
    action();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  ADD_FAILURE() << "no std::runtime_error thrown";
  return "";
}

}  // namespace zeptick::testing
