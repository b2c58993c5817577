#include "zeptick/file_reader.h"

#include <algorithm>
#include <fstream>
#include <stdexcept>

#include "core/log.h"
#include "files/file_format.h"
#include "files/foreign/foreign_format.h"
#include "files/zeptick_file_reader.h"

namespace zeptick {

namespace {

bool fileExists(const std::string& name) { return std::ifstream(name, std::ios::binary).is_open(); }

}  // namespace

FileReader::FileReader(const std::string& filename)
    : FileReader(std::vector<std::string>{filename}) {}

FileReader::FileReader(const std::vector<std::string>& names) : filenames(names) {
  if (filenames.empty()) throw std::runtime_error("no file provided");
  for (const std::string& name : filenames) {
    if (foreign::detectForeignFormat(name) == foreign::ForeignFormat::None &&
        !fileExists(ZeptickFile::makeFileName(name, 0))) {
      throw std::runtime_error("FileReader could not open file '" + name + "'.");
    }
  }
  last_time = -1;
  openNextFile();
}

FileReader::~FileReader() = default;

bool FileReader::openNextFile() {
  if (next_file == filenames.size()) return false;
  file_counter = 0;
  current_name = filenames[next_file++];
  const foreign::ForeignFormat format = foreign::detectForeignFormat(current_name);
  foreign_file = format != foreign::ForeignFormat::None;
  if (foreign_file) {
    reader = foreign::openForeignRecording(current_name, format);
  } else {
    reader = std::make_unique<ZeptickFileReader>(
        ZeptickFile::makeFileName(current_name, file_counter++), false);
  }
  reader->getFileId(file_id);
  return true;
}

bool FileReader::hasData() { return !finished; }

bool FileReader::getDataRaw(std::vector<Tag>& tags) {
  tags.clear();
  while (tags.empty() && !finished) {
    int64_t begin_time = 0;
    int64_t end_time = 0;
    if (reader && reader->getBlockRange(begin_time, end_time)) {
      uint64_t overflows = 0;
      reader->decodeBlock(tags, begin_time, overflows);
      if (last_time == -1) last_time = begin_time;
      file_end = end_time;
      continue;
    }
    if (reader && !foreign_file && reader->endedEarly()) {
      // The reader's own message says what failed; this one says where the data stop.
      ZT_LOG_ERROR("File '%s' ends early, after the data up to %lld ps.",
                   ZeptickFile::makeFileName(current_name, file_counter - 1).c_str(),
                   static_cast<long long>(file_end));
    }
    if (reader && !foreign_file) {
      const std::string name = ZeptickFile::makeFileName(current_name, file_counter++);
      if (fileExists(name)) {
        auto next = std::make_unique<ZeptickFileReader>(name, false);
        if (!next->hasFileHeader()) {
          // Not another recording: this one was cut short there (a full disk, a killed recorder).
          ZT_LOG_ERROR("File '%s' has no file header: the recording ends before it.", name.c_str());
          reader.reset();
          continue;
        }
        ZeptickFile::FileId id{};
        next->getFileId(id);
        if (id != file_id) {
          ZT_LOG_ERROR(
              "File '%s' matches the naming schema, but was not written in the same FileWriter. "
              "Skipped.",
              name.c_str());
          // Its data are not part of this recording: the set ends here, as in replay.
          reader.reset();
          return false;
        }
        reader = std::move(next);
        continue;
      }
    }
    if (!openNextFile()) finished = true;
  }
  return true;
}

TimeTagStreamBuffer FileReader::getData(uint64_t n) {
  TimeTagStreamBuffer out;
  out.channels.reserve(n);
  out.timestamps.reserve(n);
  out.missed_events.reserve(n);
  out.event_types.reserve(n);
  while (out.size < n) {
    if (read_position < buffer.size()) {
      const size_t count =
          static_cast<size_t>(std::min<uint64_t>(buffer.size() - read_position, n - out.size));
      for (size_t i = read_position; i < read_position + count; ++i) {
        const Tag& tag = buffer[i];
        out.channels.push_back(tag.channel);
        out.timestamps.push_back(tag.time);
        out.missed_events.push_back(tag.missed_events);
        out.event_types.push_back(static_cast<uint8_t>(tag.type));
        out.hasOverflows |= isSpecialTag(tag);
      }
      read_position += count;
      out.size += count;
      continue;
    }
    buffer.clear();
    read_position = 0;
    if (!getDataRaw(buffer) || finished) break;
  }
  out.tStart = last_time;
  if (out.size > 0) last_time = out.timestamps.back();
  out.tGetData = last_time;
  return out;
}

std::string FileReader::getConfiguration() {
  return reader ? reader->getConfiguration() : std::string();
}

std::string FileReader::getLastMarker() { return reader ? reader->getLastMarker() : std::string(); }

}  // namespace zeptick
