#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

class ConfigurationSettings : public EmulatedTagger {};

// The code the board's DAC of `input` received last, from the serial-bus words.
int lastDacCode(emulator::BoardControl& board, int input) {
  int code = -1;
  for (const emulator::SerialWord& word : board.serialWords()) {
    if ((word.word >> 20) != 3) continue;
    const int dac = static_cast<int>((word.word >> 16) & 0xF) + (word.select == 2 ? 16 : 0);
    if (dac == input) code = static_cast<int>(word.word & 0xFFFF);
  }
  return code;
}

TEST_F(ConfigurationSettings, TriggerLevelsClampRoundAndReachTheDac) {
  ZeptickImpl& zt = open(ultraBoard("CFG1"));
  zt.setTriggerLevel(3, -10.0);
  zt.setTriggerLevel(4, 10.0);
  // 1 V: (1 + 2.5) * 65535 / 5 = 45874.5, rounded half away from zero.
  zt.setTriggerLevel(-5, 1.0);
  zt.sync();
  EXPECT_EQ(lastDacCode(*board, 2), 0);
  EXPECT_EQ(lastDacCode(*board, 3), 65535);
  EXPECT_EQ(lastDacCode(*board, 4), 45875) << "a falling channel sets its input's level";
  EXPECT_DOUBLE_EQ(zt.getTriggerLevel(3), -2.5);
  EXPECT_DOUBLE_EQ(zt.getTriggerLevel(-4), 2.5);
  EXPECT_NEAR(zt.getTriggerLevel(5), 1.0, 5.0 / 65535);
}

