#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "board_fixture.h"
#include "emulator/control/firmware_file.h"

namespace zeptick::emulator::testing {
namespace {

using BoardFirmwareTest = BoardTest;

std::string writeFile(const std::string& name, const std::string& bytes) {
  const std::string path = ::testing::TempDir() + name;
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

TEST_F(BoardFirmwareTest, ShippedFilesCarryVersionFourAndTheirTimestamp) {
  FirmwareImage image;
  ASSERT_EQ(loadFirmware(firmwarePath(36), image), ok_NoError);
  EXPECT_EQ(image.model, 36);
  EXPECT_EQ(image.version, 4u);
  // 2025-03-14 09:26:53 in the timestamp layout the host decodes.
  const uint32_t w = image.build_stamp;
  EXPECT_EQ(w & 63, 53u);
  EXPECT_EQ((w >> 6) & 63, 26u);
  EXPECT_EQ((w >> 12) & 31, 9u);
  EXPECT_EQ(w >> 27, 14u);
  EXPECT_EQ((w >> 23) & 15, 3u);
  EXPECT_EQ((w >> 17) & 63, 25u);
  ASSERT_EQ(loadFirmware(firmwarePath(4), image), ok_NoError);
  EXPECT_EQ(image.model, 4);
  EXPECT_EQ(image.version, 4u);

  loadedBoard();
  EXPECT_EQ(wireOut(0x20), w);
  EXPECT_EQ(wireOut(0x24), 4u);
}

TEST_F(BoardFirmwareTest, EveryDamagedByteIsRefused) {
  const std::string good = encodeFirmware({36, 4, encodeBuildStamp(2025, 1, 2, 3, 4, 5)});
  FirmwareImage image;
  ASSERT_EQ(loadFirmware(writeFile("fw_good.bit", good), image), ok_NoError);
  EXPECT_EQ(image.build_stamp, encodeBuildStamp(2025, 1, 2, 3, 4, 5));
  for (size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x10);
    EXPECT_EQ(loadFirmware(writeFile("fw_flip.bit", bad), image), ok_InvalidBitstream) << i;
  }
  EXPECT_EQ(loadFirmware(writeFile("fw_short.bit", good.substr(0, 27)), image),
            ok_InvalidBitstream);
  EXPECT_EQ(loadFirmware(writeFile("fw_long.bit", good + "x"), image), ok_InvalidBitstream);
  EXPECT_EQ(loadFirmware(writeFile("fw_empty.bit", ""), image), ok_InvalidBitstream);
  EXPECT_EQ(loadFirmware(::testing::TempDir() + "no_such_firmware.bit", image), ok_FileError);
  EXPECT_EQ(loadFirmware(::testing::TempDir(), image), ok_FileError);  // a directory
}

TEST_F(BoardFirmwareTest, ConfigureChecksFileAndModel) {
  auto board = openBoard();
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, "/nonexistent/ZeptickUltraController.bit"),
            ok_FileError);
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(4).c_str()), ok_InvalidBitstream);
  EXPECT_FALSE(board->firmwareLoaded());
  EXPECT_EQ(wireOut(0x21), 0u);  // a blank FPGA drives no wire-outs

  // A well-formed file of another version loads, and its version shows on wire-out 0x24.
  const std::string v5 =
      writeFile("fw_v5.bit", encodeFirmware({36, 5, encodeBuildStamp(2024, 2, 3, 4, 5, 6)}));
  ASSERT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, v5.c_str()), ok_NoError);
  EXPECT_EQ(wireOut(0x24), 5u);
  EXPECT_EQ(wireOut(0x20), encodeBuildStamp(2024, 2, 3, 4, 5, 6));

  // The test override wins over whatever firmware is loaded, also across reloads.
  board->setFirmwareVersion(3);
  ASSERT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(36).c_str()), ok_NoError);
  EXPECT_EQ(wireOut(0x24), 3u);

  // A garbled file leaves the FPGA blank.
  std::string garbled = encodeFirmware({36, 4, 0});
  garbled[3] = 'x';
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, writeFile("fw_bad.bit", garbled).c_str()),
            ok_InvalidBitstream);
  EXPECT_FALSE(board->firmwareLoaded());
}

TEST_F(BoardFirmwareTest, WireOutsDescribeTheBoard) {
  loadedBoard({{"revision", 3}, {"inputs", 12}, {"identifier", 0x123456789ABCDEFULL}});
  EXPECT_EQ(wireOut(0x21), 12u);
  EXPECT_EQ(wireOut(0x22), 2500u);
  EXPECT_EQ(wireOut(0x23), 256u);
  EXPECT_EQ(wireOut(0x25) & 0x0FFFFFFF, 10000u);
  EXPECT_EQ(wireOut(0x26), 0x89ABCDEFu);
  EXPECT_EQ(wireOut(0x27), 0x01234567u);
  EXPECT_EQ(wireOut(0x29), 3u);
  EXPECT_EQ(wireOut(0x2A) & 2, 2u);  // no transfer running
  EXPECT_EQ(wireOut(0x2C) & 4, 0u);  // alone, no Synchronizer
  fp.okFrontPanel_Destruct(handle);
  handle = nullptr;
  detachBoards();

  loadedBoard({{"model", 4}});
  EXPECT_EQ(wireOut(0x21), 8u);
  EXPECT_EQ(wireOut(0x22), 6000u);
  EXPECT_EQ(wireOut(0x23), 180u);
  EXPECT_EQ(wireOut(0x25) & 0x0FFFFFFF, 300u);
}

