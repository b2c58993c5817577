#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/tag.h"
#include "zeptick/time_tag_stream.h"

namespace zeptick {

class RecordingSource;

/// Reads recordings made by FileWriter, and other instruments' PTU, SPC and
/// Photon-HDF5 files (told by their content), straight into the caller's
/// hands, with no tagger and no pacing. Given several names, it reads the whole split set
/// of the first, then of the next. A file of another recording found in the
/// numbering is logged and ends that set. Bad data is logged and ends the
/// file; nothing here throws after construction. Not thread-safe: one thread
/// at a time.
class ZEPTICK_API FileReader {
 public:
  /// Throws std::runtime_error if the list is empty or a recording's first
  /// file cannot be opened.
  explicit FileReader(const std::string& filename);
  explicit FileReader(const std::vector<std::string>& filenames);
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  /// False once every file has been read.
  bool hasData();
  /// Up to `n` further tags. tStart is the time reading stood at before, and
  /// tGetData the time of the last tag returned.
  TimeTagStreamBuffer getData(uint64_t n);
  /// Replaces `tags` with the next recorded block. False when a file of
  /// another recording was met (and skipped); the next call reads on.
  bool getDataRaw(std::vector<Tag>& tags);
  /// Configuration text of the recording being read.
  std::string getConfiguration();
  /// The last marker seen so far in the file being read.
  std::string getLastMarker();

 private:
  bool openNextFile();

  std::vector<std::string> filenames;
  size_t next_file = 0;
  std::string current_name;
  std::unique_ptr<RecordingSource> reader;
  bool foreign_file = false;  // another instrument's recording: never split
  std::vector<Tag> buffer;
  size_t read_position = 0;
  int64_t last_time = -1;
  int64_t file_end = 0;  // end of the last block read from the open file
  uint32_t file_counter = 0;
  std::array<uint32_t, 4> file_id{};
  bool finished = false;
};

}  // namespace zeptick
