#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include <nlohmann/json.hpp>

#include "emulator/control/board_config.h"
#include "emulator/control/board_control.h"
#include "emulator/control/emulator_api.h"
#include "support/log_capture.h"
#include "zeptick/emulator.h"

namespace zeptick::emulator {
namespace {

std::string errorOf(const nlohmann::json& device) {
  try {
    parseConfiguration({{"devices", {device}}});
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "(accepted)";
}

TEST(BoardConfigTest, MinimalDeviceGetsUltraDefaults) {
  const auto boards = parseConfiguration({{"devices", {{{"serial", "X"}}}}});
  ASSERT_EQ(boards.size(), 1u);
  const BoardConfig& board = boards[0];
  EXPECT_EQ(board.serial, "X");
  EXPECT_EQ(board.model, 36);
  EXPECT_EQ(board.inputs, 18);
  EXPECT_EQ(board.revision, 5);
  EXPECT_EQ(board.usb_speed, 3);
  EXPECT_TRUE(board.paced);
  EXPECT_TRUE(board.sources.is_array());
  EXPECT_TRUE(board.sources.empty());

  const auto twenty = parseConfiguration({{"devices", {{{"serial", "Y"}, {"model", "ZT-20"}}}}});
  EXPECT_EQ(twenty[0].model, 4);
  EXPECT_EQ(twenty[0].inputs, 8);
  EXPECT_EQ(twenty[0].revision, 2);
}

TEST(BoardConfigTest, BadFieldsAreNamedInTheMessage) {
  const std::pair<nlohmann::json, std::string> cases[] = {
      {{{"serial", ""}}, "devices[0].serial must be 1 to 10 printable"},
      {{{"serial", "A,B"}}, "devices[0].serial must be 1 to 10 printable"},
      {{{"serial", "ABCDEFGHIJK"}}, "devices[0].serial must be 1 to 10 printable"},
      {{{"model", 5}}, "devices[0].model must be 4, 36"},
      {{{"model", 4}, {"inputs", 9}}, "devices[0].inputs must be an integer from 1 to 8"},
      {{{"inputs", 0}}, "devices[0].inputs must be an integer from 1 to 18"},
      {{{"revision", 6}}, "devices[0].revision must be an integer from 0 to 5"},
      {{{"model", 4}, {"revision", 3}}, "devices[0].revision must be an integer from 0 to 2"},
      {{{"revision", 2.5}}, "devices[0].revision must be an integer"},
      {{{"usb_speed", "warp"}}, "devices[0].usb_speed must be 0 to 3"},
      {{{"pacing", "fast"}}, "devices[0].pacing must be \"realtime\" or \"free\""},
      {{{"usb_words_per_second", 0}}, "devices[0].usb_words_per_second must be above 0"},
      {{{"seed", -1}}, "devices[0].seed must be a non-negative integer"},
      {{{"voltages", {{"12", 1.0}}}}, "devices[0].voltages has the key \"12\""},
      {{{"voltages", {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13}}}, "has more than 12 channels"},
      {{{"temperatures", {20}}}, "devices[0].temperatures must be an array of 2 numbers"},
      {{{"fan_duty", {241, 0}}}, "devices[0].fan_duty must be an array of 2 integers from 0"},
      {{{"sources", {{"type", "x"}}}}, "devices[0].sources must be an array"},
      {{{"seeed", 3}}, "devices[0] has an unknown key \"seeed\""},
  };
  for (const auto& [device, expected] : cases) {
    const std::string message = errorOf(device);
    EXPECT_NE(message.find(expected), std::string::npos) << device.dump() << " -> " << message;
    EXPECT_EQ(message.rfind("emulator configuration: ", 0), 0u) << message;
  }
}

TEST(BoardConfigTest, ConfigurationShapeAndRepeatedSerials) {
  EXPECT_THROW(parseConfiguration(nlohmann::json::array()), std::invalid_argument);
  EXPECT_THROW(parseConfiguration({{"devices", 3}}), std::invalid_argument);
  EXPECT_THROW(parseConfiguration({{"devices", nlohmann::json::array()}, {"x", 1}}),
               std::invalid_argument);
  try {
    parseConfiguration({{"devices", {{{"serial", "S"}}, {{"serial", "S"}}}}});
    FAIL() << "a repeated serial was accepted";
  } catch (const std::invalid_argument& error) {
    EXPECT_NE(std::string(error.what()).find("devices[1].serial"), std::string::npos);
  }
  // Devices without a serial get distinct ones, and distinct seeds.
  const auto boards =
      parseConfiguration({{"devices", {nlohmann::json::object(), nlohmann::json::object()}}});
  EXPECT_NE(boards[0].serial, boards[1].serial);
  EXPECT_NE(boards[0].seed, boards[1].seed);
}

TEST(BoardConfigTest, VoltagesByChannelKeepTheOtherRailsHealthy) {
  const auto boards =
      parseConfiguration({{"devices", {{{"serial", "V"}, {"voltages", {{"9", 13.5}}}}}}});
  EXPECT_EQ(boards[0].voltages[9], 13.5);
  EXPECT_EQ(boards[0].voltages[1], -5.0);
  EXPECT_EQ(boards[0].voltages[7], 5.0);
}

TEST(BoardConfigTest, AttachingReplacesBoardsAndABadConfigurationChangesNothing) {
  attachBoards({{"devices", {{{"serial", "A1"}}, {{"serial", "A2"}}}}});
  EXPECT_TRUE(emulatedDevicesAttached());
  EXPECT_NE(findBoard("A2"), nullptr);
  EXPECT_THROW(attachBoards({{"devices", {{{"serial", "A3"}, {"model", 7}}}}}),
               std::invalid_argument);
  EXPECT_NE(findBoard("A1"), nullptr);  // the failed call left the old boards
  EXPECT_THROW(zeptick::attachEmulatedDevices("{\"devices\": ["), std::invalid_argument);
  EXPECT_NE(findBoard("A1"), nullptr);

  zeptick::attachDefaultEmulatedDevice();
  EXPECT_EQ(findBoard("A1"), nullptr);
  auto board = findBoard(defaultConfiguration()["devices"][0]["serial"].get<std::string>());
  ASSERT_NE(board, nullptr);
  EXPECT_EQ(nlohmann::json::parse(zeptick::defaultEmulatorConfiguration()), defaultConfiguration());

  zeptick::detachEmulatedDevices();
  EXPECT_FALSE(emulatedDevicesAttached());
  EXPECT_THROW(zeptick::attachEmulatedDevicesFromFile("/nonexistent/zeptick.json"),
               std::runtime_error);
}

TEST(BoardConfigTest, DefaultConfigurationIsTheDocumentedDemo) {
  const auto boards = parseConfiguration(defaultConfiguration());
  ASSERT_EQ(boards.size(), 1u);
  EXPECT_EQ(boards[0].model, 36);
  EXPECT_EQ(boards[0].inputs, 18);
  EXPECT_EQ(boards[0].sources.size(), 3u);
}

// The environment is read once per process, so each case runs in a fresh one.
TEST(BoardConfigDeathTest, EnvironmentVariableAttachesOrLogs) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        setenv("ZEPTICK_EMULATOR", "default", 1);
        std::exit(emulatedDevicesAttached() && findBoard("ZTEMU00001") != nullptr ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");

  const std::string path = ::testing::TempDir() + "zeptick_bad_emulator.json";
  std::ofstream(path) << R"({"devices": [{"serial": "E", "inputs": 99}]})";
  EXPECT_EXIT(
      {
        setenv("ZEPTICK_EMULATOR", path.c_str(), 1);
        zeptick::testing::LogCapture log;
        const bool attached = emulatedDevicesAttached();
        const bool logged =
            !log.messages().empty() && log.messages()[0].find("inputs") != std::string::npos;
        std::exit(!attached && logged ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");

  // A program that attached boards itself is not overridden by the variable.
  EXPECT_EXIT(
      {
        attachBoards({{"devices", {{{"serial", "MINE"}}}}});
        setenv("ZEPTICK_EMULATOR", "default", 1);
        std::exit(findBoard("MINE") != nullptr && findBoard("ZTEMU00001") == nullptr ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zeptick::emulator
