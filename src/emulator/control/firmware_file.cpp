#include "emulator/control/firmware_file.h"

#include <array>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace zeptick::emulator {

namespace {

constexpr std::array<char, 8> kMagic = {'Z', 'T', 'E', 'M', 'U', 'F', 'W', '\0'};
constexpr uint32_t kFormatVersion = 1;
constexpr size_t kChecksummedBytes = kFirmwareFileSize - 4;

// FNV-1a over the header: enough to tell a damaged file from a good one.
uint32_t checksum(const unsigned char* bytes, size_t count) {
  uint32_t hash = 2166136261u;
  for (size_t i = 0; i < count; ++i) {
    hash = (hash ^ bytes[i]) * 16777619u;
  }
  return hash;
}

void putWord(unsigned char* at, uint32_t value) {
  for (int i = 0; i < 4; ++i) at[i] = static_cast<unsigned char>(value >> (8 * i));
}

uint32_t getWord(const unsigned char* at) {
  uint32_t value = 0;
  for (int i = 0; i < 4; ++i) value |= static_cast<uint32_t>(at[i]) << (8 * i);
  return value;
}

}  // namespace

std::string encodeFirmware(const FirmwareImage& image) {
  std::array<unsigned char, kFirmwareFileSize> bytes{};
  std::memcpy(bytes.data(), kMagic.data(), kMagic.size());
  putWord(&bytes[8], kFormatVersion);
  putWord(&bytes[12], static_cast<uint32_t>(image.model));
  putWord(&bytes[16], image.version);
  putWord(&bytes[20], image.build_stamp);
  putWord(&bytes[24], checksum(bytes.data(), kChecksummedBytes));
  return std::string(bytes.begin(), bytes.end());
}

ok_ErrorCode loadFirmware(const std::string& path, FirmwareImage& image) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return ok_FileError;
  std::ifstream file(path, std::ios::binary);
  if (!file) return ok_FileError;
  // One byte more than a good file holds tells a longer file apart.
  std::array<unsigned char, kFirmwareFileSize + 1> bytes{};
  file.read(reinterpret_cast<char*>(bytes.data()), bytes.size());
  if (file.bad()) return ok_FileError;
  if (static_cast<size_t>(file.gcount()) != kFirmwareFileSize) return ok_InvalidBitstream;
  if (std::memcmp(bytes.data(), kMagic.data(), kMagic.size()) != 0 ||
      getWord(&bytes[8]) != kFormatVersion ||
      getWord(&bytes[24]) != checksum(bytes.data(), kChecksummedBytes)) {
    return ok_InvalidBitstream;
  }
  image.model = static_cast<int>(getWord(&bytes[12]));
  image.version = getWord(&bytes[16]);
  image.build_stamp = getWord(&bytes[20]);
  return ok_NoError;
}

uint32_t encodeBuildStamp(int year, int month, int day, int hour, int minute, int second) {
  return static_cast<uint32_t>(day) << 27 | static_cast<uint32_t>(month) << 23 |
         static_cast<uint32_t>(year - 2000) << 17 | static_cast<uint32_t>(hour) << 12 |
         static_cast<uint32_t>(minute) << 6 | static_cast<uint32_t>(second);
}

}  // namespace zeptick::emulator
