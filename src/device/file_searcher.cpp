#include "device/file_searcher.h"

#include <sys/stat.h>

#include <cstdlib>

#include "core/log.h"
#include "core/tagger_factories.h"

// The build passes the installed data directory; a build without it still
// finds firmware through the environment or the working directory.
#ifndef ZEPTICK_FIRMWARE_INSTALL_DIR
#define ZEPTICK_FIRMWARE_INSTALL_DIR "/usr/local/share/zeptick/firmware"
#endif

namespace zeptick::device {
namespace {

// An unset variable reads as empty and the search goes on with it, so a half
// configured installation still yields a path that opening then reports.
std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool fileExists(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0;
}

}  // namespace

std::string installedFirmwareDirectory() { return ZEPTICK_FIRMWARE_INSTALL_DIR; }

std::string searchFirmware(const std::string& name) {
  const std::string custom = detail::customBitFileName();
  if (!custom.empty()) {
    ZT_LOG_WARNING("Loading custom bitfile '%s'", custom.c_str());
    return custom;
  }
  const std::string local = "./" + name;
  if (fileExists(local)) {
    ZT_LOG_WARNING("INFO: Loading bitfile from current directory: %s", name.c_str());
    return local;
  }
  if (std::getenv("ZEPTICK_BASE_DIRECTORY") != nullptr) {
    return environmentValue("ZEPTICK_BASE_DIRECTORY") + "/" +
           environmentValue("ZEPTICK_FIRMWARE_SUBDIRECTORY") + "/" + name;
  }
  return installedFirmwareDirectory() + "/" + name;
}

}  // namespace zeptick::device