TEST_F(BoardFirmwareTest, WiresTakeEffectOnlyAtUpdateAndFollowTheMask) {
  auto board = loadedBoard();
  setWire(0x08, 0x1A5);
  setWire(0x09, 126);
  setWire(0x0B, 63);
  setWire(0x12, 1 << 20);
  setWire(0x0D, 1);
  uint32_t pending = 0;
  ASSERT_EQ(fp.okFrontPanel_GetWireInValue(handle, 0x08, &pending), ok_NoError);
  EXPECT_EQ(pending, 0x1A5u);
  EXPECT_EQ(board->wireIn(0x08), 0u);
  EXPECT_FALSE(board->firmwareSetup().started);

  update();
  const FirmwareSetup setup = board->firmwareSetup();
  EXPECT_EQ(board->wireIn(0x08), 0x1A5u);
  EXPECT_EQ(setup.fence, 0xA5);
  EXPECT_EQ(setup.test_period_word, 126u);
  EXPECT_EQ(setup.test_half_period_word, 63u);
  EXPECT_EQ(setup.buffer_words, 1u << 20);
  EXPECT_TRUE(setup.started);

  ASSERT_EQ(fp.okFrontPanel_SetWireInValue(handle, 0x08, 0x00FF, 0x0F0F), ok_NoError);
  update();
  EXPECT_EQ(board->wireIn(0x08), 0x0AFu);  // (0x1A5 & ~0x0F0F) | (0x00FF & 0x0F0F)
  EXPECT_EQ(fp.okFrontPanel_SetWireInValue(handle, 0x20, 1, 0xFFFFFFFF), ok_InvalidEndpoint);

  // Loading firmware again starts from zero.
  ASSERT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(36).c_str()), ok_NoError);
  EXPECT_EQ(board->wireIn(0x08), 0u);
  EXPECT_FALSE(board->firmwareSetup().started);
}

TEST_F(BoardFirmwareTest, ChannelTableNeedsItsTriggerAndDecodesEveryField) {
  auto board = loadedBoard({{"inputs", 4}});
  std::vector<unsigned char> table(8 * 8, 0);
  // Index 1: enabled, filtered, mux 3, dead time 0x0102, divider field 0x0304.
  table[8 + 0] = 0x01 | 0x02 | (3 << 3);
  table[8 + 2] = 0x02;
  table[8 + 3] = 0x01;
  table[8 + 4] = 0x04;
  table[8 + 5] = 0x03;
  // Index 6 (falling edge of input 2): enabled trigger, mux 1, dead time 1.
  table[48 + 0] = 0x01 | 0x04 | (1 << 3);
  table[48 + 2] = 0x01;

  // Without trigger 0x41 the firmware ignores the bytes.
  ASSERT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 64, table.data()), 64);
  EXPECT_FALSE(board->firmwareSetup().channels[1].enabled);

  ASSERT_EQ(fp.okFrontPanel_ActivateTriggerIn(handle, 0x41, 0), ok_NoError);
  ASSERT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 64, table.data()), 64);
  const auto channels = board->firmwareSetup().channels;
  ASSERT_EQ(channels.size(), 8u);
  EXPECT_TRUE(channels[1].enabled);
  EXPECT_TRUE(channels[1].filtered);
  EXPECT_FALSE(channels[1].trigger);
  EXPECT_EQ(channels[1].mux, 3);
  EXPECT_EQ(channels[1].deadtime_clocks, 0x0102);
  EXPECT_EQ(channels[1].divider_field, 0x0304);
  EXPECT_TRUE(channels[6].enabled);
  EXPECT_TRUE(channels[6].trigger);
  EXPECT_FALSE(channels[6].filtered);
  EXPECT_EQ(channels[6].mux, 1);
  EXPECT_FALSE(channels[0].enabled);
  EXPECT_EQ(channels[0].deadtime_clocks, 0);

  // The trigger arms one upload only.
  table[0] = 1;
  ASSERT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 64, table.data()), 64);
  EXPECT_FALSE(board->firmwareSetup().channels[0].enabled);
  EXPECT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 6, table.data()), ok_InvalidBlockSize);
  EXPECT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x7F, 8, table.data()), ok_InvalidEndpoint);
}

}  // namespace
}  // namespace zeptick::emulator::testing
