#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "files/foreign/foreign_recording.h"
#include "files/foreign/ptu_records.h"

namespace zeptick::foreign {

/// A PicoQuant PTU file in T2 or T3 mode, read a chunk of records at a time. The header's
/// record count is checked against the file's size; the file's size decides, and a record
/// count that disagrees is logged (an error when the file is shorter than the header says).
class PtuRecording final : public ForeignRecording {
 public:
  /// Reads the header of `path`; on a fault, logs it and stays closed (isOpen() is false).
  explicit PtuRecording(const std::string& path);
  ~PtuRecording() override;

 protected:
  bool decodeChunk(std::vector<Tag>& out) override;
  int64_t recordedUntil() const override;

 private:
  std::string path;
  std::FILE* file = nullptr;
  std::optional<PtuRecordDecoder> decoder;
  std::vector<uint32_t> records;
  uint64_t records_left = 0;
  uint64_t records_read = 0;
  uint64_t data_offset = 0;
  int64_t announced = -1;  // the header's record count
  bool cut_short = false;
};

}  // namespace zeptick::foreign
