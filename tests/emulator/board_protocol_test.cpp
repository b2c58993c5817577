#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "board_fixture.h"
#include "device/pipe_backend.h"
#include "emulator/control/firmware_file.h"

namespace zeptick::emulator::testing {
namespace {

using BoardProtocolTest = BoardTest;

std::string writeFile(const std::string& name, const std::string& bytes) {
  const std::string path = ::testing::TempDir() + name;
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

TEST_F(BoardProtocolTest, DeviceInformationRecordHasTheDocumentedLayout) {
  auto board = openBoard({{"model", 4},
                          {"usb_speed", "high"},
                          {"major_version", 2},
                          {"minor_version", 7},
                          {"device_id", "Lab bench"}});
  okTDeviceInfo info;
  std::memset(&info, 0xAB, sizeof(info));
  ASSERT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info)), ok_NoError);
  // Read through raw offsets, as a caller that only knows the layout would.
  const auto* bytes = reinterpret_cast<const unsigned char*>(&info);
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 0), "Lab bench");
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 33), "B1");
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 44), "Zeptick 20");
  // Offset and value: interface, model, USB speed, versions, PLL present, wire width.
  for (auto [offset, value] : {std::pair{172, 0},
                               {176, 4},
                               {184, OK_USBSPEED_HIGH},
                               {188, 2},
                               {192, 7},
                               {204, 1},
                               {216, 32}}) {
    int32_t word;
    std::memcpy(&word, bytes + offset, 4);
    EXPECT_EQ(word, value) << "offset " << offset;
  }
  EXPECT_EQ(fp.okFrontPanel_GetDeviceMajorVersion(handle), 2);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceMinorVersion(handle), 7);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info) - 1),
            ok_InvalidParameter);
  board->failDeviceInfo(ok_CommunicationError);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info)),
            ok_CommunicationError);
}

TEST_F(BoardProtocolTest, FirmwareFilesCarryModelVersionAndStampAndRefuseDamage) {
  FirmwareImage image;
  for (int model : {4, 36}) {
    ASSERT_EQ(loadFirmware(firmwarePath(model), image), ok_NoError);
    EXPECT_EQ(image.model, model);
    EXPECT_EQ(image.version, 4u);
  }
  EXPECT_EQ(device::formatFirmwareTimestamp(image.build_stamp), "2025-03-14 09:26:53");

  const std::string good = encodeFirmware({36, 4, encodeBuildStamp(2025, 1, 2, 3, 4, 5)});
  ASSERT_EQ(loadFirmware(writeFile("fw_good.bit", good), image), ok_NoError);
  EXPECT_EQ(device::formatFirmwareTimestamp(image.build_stamp), "2025-01-02 03:04:05");
  for (size_t i = 0; i < good.size(); ++i) {
    std::string bad = good;
    bad[i] = static_cast<char>(bad[i] ^ 0x10);
    EXPECT_EQ(loadFirmware(writeFile("fw_flip.bit", bad), image), ok_InvalidBitstream) << i;
  }
  for (const std::string& bad : {good.substr(0, 27), good + "x", std::string()}) {
    EXPECT_EQ(loadFirmware(writeFile("fw_bad.bit", bad), image), ok_InvalidBitstream);
  }
  EXPECT_EQ(loadFirmware(::testing::TempDir() + "no_such_firmware.bit", image), ok_FileError);
  EXPECT_EQ(loadFirmware(::testing::TempDir(), image), ok_FileError);  // a directory
}

TEST_F(BoardProtocolTest, ConfigureChecksFileAndModelAndReportsTheVersion) {
  auto board = openBoard();
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, "/nonexistent/ZeptickUltraController.bit"),
            ok_FileError);
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(4).c_str()), ok_InvalidBitstream);
  EXPECT_FALSE(board->firmwareLoaded());
  EXPECT_EQ(wireOut(0x21), 0u);  // a blank FPGA drives no wire-outs

  const uint32_t stamp = encodeBuildStamp(2024, 2, 3, 4, 5, 6);
  const std::string v5 = writeFile("fw_v5.bit", encodeFirmware({36, 5, stamp}));
  ASSERT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, v5.c_str()), ok_NoError);
  EXPECT_EQ(wireOut(0x24), 5u);
  EXPECT_EQ(wireOut(0x20), stamp);
  // The test override wins over whatever firmware is loaded, also across reloads.
  board->setFirmwareVersion(3);
  ASSERT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(36).c_str()), ok_NoError);
  EXPECT_EQ(wireOut(0x24), 3u);
  std::string garbled = encodeFirmware({36, 4, 0});
  garbled[3] = 'x';
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, writeFile("fw_bad.bit", garbled).c_str()),
            ok_InvalidBitstream);
  EXPECT_FALSE(board->firmwareLoaded());
}

