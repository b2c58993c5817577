#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "device/file_searcher.h"
#include "device/pipe_backend.h"
#include "device_fixture.h"
#include "support/log_capture.h"

namespace zeptick::testing {
namespace {

using device::PipeBackend;
using emulator::BoardEvent;

using Call = std::tuple<std::string, int64_t, int64_t>;

// The clock, firmware, wire, update and trigger traffic a board should see while it is opened,
// written out from the start-up order, serial-bus transfers included, so that any step missing,
// added or reordered shows.
struct ExpectedTraffic {
  std::vector<Call> calls;
  uint32_t wire4 = 0;
  void wire(int address, uint32_t value) {
    if (address == 4) wire4 = value;
    calls.emplace_back("SetWireInValue", address, value);
  }
  void update() { calls.emplace_back("UpdateWireIns", 0, 0); }
  void set(int address, uint32_t value) { wire(address, value), update(); }
  void trigger(int address, int bit) { calls.emplace_back("ActivateTriggerIn", address, bit); }
  void busWord(uint32_t select, uint32_t word) {
    const uint32_t restore = wire4;
    wire(4, restore | select);
    wire(3, word);
    update();
    trigger(0x40, 0);
    set(4, restore);
  }
};

using OpenDevice = EmulatedBoards;

// The Zeptick 20 sets its clock up before the firmware and resets its converter; the Ultra adds
// the I2C core and the fan set-up from revision 3, the supply check (ten rails in this order, eight
// two-byte samples each) from revision 4.
TEST_F(OpenDevice, StartUpFollowsModelAndRevision) {
  const std::set<std::string> traffic = {"SetWireInValue", "UpdateWireIns", "ActivateTriggerIn",
                                         "ConfigureFPGA", "SetPLL22150Configuration"};
  for (auto [model, revision] :
       {std::pair{4, 0}, {4, 1}, {4, 2}, {36, 0}, {36, 1}, {36, 2}, {36, 3}, {36, 4}, {36, 5}}) {
    SCOPED_TRACE("model " + std::to_string(model) + " revision " + std::to_string(revision));
    const bool ultra = model == 36;
    auto board = attach(boardEntry("OPEN", model, revision));
    PipeBackend backend(1024, kThreshold);
    ASSERT_TRUE(backend.openDevice("OPEN"));
    const std::string stamp =
        ultra ? ", TS " + device::formatFirmwareTimestamp(backend.getWire(0x20)) : "";
    EXPECT_EQ(
        std::tuple(backend.serial(), backend.modelName(), backend.displayName(),
                   backend.modelCode(), backend.revision(), backend.inputCount(),
                   backend.firmwareVersion()),
        std::tuple("OPEN", ultra ? "ZT-Ultra" : "ZT-20", ultra ? "Zeptick Ultra" : "Zeptick 20",
                   static_cast<uint32_t>(model), static_cast<uint32_t>(revision), ultra ? 18 : 8,
                   (ultra ? "ZT-Ultra, FW 4" : "ZT-20, FW 4") + stamp + ", OK 2.7"));
    const std::set<int32_t> channels = backend.availableChannels();
    EXPECT_EQ(channels.size(), ultra ? 36u : 16u);
    EXPECT_TRUE(*channels.begin() == 0 && *channels.rbegin() == (ultra ? 35 : 15));
    EXPECT_TRUE(ultra || backend.resolutionMask() == 0xFFFFFFFFu);

    const std::vector<BoardEvent> events = board->events();
    std::vector<Call> recorded;
    for (const BoardEvent& e : events) {
      // The I2C core's set-up in registers 0-2; registers 3 and 4 carry the bytes, seen below.
      if (traffic.count(e.call) != 0 || e.call.rfind("PLL.", 0) == 0 ||
          (e.call == "WriteRegister" && e.a < 3)) {
        recorded.emplace_back(e.call, e.call == "ConfigureFPGA" ? 0 : e.a, e.b);
      }
    }
    const auto configure = std::ranges::find(events, "ConfigureFPGA", &BoardEvent::call);
    ASSERT_NE(configure, events.end());
    EXPECT_EQ(configure->text,
              std::string(ZEPTICK_SOURCE_DIR) + "/firmware/" +
                  (ultra ? "ZeptickUltraController.bit" : "ZeptickController.bit"));
    ExpectedTraffic expected;
    if (!ultra) {
      expected.calls = {{"PLL.SetVCOParameters", 125, 18},  {"PLL.SetDiv1", 1, 4},
                        {"PLL.SetOutputSource", 0, 1},      {"PLL.SetOutputEnable", 0, 1},
                        {"PLL.SetOutputSource", 2, 2},      {"PLL.SetOutputEnable", 2, 1},
                        {"SetPLL22150Configuration", 0, 0}, {"ConfigureFPGA", 0, 0}};
      expected.set(0x01, kThreshold / 2);
      expected.wire(0x03, 0);  // the converter reset: a = 0, b = 8, value 0
      expected.set(0x04, 0x800);
      expected.trigger(0x40, 0);
      expected.set(0x0D, 1);
      EXPECT_TRUE(board->serialWords().empty());
    } else {
      expected.calls = {{"ConfigureFPGA", 0, 0}};
      expected.set(0x15, revision < 3 ? 0x0C : 0);
      if (revision > 2) {
        expected.calls.insert(expected.calls.end(), {{"WriteRegister", 2, 0},
                                                     {"WriteRegister", 1, 0},
                                                     {"WriteRegister", 0, 200},
                                                     {"WriteRegister", 2, 0x80}});
        expected.set(0x0F, 7);
      }
      const std::pair<int, uint32_t> start[] = {
          {0x01, kThreshold / 2}, {0x0E, 1}, {0x0E, 0}, {0x04, 0}, {0x04, 0x30000}};
      for (auto [address, value] : start) expected.set(address, value);
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
    }
    EXPECT_EQ(recorded, expected.calls);

    std::vector<std::pair<int, int>> written, expected_written;
    int reads = 0;
    for (const emulator::I2cByte& byte : board->i2cBytes()) {
      if (byte.read) ++reads;
      if (!byte.read) written.emplace_back(byte.byte, byte.command);
    }
    if (ultra && revision > 2) {
      for (auto [reg, value] : {std::pair{12, 0}, {7, 96}, {15, 40}, {19, 136}}) {
        expected_written.insert(expected_written.end(), {{0x30, 0x90}, {reg, 0x10}, {value, 0x50}});
      }
    }
    if (ultra && revision > 3) {
      expected_written.insert(expected_written.end(), {{0x6A, 0x90}, {0xD2, 0x50}});
      for (int rail : {0, 1, 5, 7, 4, 6, 2, 8, 3, 9}) {
        expected_written.insert(expected_written.end(), {{0x6A, 0x90}, {rail * 2 + 97, 0x50}});
        expected_written.insert(expected_written.end(), 8, {0x6B, 0x90});
      }
    }
    EXPECT_EQ(written, expected_written);
    EXPECT_EQ(reads, ultra && revision > 3 ? 10 * 8 * 2 : 0);
    EXPECT_TRUE(board->dacWrites().empty() == ultra);
  }
}

// Boards on a USB 2 link: only the Ultra is warned about.
TEST_F(OpenDevice, FindsBoardsBySerialOrTheFirstAndFailsUnlessSilent) {
  LogCapture log;
  nlohmann::json slow_ultra = boardEntry("FIRST", 36, 5), slow_z20 = boardEntry("PLUG", 4, 2);
  slow_ultra["usb_speed"] = slow_z20["usb_speed"] = "high";
  auto boards = attachAll({slow_ultra, slow_z20, boardEntry("FAST", 36, 5)});
  PipeBackend backend;
  ASSERT_TRUE(backend.openDevice("FAST"));
  ASSERT_TRUE(backend.openDevice("PLUG"));
  EXPECT_TRUE(log.messages().empty());
  ASSERT_TRUE(backend.openDevice(""));
  EXPECT_EQ(backend.serial(), "FIRST");
  EXPECT_TRUE(log.contains(
      LOGGER_WARNING,
      "The Zeptick 'FIRST' is not connected by USB 3.0, its performance will be low."));
  // Reopening, as after a lost connection, closes the old handle and starts over.
  ASSERT_TRUE(backend.openDevice("PLUG"));
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

TEST_F(OpenDevice, FaultsBeforeOrAfterTheFirmwareAndBadSuppliesStopTheStartUp) {
  auto board = attach(boardEntry("FAULT", 36, 5));
  PipeBackend backend;
  board->failDeviceInfo(-5);
  EXPECT_EQ(errorOf([&] { backend.openDevice("FAULT"); }),
            "Error on fetching the device information: -5");
  board->failDeviceInfo(0);
  board->clearTraffic();
  {
    setCustomBitFileName(::testing::TempDir() + "/no-firmware-here.bit");
    LogCapture log;
    EXPECT_EQ(errorOf([&] { backend.openDevice("FAULT"); }),
              "Firmware file not found - filename: 'ZeptickUltraController.bit'");
    setCustomBitFileName("");
    // Beside the message, where the firmware was looked for.
    const std::string name = "/ZeptickUltraController.bit";
    EXPECT_TRUE(log.contains(LOGGER_WARNING, "Firmware searched in: ." + name + ", " +
                                                 ZEPTICK_SOURCE_DIR + "/firmware" + name + ", " +
                                                 device::firmwareDirectoryBesideLibrary() + name));
    EXPECT_FALSE(std::ranges::any_of(
        board->events(), [](const BoardEvent& e) { return e.call == "ConfigureFPGA"; }));
    EXPECT_FALSE(backend.isConnected());
  }
  EXPECT_TRUE(backend.openDevice("FAULT"));

  // Unsupported firmware fails after loading; the handle stays open, so the stamp can be read.
  board->setFirmwareVersion(3);
  const std::string message = errorOf([&] { backend.openDevice("FAULT"); });
  EXPECT_EQ(message, "The firmware version 'ZT-Ultra, FW 3, TS " +
                         device::formatFirmwareTimestamp(backend.getWire(0x20)) +
                         ", OK 2.7' is not supported by the Zeptick 2.7.0 version");
  EXPECT_FALSE(backend.isConnected());
  attach(boardEntry("OLDFW20", 4, 1))->setFirmwareVersion(5);
  EXPECT_EQ(errorOf([&] { backend.openDevice("OLDFW20"); }),
            "The firmware version 'ZT-20, FW 5, OK 2.7' is not supported by the Zeptick 2.7.0 "
            "version");

  // The supply check reports the first bad rail.
  board = attach(boardEntry("VOLT", 36, 4));
  // The message with the reading (six decimals, quantised by the converter) cut out.
  auto failure = [&](const std::string& serial, double volts, double tolerance = 0.01) {
    const std::string message = errorOf([&] { backend.openDevice(serial); });
    const size_t begin = message.rfind("): ") + 3, end = message.rfind(" - cont: ");
    if (begin == std::string::npos + 3 || end == std::string::npos || end < begin) return message;
    const std::string reading = message.substr(begin, end - begin);
    EXPECT_EQ(reading.size() - reading.find('.'), 7u) << reading;
    EXPECT_NEAR(std::stod(reading), volts, tolerance) << message;
    return message.substr(0, begin) + "V" + message.substr(end);
  };
  board->setVoltage(1, -4.5);
  EXPECT_EQ(failure("VOLT", -4.5),
            "Voltage 1 is out of valid range (-5.200000 - -4.800000): V - cont: 1");
  board->setVoltage(1, -5.0);
  // Limits are inclusive: a rail just inside passes, one just past a later row fails.
  board->setVoltage(9, 12.55);
  board->setVoltage(6, 5.95);
  EXPECT_EQ(failure("VOLT", 5.95),
            "Voltage 6 is out of valid range (5.300000 - 5.900000): V - cont: 1");
  board->setVoltage(6, 5.6);
  EXPECT_TRUE(backend.openDevice("VOLT"));

  // Rail 0 has no lower bound but must read steadily; a mute converter reads 42.0.
  nlohmann::json noisy = boardEntry("NOISY", 36, 5), mute = boardEntry("MUTE", 36, 5),
                 old = boardEntry("OLDBOARD", 36, 3);
  noisy["unstable_voltage_channels"] = {0};
  mute["absent_i2c_addresses"] = old["absent_i2c_addresses"] = {0x6A};
  attachAll({noisy, mute, old});
  EXPECT_EQ(failure("NOISY", -5.0, 1.0),
            "Voltage 0 is out of valid range (0.000000 - -1.000000): V - cont: 0");
  EXPECT_EQ(errorOf([&] { backend.openDevice("MUTE"); }),
            "Voltage 0 is out of valid range (0.000000 - -1.000000): 42.000000 - cont: 1");
  EXPECT_TRUE(backend.openDevice("OLDBOARD"));  // no converter to check before revision 4
}

}  // namespace
}  // namespace zeptick::testing
