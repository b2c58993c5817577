#pragma once

#include <string>

#include "device/frontpanel_api.h"

namespace zeptick::device {

/// A FrontPanel table read from a shared library with dlopen. A library or a
/// symbol that cannot be found is no error here: api() is then null and
/// error() says why, and the device layer reports it when a device is opened.
/// The table stays valid while this object lives; it closes the library on
/// destruction, so every handle made through it must be gone by then.
class FrontPanelLibrary {
 public:
  /// Opens `path` (a file name is searched on the usual library path) and
  /// resolves every entry of the table. Never throws.
  explicit FrontPanelLibrary(const std::string& path);
  ~FrontPanelLibrary();
  FrontPanelLibrary(const FrontPanelLibrary&) = delete;
  FrontPanelLibrary& operator=(const FrontPanelLibrary&) = delete;

  /// The complete table, or null when the library or one of its symbols is missing.
  const FrontPanelApi* api() const { return complete ? &table : nullptr; }
  /// Why api() is null; empty when it is not.
  const std::string& error() const { return why; }
  const std::string& path() const { return library_path; }

 private:
  std::string library_path;
  void* handle = nullptr;
  FrontPanelApi table{};
  bool complete = false;
  std::string why;
};

/// Where the vendor's library is looked for: $ZEPTICK_FRONTPANEL_LIBRARY, else
/// "libokFrontPanel.so".
std::string vendorLibraryPath();

/// The vendor's library, opened on the first call and kept for the life of the
/// process. Thread-safe.
const FrontPanelLibrary& vendorLibrary();

/// The table the device layer uses now: the emulator's while emulated devices
/// are attached, else the vendor's library, or null when that is not loadable.
/// Thread-safe. The table lives for the rest of the process.
const FrontPanelApi* activeFrontPanelApi();

}  // namespace zeptick::device
