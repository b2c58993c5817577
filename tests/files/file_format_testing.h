#pragma once

// Helpers of the file and replay tests: scratch directories, raw bytes read by offset, files
// built block by block, recordings written and read back, and random streams.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "file_format_reference.h"
#include "files/file_format.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_file_writer.h"
#include "files/zeptick_virtual_impl.h"
#include "recording/recording_generator.h"
#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"
#include "zeptick/time_tag_stream.h"

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
    blocks.push_back({offset, u32At(file, offset + 8),
                      Bytes(file.begin() + offset + 16, file.begin() + offset + 16 + size)});
    for (size_t i = size; i < padded; ++i) EXPECT_EQ(file[offset + 16 + i], 0) << offset;
    offset += 16 + padded;
  }
  EXPECT_EQ(offset, file.size());
  return blocks;
}

/// The payloads of a file's time tag blocks, in file order.
inline std::vector<RawBlock> timeTagBlocks(const Bytes& file) {
  std::vector<RawBlock> blocks;
  for (RawBlock& block : walkBlocks(file)) {
    if (block.type == ZeptickFile::BLOCK_TIME_TAGS) blocks.push_back(std::move(block));
  }
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
    for (uint32_t word : {0x545A494Du, size, type, 0u}) appendLittleEndian(bytes, word, 4);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    while (pad && bytes.size() % 16 != 0) bytes.push_back(0);
    return *this;
  }
  FileBuilder& fileHeader(uint32_t required_version = 1, uint32_t alignment = 16) {
    Bytes payload;
    for (uint32_t word : {alignment, 1u, required_version, 0u, 7u, 8u, 9u, 10u}) {
      appendLittleEndian(payload, word, 4);
    }
    block(2, payload);
    pad = alignment != 0;  // alignment 0: no padding anywhere after the file header
    return *this;
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
    for (int64_t time : {begin, end, int64_t{0}}) {
      appendLittleEndian(payload, static_cast<uint64_t>(time), 8);
    }
    // word_count, stored_size, time_unit, compression (raw), signature_kind
    for (uint64_t field :
         {words.size(), words.size() * 4, uint64_t{time_unit}, uint64_t{0}, uint64_t{1}}) {
      appendLittleEndian(payload, field, 4);
    }
    payload.push_back(overflow_at_begin ? 1 : 0);
    payload.resize(144, 0);
    for (uint32_t word : words) appendLittleEndian(payload, word, 4);
    return block(4, payload);
  }
  FileBuilder& end() { return block(1, {}); }

  Bytes bytes;
  bool pad = true;
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
inline std::vector<Block> readRecording(const std::string& path, bool verify = true) {
  ZeptickFileReader reader(path, verify);
  std::vector<Block> blocks;
  uint64_t overflows = 0;
  Block block;
  while (reader.getBlockRange(block.begin_time, block.end_time)) {
    EXPECT_TRUE(reader.decodeBlock(block.tags, block.begin_time, overflows));
    blocks.push_back(block);
  }
  return blocks;
}

/// What `log` caught, each text without the place in the source that tells it, and each an
/// error: the file layer reports every fault as one.
inline std::vector<std::string> messageTexts(LogCapture& log) {
  std::vector<std::string> texts;
  for (const LogCapture::Entry& entry : log.entries()) {
    EXPECT_EQ(entry.level, LOGGER_ERROR) << entry.text;
    texts.push_back(entry.text.substr(entry.text.find(": ") + 2));
  }
  return texts;
}
inline void expectMessages(LogCapture& log, const std::vector<std::string>& expected) {
  EXPECT_EQ(messageTexts(log), expected);
}

/// A replay tagger on the heap with a measurement that keeps every block. ThreadSanitizer
/// forgets a mutex only when its memory is freed, so taggers in stack slots of earlier tests
/// would alias this one's mutexes.
struct Replay {
  explicit Replay(unsigned workers) : tagger(std::make_unique<ZeptickVirtualImpl>(workers)) {}
  /// Plays `base` to its end; the stream so far, checked to be contiguous.
  std::vector<Tag> play(const std::string& base, int64_t begin = 0, int64_t duration = -1) {
    EXPECT_TRUE(tagger->waitForCompletion(tagger->replay(base, begin, duration), 60000));
    return tags();
  }
  std::vector<Tag> tags() {
    blocks = seen->blocks();
    for (size_t i = 1; i < blocks.size(); ++i) {
      EXPECT_EQ(blocks[i].begin_time, blocks[i - 1].end_time) << "block " << i;
    }
    for (const Block& block : blocks) {
      for (const Tag& tag : block.tags) {
        EXPECT_TRUE(tag.time >= block.begin_time && tag.time < block.end_time) << tag.time;
      }
    }
    return concatenate(blocks);
  }

