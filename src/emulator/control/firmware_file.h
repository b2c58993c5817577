#pragma once

#include <cstdint>
#include <string>

#include "device/frontpanel_api.h"

namespace zeptick::emulator {

/// What an emulator firmware file holds (layout in firmware/README.md).
struct FirmwareImage {
  int model = 0;             ///< board model the firmware is built for
  uint32_t version = 0;      ///< reported on wire-out 0x24
  uint32_t build_stamp = 0;  ///< reported on wire-out 0x20
};

/// Size in bytes of an encoded firmware file.
inline constexpr size_t kFirmwareFileSize = 28;

/// The bytes of a firmware file for `image`, checksum included.
std::string encodeFirmware(const FirmwareImage& image);

/// Reads the firmware file at `path` into `image`. Returns ok_NoError,
/// ok_FileError when the file cannot be read, or ok_InvalidBitstream when it is
/// not a well-formed emulator firmware file. Does not check the model.
ok_ErrorCode loadFirmware(const std::string& path, FirmwareImage& image);

/// The build timestamp word of a date and time; the year counts from 2000 (0 to 63).
uint32_t encodeBuildStamp(int year, int month, int day, int hour, int minute, int second);

}  // namespace zeptick::emulator
