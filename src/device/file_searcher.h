#pragma once

#include <string>
#include <vector>

namespace zeptick::device {

/// Sets the firmware file that overrides every search (setCustomBitFileName);
/// "" restores the search. Thread-safe; never throws beyond std::bad_alloc.
void setCustomFirmwareFile(const std::string& path);

/// Where to load the firmware file `name` from, in this order:
///  1. the custom bit file set by setCustomBitFileName, whether it exists or not;
///  2. "./" + name, if such a file exists in the working directory;
///  3. $ZEPTICK_BASE_DIRECTORY/$ZEPTICK_FIRMWARE_SUBDIRECTORY/name when
///     ZEPTICK_BASE_DIRECTORY is set (an unset subdirectory counts as empty),
///     otherwise the installed firmware directory;
///  4. beside the loaded library (or the program it is linked into):
///     <its directory>/../share/zeptick/firmware/name, so that a tree installed
///     under another prefix, or a build tree, finds its own firmware.
/// The first existing candidate of 2-4 wins; when none exists the result is
/// that of 3, which opening then reports as missing. Cases 1 and 2 are logged as
/// warnings. Thread-safe; never throws beyond std::bad_alloc.
std::string searchFirmware(const std::string& name);

/// The candidates 2-4 of searchFirmware for `name`, in order, existing or not:
/// what a "not found" message lists as searched.
std::vector<std::string> firmwareCandidates(const std::string& name);

/// The firmware directory of the installation, compiled in.
std::string installedFirmwareDirectory();

/// The firmware directory beside the loaded library, "" when it cannot be told.
std::string firmwareDirectoryBesideLibrary();

}  // namespace zeptick::device
