#pragma once

#include <functional>
#include <string>
#include <vector>

#include "zeptick/zeptick_base.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::detail {

/// How the instance registry makes taggers and asks about devices. The
/// registry knows no concrete tagger: each tagger kind plugs in here, and
/// tests substitute their own.
struct TaggerFactories {
  /// Opens the device with `serial`, or the first free one for "". Throws when none.
  std::function<Zeptick*(const std::string& serial)> hardware;
  std::function<ZeptickVirtual*()> replay;
  std::function<std::vector<std::string>()> scan;
  std::function<std::string(const std::string& serial)> model;
};

/// The factories in use. Change them only while no tagger is being created.
TaggerFactories& taggerFactories();

/// The library's own factories.
TaggerFactories defaultTaggerFactories();

/// The library's hardware tagger for `serial` ("" for the first free device). Throws when none.
Zeptick* makeHardwareTagger(const std::string& serial);
/// The library's replay tagger.
ZeptickVirtual* makeReplayTagger();

/// The one place that may destroy a tagger; ZeptickBase befriends it.
struct TaggerDeleter {
  static void destroy(ZeptickBase* tagger) { delete tagger; }
};

/// Firmware file name set by setCustomBitFileName; empty for the model's default.
std::string customBitFileName();

}  // namespace zeptick::detail
