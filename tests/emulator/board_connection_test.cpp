#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "board_fixture.h"

namespace zeptick::emulator::testing {
namespace {

using BoardConnectionTest = BoardTest;

std::string listSerial(const device::FrontPanelApi& fp, okFrontPanel_HANDLE h, int num) {
  char buf[16];
  std::memset(buf, 'x', sizeof(buf));
  fp.okFrontPanel_GetDeviceListSerial(h, num, buf);
  return buf;
}

TEST_F(BoardConnectionTest, DeviceListAndFirstFreeBoard) {
  attachBoards(
      {{"devices",
        {{{"serial", "ULTRA1"}}, {{"serial", "TWENTY"}, {"model", 4}}, {{"serial", "U2"}}}}});
  okFrontPanel_HANDLE a = fp.okFrontPanel_Construct();
  okFrontPanel_HANDLE b = fp.okFrontPanel_Construct();
  handle = fp.okFrontPanel_Construct();

  EXPECT_EQ(fp.okFrontPanel_GetDeviceCount(a), 3);
  EXPECT_EQ(listSerial(fp, a, 1), "TWENTY");
  EXPECT_EQ(fp.okFrontPanel_GetDeviceListModel(a, 1), 4);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceListModel(a, 2), 36);
  EXPECT_EQ(listSerial(fp, a, 3), "");
  EXPECT_EQ(fp.okFrontPanel_GetDeviceListModel(a, -1), 0);

  // An empty serial takes the first board nobody holds; a held board can't be opened twice.
  ASSERT_EQ(fp.okFrontPanel_OpenBySerial(a, "TWENTY"), ok_NoError);
  ASSERT_EQ(fp.okFrontPanel_OpenBySerial(b, ""), ok_NoError);
  char serial[16];
  fp.okFrontPanel_GetSerialNumber(b, serial);
  EXPECT_STREQ(serial, "ULTRA1");
  EXPECT_LT(fp.okFrontPanel_OpenBySerial(handle, "TWENTY"), 0);
  EXPECT_LT(fp.okFrontPanel_OpenBySerial(handle, "NOSUCH"), 0);
  ASSERT_EQ(fp.okFrontPanel_OpenBySerial(handle, ""), ok_NoError);
  fp.okFrontPanel_GetSerialNumber(handle, serial);
  EXPECT_STREQ(serial, "U2");
  okFrontPanel_HANDLE late = fp.okFrontPanel_Construct();
  EXPECT_LT(fp.okFrontPanel_OpenBySerial(late, ""), 0);  // every board is taken
  fp.okFrontPanel_Destruct(late);

  // Closing frees the board for another handle; the closed handle fails its calls.
  fp.okFrontPanel_Close(a);
  EXPECT_FALSE(fp.okFrontPanel_IsOpen(a));
  EXPECT_EQ(fp.okFrontPanel_GetBoardModel(a), 0);
  EXPECT_LT(fp.okFrontPanel_UpdateWireIns(a), 0);
  fp.okFrontPanel_Close(handle);
  ASSERT_EQ(fp.okFrontPanel_OpenBySerial(handle, "TWENTY"), ok_NoError);
  EXPECT_EQ(fp.okFrontPanel_GetBoardModel(handle), 4);
  fp.okFrontPanel_Destruct(a);
  fp.okFrontPanel_Destruct(b);
}

TEST_F(BoardConnectionTest, DeviceInformationRecord) {
  openBoard({{"model", 4},
             {"usb_speed", "high"},
             {"major_version", 2},
             {"minor_version", 7},
             {"device_id", "Lab bench"}});
  okTDeviceInfo info;
  std::memset(&info, 0xAB, sizeof(info));
  ASSERT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info)), ok_NoError);
  // Read through raw offsets, as a caller that only knows the layout would.
  const auto* bytes = reinterpret_cast<const unsigned char*>(&info);
  auto word = [&](size_t offset) {
    int32_t value;
    std::memcpy(&value, bytes + offset, 4);
    return value;
  };
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 0), "Lab bench");
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 33), "B1");
  EXPECT_STREQ(reinterpret_cast<const char*>(bytes + 44), "Zeptick 20");
  EXPECT_EQ(word(172), 0);
  EXPECT_EQ(word(176), 4);
  EXPECT_EQ(word(184), OK_USBSPEED_HIGH);
  EXPECT_EQ(word(188), 2);
  EXPECT_EQ(word(192), 7);
  EXPECT_EQ(word(204), 1);  // the Zeptick 20 has the PLL
  EXPECT_EQ(word(216), 32);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceMajorVersion(handle), 2);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceMinorVersion(handle), 7);

  EXPECT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info) - 1),
            ok_InvalidParameter);
  findBoard("B1")->failDeviceInfo(ok_CommunicationError);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info)),
            ok_CommunicationError);
  findBoard("B1")->failDeviceInfo(0);
  EXPECT_EQ(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info)), ok_NoError);
}

