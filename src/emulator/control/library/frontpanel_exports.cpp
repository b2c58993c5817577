// The C symbols of libzeptick_emulator.so. Each forwards to the emulator's
// FrontPanel table; the emulator code is linked into this library, so it has
// its own boards.

#include <cstring>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "emulator/control/emulator_api.h"
#include "emulator/control/library/emulator_library.h"

#define ZT_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

const zeptick::device::FrontPanelApi& api() { return zeptick::emulator::emulatorFrontPanelApi(); }

}  // namespace

ZT_EXPORT okFrontPanel_HANDLE okFrontPanel_Construct() { return api().okFrontPanel_Construct(); }
ZT_EXPORT void okFrontPanel_Destruct(okFrontPanel_HANDLE h) { api().okFrontPanel_Destruct(h); }
ZT_EXPORT int okFrontPanel_GetDeviceCount(okFrontPanel_HANDLE h) {
  return api().okFrontPanel_GetDeviceCount(h);
}
ZT_EXPORT void okFrontPanel_GetDeviceListSerial(okFrontPanel_HANDLE h, int num, char* buf) {
  api().okFrontPanel_GetDeviceListSerial(h, num, buf);
}
ZT_EXPORT int okFrontPanel_GetDeviceListModel(okFrontPanel_HANDLE h, int num) {
  return api().okFrontPanel_GetDeviceListModel(h, num);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_OpenBySerial(okFrontPanel_HANDLE h, const char* serial) {
  return api().okFrontPanel_OpenBySerial(h, serial);
}
ZT_EXPORT Bool okFrontPanel_IsOpen(okFrontPanel_HANDLE h) { return api().okFrontPanel_IsOpen(h); }
ZT_EXPORT void okFrontPanel_Close(okFrontPanel_HANDLE h) { api().okFrontPanel_Close(h); }
ZT_EXPORT void okFrontPanel_GetSerialNumber(okFrontPanel_HANDLE h, char* buf) {
  api().okFrontPanel_GetSerialNumber(h, buf);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_GetDeviceInfoWithSize(okFrontPanel_HANDLE h,
                                                          okTDeviceInfo* info, unsigned size) {
  return api().okFrontPanel_GetDeviceInfoWithSize(h, info, size);
}
ZT_EXPORT int okFrontPanel_GetBoardModel(okFrontPanel_HANDLE h) {
  return api().okFrontPanel_GetBoardModel(h);
}
ZT_EXPORT int okFrontPanel_GetDeviceMajorVersion(okFrontPanel_HANDLE h) {
  return api().okFrontPanel_GetDeviceMajorVersion(h);
}
ZT_EXPORT int okFrontPanel_GetDeviceMinorVersion(okFrontPanel_HANDLE h) {
  return api().okFrontPanel_GetDeviceMinorVersion(h);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_ConfigureFPGA(okFrontPanel_HANDLE h, const char* path) {
  return api().okFrontPanel_ConfigureFPGA(h, path);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_SetPLL22150Configuration(okFrontPanel_HANDLE h,
                                                             okPLL22150_HANDLE pll) {
  return api().okFrontPanel_SetPLL22150Configuration(h, pll);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_SetWireInValue(okFrontPanel_HANDLE h, int ep, unsigned long val,
                                                   unsigned long mask) {
  return api().okFrontPanel_SetWireInValue(h, ep, val, mask);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_GetWireInValue(okFrontPanel_HANDLE h, int ep, uint32_t* val) {
  return api().okFrontPanel_GetWireInValue(h, ep, val);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_UpdateWireIns(okFrontPanel_HANDLE h) {
  return api().okFrontPanel_UpdateWireIns(h);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_UpdateWireOuts(okFrontPanel_HANDLE h) {
  return api().okFrontPanel_UpdateWireOuts(h);
}
ZT_EXPORT unsigned long okFrontPanel_GetWireOutValue(okFrontPanel_HANDLE h, int ep) {
  return api().okFrontPanel_GetWireOutValue(h, ep);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_ActivateTriggerIn(okFrontPanel_HANDLE h, int ep, int bit) {
  return api().okFrontPanel_ActivateTriggerIn(h, ep, bit);
}
ZT_EXPORT long okFrontPanel_WriteToPipeIn(okFrontPanel_HANDLE h, int ep, long length,
                                          unsigned char* data) {
  return api().okFrontPanel_WriteToPipeIn(h, ep, length, data);
}
ZT_EXPORT long okFrontPanel_ReadFromBlockPipeOut(okFrontPanel_HANDLE h, int ep, int block_size,
                                                 long length, unsigned char* data) {
  return api().okFrontPanel_ReadFromBlockPipeOut(h, ep, block_size, length, data);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_WriteRegister(okFrontPanel_HANDLE h, uint32_t addr,
                                                  uint32_t data) {
  return api().okFrontPanel_WriteRegister(h, addr, data);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_ReadRegister(okFrontPanel_HANDLE h, uint32_t addr,
                                                 uint32_t* data) {
  return api().okFrontPanel_ReadRegister(h, addr, data);
}
ZT_EXPORT ok_ErrorCode okFrontPanel_GetDeviceSensors(okFrontPanel_HANDLE h,
                                                     okDeviceSensors_HANDLE sensors) {
  return api().okFrontPanel_GetDeviceSensors(h, sensors);
}
ZT_EXPORT okDeviceSensors_HANDLE okDeviceSensors_Construct() {
  return api().okDeviceSensors_Construct();
}
ZT_EXPORT void okDeviceSensors_Destruct(okDeviceSensors_HANDLE s) {
  api().okDeviceSensors_Destruct(s);
}
ZT_EXPORT int okDeviceSensors_GetSensorCount(okDeviceSensors_HANDLE s) {
  return api().okDeviceSensors_GetSensorCount(s);
}
ZT_EXPORT okTDeviceSensor okDeviceSensors_GetSensor(okDeviceSensors_HANDLE s, int num) {
  return api().okDeviceSensors_GetSensor(s, num);
}
ZT_EXPORT okPLL22150_HANDLE okPLL22150_Construct() { return api().okPLL22150_Construct(); }
ZT_EXPORT void okPLL22150_Destruct(okPLL22150_HANDLE pll) { api().okPLL22150_Destruct(pll); }
ZT_EXPORT Bool okPLL22150_SetVCOParameters(okPLL22150_HANDLE pll, int p, int q) {
  return api().okPLL22150_SetVCOParameters(pll, p, q);
}
ZT_EXPORT void okPLL22150_SetDiv1(okPLL22150_HANDLE pll, int divsrc, int n) {
  api().okPLL22150_SetDiv1(pll, divsrc, n);
}
ZT_EXPORT void okPLL22150_SetOutputSource(okPLL22150_HANDLE pll, int output, int clksrc) {
  api().okPLL22150_SetOutputSource(pll, output, clksrc);
}
ZT_EXPORT void okPLL22150_SetOutputEnable(okPLL22150_HANDLE pll, int output, Bool enable) {
  api().okPLL22150_SetOutputEnable(pll, output, enable);
}

// --- Control of the library's own boards, for tests ---

ZT_EXPORT int zeptickEmulator_AttachBoards(const char* configuration, char* error, int error_size) {
  try {
    zeptick::emulator::attachBoards(nlohmann::json::parse(configuration ? configuration : ""));
    return 0;
  } catch (const std::exception& e) {
    if (error != nullptr && error_size > 0) {
      std::strncpy(error, e.what(), static_cast<size_t>(error_size) - 1);
      error[error_size - 1] = '\0';
    }
    return -1;
  }
}

ZT_EXPORT void zeptickEmulator_DetachBoards() { zeptick::emulator::detachBoards(); }

// The registry keeps the board alive until it is detached or replaced.
ZT_EXPORT void* zeptickEmulator_FindBoard(const char* serial) {
  return zeptick::emulator::findBoard(serial ? serial : "").get();
}