  std::unique_ptr<ZeptickVirtualImpl> tagger;
  std::unique_ptr<RecordingMeasurement> seen = std::make_unique<RecordingMeasurement>(tagger.get());
  std::vector<Block> blocks;  ///< as of the last play() or tags()
};

/// Blocks with time tags on `channels`, errors, and overflow spans that may cross blocks: inside
/// a span mostly missed-event counts and now and then a time tag, outside now and then a stray
/// missed-event count. Some long quiet blocks need the high-bit words. Times non-decreasing.
inline std::vector<Block> randomStream(std::mt19937_64& rng, size_t count,
                                       const std::vector<int>& channels) {
  std::uniform_int_distribution<int64_t> length(0, 400000);
  std::uniform_int_distribution<int> tag_count(0, 60);
  std::uniform_int_distribution<size_t> pick(0, channels.size() - 1);
  std::uniform_int_distribution<int> roll(0, 999);
  std::uniform_int_distribution<int> lost(1, 65535);
  std::vector<Block> blocks;
  int64_t time = 0;
  bool in_overflow = false;
  for (size_t i = 0; i < count; ++i) {
    Block block{{}, time, time + length(rng)};
    if (roll(rng) < 20) block.end_time = time + (int64_t{1} << 26) * (1 + roll(rng));
    std::vector<int64_t> times;
    if (block.end_time > block.begin_time) {
      std::uniform_int_distribution<int64_t> at(block.begin_time, block.end_time - 1);
      for (int k = tag_count(rng); k > 0; --k) times.push_back(at(rng));
    }
    std::sort(times.begin(), times.end());
    for (int64_t t : times) {
      const int r = roll(rng);
      const int channel = channels[pick(rng)];
      Tag tag{Tag::Type::TimeTag, 0, 0, channel, t};
      if (!in_overflow && r < 25) {
        tag = marker(Tag::Type::OverflowBegin, t);
        in_overflow = true;
      } else if (!in_overflow && r < 40) {
        tag = marker(Tag::Type::Error, t);
      } else if (!in_overflow && r < 45) {
        tag = missedTag(channel, t, 3);
      } else if (in_overflow && r < 150) {
        tag = marker(Tag::Type::OverflowEnd, t);
        in_overflow = false;
      } else if (in_overflow && r >= 200) {
        tag = missedTag(channel, t, static_cast<uint16_t>(lost(rng)));
      }
      block.tags.push_back(tag);
    }
    time = block.end_time;
    blocks.push_back(std::move(block));
  }
  return blocks;
}

/// Names of the files of recording `base` that exist, index 0 first.
inline std::vector<std::string> splitFiles(const std::string& base) {
  std::vector<std::string> names;
  for (uint32_t index = 0;; ++index) {
    const std::string name = ZeptickFile::makeFileName(base, index);
    if (!std::filesystem::exists(name)) return names;
    names.push_back(name);
  }
}

/// 20 ms of generated recording in blocks that do not line up with round numbers, with a long
/// overflow span and one of a single picosecond.
inline RecordingPlan smallPlan(uint64_t seed) {
  RecordingPlan plan;
  plan.seed = seed;
  plan.duration = 20000000000;
  plan.block_span = 700000000;
  plan.overflow_spans = {{3000000000, 4500000000}, {9100000000, 9100000001}};
  return plan;
}

/// The generator's whole stream in memory: the reference for what the files hold.
inline std::vector<Tag> generatedTags(const RecordingPlan& plan) {
  RecordingGenerator generator(plan);
  std::vector<Tag> all, tags;
  int64_t begin = 0, end = 0;
  while (generator.next(tags, begin, end)) all.insert(all.end(), tags.begin(), tags.end());
  return all;
}

/// A buffer's columns put back together as tags; checks that the overflow flags agree.
inline std::vector<Tag> bufferTags(const TimeTagStreamBuffer& buffer) {
  std::vector<int> channels;
  std::vector<int64_t> times;
  std::vector<uint16_t> missed;
  std::vector<uint8_t> types, overflows;
  buffer.getChannels([&](size_t n) { return channels.assign(n, 0), channels.data(); });
  buffer.getTimestamps([&](size_t n) { return times.assign(n, 0), times.data(); });
  buffer.getMissedEvents([&](size_t n) { return missed.assign(n, 0), missed.data(); });
  buffer.getEventTypes([&](size_t n) { return types.assign(n, 9), types.data(); });
  buffer.getOverflows([&](size_t n) { return overflows.assign(n, 9), overflows.data(); });
  std::vector<Tag> tags;
  for (size_t i = 0; i < channels.size(); ++i) {
    EXPECT_EQ(overflows[i], types[i] != 0 ? 1 : 0);
    tags.push_back(Tag{static_cast<Tag::Type>(types[i]), 0, missed[i], channels[i], times[i]});
  }
  EXPECT_EQ(tags.size(), buffer.size);
  EXPECT_EQ(times.size(), buffer.size);
  return tags;
}

}  // namespace zeptick::testing
