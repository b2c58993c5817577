#pragma once

#include <string>
#include <vector>

#include "device/frontpanel_api.h"

namespace zeptick::device {

/// Serials of the devices `api` lists, in its order; none when `api` is null.
/// Opens no device. Thread-safe as far as the provider is.
std::vector<std::string> scanDevices(const FrontPanelApi* api);

/// The model tag ("ZT-20", "ZT-Ultra", "unknown") of the listed device with
/// `serial`; "unknown" when no such device is listed.
std::string scannedModelTag(const FrontPanelApi* api, const std::string& serial);

}  // namespace zeptick::device
