#include <string>
#include <vector>

#include "board_fixture.h"

namespace zeptick::emulator::testing {
namespace {

// The host's side of the buses, written from the documented protocols.
class BoardBusTest : public BoardTest {
 protected:
  /// A serial-bus word to the chips of `select`, then polls until done.
  void busWord(uint32_t select, uint32_t word) {
    setWire(0x04, 0x30000 | select);
    setWire(0x03, word);
    update();
    ASSERT_EQ(fp.okFrontPanel_ActivateTriggerIn(handle, 0x40, 0), ok_NoError);
    for (int poll = 0; poll < 1000 && !(wireOut(0x2A) & 2); ++poll) {
    }
  }
  /// One I2C byte on an enabled core; true when acknowledged.
  bool i2c(uint8_t byte, uint8_t command) {
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 3, byte), ok_NoError);
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 4, command), ok_NoError);
    uint32_t status = 2;
    for (int poll = 0; poll <= 1001 && (status & 2); ++poll) {
      fp.okFrontPanel_ReadRegister(handle, 4, &status);
    }
    EXPECT_FALSE(status & 2);
    return !(status & 0x80);
  }
  void enableI2c() {
    for (auto [reg, value] : {std::pair{2, 0}, {1, 0}, {0, 200}, {2, 0x80}}) {
      ASSERT_EQ(fp.okFrontPanel_WriteRegister(handle, reg, value), ok_NoError);
    }
  }
};

// Converter words set the trigger levels: on the Ultra, command 3 with the
// channel in bits 16-19 on chip 1 (inputs 0-15) or chip 2, over -2.5..2.5 V;
// on the Zeptick 20, a frame over two wires, over 0..2.5 V.
TEST_F(BoardBusTest, DacWordsSetTriggerLevelsOfTheRightInputs) {
  auto board = loadedBoard();
  const std::pair<int, uint16_t> writes[] = {{0, 0},      {5, 0x7FFF},  {15, 0xFFFF}, {16, 0x1234},
                                             {17, 45875}, {18, 0x7FFF}, {19, 0xB332}};
  for (auto [channel, value] : writes) {
    busWord(channel < 16 ? 1 : 2, (3u << 20) | ((channel & 15u) << 16) | value);
  }
  busWord(3, 0xAAE00004);  // a set-up word to both chips sets no level
  std::vector<double> volts = board->firmwareSetup().trigger_volts;
  ASSERT_EQ(volts.size(), 18u);
  for (auto [channel, value] : writes) {
    EXPECT_EQ(board->dacCode(channel), value) << channel;
    if (channel < 18) {
      EXPECT_NEAR(volts[channel], value * 5.0 / 65535 - 2.5, 1e-12) << channel;
    }
  }
  EXPECT_NEAR(volts[17], 1.0, 1e-4);

  if (handle != nullptr) fp.okFrontPanel_Destruct(handle);
  board = loadedBoard({{"serial", "Z20"}, {"model", 4}});
  auto dac20 = [&](uint32_t a, uint32_t b, uint16_t value) {
    setWire(0x03, static_cast<uint32_t>(value) << 4);
    setWire(0x04, (value >> 12) | (a << 12) | (b << 8));
    update();
    ASSERT_EQ(fp.okFrontPanel_ActivateTriggerIn(handle, 0x40, 0), ok_NoError);
  };
  dac20(3, 2, 0xABCD);
  dac20(3, 7, 26214);  // 1.0 V
  dac20(0, 8, 0);      // converter reset: no level changes
  ASSERT_EQ(board->dacWrites().size(), 3u);
  EXPECT_EQ(board->dacWrites()[0].wire3, 0xABCD0u);
  EXPECT_EQ(board->dacWrites()[0].wire4, 0x320Au);
  volts = board->firmwareSetup().trigger_volts;
  EXPECT_EQ(volts, (std::vector<double>{0, 0, volts[2], 0, 0, 0, 0, volts[7]}));
  EXPECT_NEAR(volts[2], 0xABCD * 2.5 / 65535, 1e-12);
  EXPECT_NEAR(volts[7], 1.0, 1e-4);
  EXPECT_TRUE(board->serialWords().empty());
}

TEST_F(BoardBusTest, PllConfigurationOnlyOnTheTwentyWithAValidVco) {
  loadedBoard({{"model", 4}});
  okPLL22150_HANDLE pll = fp.okPLL22150_Construct();
  EXPECT_FALSE(fp.okPLL22150_SetVCOParameters(pll, 1, 1));
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_InvalidParameter);
  // Until the clock is set up the Zeptick 20's stream does not run.
  setWire(0x0D, 1);
  update();
  std::vector<unsigned char> buffer(1024);
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024, 1024, buffer.data()),
            ok_Timeout);
  EXPECT_TRUE(fp.okPLL22150_SetVCOParameters(pll, 125, 18));
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_NoError);
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024, 1024, buffer.data()), 1024);
  fp.okFrontPanel_Destruct(handle);

  loadedBoard({{"serial", "ULTRA"}});
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_UnsupportedFeature);
  fp.okPLL22150_Destruct(pll);
}

// The fan controller (0x30) is there from revision 3 of the Ultra, the
// voltage converter (0x6A) from revision 4; absent addresses never acknowledge.
TEST_F(BoardBusTest, I2cChipsAnswerFromTheirRevisionOn) {
  struct Case {
    int model, revision;
    bool fan, converter;
  };
  for (const Case& c : {Case{36, 2, false, false}, Case{36, 3, true, false},
                        Case{36, 4, true, true}, Case{4, 2, false, false}}) {
    SCOPED_TRACE(::testing::Message() << c.model << " revision " << c.revision);
    if (handle != nullptr) fp.okFrontPanel_Destruct(handle);
    auto board = loadedBoard({{"model", c.model}, {"revision", c.revision}});
    // A disabled core does nothing with a command.
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 3, 0x30), ok_NoError);
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 4, 0x90), ok_NoError);
    EXPECT_TRUE(board->i2cBytes().empty());
    enableI2c();
    EXPECT_EQ(i2c(0x30, 0xD0), c.fan);
    EXPECT_EQ(i2c(0x6A, 0xD0), c.converter);
    EXPECT_FALSE(i2c(0x50, 0x90));
  }
  // Configured absent: the converter takes its write address, not its read address.
  fp.okFrontPanel_Destruct(handle);
  auto board = loadedBoard({{"serial", "MUTE"}, {"absent_i2c_addresses", {0x6B}}});
  enableI2c();
  EXPECT_TRUE(i2c(0x6A, 0x90));
  EXPECT_TRUE(i2c(0xD2, 0x50));
  EXPECT_EQ(board->converterSetupByte(), 0xD2);
  EXPECT_FALSE(i2c(0x6B, 0x90));
  const auto bytes = board->i2cBytes();
  ASSERT_EQ(bytes.size(), 3u);
  EXPECT_EQ(bytes[2].byte, 0x6B);
  EXPECT_EQ(bytes[2].command, 0x90);
  EXPECT_FALSE(bytes[2].read);
}

}  // namespace
}  // namespace zeptick::emulator::testing
