#include <cmath>
#include <string>
#include <vector>

#include "board_fixture.h"

namespace zeptick::emulator::testing {
namespace {

// The host's side of the buses, written from the documented protocols.
class BoardBusTest : public BoardTest {
 protected:
  /// Sends a serial-bus word and returns the polls of wire-out 0x2A it took (1000 = never).
  int busWord(uint32_t select, uint32_t word) {
    setWire(0x04, 0x30000 | select);
    setWire(0x03, word);
    update();
    EXPECT_EQ(fp.okFrontPanel_ActivateTriggerIn(handle, 0x40, 0), ok_NoError);
    for (int poll = 1; poll < 1000; ++poll) {
      if (wireOut(0x2A) & 2) return poll;
    }
    return 1000;
  }

  void setDac(int channel, uint16_t value) {
    busWord(channel < 16 ? 1 : 2, (3u << 20) | ((channel & 15u) << 16) | value);
  }

  void dac20(uint32_t a, uint32_t b, uint16_t value) {
    setWire(0x03, static_cast<uint32_t>(value) << 4);
    setWire(0x04, (value >> 12) | (a << 12) | (b << 8));
    update();
    ASSERT_EQ(fp.okFrontPanel_ActivateTriggerIn(handle, 0x40, 0), ok_NoError);
  }

  void enableI2c() {
    for (auto [reg, value] : {std::pair{2, 0}, {1, 0}, {0, 200}, {2, 0x80}}) {
      ASSERT_EQ(fp.okFrontPanel_WriteRegister(handle, reg, value), ok_NoError);
    }
  }

  /// One I2C byte; true when acknowledged.
  bool i2c(uint8_t byte, uint8_t command) {
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 3, byte), ok_NoError);
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 4, command), ok_NoError);
    uint32_t status = 0;
    for (int poll = 0; poll <= 1001; ++poll) {
      fp.okFrontPanel_ReadRegister(handle, 4, &status);
      if (!(status & 2)) break;
    }
    EXPECT_FALSE(status & 2);
    return !(status & 0x80);
  }

  uint8_t i2cRead(bool last) {
    i2c(0, last ? 0x60 : 0x20);
    uint32_t value = 0;
    fp.okFrontPanel_ReadRegister(handle, 3, &value);
    return static_cast<uint8_t>(value);
  }

  /// Eight conversions of `channel`, or an empty list when the bus fails.
  std::vector<int> readCodes(int channel) {
    if (!i2c(0x6A, 0x90) || !i2c(static_cast<uint8_t>((channel & 15) * 2 + 97), 0x50)) return {};
    std::vector<int> codes;
    for (int i = 0; i < 8; ++i) {
      if (!i2c(0x6B, 0x90)) return {};
      const int hi = i2cRead(false);
      const int lo = i2cRead(true);
      codes.push_back((hi & 3) * 256 + lo);
    }
    return codes;
  }

  static double scaled(int channel, const std::vector<int>& codes) {
    double sum = 0;
    for (int code : codes) sum += code;
    const double a = sum / 4000;
    if (channel == 0 || channel == 1 || channel == 5) return (1.906 - a) * -3.683;
    if (channel == 10) return a / 0.63;
    if (channel == 11) return a;
    return a / 0.15;
  }

  static bool turns(const std::vector<int>& codes) {
    int direction = 0;
    for (size_t i = 1; i < codes.size(); ++i) {
      const int step = (codes[i] > codes[i - 1]) - (codes[i] < codes[i - 1]);
      if (step != 0 && direction != 0 && step != direction) return true;
      if (step != 0) direction = step;
    }
    return false;
  }
};

TEST_F(BoardBusTest, SerialBusStaysBusyForSomePollsThenFinishes) {
  auto board = loadedBoard();
  EXPECT_EQ(busWord(4, 0xBC843C), 3);  // two busy polls, finished at the third
  EXPECT_EQ(busWord(3, 0xAAE00004), 3);
  const auto words = board->serialWords();
  ASSERT_EQ(words.size(), 2u);
  EXPECT_EQ(words[0].select, 4u);
  EXPECT_EQ(words[0].word, 0xBC843Cu);
  EXPECT_EQ(words[1].select, 3u);
  fp.okFrontPanel_Destruct(handle);
  handle = nullptr;

  loadedBoard({{"serial", "STUCK"}, {"serial_bus_busy_polls", -1}});
  EXPECT_EQ(busWord(4, 5), 1000);
}

