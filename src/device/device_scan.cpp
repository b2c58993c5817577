#include "device/device_scan.h"

#include "device/board_model.h"

namespace zeptick::device {
namespace {

// Calls `visit(handle, index, serial)` for each listed device until it returns false.
template <class Visit>
void forEachListedDevice(const FrontPanelApi* api, Visit visit) {
  if (api == nullptr) return;
  okFrontPanel_HANDLE handle = api->okFrontPanel_Construct();
  if (handle == nullptr) return;
  const int count = api->okFrontPanel_GetDeviceCount(handle);
  for (int index = 0; index < count; ++index) {
    char serial[64] = {};
    api->okFrontPanel_GetDeviceListSerial(handle, index, serial);
    serial[sizeof(serial) - 1] = '\0';
    if (!visit(handle, index, std::string(serial))) break;
  }
  api->okFrontPanel_Destruct(handle);
}

}  // namespace

std::vector<std::string> scanDevices(const FrontPanelApi* api) {
  std::vector<std::string> serials;
  forEachListedDevice(api, [&](okFrontPanel_HANDLE, int, std::string serial) {
    serials.push_back(std::move(serial));
    return true;
  });
  return serials;
}

std::string scannedModelTag(const FrontPanelApi* api, const std::string& serial) {
  int board_model = 0;
  forEachListedDevice(api, [&](okFrontPanel_HANDLE handle, int index, const std::string& listed) {
    if (listed != serial) return true;
    board_model = api->okFrontPanel_GetDeviceListModel(handle, index);
    return false;
  });
  return modelTag(board_model);
}

}  // namespace zeptick::device
