#include "device/frontpanel_provider.h"

#include <dlfcn.h>

#include <cstdlib>

#include "emulator/control/emulator_api.h"

namespace zeptick::device {
namespace {

// Every entry of FrontPanelApi; the static_assert below catches an entry added
// to the table but not here.
#define ZT_FRONTPANEL_SYMBOLS(X)           \
  X(okFrontPanel_Construct)                \
  X(okFrontPanel_Destruct)                 \
  X(okFrontPanel_GetDeviceCount)           \
  X(okFrontPanel_GetDeviceListSerial)      \
  X(okFrontPanel_GetDeviceListModel)       \
  X(okFrontPanel_OpenBySerial)             \
  X(okFrontPanel_IsOpen)                   \
  X(okFrontPanel_Close)                    \
  X(okFrontPanel_GetSerialNumber)          \
  X(okFrontPanel_GetDeviceInfoWithSize)    \
  X(okFrontPanel_GetBoardModel)            \
  X(okFrontPanel_GetDeviceMajorVersion)    \
  X(okFrontPanel_GetDeviceMinorVersion)    \
  X(okFrontPanel_ConfigureFPGA)            \
  X(okFrontPanel_SetPLL22150Configuration) \
  X(okFrontPanel_SetWireInValue)           \
  X(okFrontPanel_GetWireInValue)           \
  X(okFrontPanel_UpdateWireIns)            \
  X(okFrontPanel_UpdateWireOuts)           \
  X(okFrontPanel_GetWireOutValue)          \
  X(okFrontPanel_ActivateTriggerIn)        \
  X(okFrontPanel_WriteToPipeIn)            \
  X(okFrontPanel_ReadFromBlockPipeOut)     \
  X(okFrontPanel_WriteRegister)            \
  X(okFrontPanel_ReadRegister)             \
  X(okFrontPanel_GetDeviceSensors)         \
  X(okDeviceSensors_Construct)             \
  X(okDeviceSensors_Destruct)              \
  X(okDeviceSensors_GetSensorCount)        \
  X(okDeviceSensors_GetSensor)             \
  X(okPLL22150_Construct)                  \
  X(okPLL22150_Destruct)                   \
  X(okPLL22150_SetVCOParameters)           \
  X(okPLL22150_SetDiv1)                    \
  X(okPLL22150_SetOutputSource)            \
  X(okPLL22150_SetOutputEnable)

#define ZT_COUNT_SYMBOL(name) +1
constexpr int kSymbolCount = 0 ZT_FRONTPANEL_SYMBOLS(ZT_COUNT_SYMBOL);
#undef ZT_COUNT_SYMBOL
static_assert(sizeof(FrontPanelApi) == kSymbolCount * sizeof(void (*)()),
              "every table entry must be resolved");

}  // namespace

FrontPanelLibrary::FrontPanelLibrary(const std::string& path) : library_path(path) {
  handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) {
    const char* reason = dlerror();
    why = reason != nullptr ? reason : "cannot open " + path;
    return;
  }
#define ZT_RESOLVE_SYMBOL(name)                                              \
  table.name = reinterpret_cast<decltype(table.name)>(dlsym(handle, #name)); \
  if (table.name == nullptr && why.empty()) why = path + ": missing symbol " #name;
  ZT_FRONTPANEL_SYMBOLS(ZT_RESOLVE_SYMBOL)
#undef ZT_RESOLVE_SYMBOL
  complete = why.empty();
}

FrontPanelLibrary::~FrontPanelLibrary() {
  if (handle != nullptr) dlclose(handle);
}

std::string vendorLibraryPath() {
  const char* path = std::getenv("ZEPTICK_FRONTPANEL_LIBRARY");
  return path != nullptr && *path != '\0' ? path : "libokFrontPanel.so";
}

const FrontPanelLibrary& vendorLibrary() {
  // Never closed: handles made through it may live until the process ends.
  static const FrontPanelLibrary* library = new FrontPanelLibrary(vendorLibraryPath());
  return *library;
}

const FrontPanelApi* activeFrontPanelApi() {
  if (emulator::emulatedDevicesAttached()) return &emulator::emulatorFrontPanelApi();
  return vendorLibrary().api();
}

}  // namespace zeptick::device
