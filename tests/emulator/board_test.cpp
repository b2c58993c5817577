#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "device/pipe_backend.h"
#include "emulator/control/board.h"
#include "emulator/control/board_control.h"
#include "emulator/control/emulator_api.h"
#include "emulator/control/firmware_file.h"

namespace zeptick::emulator::testing {
namespace {

std::string firmwarePath(int model) {
  return std::string(ZEPTICK_SOURCE_DIR) + "/firmware/" +
         (model == 4 ? "ZeptickController.bit" : "ZeptickUltraController.bit");
}

/// Drives emulated boards through the FrontPanel table, as the host would.
class BoardProtocolTest : public ::testing::Test {
 protected:
  const device::FrontPanelApi& fp = emulatorFrontPanelApi();
  okFrontPanel_HANDLE handle = nullptr;

  void TearDown() override {
    if (handle != nullptr) fp.okFrontPanel_Destruct(handle);
    detachBoards();
  }

  /// Attaches one board with `fields` (serial "B1" unless given) in place of any, and opens it.
  std::shared_ptr<Board> openBoard(nlohmann::json fields = nlohmann::json::object()) {
    const std::string serial = fields["serial"] = fields.value("serial", "B1");
    if (handle != nullptr) fp.okFrontPanel_Destruct(handle);
    attachBoards({{"devices", {fields}}});
    handle = fp.okFrontPanel_Construct();
    EXPECT_EQ(fp.okFrontPanel_OpenBySerial(handle, serial.c_str()), ok_NoError);
    return std::static_pointer_cast<Board>(findBoard(serial));
  }

  /// As openBoard(), then loads the model's shipped firmware.
  std::shared_ptr<Board> loadedBoard(nlohmann::json fields = nlohmann::json::object()) {
    auto board = openBoard(std::move(fields));
    EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(board->model()).c_str()),
              ok_NoError);
    return board;
  }

  /// Sets the start wire, as the host does to start the stream.
  void start() {
    ASSERT_EQ(fp.okFrontPanel_SetWireInValue(handle, 0x0D, 1, 0xFFFFFFFF), ok_NoError);
    ASSERT_EQ(fp.okFrontPanel_UpdateWireIns(handle), ok_NoError);
  }
  uint32_t wireOut(int address) {
    EXPECT_EQ(fp.okFrontPanel_UpdateWireOuts(handle), ok_NoError);
    return static_cast<uint32_t>(fp.okFrontPanel_GetWireOutValue(handle, address));
  }
};

std::string writeFile(const std::string& name, const std::string& bytes) {
  const std::string path = ::testing::TempDir() + name;
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

TEST_F(BoardProtocolTest, DeviceRecordAndWireOutsDescribeTheBoard) {
  openBoard(nlohmann::json::parse(R"({"model": 4, "usb_speed": "high",
      "major_version": 2, "minor_version": 7, "device_id": "Lab bench"})"));
  okTDeviceInfo info;
  std::memset(&info, 0xAB, sizeof(info));
  ASSERT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info)), ok_NoError);
  // Read through raw offsets, as a caller that only knows the layout would.
  const auto* bytes = reinterpret_cast<const unsigned char*>(&info);
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 0), "Lab bench");
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 33), "B1");
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 44), "Zeptick 20");
  // Offset and value: interface, model, USB speed, versions, PLL present, wire width.
  const std::pair<size_t, int32_t> words[] = {
      {172, 0}, {176, 4}, {184, OK_USBSPEED_HIGH}, {188, 2}, {192, 7}, {204, 1}, {216, 32}};
  for (auto [offset, value] : words) {
    int32_t word;
    std::memcpy(&word, bytes + offset, 4);
    EXPECT_EQ(word, value) << "offset " << offset;
  }
  EXPECT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info) - 1),
            ok_InvalidParameter);

  // The identifier over two wire-outs; the device and engine suites read the others.
  loadedBoard({{"identifier", 0x123456789ABCDEFULL}});
  EXPECT_EQ(std::pair(wireOut(0x26), wireOut(0x27)), std::pair(0x89ABCDEFu, 0x01234567u));
}

TEST_F(BoardProtocolTest, FirmwareFilesCarryModelVersionAndStampAndRefuseDamageAndOtherModels) {
  // The shipped files' model and version show in every start-up of the host; their stamp does not.
  FirmwareImage image;
  ASSERT_EQ(loadFirmware(firmwarePath(36), image), ok_NoError);
  EXPECT_EQ(device::formatFirmwareTimestamp(image.build_stamp), "2025-03-14 09:26:53");

  // Every field at its largest valid value: no field may bleed into its neighbour.
  const std::string good = encodeFirmware({36, 4, encodeBuildStamp(2063, 12, 31, 23, 59, 59)});
  ASSERT_EQ(loadFirmware(writeFile("fw_good.bit", good), image), ok_NoError);
  EXPECT_EQ(device::formatFirmwareTimestamp(image.build_stamp), "2063-12-31 23:59:59");
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

  // A board configured with a file reports its version and stamp on the wire-outs.
  auto board = openBoard();
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, "/nonexistent/ZeptickUltraController.bit"),
            ok_FileError);
  EXPECT_EQ(wireOut(0x21), 0u);  // a blank FPGA drives no wire-outs
  const uint32_t stamp = encodeBuildStamp(2024, 2, 3, 4, 5, 6);
  const std::string v5 = writeFile("fw_v5.bit", encodeFirmware({36, 5, stamp}));
  ASSERT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, v5.c_str()), ok_NoError);
  EXPECT_EQ(std::pair(wireOut(0x24), wireOut(0x20)), std::pair(5u, stamp));
  // Another model's firmware leaves the FPGA blank, however good the last one was.
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(4).c_str()), ok_InvalidBitstream);
  EXPECT_FALSE(board->firmwareLoaded());
}

