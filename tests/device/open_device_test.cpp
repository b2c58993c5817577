#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>
#include <vector>

#include "device/pipe_backend.h"
#include "device_fixture.h"
#include "support/log_capture.h"

namespace zeptick::testing {
namespace {

using device::PipeBackend;
using emulator::BoardEvent;

std::string trafficLine(const std::string& call, int64_t a, int64_t b) {
  char text[96];
  std::snprintf(text, sizeof(text), "%s 0x%llx 0x%llx", call.c_str(),
                static_cast<unsigned long long>(a), static_cast<unsigned long long>(b));
  return text;
}

// The wire, update and trigger traffic a board should see while it is opened, written out step
// by step from the start-up order, serial-bus transfers included, so that any step missing,
// added or reordered shows.
class ExpectedTraffic {
 public:
  void wire(int address, uint32_t value) {
    if (address == 4) wire4 = value;
    lines.push_back(trafficLine("SetWireInValue", address, value));
  }
  void update() { lines.push_back(trafficLine("UpdateWireIns", 0, 0)); }
  void set(int address, uint32_t value) {
    wire(address, value);
    update();
  }
  void trigger(int address, int bit) {
    lines.push_back(trafficLine("ActivateTriggerIn", address, bit));
  }
  void busWord(uint32_t select, uint32_t word) {
    const uint32_t restore = wire4;
    wire(4, restore | select);
    wire(3, word);
    update();
    trigger(0x40, 0);
    wire(4, restore);
    update();
  }
  std::vector<std::string> lines;

