#include "core/tagger_factories.h"
#include "device/device_scan.h"
#include "device/frontpanel_provider.h"

namespace zeptick::detail {

TaggerFactories defaultTaggerFactories() {
  TaggerFactories factories;
  factories.hardware = makeHardwareTagger;
  factories.replay = makeReplayTagger;
  factories.scan = [] { return device::scanDevices(device::activeFrontPanelApi()); };
  factories.model = [](const std::string& serial) {
    return device::scannedModelTag(device::activeFrontPanelApi(), serial);
  };
  return factories;
}

}  // namespace zeptick::detail
