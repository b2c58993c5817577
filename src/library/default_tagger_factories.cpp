#include "device/device_scan.h"
#include "device/frontpanel_provider.h"
#include "engine/zeptick_impl.h"
#include "files/zeptick_virtual_impl.h"
#include "library/tagger_factories.h"

namespace zeptick::detail {

TaggerFactories defaultTaggerFactories() {
  TaggerFactories factories;
  factories.hardware = [](const std::string& serial) -> Zeptick* {
    return new ZeptickImpl(serial);
  };
  factories.replay = []() -> ZeptickVirtual* { return new ZeptickVirtualImpl(); };
  factories.scan = [] { return device::scanDevices(device::activeFrontPanelApi()); };
  factories.model = [](const std::string& serial) {
    return device::scannedModelTag(device::activeFrontPanelApi(), serial);
  };
  return factories;
}

}  // namespace zeptick::detail
