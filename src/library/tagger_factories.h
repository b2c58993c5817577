#pragma once

#include <functional>
#include <string>
#include <vector>

#include "zeptick/zeptick_base.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::detail {

/// How the instance registry makes taggers and asks about devices. This folder
/// assembles the library: it is the one place that knows the concrete taggers
/// (engine, replay) and the device scan; tests substitute their own factories.
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

/// The one place that may destroy a tagger; ZeptickBase befriends it.
struct TaggerDeleter {
  static void destroy(ZeptickBase* tagger) { delete tagger; }
};

}  // namespace zeptick::detail
