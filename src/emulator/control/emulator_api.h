#pragma once

#include "device/frontpanel_api.h"

namespace zeptick::emulator {

/// The FrontPanel functions served by the emulated boards. Valid for the whole
/// process; calls for a handle of a detached board fail like an unplugged device.
const device::FrontPanelApi& emulatorFrontPanelApi();

/// True while emulated devices are attached (by the public call or by the
/// ZEPTICK_EMULATOR environment variable, read once on first use). The device
/// layer then uses emulatorFrontPanelApi() instead of the vendor library.
bool emulatedDevicesAttached();

}  // namespace zeptick::emulator
