#include "files/foreign/foreign_format.h"

#include <cstring>
#include <filesystem>
#include <fstream>

#include "files/foreign/photon_hdf5_recording.h"
#include "files/foreign/ptu_header.h"
#include "files/foreign/ptu_recording.h"
#include "files/foreign/spc_recording.h"

namespace zeptick::foreign {

namespace {

constexpr unsigned char kHdf5Signature[8] = {0x89, 'H', 'D', 'F', '\r', '\n', 0x1A, '\n'};

bool hasHdf5Signature(std::ifstream& in) {
  // The signature may follow a user block of 512, 1024, 2048, ... bytes.
  for (std::streamoff offset : {0, 512, 1024, 2048, 4096, 8192}) {
    unsigned char head[8] = {};
    in.clear();
    in.seekg(offset);
    if (!in.read(reinterpret_cast<char*>(head), sizeof(head))) return false;
    if (std::memcmp(head, kHdf5Signature, sizeof(head)) == 0) return true;
  }
  return false;
}

}  // namespace

ForeignFormat detectForeignFormat(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  char head[8] = {};
  if (!in.read(head, sizeof(head))) return ForeignFormat::None;
  if (std::memcmp(head, kPtuMagic, 6) == 0 && head[6] == 0) return ForeignFormat::Ptu;
  uint32_t first = 0;
  std::memcpy(&first, head, sizeof(first));
  if (isSpcFirstWord(first) &&
      (spcSettingsPath(path).has_value() || std::filesystem::path(path).extension() == ".spc")) {
    return ForeignFormat::Spc;
  }
  if (hasHdf5Signature(in)) return ForeignFormat::PhotonHdf5;
  return ForeignFormat::None;
}

std::unique_ptr<RecordingSource> openForeignRecording(const std::string& path,
                                                      ForeignFormat format) {
  switch (format) {
    case ForeignFormat::Ptu:
      return std::make_unique<PtuRecording>(path);
    case ForeignFormat::Spc:
      return std::make_unique<SpcRecording>(path);
    case ForeignFormat::PhotonHdf5:
      return std::make_unique<PhotonHdf5Recording>(path);
    case ForeignFormat::None:
      break;
  }
  return nullptr;
}

}  // namespace zeptick::foreign