TEST_F(BoardProtocolTest, ChannelTableNeedsItsTriggerAndDecodesEveryField) {
  auto board = loadedBoard({{"inputs", 4}});
  std::vector<unsigned char> table(8 * 8, 0);
  // Index 1: enabled, filtered, mux 3, dead time 0x0102, divider field 0x0304.
  // Index 6 (falling edge of input 2): enabled trigger, mux 1, dead time 1.
  const std::pair<size_t, int> bytes[] = {
      {8, 0x01 | 0x02 | 3 << 3},  {10, 2}, {11, 1}, {12, 4}, {13, 3},
      {48, 0x01 | 0x04 | 1 << 3}, {50, 1}};
  for (auto [at, byte] : bytes) table[at] = static_cast<unsigned char>(byte);
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

// A paced read waits for the words to exist; control calls from another thread
// must get through meanwhile, as the host's sensor report does during acquisition.
TEST_F(BoardProtocolTest, PacedReadDoesNotBlockControlCalls) {
  loadedBoard();
  start();
  // A quiet board pads each 1024-byte transfer after about 1 ms: about a second.
  std::vector<unsigned char> buffer(4 * 262144);
  auto reader = std::async(std::launch::async, [&] {
    return fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024,
                                                static_cast<long>(buffer.size()), buffer.data());
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(fp.okFrontPanel_UpdateWireOuts(handle), ok_NoError);
    uint32_t status = 0;
    ASSERT_EQ(fp.okFrontPanel_ReadRegister(handle, 4, &status), ok_NoError);
  }
  EXPECT_EQ(reader.wait_for(std::chrono::seconds(0)), std::future_status::timeout)
      << "control calls waited for the paced read";
  EXPECT_EQ(reader.get(), 4 * 262144);
}

// The stream runs only after the start wire, and on the Zeptick 20 only once its clock is set up,
// which takes a valid VCO; the Ultra has no such clock.
TEST_F(BoardProtocolTest, PipeReadsCheckTheirArgumentsAndRunOnlyAfterStartAndClock) {
  std::vector<unsigned char> buffer(4096);
  auto read = [&](int address, int block, long length) {
    return fp.okFrontPanel_ReadFromBlockPipeOut(handle, address, block, length, buffer.data());
  };
  loadedBoard({{"pacing", "free"}});
  EXPECT_EQ(read(0xA0, 1024, 4096), ok_Timeout);  // not started yet
  start();
  EXPECT_EQ(read(0xA0, 1024, 4096), 4096);
  for (auto [block, length] : {std::pair{3000, 4096L}, {0, 4096L}, {2, 4094L}}) {
    EXPECT_EQ(read(0xA0, block, length), ok_InvalidBlockSize) << block << " " << length;
  }
  EXPECT_EQ(read(0xA1, 1024, 1024), ok_InvalidEndpoint);

  loadedBoard({{"model", 4}});
  okPLL22150_HANDLE pll = fp.okPLL22150_Construct();
  EXPECT_FALSE(fp.okPLL22150_SetVCOParameters(pll, 1, 1));
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_InvalidParameter);
  start();
  EXPECT_EQ(read(0xA0, 1024, 1024), ok_Timeout);
  EXPECT_TRUE(fp.okPLL22150_SetVCOParameters(pll, 125, 18));
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_NoError);
  EXPECT_EQ(read(0xA0, 1024, 1024), 1024);
  loadedBoard({{"serial", "ULTRA"}});
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_UnsupportedFeature);
  fp.okPLL22150_Destruct(pll);
}

// The fan controller (0x30) is there from revision 3 of the Ultra, the voltage converter
// (0x6A) from revision 4; absent addresses never acknowledge.
TEST_F(BoardProtocolTest, I2cChipsAnswerFromTheirRevisionOn) {
  // One I2C byte on an enabled core, written from the documented protocol; true when acknowledged.
  auto i2c = [&](uint8_t byte, uint8_t command) {
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 3, byte), ok_NoError);
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 4, command), ok_NoError);
    uint32_t status = 2;
    for (int poll = 0; poll <= 1001 && (status & 2); ++poll) {
      fp.okFrontPanel_ReadRegister(handle, 4, &status);
    }
    EXPECT_FALSE(status & 2);
    return !(status & 0x80);
  };
  const std::tuple<int, int, bool, bool> cases[] = {
      {36, 2, false, false}, {36, 3, true, false}, {36, 4, true, true}, {4, 2, false, false}};
  for (const auto& [model, revision, fan, converter] : cases) {
    SCOPED_TRACE(::testing::Message() << model << " revision " << revision);
    auto board = loadedBoard({{"model", model}, {"revision", revision}});
    // A disabled core does nothing with a command.
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 3, 0x30), ok_NoError);
    EXPECT_EQ(fp.okFrontPanel_WriteRegister(handle, 4, 0x90), ok_NoError);
    EXPECT_TRUE(board->i2cBytes().empty());
    for (auto [reg, value] : {std::pair{2, 0}, {1, 0}, {0, 200}, {2, 0x80}}) {
      ASSERT_EQ(fp.okFrontPanel_WriteRegister(handle, reg, value), ok_NoError);
    }
    EXPECT_EQ(i2c(0x30, 0xD0), fan);
    EXPECT_EQ(i2c(0x6A, 0xD0), converter);
    EXPECT_FALSE(i2c(0x50, 0x90));
  }
}

}  // namespace
}  // namespace zeptick::emulator::testing