 private:
  uint32_t wire4 = 0;
};

std::vector<std::string> recordedTraffic(const std::vector<BoardEvent>& events) {
  std::vector<std::string> lines;
  for (const BoardEvent& event : events) {
    if (event.call == "UpdateWireIns") {
      lines.push_back(trafficLine(event.call, 0, 0));
    } else if (event.call == "SetWireInValue" || event.call == "ActivateTriggerIn") {
      lines.push_back(trafficLine(event.call, event.a, event.b));
    }
  }
  return lines;
}

// Position of the first call named `name` among `events`, or their count.
size_t indexOf(const std::vector<BoardEvent>& events, const std::string& name) {
  for (size_t i = 0; i < events.size(); ++i) {
    if (events[i].call == name) return i;
  }
  return events.size();
}

class OpenDevice : public EmulatedBoards {};

TEST_F(OpenDevice, Zeptick20SetsClockLoadsFirmwareAndResetsConverter) {
  for (int revision = 0; revision <= 2; ++revision) {
    SCOPED_TRACE("revision " + std::to_string(revision));
    auto board = attach(boardEntry("Z20-A", 4, revision));
    PipeBackend backend(1024, kThreshold);
    ASSERT_TRUE(backend.openDevice("Z20-A"));

    EXPECT_EQ(backend.serial(), "Z20-A");
    EXPECT_EQ(backend.modelName(), "ZT-20");
    EXPECT_EQ(backend.displayName(), "Zeptick 20");
    EXPECT_EQ(backend.modelCode(), 4u);
    EXPECT_EQ(backend.revision(), static_cast<uint32_t>(revision));
    EXPECT_EQ(backend.resolutionMask(), 0xFFFFFFFFu);
    EXPECT_EQ(backend.firmwareVersion(), "ZT-20, FW 4, OK 2.7");
    ASSERT_EQ(backend.inputCount(), 8);
    std::set<int32_t> all;
    for (int index = 0; index < 16; ++index) all.insert(index);
    EXPECT_EQ(backend.availableChannels(), all);

    const std::vector<BoardEvent> events = board->events();
    std::vector<std::string> pll;
    for (const BoardEvent& event : events) {
      if (event.call.rfind("PLL.", 0) == 0 || event.call == "SetPLL22150Configuration") {
        pll.push_back(event.call + " " + std::to_string(event.a) + " " + std::to_string(event.b));
      }
    }
    const std::vector<std::string> expected_pll = {
        "PLL.SetVCOParameters 125 18", "PLL.SetDiv1 1 4",         "PLL.SetOutputSource 0 1",
        "PLL.SetOutputEnable 0 1",     "PLL.SetOutputSource 2 2", "PLL.SetOutputEnable 2 1",
        "SetPLL22150Configuration 0 0"};
    EXPECT_EQ(pll, expected_pll);

    EXPECT_LT(indexOf(events, "SetPLL22150Configuration"), indexOf(events, "ConfigureFPGA"));
    const size_t configure = indexOf(events, "ConfigureFPGA");
    ASSERT_LT(configure, events.size());
    EXPECT_EQ(events[configure].text,
              std::string(ZEPTICK_SOURCE_DIR) + "/firmware/ZeptickController.bit");

    ExpectedTraffic expected;
    expected.set(0x01, kThreshold / 2);
    expected.wire(0x03, 0);  // the converter reset: a = 0, b = 8, value 0
    expected.set(0x04, 0x800);
    expected.trigger(0x40, 0);
    expected.set(0x0D, 1);
    EXPECT_EQ(recordedTraffic(events), expected.lines);

    // No fan, voltage or serial-bus step belongs to this model.
    EXPECT_TRUE(board->serialWords().empty());
    EXPECT_TRUE(board->i2cBytes().empty());
    EXPECT_EQ(indexOf(events, "WriteRegister"), events.size());
    EXPECT_TRUE(backend.isConnected());
  }
}

TEST_F(OpenDevice, UltraFollowsEveryRevisionBranch) {
  // Channels of the supply check, in the order they must be read.
  const std::vector<int> rails = {0, 1, 5, 7, 4, 6, 2, 8, 3, 9};
  for (int revision = 0; revision <= 5; ++revision) {
    SCOPED_TRACE("revision " + std::to_string(revision));
    auto board = attach(boardEntry("ULTRA-A", 36, revision));
    PipeBackend backend(1024, kThreshold);
    ASSERT_TRUE(backend.openDevice("ULTRA-A"));
    EXPECT_EQ(backend.modelName(), "ZT-Ultra");
    EXPECT_EQ(backend.displayName(), "Zeptick Ultra");
    EXPECT_EQ(backend.modelCode(), 36u);
    EXPECT_EQ(backend.revision(), static_cast<uint32_t>(revision));
    EXPECT_EQ(backend.inputCount(), 18);
    EXPECT_EQ(backend.availableChannels().size(), 36u);
    const uint32_t stamp = backend.getWire(0x20);
    EXPECT_NE(stamp, 0u);
    EXPECT_EQ(backend.firmwareVersion(),
              "ZT-Ultra, FW 4, TS " + device::formatFirmwareTimestamp(stamp) + ", OK 2.7");

    const std::vector<BoardEvent> events = board->events();
    for (const BoardEvent& event : events) EXPECT_NE(event.call.rfind("PLL.", 0), 0u) << event.call;
    EXPECT_EQ(indexOf(events, "SetPLL22150Configuration"), events.size());
    EXPECT_LT(indexOf(events, "ConfigureFPGA"), indexOf(events, "SetWireInValue"));

    ExpectedTraffic expected;
    expected.set(0x15, revision < 3 ? 0x0C : 0);
    if (revision > 2) {
      expected.set(0x0F, 7);
    }
    expected.set(0x01, kThreshold / 2);
    expected.set(0x0E, 1);
    expected.set(0x0E, 0);
    expected.set(0x04, 0);
    expected.set(0x04, 0x30000);
    expected.busWord(1 | 2, 0xAAE00004);
    expected.set(0x0D, 1);
    if (revision > 2) {
      expected.set(0x0F, 7);
      for (uint32_t word :
           {revision < 4 ? 5u : 0x400005u, 0xBC843Cu, 3u, 0xA005D42u, 0x8008011u, 0x640000u}) {
        expected.busWord(4, word);
      }
    }
    expected.busWord(2, 0x327FFF);  // reference 0x12 = 0x7FFF on the second converter
    expected.busWord(2, 0x33B332);  // reference 0x13 = 0xB332
    EXPECT_EQ(recordedTraffic(events), expected.lines);

    // The I2C core and its two chips exist from revision 3, the converter from 4.
    std::vector<std::pair<int64_t, int64_t>> core_setup;
    for (const BoardEvent& event : events) {
      if (event.call == "WriteRegister" && event.a != 3 && event.a != 4) {
        core_setup.emplace_back(event.a, event.b);
      }
    }
    std::vector<std::pair<uint8_t, uint8_t>> written;
    int reads = 0;
    for (const emulator::I2cByte& byte : board->i2cBytes()) {
      if (byte.read) {
        ++reads;
      } else {
        written.emplace_back(byte.byte, byte.command);
      }
    }
    std::vector<std::pair<uint8_t, uint8_t>> expected_written;
    if (revision > 2) {
      EXPECT_EQ(core_setup,
                (std::vector<std::pair<int64_t, int64_t>>{{2, 0}, {1, 0}, {0, 200}, {2, 0x80}}));
      for (auto [reg, value] : {std::pair{12, 0}, {7, 96}, {15, 40}, {19, 136}}) {
        expected_written.insert(
            expected_written.end(),
            {{0x30, 0x90}, {static_cast<uint8_t>(reg), 0x10}, {static_cast<uint8_t>(value), 0x50}});
      }
    } else {
      EXPECT_TRUE(core_setup.empty());
    }
    if (revision > 3) {
      expected_written.insert(expected_written.end(), {{0x6A, 0x90}, {0xD2, 0x50}});
      for (int rail : rails) {
        expected_written.insert(expected_written.end(),
                                {{0x6A, 0x90}, {static_cast<uint8_t>(rail * 2 + 97), 0x50}});
        for (int sample = 0; sample < 8; ++sample) expected_written.push_back({0x6B, 0x90});
      }
    }
    EXPECT_EQ(written, expected_written);
    EXPECT_EQ(reads, revision > 3 ? 10 * 8 * 2 : 0);
    EXPECT_TRUE(board->dacWrites().empty());
  }
}

TEST_F(OpenDevice, FindsBoardsBySerialOrTheFirstAndFailsUnlessSilent) {
  auto boards = attachAll({boardEntry("FIRST", 36, 5), boardEntry("PLUG", 4, 2)});
  PipeBackend backend;
  ASSERT_TRUE(backend.openDevice(""));
  EXPECT_EQ(backend.serial(), "FIRST");
  // Reopening, as after a lost connection, closes the old handle and starts over.
  ASSERT_TRUE(backend.openDevice("PLUG"));
  EXPECT_EQ(backend.serial(), "PLUG");
  EXPECT_EQ(backend.modelName(), "ZT-20");

  boards[1]->unplug();
  EXPECT_FALSE(backend.setWire(0x0D, 1) && backend.updateWires());
  for (const std::string serial : {"PLUG", "ELSEWHERE"}) {
    EXPECT_EQ(errorOf([&] { backend.openDevice(serial); }),
              "Opening of USB connection failed or device with serial '" + serial + "' not found.");
    EXPECT_FALSE(backend.isConnected());
    EXPECT_FALSE(backend.openDevice(serial, true));
  }
  boards[1]->replug();
  EXPECT_TRUE(backend.openDevice("PLUG", true));
}

TEST_F(OpenDevice, FaultsBeforeTheFirmwareStopTheStartUp) {
  auto board = attach(boardEntry("FAULT", 36, 5));
  PipeBackend backend;
  board->failDeviceInfo(-5);
  EXPECT_EQ(errorOf([&] { backend.openDevice("FAULT"); }),
            "Error on fetching the device information: -5");
  board->failDeviceInfo(0);

  board->clearTraffic();
  {
    const std::string missing = ::testing::TempDir() + "/no-firmware-here.bit";
    setCustomBitFileName(missing);
    LogCapture log;
    EXPECT_EQ(errorOf([&] { backend.openDevice("FAULT"); }),
              "Firmware file not found - filename: 'ZeptickUltraController.bit'");
    setCustomBitFileName("");
    // Beside the message, where the firmware was looked for.
    bool listed = false;
    for (const std::string& message : log.messages()) {
      listed |=
          message.find("Firmware searched in: ./ZeptickUltraController.bit, ") != std::string::npos;
    }
    EXPECT_TRUE(listed);
    EXPECT_EQ(indexOf(board->events(), "ConfigureFPGA"), board->events().size());
    EXPECT_FALSE(backend.isConnected());
  }
  EXPECT_TRUE(backend.openDevice("FAULT"));
}

TEST_F(OpenDevice, UnsupportedFirmwareFailsAfterLoading) {
  auto ultra = attach(boardEntry("OLDFW", 36, 5));
  ultra->setFirmwareVersion(3);
  PipeBackend backend;
  const std::string message = errorOf([&] { backend.openDevice("OLDFW"); });
  // The handle stays open after the failure, so the stamp can still be read.
  const std::string stamp = device::formatFirmwareTimestamp(backend.getWire(0x20));
  EXPECT_EQ(message, "The firmware version 'ZT-Ultra, FW 3, TS " + stamp +
                         ", OK 2.7' is not supported by the Zeptick 2.7.0 version");
  EXPECT_LT(indexOf(ultra->events(), "ConfigureFPGA"), ultra->events().size());
  EXPECT_FALSE(backend.isConnected());

  auto z20 = attach(boardEntry("OLDFW20", 4, 1));
  z20->setFirmwareVersion(5);
  EXPECT_EQ(errorOf([&] { backend.openDevice("OLDFW20"); }),
            "The firmware version 'ZT-20, FW 5, OK 2.7' is not supported by the Zeptick 2.7.0 "
            "version");
}

// Splits "Voltage C is out of valid range (MIN - MAX): V - cont: S" so that the
// reading, which carries the converter's quantisation, can be compared loosely.
struct VoltageMessage {
  std::string fixed;
  double volts = 0;
};
VoltageMessage parseVoltageMessage(const std::string& message) {
  const size_t begin = message.rfind("): ");
  const size_t end = message.rfind(" - cont: ");
  if (message.rfind("Voltage ", 0) != 0 || begin == std::string::npos || end == std::string::npos ||
      end < begin) {
    ADD_FAILURE() << "unexpected message: " << message;
    return {};
  }
  const std::string reading = message.substr(begin + 3, end - begin - 3);
  // Six decimals, as the limits have them.
  EXPECT_EQ(reading.size() - reading.find('.'), 7u) << reading;
  return {message.substr(0, begin + 3) + "V" + message.substr(end), std::stod(reading)};
}

TEST_F(OpenDevice, SupplyCheckReportsTheFirstBadRail) {
  auto board = attach(boardEntry("VOLT", 36, 4));
  PipeBackend backend;

  board->setVoltage(1, -4.5);
  VoltageMessage high = parseVoltageMessage(errorOf([&] { backend.openDevice("VOLT"); }));
  EXPECT_EQ(high.fixed, "Voltage 1 is out of valid range (-5.200000 - -4.800000): V - cont: 1");
  EXPECT_NEAR(high.volts, -4.5, 0.01);
  board->setVoltage(1, -5.0);

  // Limits are inclusive: a rail just inside passes, one just past a later row fails.
  board->setVoltage(9, 12.55);
  board->setVoltage(6, 5.95);
  VoltageMessage past = parseVoltageMessage(errorOf([&] { backend.openDevice("VOLT"); }));
  EXPECT_EQ(past.fixed, "Voltage 6 is out of valid range (5.300000 - 5.900000): V - cont: 1");
  board->setVoltage(6, 5.6);
  EXPECT_TRUE(backend.openDevice("VOLT"));
  board->setVoltage(9, 12.0);

  // Rail 0 has no lower bound but must read steadily.
  attach({{"serial", "NOISY"},
          {"model", 36},
          {"revision", 5},
          {"pacing", "free"},
          {"unstable_voltage_channels", {0}}});
  VoltageMessage noisy = parseVoltageMessage(errorOf([&] { backend.openDevice("NOISY"); }));
  EXPECT_EQ(noisy.fixed, "Voltage 0 is out of valid range (0.000000 - -1.000000): V - cont: 0");

  // A converter that never answers reads 42.0, which no limit accepts.
  attach({{"serial", "MUTE"},
          {"model", 36},
          {"revision", 5},
          {"pacing", "free"},
          {"absent_i2c_addresses", {0x6A}}});
  EXPECT_EQ(errorOf([&] { backend.openDevice("MUTE"); }),
            "Voltage 0 is out of valid range (0.000000 - -1.000000): 42.000000 - cont: 1");

  // Boards before revision 4 have no converter to check.
  attach({{"serial", "OLDBOARD"},
          {"model", 36},
          {"revision", 3},
          {"pacing", "free"},
          {"absent_i2c_addresses", {0x6A}}});
  EXPECT_TRUE(backend.openDevice("OLDBOARD"));
}

TEST_F(OpenDevice, SlowUsbIsWarnedAboutOnTheUltraOnly) {
  LogCapture log;
  nlohmann::json slow_ultra = boardEntry("SLOWU", 36, 5);
  slow_ultra["usb_speed"] = "high";
  nlohmann::json slow_z20 = boardEntry("SLOW20", 4, 2);
  slow_z20["usb_speed"] = "high";
  attachAll({slow_ultra, slow_z20, boardEntry("FASTU", 36, 5)});
  PipeBackend backend;
  ASSERT_TRUE(backend.openDevice("FASTU"));
  ASSERT_TRUE(backend.openDevice("SLOW20"));
  EXPECT_TRUE(log.messages().empty());
  ASSERT_TRUE(backend.openDevice("SLOWU"));
  EXPECT_TRUE(log.contains(
      "The Zeptick 'SLOWU' is not connected by USB 3.0, its performance will be low."));
}

}  // namespace
}  // namespace zeptick::testing
