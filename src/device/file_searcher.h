#pragma once

#include <string>

namespace zeptick::device {

/// Where to load the firmware file `name` from, in this order:
///  1. the custom bit file set by setCustomBitFileName, whether it exists or not;
///  2. "./" + name, if such a file exists in the working directory;
///  3. $ZEPTICK_BASE_DIRECTORY/$ZEPTICK_FIRMWARE_SUBDIRECTORY/name when
///     ZEPTICK_BASE_DIRECTORY is set (an unset subdirectory counts as empty);
///  4. otherwise the installed firmware directory.
/// Cases 1 and 2 are logged as warnings. The result of 3 and 4 is not checked:
/// opening the device reports a missing file. Thread-safe; never throws.
std::string searchFirmware(const std::string& name);

/// The firmware directory of the installation, compiled in.
std::string installedFirmwareDirectory();

}  // namespace zeptick::device
