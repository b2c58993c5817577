#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "board_fixture.h"
#include "emulator/control/library/emulator_library.h"

namespace zeptick::emulator::testing {
namespace {

// Every entry of the table under its C symbol name, in table order.
const char* const kSymbols[] = {
    "okFrontPanel_Construct",
    "okFrontPanel_Destruct",
    "okFrontPanel_GetDeviceCount",
    "okFrontPanel_GetDeviceListSerial",
    "okFrontPanel_GetDeviceListModel",
    "okFrontPanel_OpenBySerial",
    "okFrontPanel_IsOpen",
    "okFrontPanel_Close",
    "okFrontPanel_GetSerialNumber",
    "okFrontPanel_GetDeviceInfoWithSize",
    "okFrontPanel_GetBoardModel",
    "okFrontPanel_GetDeviceMajorVersion",
    "okFrontPanel_GetDeviceMinorVersion",
    "okFrontPanel_ConfigureFPGA",
    "okFrontPanel_SetPLL22150Configuration",
    "okFrontPanel_SetWireInValue",
    "okFrontPanel_GetWireInValue",
    "okFrontPanel_UpdateWireIns",
    "okFrontPanel_UpdateWireOuts",
    "okFrontPanel_GetWireOutValue",
    "okFrontPanel_ActivateTriggerIn",
    "okFrontPanel_WriteToPipeIn",
    "okFrontPanel_ReadFromBlockPipeOut",
    "okFrontPanel_WriteRegister",
    "okFrontPanel_ReadRegister",
    "okFrontPanel_GetDeviceSensors",
    "okDeviceSensors_Construct",
    "okDeviceSensors_Destruct",
    "okDeviceSensors_GetSensorCount",
    "okDeviceSensors_GetSensor",
    "okPLL22150_Construct",
    "okPLL22150_Destruct",
    "okPLL22150_SetVCOParameters",
    "okPLL22150_SetDiv1",
    "okPLL22150_SetOutputSource",
    "okPLL22150_SetOutputEnable",
};
static_assert(sizeof(kSymbols) / sizeof(kSymbols[0]) * sizeof(void*) ==
                  sizeof(device::FrontPanelApi),
              "one symbol per table entry");

template <class F>
F symbol(void* library, const char* name) {
  void* address = dlsym(library, name);
  EXPECT_NE(address, nullptr) << name;
  return reinterpret_cast<F>(address);
}

// The library is loaded once per process and holds its own boards: the ones of
// ZEPTICK_EMULATOR first, then those attached through its control calls.
TEST(BoardLibraryTest, ExportsTheTableAndServesItsOwnBoards) {
  detachBoards();  // this program's own emulator is settled before the variable is set
  setenv("ZEPTICK_EMULATOR", "default", 1);
  void* library = dlopen(ZEPTICK_EMULATOR_LIBRARY, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(library, nullptr) << dlerror();

  device::FrontPanelApi fp{};
  auto* entries = reinterpret_cast<void**>(&fp);
  for (size_t i = 0; i < std::size(kSymbols); ++i) {
    entries[i] = dlsym(library, kSymbols[i]);
    EXPECT_NE(entries[i], nullptr) << kSymbols[i];
  }
  auto attach = symbol<int (*)(const char*, char*, int)>(library, "zeptickEmulator_AttachBoards");
  auto detach = symbol<void (*)()>(library, "zeptickEmulator_DetachBoards");
  auto find = symbol<void* (*)(const char*)>(library, "zeptickEmulator_FindBoard");
  ASSERT_TRUE(attach && detach && find);

  // The environment's default board, invisible to this program's own emulator.
  okFrontPanel_HANDLE handle = fp.okFrontPanel_Construct();
  EXPECT_EQ(fp.okFrontPanel_GetDeviceCount(handle), 1);
  char serial[16] = {};
  fp.okFrontPanel_GetDeviceListSerial(handle, 0, serial);
  EXPECT_STREQ(serial, "ZTEMU00001");
  EXPECT_EQ(findBoard("ZTEMU00001"), nullptr);

  char error[256] = {};
  EXPECT_EQ(attach(R"({"devices": [{"serial": "LIB", "inputs": 40}]})", error, sizeof(error)), -1);
  EXPECT_NE(std::string(error).find("devices[0].inputs"), std::string::npos) << error;
  ASSERT_EQ(attach(R"({"devices": [{"serial": "LIB", "model": 4, "pacing": "free"}]})", error,
                   sizeof(error)),
            0)
      << error;
  ASSERT_EQ(fp.okFrontPanel_OpenBySerial(handle, "LIB"), ok_NoError);
  EXPECT_EQ(fp.okFrontPanel_GetBoardModel(handle), 4);
  ASSERT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(4).c_str()), ok_NoError);
  okPLL22150_HANDLE pll = fp.okPLL22150_Construct();
  EXPECT_TRUE(fp.okPLL22150_SetVCOParameters(pll, 125, 18));
  EXPECT_EQ(fp.okFrontPanel_SetPLL22150Configuration(handle, pll), ok_NoError);
  fp.okPLL22150_Destruct(pll);
  ASSERT_EQ(fp.okFrontPanel_SetWireInValue(handle, 0x0D, 1, 0xFFFFFFFF), ok_NoError);
  ASSERT_EQ(fp.okFrontPanel_UpdateWireIns(handle), ok_NoError);
  ASSERT_EQ(fp.okFrontPanel_UpdateWireOuts(handle), ok_NoError);
  EXPECT_EQ(fp.okFrontPanel_GetWireOutValue(handle, 0x22), 6000u);
  std::vector<unsigned char> buffer(2048);
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024, 2048, buffer.data()), 2048);

  okDeviceSensors_HANDLE sensors = fp.okDeviceSensors_Construct();
  ASSERT_EQ(fp.okFrontPanel_GetDeviceSensors(handle, sensors), ok_NoError);
  ASSERT_GT(fp.okDeviceSensors_GetSensorCount(sensors), 0);
  EXPECT_STREQ(fp.okDeviceSensors_GetSensor(sensors, 0).name, "FPGA temperature");
  EXPECT_EQ(fp.okDeviceSensors_GetSensor(sensors, 99).id, -1);
  fp.okDeviceSensors_Destruct(sensors);

  // The library's board control reaches the same board.
  auto* board = static_cast<BoardControl*>(find("LIB"));
  ASSERT_NE(board, nullptr);
  EXPECT_EQ(board->serial(), "LIB");
  EXPECT_EQ(board->wireIn(0x0D), 1u);
  board->unplug();
  EXPECT_LT(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024, 1024, buffer.data()), 0);
  EXPECT_EQ(find("NONE"), nullptr);

  detach();
  EXPECT_EQ(fp.okFrontPanel_GetDeviceCount(handle), 0);
  fp.okFrontPanel_Destruct(handle);
  unsetenv("ZEPTICK_EMULATOR");
  dlclose(library);
}

}  // namespace
}  // namespace zeptick::emulator::testing
