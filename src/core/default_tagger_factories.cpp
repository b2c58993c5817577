#include <stdexcept>

#include "core/tagger_factories.h"
#include "device/device_scan.h"
#include "device/frontpanel_provider.h"

namespace zeptick::detail {

// The concrete taggers register here as they are built; until then creating
// one fails the way it does when no instrument is attached.
TaggerFactories defaultTaggerFactories() {
  TaggerFactories factories;
  factories.hardware = [](const std::string&) -> Zeptick* {
    throw std::runtime_error("No valid Zeptick device found.");
  };
  factories.replay = []() -> ZeptickVirtual* {
    throw std::runtime_error("The replay tagger is not available in this build.");
  };
  factories.scan = [] { return device::scanDevices(device::activeFrontPanelApi()); };
  factories.model = [](const std::string& serial) {
    return device::scannedModelTag(device::activeFrontPanelApi(), serial);
  };
  return factories;
}

}  // namespace zeptick::detail
