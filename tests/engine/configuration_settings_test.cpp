#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "emulator/control/board.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using Configuration = EmulatedTagger;

// Each row is one call, in order on one tagger: what it returns (for a setter, the getter read
// right after it), and the exception it throws or the one warning it logs ("": neither).
TEST_F(Configuration, SettingsClampRoundValidateAndNameUnknownChannels) {
  ZeptickImpl& zt = open(ultraBoard("CFG1"));
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
  constexpr int kNone = 40;  // no such channel
  using Z = ZeptickImpl&;
  struct Row {
    std::function<double(Z)> run;
    double value;
    std::string message = "";
  };
  const std::string events_message = "max_events must be between 256 and 32*10^6 events";
  const std::string latency_message = "max_latency must be between 1 millisecond and 10 seconds";
  std::vector<Row> rows = {
      {[](Z z) { return z.setTriggerLevel(3, -10.0), z.getTriggerLevel(3); }, -2.5},
      {[](Z z) { return z.setTriggerLevel(4, 10.0), z.getTriggerLevel(-4); }, 2.5},
      // 1 V: (1 + 2.5) * 65535 / 5 = 45874.5, rounded half away from zero: 45875.
      {[](Z z) { return z.setTriggerLevel(-5, 1.0), z.getTriggerLevel(5); },
       45875 * 5.0 / 65535 - 2.5},
      {[](Z z) { return z.getDeadtime(1); }, 2500},
      {[](Z z) { return z.setDeadtime(1, 0); }, 2500},
      {[](Z z) { return z.setDeadtime(1, 3749); }, 2500},
      {[](Z z) { return z.setDeadtime(1, 3750); }, 5000},
      {[](Z z) { return z.setDeadtime(-1, int64_t{1} << 40); }, 65535 * 2500},
      {[](Z z) { return z.getDeadtime(1); }, 5000},
      {[](Z z) { return z.setDeadtime(3, kMax); }, 65535 * 2500},
      {[](Z z) { return z.setDeadtime(3, kMin); }, 2500},
      {[](Z z) { return z.setInputDelay(3, kMax), z.getInputDelay(3); }, 1e17},
      {[](Z z) { return z.setInputDelay(4, kMin), z.getInputDelay(4); }, -1e17},
      {[](Z z) { return z.setEventDivider(2, 70000), z.getEventDivider(2); }, 65535},
      {[](Z z) { return z.getEventDivider(-2); }, 0},
      {[](Z z) { return z.setInputMux(6, 2), z.getInputMux(-6); }, 2},
      {[](Z z) { return z.getTestSignal(6); }, 0},
      {[](Z z) {
         return z.setTestSignal(std::vector<int>{-6, 7}, true), z.getInputMux(6);
       },
       3},
      {[](Z z) { return z.getTestSignal(-7); }, 1},
      {[](Z z) { return z.setTestSignal(7, false), z.getInputMux(7); }, 0},
      {[](Z z) { return z.setHardwareBufferSize(1), z.getHardwareBufferSize(); }, 32768},
      {[](Z z) { return z.setHardwareBufferSize(1 << 30), z.getHardwareBufferSize(); }, 536870912},
      {[](Z z) { return z.setStreamBlockSize(33554433, 20), 0; }, 0, events_message},
      {[](Z z) { return z.setStreamBlockSize(255, 20), 0; }, 0, events_message},
      {[](Z z) { return z.setStreamBlockSize(1000, 0), 0; }, 0, latency_message},
      {[](Z z) { return z.setStreamBlockSize(1000, 10001), 0; }, 0, latency_message},
      // The limit is 32 * 2^20, above the message's figure.
      {[](Z z) { return z.setStreamBlockSize(33554432, 20), z.getStreamBlockSizeEvents(); },
       33554432},
      {[](Z z) { return z.setStreamBlockSize(1000, 10000), z.getStreamBlockSizeLatency(); }, 10000},
      {[](Z z) { return z.registerChannel(0), 0; }, 0, "Tried to register an unknown channel"},
      {[](Z z) { return z.unregisterChannel(-kNone), 0; }, 0,
       "Tried to unregister an unknown channel"},
      {[](Z z) {
         const int channel = z.getNewVirtualChannel();
         return z.registerChannel(channel), z.unregisterChannel(channel), 0;
       },
       0},
  };
  // Calls on a channel that does not exist, and what "Tried to ... an unknown channel" says.
  const std::pair<std::function<double(Z)>, std::string> unknown[] = {
      {[](Z z) { return z.setTriggerLevel(kNone, 1.0), 0; }, "configure the trigger level for"},
      {[](Z z) { return z.getTriggerLevel(kNone); }, "fetch the trigger level for"},
      {[](Z z) { return z.setInputMux(kNone, 1), 0; }, "set the input multiplexer of"},
      {[](Z z) { return z.getInputMux(kNone); }, "get the input multiplexer of"},
      {[](Z z) { return z.setTestSignal(kNone, true), 0; }, "set the test signal of"},
      {[](Z z) { return z.getTestSignal(kNone); }, "query the test signal of"},
      {[](Z z) { return z.setEventDivider(kNone, 2), 0; }, "configure the event divider for"},
      {[](Z z) { return z.getEventDivider(kNone); }, "query the event divider for"},
      {[](Z z) { return z.setInputDelay(kNone, 5), 0; }, "set the input delay of"},
      {[](Z z) { return z.getInputDelay(kNone); }, "get the input delay of"},
      {[](Z z) { return z.setDeadtime(kNone, 5000); }, "configure the deadtime for"},
      {[](Z z) { return z.getDeadtime(kNone); }, "query the deadtime for"},
      {[](Z z) { return z.getHardwareDelayCompensation(kNone); },
       "get the hardware delay compensation of"},
  };
  for (const auto& [call, what] : unknown) {
    rows.push_back({call, 0, "Tried to " + what + " an unknown channel"});
  }
  for (size_t i = 0; i < rows.size(); ++i) {
    const Row& row = rows[i];
    SCOPED_TRACE("row " + std::to_string(i));
    LogCapture log;
    double got = NAN;
    const std::string error = invalidArgument([&] { got = row.run(zt); });
    if (error != "no exception") {
      EXPECT_EQ(error, row.message);
      continue;
    }
    EXPECT_NEAR(got, row.value, 1e-6);
    EXPECT_EQ(log.messages().size(), row.message.empty() ? 0u : 1u);
    EXPECT_TRUE(row.message.empty() || log.contains(LOGGER_WARNING, row.message)) << row.message;
  }

  zt.setHardwareBufferSize(100000);
  zt.sync();
  EXPECT_EQ(std::pair(board->wireIn(0x12), board->wireIn(0x13)), std::pair(100000u, 50000u));
  // Inputs 3 and 4 clamped, input 5 set through its falling channel.
  const auto& emulated = dynamic_cast<emulator::Board&>(*board);
  EXPECT_EQ(std::tuple(emulated.dacCode(2), emulated.dacCode(3), emulated.dacCode(4)),
            std::tuple(0, 65535, 45875));
  // The channel table as the firmware reads it: multiplexer, dead time in clocks and the divider
  // less one, of inputs 1 (rising and falling: 18 + 0), 2 and 6 (test signal).
  const auto table = emulated.firmwareSetup().channels;
  std::vector<std::tuple<int, int, int>> fields;
  for (int index : {0, 18, 1, 5}) {
    const emulator::ChannelSetup& c = table.at(static_cast<size_t>(index));
    fields.emplace_back(c.mux, c.deadtime_clocks, c.divider_field);
  }
  EXPECT_EQ(fields, (std::vector<std::tuple<int, int, int>>{
                        {0, 2, 0}, {0, 65535, 0}, {0, 1, 65534}, {3, 1, 0}}));
  // A divider changed alone reaches the board with the next read, without a sync.
  zt.setEventDivider(2, 5);
  EXPECT_TRUE(
      waitUntil([&] { return emulated.firmwareSetup().channels.at(1).divider_field == 4; }, 5));

  // The conditional filter checks its arguments before it changes anything.
  zt.setConditionalFilter({1}, {2, 3});
  auto message = [&zt](std::vector<int> trigger, std::vector<int> filtered) {
    return invalidArgument([&] { zt.setConditionalFilter(trigger, filtered, false); });
  };
  EXPECT_EQ(message({1}, {77}),
            "Tried to configure the conditional filter for the unknown channel 77");
  EXPECT_EQ(message({1}, {}),
            "The conditional filter on device CFG1 requires at least one trigger and at least one "
            "filtered channel.");
  // Triggers, filtered channels, and whether the hardware delays are compensated.
  auto state = [&zt] {
    return std::tuple(zt.getConditionalFilterTrigger(), zt.getConditionalFilterFiltered(),
                      zt.getHardwareDelayCompensation(1) != 0);
  };
  using Filter = std::vector<int>;
  EXPECT_EQ(state(), std::tuple(Filter{1}, Filter{2, 3}, true)) << "failed calls change nothing";
  EXPECT_EQ(message({CHANNEL_UNUSED, 4}, {-4}), "no exception");
  EXPECT_EQ(state(), std::tuple(Filter{4}, Filter{-4}, false));
  // In the firmware's table: the trigger is enabled while its filtered channel is in use, even
  // unregistered itself.
  zt.registerChannel(-4);
  zt.sync();
  const auto filter_table = emulated.firmwareSetup().channels;
  const emulator::ChannelSetup& trigger = filter_table.at(3);
  const emulator::ChannelSetup& filtered = filter_table.at(18 + 3);
  EXPECT_EQ(std::tuple(trigger.enabled, trigger.trigger, trigger.filtered, filtered.enabled,
                       filtered.trigger, filtered.filtered),
            std::tuple(true, true, false, true, false, true));
  zt.unregisterChannel(-4);
  zt.clearConditionalFilter();
  EXPECT_EQ(state(), std::tuple(Filter{}, Filter{}, true));
}