TEST_F(ConfigurationSettings, DeadtimeRoundsToClocksAndDividerClamps) {
  ZeptickImpl& zt = open(ultraBoard("CFG2"));
  EXPECT_EQ(zt.getDeadtime(1), 2500) << "one clock by default";
  EXPECT_EQ(zt.setDeadtime(1, 0), 2500) << "never below one clock";
  EXPECT_EQ(zt.setDeadtime(1, 3749), 2500);
  EXPECT_EQ(zt.setDeadtime(1, 3750), 5000);
  EXPECT_EQ(zt.setDeadtime(-1, int64_t{1} << 40), 65535 * 2500);
  EXPECT_EQ(zt.getDeadtime(-1), 65535 * 2500);
  EXPECT_EQ(zt.getDeadtime(1), 5000) << "each edge has its own dead time";
  // Extreme requests clamp instead of overflowing while rounding.
  EXPECT_EQ(zt.setDeadtime(3, std::numeric_limits<int64_t>::max()), 65535 * 2500);
  EXPECT_EQ(zt.setDeadtime(3, std::numeric_limits<int64_t>::min()), 2500);
  zt.setInputDelay(3, std::numeric_limits<int64_t>::max());
  zt.setInputDelay(4, std::numeric_limits<int64_t>::min());
  EXPECT_EQ(zt.getInputDelay(3), 100'000'000'000'000'000);
  EXPECT_EQ(zt.getInputDelay(4), -100'000'000'000'000'000);
  EXPECT_TRUE(zt.sync()) << "the stream goes on with the clamped delays";

  zt.setEventDivider(2, 70000);
  EXPECT_EQ(zt.getEventDivider(2), 65535u);
  zt.setEventDivider(2, 7);
  EXPECT_EQ(zt.getEventDivider(2), 7u);
  EXPECT_EQ(zt.getEventDivider(-2), 0u);
}

TEST_F(ConfigurationSettings, InputMuxAndTestSignalShareTheRisingChannel) {
  ZeptickImpl& zt = open(ultraBoard("CFG3"));
  zt.setInputMux(6, 2);
  EXPECT_EQ(zt.getInputMux(-6), 2);
  EXPECT_FALSE(zt.getTestSignal(6)) << "only multiplexer 3 is the test signal";
  zt.setTestSignal(std::vector<int>{-6, 7}, true);
  EXPECT_EQ(zt.getInputMux(6), 3);
  EXPECT_TRUE(zt.getTestSignal(6));
  EXPECT_TRUE(zt.getTestSignal(-7));
  zt.setTestSignal(7, false);
  EXPECT_EQ(zt.getInputMux(7), 0);
}

TEST_F(ConfigurationSettings, BufferSizeBlockSizeAndLedsValidate) {
  ZeptickImpl& zt = open(ultraBoard("CFG4"));
  zt.setHardwareBufferSize(1);
  EXPECT_EQ(zt.getHardwareBufferSize(), 32768);
  zt.setHardwareBufferSize(1 << 30);
  EXPECT_EQ(zt.getHardwareBufferSize(), 536870912);
  zt.setHardwareBufferSize(100000);
  zt.setLED(0x70005);
  zt.setTestSignalDivider(100);
  zt.sync();
  EXPECT_EQ(board->wireIn(0x12), 100000u);
  EXPECT_EQ(board->wireIn(0x13), 50000u);
  EXPECT_EQ(board->wireIn(0x0C), 0x70005u);
  EXPECT_EQ(board->wireIn(0x09), 200u);
  EXPECT_EQ(board->wireIn(0x0B), 100u);

  auto message = [&zt](int events, int latency) {
    try {
      zt.setStreamBlockSize(events, latency);
    } catch (const std::invalid_argument& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  const std::string events_message = "max_events must be between 256 and 32*10^6 events";
  const std::string latency_message = "max_latency must be between 1 millisecond and 10 seconds";
  EXPECT_EQ(message(33554433, 20), events_message);
  EXPECT_EQ(message(255, 20), events_message);
  EXPECT_EQ(message(1000, 0), latency_message);
  EXPECT_EQ(message(1000, 10001), latency_message);
  EXPECT_EQ(message(33554432, 20), "") << "the limit is 32 * 2^20, above the message's figure";
  EXPECT_EQ(message(1000, 10000), "");
  EXPECT_EQ(zt.getStreamBlockSizeEvents(), 1000);
  EXPECT_EQ(zt.getStreamBlockSizeLatency(), 10000);
}

TEST_F(ConfigurationSettings, UnknownChannelsAreLoggedAndGiveZero) {
  ZeptickImpl& zt = open(ultraBoard("CFG5"));
  LogCapture log;
  const int unknown = 40;
  zt.setTriggerLevel(unknown, 1.0);
  EXPECT_EQ(zt.getTriggerLevel(unknown), 0.0);
  zt.setInputMux(unknown, 1);
  EXPECT_EQ(zt.getInputMux(unknown), 0);
  zt.setTestSignal(unknown, true);
  EXPECT_FALSE(zt.getTestSignal(unknown));
  zt.setEventDivider(unknown, 2);
  EXPECT_EQ(zt.getEventDivider(unknown), 0u);
  zt.setInputDelay(unknown, 5);
  EXPECT_EQ(zt.getInputDelay(unknown), 0);
  EXPECT_EQ(zt.setDeadtime(unknown, 5000), 0);
  EXPECT_EQ(zt.getDeadtime(unknown), 0);
  EXPECT_EQ(zt.getHardwareDelayCompensation(unknown), 0);
  zt.registerChannel(0);
  zt.unregisterChannel(-40);
  const int virtual_channel = zt.getNewVirtualChannel();
  zt.registerChannel(virtual_channel);  // accepted in silence
  zt.unregisterChannel(virtual_channel);

  const std::vector<std::string> expected = {
      "Tried to configure the trigger level for an unknown channel",
      "Tried to fetch the trigger level for an unknown channel",
      "Tried to set the input multiplexer of an unknown channel",
      "Tried to get the input multiplexer of an unknown channel",
      "Tried to set the test signal of an unknown channel",
      "Tried to query the test signal of an unknown channel",
      "Tried to configure the event divider for an unknown channel",
      "Tried to query the event divider for an unknown channel",
      "Tried to set the input delay of an unknown channel",
      "Tried to get the input delay of an unknown channel",
      "Tried to configure the deadtime for an unknown channel",
      "Tried to query the deadtime for an unknown channel",
      "Tried to get the hardware delay compensation of an unknown channel",
      "Tried to register an unknown channel",
      "Tried to unregister an unknown channel",
  };
  const std::vector<std::string> messages = log.messages();
  ASSERT_EQ(messages.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_NE(messages[i].find(expected[i]), std::string::npos) << messages[i];
  }
}

TEST_F(ConfigurationSettings, ConditionalFilterChecksBeforeItChanges) {
  ZeptickImpl& zt = open(ultraBoard("CFG6"));
  zt.setConditionalFilter({1}, {2, 3});
  EXPECT_EQ(zt.getConditionalFilterTrigger(), (std::vector<int>{1}));
  EXPECT_EQ(zt.getConditionalFilterFiltered(), (std::vector<int>{2, 3}));

  auto message = [&zt](std::vector<int> trigger, std::vector<int> filtered) {
    try {
      zt.setConditionalFilter(trigger, filtered, false);
    } catch (const std::invalid_argument& error) {
      return std::string(error.what());
    }
    return std::string();
  };
  EXPECT_EQ(message({1}, {77}),
            "Tried to configure the conditional filter for the unknown channel 77");
  EXPECT_EQ(message({1}, {}),
            "The conditional filter on device CFG6 requires at least one trigger and at least one "
            "filtered channel.");
  EXPECT_EQ(zt.getConditionalFilterFiltered(), (std::vector<int>{2, 3}))
      << "failed calls change nothing";
  EXPECT_NE(zt.getHardwareDelayCompensation(1), 0) << "compensation still on";

  EXPECT_EQ(message({CHANNEL_UNUSED, 4}, {-4}), "");
  EXPECT_EQ(zt.getConditionalFilterTrigger(), (std::vector<int>{4}));
  EXPECT_EQ(zt.getHardwareDelayCompensation(1), 0) << "compensation switched off";
  zt.clearConditionalFilter();
  EXPECT_TRUE(zt.getConditionalFilterTrigger().empty());
  EXPECT_TRUE(zt.getConditionalFilterFiltered().empty());
  EXPECT_NE(zt.getHardwareDelayCompensation(1), 0);
}

// Registration is counted: the device sends a channel while anyone uses it.
TEST_F(ConfigurationSettings, RegistrationsAreCounted) {
  ZeptickImpl& zt = open(ultraBoard("CFG7"));
  zt.registerChannel(1);
  zt.registerChannel(1);
  zt.unregisterChannel(1);
  const std::string report = zt.getConfiguration();
  EXPECT_NE(report.find("\"registered channels\": [1],"), std::string::npos);
  zt.unregisterChannel(1);
  EXPECT_NE(zt.getConfiguration().find("\"registered channels\": [],"), std::string::npos);
}

}  // namespace
}  // namespace zeptick::testing
