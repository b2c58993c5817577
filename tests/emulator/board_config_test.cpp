#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include <nlohmann/json.hpp>

#include "emulator/control/board_config.h"
#include "emulator/control/board_control.h"
#include "emulator/control/emulator_api.h"
#include "support/log_capture.h"
#include "zeptick/emulator.h"

namespace zeptick::emulator {
namespace {

std::string errorOf(const nlohmann::json& config) {
  try {
    parseConfiguration(config);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "(accepted)";
}

TEST(BoardConfigTest, DefaultsFollowTheModelAndBadFieldsAreNamedInTheMessage) {
  const auto boards = parseConfiguration({{"devices",
                                           {{{"serial", "X"}},
                                            {{"serial", "Y"}, {"model", "ZT-20"}},
                                            {{"voltages", {{"9", 13.5}}}}}}});
  ASSERT_EQ(boards.size(), 3u);
  const BoardConfig& ultra = boards[0];
  EXPECT_EQ(std::tuple(ultra.serial, ultra.model, ultra.inputs, ultra.revision, ultra.usb_speed,
                       ultra.paced),
            std::tuple("X", 36, 18, 5, 3, true));
  EXPECT_TRUE(ultra.sources.is_array() && ultra.sources.empty());
  EXPECT_EQ(std::tuple(boards[1].model, boards[1].inputs, boards[1].revision), std::tuple(4, 8, 2));
  // Voltages by channel keep the other rails healthy; devices without a serial get their own.
  EXPECT_EQ(std::tuple(boards[2].voltages[9], boards[2].voltages[1], boards[2].voltages[7]),
            std::tuple(13.5, -5.0, 5.0));
  const auto unnamed =
      parseConfiguration({{"devices", {nlohmann::json::object(), nlohmann::json::object()}}});
  EXPECT_NE(unnamed[0].serial, unnamed[1].serial);
  EXPECT_NE(unnamed[0].seed, unnamed[1].seed);
  const auto demo = parseConfiguration(defaultConfiguration());
  ASSERT_EQ(demo.size(), 1u);
  EXPECT_EQ(std::tuple(demo[0].model, demo[0].inputs, demo[0].sources.size()),
            std::tuple(36, 18, size_t{3}));

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
      {{{"pacing", 1.5}}, "devices[0].pacing must be \"realtime\", \"free\" or a number in"},
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
    const std::string message = errorOf({{"devices", {device}}});
    EXPECT_NE(message.find(expected), std::string::npos) << device.dump() << " -> " << message;
    EXPECT_EQ(message.rfind("emulator configuration: ", 0), 0u) << message;
  }
  EXPECT_NE(
      errorOf({{"devices", {{{"serial", "S"}}, {{"serial", "S"}}}}}).find("devices[1].serial"),
      std::string::npos);
  for (const nlohmann::json& shape :
       {nlohmann::json::array(), nlohmann::json{{"devices", 3}},
        nlohmann::json{{"devices", nlohmann::json::array()}, {"x", 1}}}) {
    EXPECT_NE(errorOf(shape), "(accepted)") << shape.dump();
  }
}

TEST(BoardConfigTest, AttachingReplacesBoardsAndABadConfigurationChangesNothing) {
  attachBoards({{"devices", {{{"serial", "A1"}}, {{"serial", "A2"}}}}});
  EXPECT_TRUE(emulatedDevicesAttached());
  EXPECT_NE(findBoard("A2"), nullptr);
  EXPECT_THROW(attachBoards({{"devices", {{{"serial", "A3"}, {"model", 7}}}}}),
               std::invalid_argument);
  // Text the JSON parser refuses, for its syntax or for a number beyond a double.
  for (const char* text : {"{\"devices\": [", "{\"devices\": [{\"seed\": 1e400}]}"}) {
    EXPECT_THROW(zeptick::attachEmulatedDevices(text), std::invalid_argument) << text;
  }
  EXPECT_NE(findBoard("A1"), nullptr);  // the failed calls left the old boards
  zeptick::attachDefaultEmulatedDevice();
  EXPECT_EQ(findBoard("A1"), nullptr);
  EXPECT_NE(findBoard(defaultConfiguration()["devices"][0]["serial"].get<std::string>()), nullptr);
  EXPECT_EQ(nlohmann::json::parse(zeptick::defaultEmulatorConfiguration()), defaultConfiguration());
  zeptick::detachEmulatedDevices();
  EXPECT_FALSE(emulatedDevicesAttached());
  EXPECT_THROW(zeptick::attachEmulatedDevicesFromFile("/nonexistent/zeptick.json"),
               std::runtime_error);
}

// The environment is read once per process, so each case runs in a fresh one.
TEST(BoardConfigDeathTest, EnvironmentVariableAttachesOrLogs) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::string path = ::testing::TempDir() + "zeptick_bad_emulator.json";
  std::ofstream(path) << R"({"devices": [{"serial": "E", "inputs": 99}]})";
  const std::function<bool()> cases[] = {
      [] {
        setenv("ZEPTICK_EMULATOR", "default", 1);
        return emulatedDevicesAttached() && findBoard("ZTEMU00001") != nullptr;
      },
      [&] {  // a bad file attaches nothing and says why
        setenv("ZEPTICK_EMULATOR", path.c_str(), 1);
        zeptick::testing::LogCapture log;
        const bool attached = emulatedDevicesAttached();
        const auto messages = log.messages();
        return !attached && messages.size() == 1 &&
               messages[0].find("devices[0].inputs") != std::string::npos;
      },
      [] {  // a program that attached boards itself is not overridden
        attachBoards({{"devices", {{{"serial", "MINE"}}}}});
        setenv("ZEPTICK_EMULATOR", "default", 1);
        return findBoard("MINE") != nullptr && findBoard("ZTEMU00001") == nullptr;
      }};
  for (const auto& check : cases)
    EXPECT_EXIT(std::exit(check() ? 0 : 1), ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace zeptick::emulator
