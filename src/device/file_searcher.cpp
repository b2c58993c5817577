#include "device/file_searcher.h"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>

#include "core/log.h"

// The build passes the installed data directory; a build without it still
// finds firmware through the environment or the working directory.
#ifndef ZEPTICK_FIRMWARE_INSTALL_DIR
#define ZEPTICK_FIRMWARE_INSTALL_DIR "/usr/local/share/zeptick/firmware"
#endif

namespace zeptick::device {
namespace {

struct CustomFile {
  std::mutex mutex;
  std::string path;
};

// Never destroyed: a tagger may open from a static destructor of user code.
CustomFile& customFile() {
  static auto* instance = new CustomFile();
  return *instance;
}

std::string customFirmwareFile() {
  std::lock_guard<std::mutex> guard(customFile().mutex);
  return customFile().path;
}

// An unset variable reads as empty and the search goes on with it, so a half
// configured installation still yields a path that opening then reports.
std::string environmentValue(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

bool fileExists(const std::string& path) {
  std::error_code ignored;
  return std::filesystem::is_regular_file(path, ignored);
}

}  // namespace

void setCustomFirmwareFile(const std::string& path) {
  CustomFile& stored = customFile();
  std::lock_guard<std::mutex> guard(stored.mutex);
  stored.path = path;
}

std::string installedFirmwareDirectory() { return ZEPTICK_FIRMWARE_INSTALL_DIR; }

std::string firmwareDirectoryBesideLibrary() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<const void*>(&firmwareDirectoryBesideLibrary), &info) == 0) {
    return "";
  }
  // Linked into a program rather than loaded as a library, the code has no file
  // name of its own: the program's is the one to go by.
  // A program started by a relative path reports that path, which the working directory may
  // no longer resolve.
  const bool in_program = info.dli_fname == nullptr || info.dli_fname[0] != '/';
  std::error_code ignored;
  const std::filesystem::path binary =
      std::filesystem::canonical(in_program ? "/proc/self/exe" : info.dli_fname, ignored);
  if (binary.empty()) return "";
  return (binary.parent_path().parent_path() / "share" / "zeptick" / "firmware").string();
}

std::vector<std::string> firmwareCandidates(const std::string& name) {
  std::vector<std::string> candidates{"./" + name};
  if (std::getenv("ZEPTICK_BASE_DIRECTORY") != nullptr) {
    candidates.push_back(environmentValue("ZEPTICK_BASE_DIRECTORY") + "/" +
                         environmentValue("ZEPTICK_FIRMWARE_SUBDIRECTORY") + "/" + name);
  } else {
    candidates.push_back(installedFirmwareDirectory() + "/" + name);
  }
  const std::string beside = firmwareDirectoryBesideLibrary();
  if (!beside.empty()) candidates.push_back(beside + "/" + name);
  return candidates;
}

std::string searchFirmware(const std::string& name) {
  const std::string custom = customFirmwareFile();
  if (!custom.empty()) {
    ZT_LOG_WARNING("Loading custom bitfile '%s'", custom.c_str());
    return custom;
  }
  const std::vector<std::string> candidates = firmwareCandidates(name);
  if (fileExists(candidates[0])) {
    ZT_LOG_WARNING("INFO: Loading bitfile from current directory: %s", name.c_str());
    return candidates[0];
  }
  for (size_t i = 2; i < candidates.size(); ++i) {
    if (!fileExists(candidates[1]) && fileExists(candidates[i])) return candidates[i];
  }
  return candidates[1];
}

}  // namespace zeptick::device
