#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

class ZeptickFileWriter;

/// Records the tags of the given channels into .ztbin files that FileReader
/// and the replay tagger read back. A recording is a set of files sharing one
/// identifier: <name>.ztbin holds the configuration and the channel map, the
/// tags go to <name>.1.ztbin, <name>.2.ztbin and so on. A file is closed and
/// the next one begun once it passes getMaxFileSize(), so a file may exceed
/// the limit by one block, or by an overflow span: files roll over only
/// outside overflows, so that every file reads back on its own. Compression, hashing and signing of
/// blocks run on several workers at once; blocks still reach the disk in stream order. Errors,
/// overflow marks and missed events are recorded with the tags.
class ZEPTICK_API FileWriter : public IteratorBase {
 public:
  /// Throws std::runtime_error for no channels or more than 250, and when the
  /// first file cannot be opened. Unused channels are skipped.
  FileWriter(ZeptickBase* tagger, const std::string& filename, std::vector<int> channels);
  ~FileWriter() override;

  /// Closes the current file and begins the next. With a new name the
  /// numbering restarts under that name; the recording's identifier stays.
  void split(const std::string& new_filename = "");
  /// Size in bytes after which the next file is begun; negative never rolls over.
  void setMaxFileSize(int64_t max_file_size);
  int64_t getMaxFileSize();
  /// Events written since construction, in every file.
  int64_t getTotalEvents();
  /// Bytes written since construction, in every file.
  int64_t getTotalSize();
  /// Stores `marker` in the open file between two blocks. Only while running.
  void setMarker(const std::string& marker);

 protected:
  void clear_impl() override;
  void on_start() override;
  void on_stop() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  void retireWriter();
  void closeIdleWriters();

  std::string filename;
  int64_t max_file_size = 0x40000000;
  int64_t total_events = 0;
  int64_t total_size = 0;
  uint32_t file_counter = 0;
  std::array<uint32_t, 4> file_id{};
  std::shared_ptr<ZeptickFileWriter> writer;
  std::vector<std::pair<int32_t, int32_t>> channels;
  bool stream_in_overflow = false;  // at the end of the last block seen
  // Writers replaced while blocks they encoded were still on their way to the disk.
  std::vector<std::shared_ptr<ZeptickFileWriter>> retired;
};

}  // namespace zeptick