TEST_F(BoardProtocolTest, WireOutsDescribeTheBoard) {
  struct Case {
    nlohmann::json fields;
    std::vector<std::pair<int, uint32_t>> wires;  // address, value (0x25 masked to 28 bits)
  };
  const Case cases[] = {
      {{{"revision", 3}, {"inputs", 12}, {"identifier", 0x123456789ABCDEFULL}},
       {{0x21, 12},
        {0x22, 2500},
        {0x23, 256},
        {0x25, 10000},
        {0x26, 0x89ABCDEF},
        {0x27, 0x01234567},
        {0x29, 3},
        {0x2A, 2},
        {0x2C, 0}}},
      {{{"model", 4}}, {{0x21, 8}, {0x22, 6000}, {0x23, 180}, {0x25, 300}}},
  };
  for (const Case& c : cases) {
    if (handle != nullptr) fp.okFrontPanel_Destruct(handle);
    loadedBoard(c.fields);
    for (auto [address, value] : c.wires) {
      // 0x2A: bit 1, no serial transfer running; 0x2C: bit 2, no Synchronizer.
      const uint32_t mask = address == 0x25   ? 0x0FFFFFFF
                            : address == 0x2A ? 2
                            : address == 0x2C ? 4
                                              : ~0u;
      EXPECT_EQ(wireOut(address) & mask, value) << c.fields.dump() << " wire " << address;
    }
  }
}

TEST_F(BoardProtocolTest, ChannelTableNeedsItsTriggerAndDecodesEveryField) {
  auto board = loadedBoard({{"inputs", 4}});
  std::vector<unsigned char> table(8 * 8, 0);
  // Index 1: enabled, filtered, mux 3, dead time 0x0102, divider field 0x0304.
  for (auto [at, byte] : {std::pair{8, 0x01 | 0x02 | 3 << 3},
                          {10, 2},
                          {11, 1},
                          {12, 4},
                          {13, 3},
                          {48, 0x01 | 0x04 | 1 << 3},
                          {50, 1}}) {  // index 6: trigger, mux 1
    table[static_cast<size_t>(at)] = static_cast<unsigned char>(byte);
  }
  // Without trigger 0x41 the firmware ignores the bytes, and the trigger arms one upload only.
  ASSERT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 64, table.data()), 64);
  EXPECT_FALSE(board->firmwareSetup().channels[1].enabled);
  ASSERT_EQ(fp.okFrontPanel_ActivateTriggerIn(handle, 0x41, 0), ok_NoError);
  ASSERT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 64, table.data()), 64);
  table[0] = 1;
  ASSERT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 64, table.data()), 64);
  const auto channels = board->firmwareSetup().channels;
  ASSERT_EQ(channels.size(), 8u);
  auto fields = [](const ChannelSetup& c) {
    return std::vector<int>{c.enabled, c.filtered,        c.trigger,
                            c.mux,     c.deadtime_clocks, c.divider_field};
  };
  EXPECT_EQ(fields(channels[0]), (std::vector<int>{0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(fields(channels[1]), (std::vector<int>{1, 1, 0, 3, 0x0102, 0x0304}));
  EXPECT_EQ(fields(channels[6]), (std::vector<int>{1, 0, 1, 1, 1, 0}));
  EXPECT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x80, 6, table.data()), ok_InvalidBlockSize);
  EXPECT_EQ(fp.okFrontPanel_WriteToPipeIn(handle, 0x7F, 8, table.data()), ok_InvalidEndpoint);
}

TEST_F(BoardProtocolTest, PipeReadsCheckTheirArgumentsAndRunOnlyAfterStart) {
  auto board = loadedBoard({{"pacing", "free"}});
  std::vector<unsigned char> buffer(4096);
  auto read = [&](int address, int block, long length) {
    return fp.okFrontPanel_ReadFromBlockPipeOut(handle, address, block, length, buffer.data());
  };
  EXPECT_EQ(read(0xA0, 1024, 4096), ok_Timeout);  // not started yet
  setWire(0x0D, 1);
  update();
  EXPECT_EQ(read(0xA0, 1024, 4096), 4096);
  for (auto [block, length] : {std::pair{3000, 4096L}, {0, 4096L}, {2, 4094L}}) {
    EXPECT_EQ(read(0xA0, block, length), ok_InvalidBlockSize) << block << " " << length;
  }
  EXPECT_EQ(read(0xA1, 1024, 1024), ok_InvalidEndpoint);
  board->failReads(2);
  board->shortReads(1);
  EXPECT_LT(read(0xA0, 1024, 4096), 0);
  EXPECT_LT(read(0xA0, 1024, 4096), 0);
  EXPECT_EQ(read(0xA0, 1024, 4096), 2048);
  EXPECT_EQ(read(0xA0, 1024, 4096), 4096);
}

// A paced read waits for the words to exist; control calls from another thread
// must get through meanwhile, as the host's sensor report does during acquisition.
TEST_F(BoardProtocolTest, PacedReadDoesNotBlockControlCalls) {
  loadedBoard();
  setWire(0x0D, 1);
  update();
  // A quiet board pads each 1024-byte transfer after about 1 ms: about a second.
  std::vector<unsigned char> buffer(4 * 262144);
  std::atomic<bool> done{false};
  long result = 0;
  std::thread reader([&] {
    result = fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024,
                                                  static_cast<long>(buffer.size()), buffer.data());
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(fp.okFrontPanel_UpdateWireOuts(handle), ok_NoError);
    uint32_t status = 0;
    ASSERT_EQ(fp.okFrontPanel_ReadRegister(handle, 4, &status), ok_NoError);
  }
  EXPECT_FALSE(done.load()) << "control calls waited for the paced read";
  reader.join();
  EXPECT_EQ(result, 4 * 262144);
}

}  // namespace
}  // namespace zeptick::emulator::testing