// The report's layout is fixed (indentation, key order, commas, one-line arrays, the time
// format), and it shows every setting and counted registration.
TEST_F(Configuration, ReportKeepsItsLayoutAndShowsTheSettings) {
  ZeptickImpl& zt = open(ultraBoard("REP1"));
  std::vector<std::string> text;
  std::istringstream stream(zt.getConfiguration());
  for (std::string line; std::getline(stream, line);) text.push_back(line);
  // 18 inputs of 11 lines, the last without its comma, and the closing lines.
  ASSERT_EQ(text.size(), 22u + 18u * 11u + 2u);
  // gtest's POSIX expressions: no \d, and a bracket expression lists `]` first.
  EXPECT_THAT(text[1], ::testing::MatchesRegex(R"(  "current time": "[0-9]{4}-[0-9]{2}-[0-9]{2})"
                                               R"( [0-9]{2}:[0-9]{2}:[0-9]{2} [+-][0-9]{4}",)"));
  // Two spaces per level of nesting, then `"key": value` or a bracket; arrays of plain values on
  // one line.
  int depth = 0;
  for (const std::string& line : text) {
    depth -= line.find_first_of("]}") == line.find_first_not_of(' ');
    EXPECT_EQ(line.find_first_not_of(' '), static_cast<size_t>(2 * depth)) << line;
    EXPECT_THAT(line, ::testing::MatchesRegex(R"( *("[^"]+": [^ ].*|[][{}],?))"));
    depth += line.back() == '[' || line.back() == '{';
  }
  EXPECT_EQ(text[3], R"(  "registered channels": [],)");
  EXPECT_EQ(text[23], R"(      "channel": [1, -1],)");
  // The keys in their order (an ordered_json keeps them) and the defaults, numbers as written.
  auto defaults = nlohmann::ordered_json::parse(zt.getConfiguration());
  defaults.erase("current time");
  defaults["inputs"] = nlohmann::ordered_json::array({defaults["inputs"][0]});
  auto want = nlohmann::ordered_json::parse(R"({"software version": "2.7.0",
      "registered channels": [], "serial": "REP1", "firmware version": "",
      "hardware buffer size": 67108864, "normalization": true, "test signal divider": 63,
      "channel number scheme": 2, "led bitmask": 0, "stream block size events": 131072,
      "stream block size latency": 20, "devices": [{"serial": "REP1", "model": "Zeptick Ultra",
      "resolution": 9, "PCB version": "1.4b"}], "inputs": [{"channel": [1, -1],
      "trigger level": 0.5, "input delay": [0, 0], "hardware delay compensation": [1574, 1574],
      "deadtime": [2500, 2500], "event divider": [0, 0],
      "conditional filter filtered": [false, false],
      "conditional filter triggers": [false, false], "input mux": 0}]})");
  want["firmware version"] = zt.getFirmwareVersion();
  EXPECT_EQ(defaults.dump(), want.dump());

  zt.setInputDelay(2, 1234);
  zt.setInputDelay(-2, -55);
  zt.setDeadtime(-3, 10000);
  zt.setEventDivider(-4, 3);
  zt.setTriggerLevel(5, 0.25);
  zt.setInputMux(6, 2);
  zt.setConditionalFilter({1}, {-7, 8});
  zt.setLED(0x10001);
  zt.setStreamBlockSize(4096, 7);
  zt.setNormalization(false);
  zt.registerChannel(-9);
  zt.registerChannel(3);
  zt.registerChannel(3);
  zt.registerChannel(4);
  zt.unregisterChannel(3);
  zt.unregisterChannel(4);
  const json report = json::parse(zt.getConfiguration());
  const std::vector<std::pair<std::string, json>> shown = {
      {"/registered channels", {-9, 3}},  // counted: 3 is still registered once
      {"/normalization", false},
      {"/led bitmask", 0x10001},
      {"/stream block size events", 4096},
      {"/stream block size latency", 7},
      {"/inputs/1/input delay", {1234, -55}},
      {"/inputs/2/deadtime", {2500, 10000}},
      {"/inputs/3/event divider", {0, 3}},
      {"/inputs/5/input mux", 2},
      {"/inputs/6/conditional filter filtered", {false, true}},
      {"/inputs/7/conditional filter filtered", {true, false}},
      {"/inputs/0/conditional filter triggers", {true, false}},
      {"/inputs/0/hardware delay compensation", {1574, 1574}},
      {"/inputs/17/hardware delay compensation", {2947, 2947}},
  };
  for (const auto& [pointer, value] : shown) {
    EXPECT_EQ(report.at(json::json_pointer(pointer)), value) << pointer;
  }
  EXPECT_NEAR(report["inputs"][4]["trigger level"].get<double>(), 0.25, 1e-4);
}

}  // namespace
}  // namespace zeptick::testing