TEST_F(BoardBusTest, UltraDacWordsSetTriggerLevelsOfTheRightInputs) {
  auto board = loadedBoard();
  const std::pair<int, uint16_t> writes[] = {{0, 0},      {5, 0x7FFF},  {15, 0xFFFF}, {16, 0x1234},
                                             {17, 45875}, {18, 0x7FFF}, {19, 0xB332}};
  for (auto [channel, value] : writes) setDac(channel, value);
  const FirmwareSetup setup = board->firmwareSetup();
  ASSERT_EQ(setup.trigger_volts.size(), 18u);
  for (auto [channel, value] : writes) {
    EXPECT_EQ(board->dacCode(channel), value) << channel;
    if (channel < 18) {
      EXPECT_NEAR(setup.trigger_volts[channel], value * 5.0 / 65535 - 2.5, 1e-12) << channel;
    }
  }
  EXPECT_NEAR(setup.trigger_volts[17], 1.0, 1e-4);
  // A converter set-up word sent to both chips sets no level.
  busWord(3, 0xAAE00004);
  EXPECT_EQ(board->firmwareSetup().trigger_volts, setup.trigger_volts);
}

TEST_F(BoardBusTest, TwentyDacWritesDecodeTheFrame) {
  auto board = loadedBoard({{"model", 4}});
  dac20(3, 2, 0xABCD);
  dac20(3, 7, 26214);  // 1.0 V
  dac20(0, 8, 0);      // converter reset: no level changes
  const auto writes = board->dacWrites();
  ASSERT_EQ(writes.size(), 3u);
  EXPECT_EQ(writes[0].wire3, 0xABCD0u);
  EXPECT_EQ(writes[0].wire4, 0x320Au);
  EXPECT_EQ(writes[2].wire4, 0x0800u);
  const FirmwareSetup setup = board->firmwareSetup();
  ASSERT_EQ(setup.trigger_volts.size(), 8u);
  EXPECT_NEAR(setup.trigger_volts[2], 0xABCD * 2.5 / 65535, 1e-12);
  EXPECT_NEAR(setup.trigger_volts[7], 1.0, 1e-4);
  EXPECT_EQ(setup.trigger_volts[0], 0.0);
  EXPECT_TRUE(board->serialWords().empty());
}

TEST_F(BoardBusTest, PllConfigurationOnlyOnTheTwentyWithAValidVco) {
  auto board = loadedBoard({{"model", 4}});
  okPLL22150_HANDLE pll = fp.okPLL22150_Construct();
  EXPECT_FALSE(fp.okPLL22150_SetVCOParameters(pll, 1, 1));
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_InvalidParameter);
  // Until the clock is set up the Zeptick 20's stream does not run.
  setWire(0x0D, 1);
  update();
  std::vector<unsigned char> buffer(1024);
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024, 1024, buffer.data()),
            ok_Timeout);

  board->clearTraffic();
  EXPECT_TRUE(fp.okPLL22150_SetVCOParameters(pll, 125, 18));
  fp.okPLL22150_SetDiv1(pll, ok_DivSrc_Div1, 4);
  fp.okPLL22150_SetOutputSource(pll, 0, ok_ClkSrc22150_Div1ByN);
  fp.okPLL22150_SetOutputEnable(pll, 0, 1);
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_NoError);
  // The PLL handle's calls reach the board's log with the configuration, in order.
  std::vector<std::string> calls;
  for (const BoardEvent& event : board->events()) calls.push_back(event.call);
  const std::vector<std::string> expected = {"PLL.SetVCOParameters", "PLL.SetVCOParameters",
                                             "PLL.SetDiv1",          "PLL.SetOutputSource",
                                             "PLL.SetOutputEnable",  "SetPLL22150Configuration"};
  EXPECT_EQ(calls, expected);
  EXPECT_EQ(board->events()[1].a, 125);
  EXPECT_EQ(board->events()[1].b, 18);
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024, 1024, buffer.data()), 1024);
  fp.okPLL22150_Destruct(pll);
  fp.okFrontPanel_Destruct(handle);
  handle = nullptr;

  loadedBoard({{"serial", "ULTRA"}});
  pll = fp.okPLL22150_Construct();
  EXPECT_TRUE(fp.okPLL22150_SetVCOParameters(pll, 125, 18));
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_UnsupportedFeature);
  fp.okPLL22150_Destruct(pll);
}

