#pragma once

// The tag header of PicoQuant's PTU files: a magic, a tag-format version, then tags of a 32-byte
// name, an index, a type code and an 8-byte value (the payload's length for strings, arrays and
// blobs, whose bytes follow) up to the tag Header_End, after which the records start.

#include <cstdint>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

namespace zeptick::foreign {

/// What a PTU header says, as far as decoding needs it, and every tag as settings.
struct PtuHeader {
  std::string tag_version;    ///< "1.0.00", "00.0.1", ...
  uint64_t data_offset = 0;   ///< first byte after Header_End
  int64_t record_type = -1;   ///< TTResultFormat_TTTRRecType; -1 if absent
  int64_t record_count = -1;  ///< TTResult_NumberOfRecords as written (may be 0 or wrong)
  bool has_record_count = false;
  int64_t bits_per_record = 32;                    ///< TTResultFormat_BitsPerRecord
  double global_resolution = 0.0;                  ///< MeasDesc_GlobalResolution, s
  double resolution = 0.0;                         ///< MeasDesc_Resolution, s
  double sync_rate = 0.0;                          ///< TTResult_SyncRate, Hz
  nlohmann::json tags = nlohmann::json::object();  ///< name, or name[index], to value
};

/// The bytes a PTU file starts with.
inline constexpr char kPtuMagic[] = "PQTTTR";

/// Reads the header from the current position of `file`, which must be the file's start, and
/// leaves the position after Header_End. Tolerates what real files hold: index gaps and
/// repeats, garbled and private names, unknown types (skipped by length when they carry a
/// payload). False, with `error` saying what and at which byte, if the header is not a PTU header
/// or ends before Header_End. Never allocates more than a bounded amount per tag.
bool parsePtuHeader(std::FILE* file, PtuHeader& header, std::string& error);

}  // namespace zeptick::foreign
