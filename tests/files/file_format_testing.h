#pragma once

// Helpers of the file tests: scratch directories, raw bytes, and recordings written and read
// back through the writer's and the reader's full calling sequence.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "file_format_reference.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_file_writer.h"
#include "support/log_capture.h"
#include "support/recording_measurement.h"
#include "support/test_tagger.h"

namespace zeptick::testing {

using Bytes = std::vector<uint8_t>;

/// A fresh directory under the system's temporary one, removed with everything in it.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "zeptick-files-XXXXXX");
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path = pattern;
  }
  ~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  std::string file(const std::string& name) const { return (path / name).string(); }

 private:
  std::filesystem::path path;
};

inline Bytes readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeBytes(const std::string& path, const Bytes& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

/// Little-endian fields read byte by byte, independent of any struct layout.
inline uint64_t littleEndian(const Bytes& bytes, size_t offset, size_t width) {
  uint64_t value = 0;
  for (size_t i = 0; i < width; ++i) value |= uint64_t{bytes.at(offset + i)} << (8 * i);
  return value;
}
inline uint32_t u32At(const Bytes& bytes, size_t offset) {
  return static_cast<uint32_t>(littleEndian(bytes, offset, 4));
}
inline int64_t i64At(const Bytes& bytes, size_t offset) {
  return static_cast<int64_t>(littleEndian(bytes, offset, 8));
}
inline void putLittleEndian(Bytes& bytes, size_t offset, uint64_t value, size_t width) {
  for (size_t i = 0; i < width; ++i) bytes.at(offset + i) = static_cast<uint8_t>(value >> (8 * i));
}
inline void appendLittleEndian(Bytes& bytes, uint64_t value, size_t width) {
  for (size_t i = 0; i < width; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

struct RawBlock {
  size_t offset;
  uint32_t type;
  Bytes payload;
};

/// Walks a file by the layout alone: magic, size, type, zero reserved word, payload, zero
/// padding to 16, each block at a multiple of 16, nothing left over.
inline std::vector<RawBlock> walkBlocks(const Bytes& file) {
  std::vector<RawBlock> blocks;
  size_t offset = 0;
  while (offset + 16 <= file.size()) {
    EXPECT_EQ(offset % 16, 0u);
    EXPECT_EQ(std::string(file.begin() + offset, file.begin() + offset + 4), "MIZT");
    const uint32_t size = u32At(file, offset + 4);
    EXPECT_EQ(u32At(file, offset + 12), 0u) << "reserved word at " << offset;
    const size_t padded = (size + 15) / 16 * 16;
    EXPECT_LE(offset + 16 + padded, file.size());
    if (offset + 16 + padded > file.size()) break;
    RawBlock block{offset, u32At(file, offset + 8),
                   Bytes(file.begin() + offset + 16, file.begin() + offset + 16 + size)};
    for (size_t i = size; i < padded; ++i) EXPECT_EQ(file[offset + 16 + i], 0) << offset;
    blocks.push_back(std::move(block));
    offset += 16 + padded;
  }
  EXPECT_EQ(offset, file.size());
  return blocks;
}

/// Builds a file block by block from raw payloads, the way the layout describes it.
class FileBuilder {
 public:
  FileBuilder& block(uint32_t type, const Bytes& payload) {
    return blockWithSize(type, static_cast<uint32_t>(payload.size()), payload);
  }
  /// A block whose `size` field says `size`, whatever the payload holds.
  FileBuilder& blockWithSize(uint32_t type, uint32_t size, const Bytes& payload) {
    appendLittleEndian(bytes, 0x545A494D, 4);
    appendLittleEndian(bytes, size, 4);
    appendLittleEndian(bytes, type, 4);
    appendLittleEndian(bytes, 0, 4);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    while (pad && bytes.size() % 16 != 0) bytes.push_back(0);
    return *this;
  }
  FileBuilder& fileHeader(uint32_t required_version = 1, uint32_t id = 7, uint32_t alignment = 16) {
    Bytes payload;
    for (uint32_t word : {alignment, 1u, required_version, 0u, id, id + 1, id + 2, id + 3}) {
      appendLittleEndian(payload, word, 4);
    }
    return block(2, payload);
  }
  /// Entries are (index, channel, inverted channel).
  FileBuilder& channelMap(const std::vector<std::array<int32_t, 3>>& entries) {
    Bytes payload;
    appendLittleEndian(payload, entries.size(), 4);
    payload.resize(16, 0);
    for (const auto& entry : entries) {
      for (int32_t field : entry) appendLittleEndian(payload, static_cast<uint32_t>(field), 4);
      appendLittleEndian(payload, 0, 4);
    }
    return block(3, payload);
  }
  /// A raw, unsigned time tag block of the given words.
  FileBuilder& timeTags(int64_t begin, int64_t end, const std::vector<uint32_t>& words,
                        uint32_t time_unit = 1, bool overflow_at_begin = false) {
    Bytes payload;
    appendLittleEndian(payload, static_cast<uint64_t>(begin), 8);
    appendLittleEndian(payload, static_cast<uint64_t>(end), 8);
    appendLittleEndian(payload, 0, 8);
    appendLittleEndian(payload, words.size(), 4);
    appendLittleEndian(payload, words.size() * 4, 4);
    appendLittleEndian(payload, time_unit, 4);
    appendLittleEndian(payload, 0, 4);  // raw
    appendLittleEndian(payload, 1, 4);
    payload.push_back(overflow_at_begin ? 1 : 0);
    payload.resize(144, 0);
    for (uint32_t word : words) appendLittleEndian(payload, word, 4);
    return block(4, payload);
  }
  FileBuilder& end() { return block(1, {}); }

  Bytes bytes;
  bool pad = true;  ///< false for files whose header turns alignment off
};

inline uint32_t shortTag(uint32_t value, uint32_t code) { return (value << 8) | code; }

/// Runs `blocks` through every stage of a writer, in the calling order of the recording.
inline void writeRecording(const std::string& path, const std::vector<Block>& blocks,
                           const std::vector<std::pair<int32_t, int32_t>>& channels,
                           ZeptickFile::FileId file_id = {1, 2, 3, 4}) {
  ZeptickFileWriter writer(path, 0, file_id);
  writer.writeConfiguration("{\"model\":\"test\"}");
  writer.writeChannelMap(channels);
  for (const Block& block : blocks) {
    auto* state = writer.encodeBlock(block.tags, block.begin_time, block.end_time);
    ZeptickFileWriter::finishBlock(state);
    writer.writeBlock(state);
    writer.recycleBlock(state);
  }
}

/// Every block of a file, each decoded from its own begin_time.
inline std::vector<Block> readRecording(const std::string& path, bool verify = true,
                                        uint64_t* overflows = nullptr) {
  ZeptickFileReader reader(path, verify);
  std::vector<Block> blocks;
  uint64_t count = 0;
  Block block;
  while (reader.getBlockRange(block.begin_time, block.end_time)) {
    EXPECT_TRUE(reader.decodeBlock(block.tags, block.begin_time, count));
    blocks.push_back(block);
  }
  if (overflows != nullptr) *overflows = count;
  return blocks;
}

/// How many captured messages end with `text`.
inline size_t countMessages(LogCapture& log, const std::string& text) {
  size_t count = 0;
  for (const std::string& message : log.messages()) {
    if (message.size() >= text.size() &&
        message.compare(message.size() - text.size(), text.size(), text) == 0) {
      ++count;
    }
  }
  return count;
}

/// Tags as tuples (type, missed events, channel, time, reserved), which gtest compares and
/// prints, so a failure shows the first differing tag.
using TagFields = std::tuple<int, int, int32_t, int64_t, int>;
inline std::vector<TagFields> fields(const std::vector<Tag>& tags) {
  std::vector<TagFields> out;
  for (const Tag& tag : tags) {
    out.emplace_back(static_cast<int>(tag.type), tag.missed_events, tag.channel, tag.time,
                     tag.reserved);
  }
  return out;
}

}  // namespace zeptick::testing