TEST_F(BoardBusTest, I2cAcknowledgesOnlyPresentChipsAndStoresFanSetup) {
  auto board = loadedBoard({{"absent_i2c_addresses", {0x6B}}});
  // A disabled core does nothing with a command.
  EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 3, 0x30), ok_NoError);
  EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 4, 0x90), ok_NoError);
  EXPECT_TRUE(board->i2cBytes().empty());

  enableI2c();
  EXPECT_FALSE(i2c(0x50, 0x90));  // nobody at 0x50
  EXPECT_FALSE(i2c(0x12, 0x50));
  for (auto [reg, value] : {std::pair{12, 0}, {7, 96}, {15, 40}, {19, 136}}) {
    EXPECT_TRUE(i2c(0x30, 0x90));
    EXPECT_TRUE(i2c(static_cast<uint8_t>(reg), 0x10));
    EXPECT_TRUE(i2c(static_cast<uint8_t>(value), 0x50));
    EXPECT_EQ(board->fanControllerRegister(reg), value);
  }
  auto readFan = [&](uint8_t reg) {
    EXPECT_TRUE(i2c(0x30, 0x90));
    EXPECT_TRUE(i2c(reg, 0x10));
    EXPECT_TRUE(i2c(0x31, 0x90));
    return i2cRead(true);
  };
  EXPECT_EQ(readFan(0x00) + readFan(0x1E) / 256.0, 45.5);
  EXPECT_EQ(readFan(0x01) + readFan(0x1F) / 256.0, 41.25);
  EXPECT_EQ(readFan(0x0D), 120);
  EXPECT_EQ(readFan(0x19), 94);

  // The converter acknowledges its write address but, configured absent, not its read address.
  EXPECT_TRUE(i2c(0x6A, 0x90));
  EXPECT_TRUE(i2c(0xD2, 0x50));
  EXPECT_EQ(board->converterSetupByte(), 0xD2);
  EXPECT_TRUE(readCodes(3).empty());

  const auto bytes = board->i2cBytes();
  ASSERT_GE(bytes.size(), 2u);
  EXPECT_EQ(bytes[0].byte, 0x50);
  EXPECT_EQ(bytes[0].command, 0x90);
  EXPECT_FALSE(bytes[0].read);
}

TEST_F(BoardBusTest, ChipsExistFromTheirBoardRevisionOn) {
  struct Case {
    int model;
    int revision;
    bool fan;
    bool converter;
  };
  for (const Case& c : {Case{36, 2, false, false}, Case{36, 3, true, false},
                        Case{36, 4, true, true}, Case{4, 2, false, false}}) {
    if (handle != nullptr) fp.okFrontPanel_Destruct(handle);
    loadedBoard({{"model", c.model}, {"revision", c.revision}});
    enableI2c();
    EXPECT_EQ(i2c(0x30, 0xD0), c.fan) << c.model << " rev " << c.revision;
    EXPECT_EQ(i2c(0x6A, 0xD0), c.converter) << c.model << " rev " << c.revision;
  }
}

TEST_F(BoardBusTest, VoltagesReadBackThroughTheHostScales) {
  auto board = loadedBoard({{"unstable_voltage_channels", {6}}});
  enableI2c();
  // Before the set-up byte picks the internal reference the converter reads against its supply.
  const double before = scaled(7, readCodes(7));
  EXPECT_LT(before, 4.0);
  ASSERT_TRUE(i2c(0x6A, 0x90));
  ASSERT_TRUE(i2c(0xD2, 0x50));

  const double lsb_volts = 2.048 / 1024;
  for (int channel = 0; channel < 12; ++channel) {
    if (channel == 6) continue;
    // Resolution of the channel's scale, in its own units, for one converter step.
    const double step =
        std::abs(scaled(channel, std::vector<int>(8, 1)) - scaled(channel, std::vector<int>(8, 0)));
    for (double fraction : {0.1, 0.37, 0.5, 0.81}) {
      // Values spread over the converter's range, mapped into each scale's units.
      const double a = fraction * 1023 * lsb_volts;
      double value = a / 0.15;
      if (channel == 0 || channel == 1 || channel == 5) value = (1.906 - a) * -3.683;
      if (channel == 10) value = a / 0.63;
      if (channel == 11) value = a;
      board->setVoltage(channel, value);
      const auto codes = readCodes(channel);
      ASSERT_EQ(codes.size(), 8u);
      EXPECT_NEAR(scaled(channel, codes), value, step / 2) << channel << " " << value;
      EXPECT_FALSE(turns(codes)) << channel;
    }
  }
  // The healthy default of the unstable rail, but readings that zig-zag.
  const auto codes = readCodes(6);
  EXPECT_NEAR(scaled(6, codes), 5.6, 0.02);
  EXPECT_TRUE(turns(codes));
}

}  // namespace
}  // namespace zeptick::emulator::testing