TEST_F(BoardConnectionTest, UnplugFailsEverythingUntilReplugAndReopen) {
  auto board = loadedBoard();
  setWire(0x0D, 1);
  update();
  board->unplug();
  EXPECT_EQ(fp.okFrontPanel_GetDeviceCount(handle), 0);
  EXPECT_FALSE(fp.okFrontPanel_IsOpen(handle));
  std::vector<unsigned char> buffer(1024);
  EXPECT_LT(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024, 1024, buffer.data()), 0);
  EXPECT_LT(fp.okFrontPanel_SetWireInValue(handle, 1, 1, 0xFFFFFFFF), 0);
  EXPECT_LT(fp.okFrontPanel_WriteRegister(handle, 0, 200), 0);
  okTDeviceInfo info;
  EXPECT_LT(fp.okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info)), 0);
  EXPECT_LT(fp.okFrontPanel_OpenBySerial(handle, "B1"), 0);

  board->replug();
  // The old connection stays dead; a new open works, and the FPGA came back blank.
  EXPECT_FALSE(fp.okFrontPanel_IsOpen(handle));
  ASSERT_EQ(fp.okFrontPanel_OpenBySerial(handle, "B1"), ok_NoError);
  EXPECT_FALSE(board->firmwareLoaded());
  EXPECT_EQ(wireOut(0x24), 0u);
  EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(36).c_str()), ok_NoError);
  EXPECT_EQ(wireOut(0x24), 4u);

  // Detaching is like unplugging for good.
  detachBoards();
  EXPECT_FALSE(fp.okFrontPanel_IsOpen(handle));
  EXPECT_EQ(fp.okFrontPanel_GetWireOutValue(handle, 0x24), 0u);
  EXPECT_FALSE(emulatedDevicesAttached());
}

TEST_F(BoardConnectionTest, EventsRecordTheHostsCallsInOrder) {
  auto board = openBoard();
  board->clearTraffic();
  setWire(0x0F, 7);
  update();
  fp.okFrontPanel_ActivateTriggerIn(handle, 0x41, 0);
  uint32_t value = 0;
  fp.okFrontPanel_ReadRegister(handle, 4, &value);
  wireOut(0x21);  // wire-out traffic is not recorded
  const auto events = board->events();
  ASSERT_EQ(events.size(), 4u);
  EXPECT_EQ(events[0].call, "SetWireInValue");
  EXPECT_EQ(events[0].a, 0x0F);
  EXPECT_EQ(events[0].b, 7);
  EXPECT_EQ(events[1].call, "UpdateWireIns");
  EXPECT_EQ(events[2].call, "ActivateTriggerIn");
  EXPECT_EQ(events[2].a, 0x41);
  EXPECT_EQ(events[3].call, "ReadRegister");
  EXPECT_EQ(events[3].a, 4);
}

}  // namespace
}  // namespace zeptick::emulator::testing
