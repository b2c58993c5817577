#include "files/zeptick_file_reader.h"

#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

#include "core/log.h"
#include "files/block_words.h"

namespace zeptick {
namespace {

using ZeptickFile::ShortTag;

constexpr size_t kStreamBufferSize = 1 << 20;
constexpr size_t kMinStreamBufferSize = 4096;

}  // namespace

// A reader that looks ahead stays silent: the reader that delivers the data reports every fault.
#define READER_ERROR(...)                        \
  do {                                           \
    if (!stored_only) ZT_LOG_ERROR(__VA_ARGS__); \
  } while (false)

ZeptickFileReader::ZeptickFileReader(const std::string& filename, bool verify)
    : ZeptickFileReader(filename, verify, false) {}

std::unique_ptr<ZeptickFileReader> ZeptickFileReader::storedOnly(const std::string& filename) {
  return std::unique_ptr<ZeptickFileReader>(new ZeptickFileReader(filename, false, true));
}

ZeptickFileReader::ZeptickFileReader(const std::string& filename, bool verify, bool stored_only)
    : verify(verify), stored_only(stored_only) {
  channels.fill(CHANNEL_UNUSED);
  if (verify) key = detail::currentVerifyingKey();
  file = std::fopen(filename.c_str(), "rb");
  if (file == nullptr) return;
  opened = true;
  // A small file gets a buffer of its own size: like every other buffer here, this one is no
  // larger than the file's bytes justify.
  refreshFileSize();
  file_buffer.resize(std::clamp<uint64_t>(file_size, kMinStreamBufferSize, kStreamBufferSize));
  std::setvbuf(file, file_buffer.data(), _IOFBF, file_buffer.size());
  load();
}

ZeptickFileReader::~ZeptickFileReader() { close(); }

void ZeptickFileReader::close() {
  if (file != nullptr) std::fclose(file);
  file = nullptr;
}

void ZeptickFileReader::refreshFileSize() {
  struct stat status {};
  if (file != nullptr && fstat(fileno(file), &status) == 0 && status.st_size >= 0) {
    file_size = static_cast<uint64_t>(status.st_size);
  }
}

bool ZeptickFileReader::available(uint64_t size) {
  // A skip may have moved the position past the end: compare without wrapping around.
  const auto fits = [&] { return position <= file_size && size <= file_size - position; };
  if (fits()) return true;
  // The file may have grown since the last look (it may be written while it is read).
  refreshFileSize();
  return fits();
}

bool ZeptickFileReader::read(void* buffer, uint64_t size, uint64_t* remaining) {
  if (size == 0) return true;
  if (remaining != nullptr && *remaining < size) {
    READER_ERROR("Block is too small");
    return false;
  }
  if (buffer != nullptr) {
    // Checked first so that a short file never reaches a partial read.
    if (file == nullptr || !available(size) || std::fread(buffer, 1, size, file) != size) {
      READER_ERROR("File access failed");
      return false;
    }
  } else if (file != nullptr) {
    std::clearerr(file);
    fseeko(file, static_cast<off_t>(size), SEEK_CUR);
  }
  position += size;
  if (remaining != nullptr) *remaining -= size;
  if (alignment != 0) {
    const uint64_t pad = alignment - ((size + alignment - 1) % alignment) - 1;
    if (pad != 0) {
      if (file == nullptr || !available(pad)) {
        READER_ERROR("File access failed");
        return false;
      }
      fseeko(file, static_cast<off_t>(pad), SEEK_CUR);
      position += pad;
    }
  }
  return true;
}

// Sizes `container` for `count` elements and reads them, but only once the block and the file
// hold that many bytes: a header's claim alone must never allocate. Logs as read() does.
template <class Container>
bool ZeptickFileReader::readSized(Container& container, uint64_t count, uint64_t* remaining) {
  const uint64_t bytes = count * sizeof(typename Container::value_type);
  if (remaining != nullptr && *remaining < bytes) {
    READER_ERROR("Block is too small");
    return false;
  }
  if (!available(bytes)) {
    READER_ERROR("File access failed");
    return false;
  }
  container.resize(count);
  return read(container.data(), bytes, remaining);
}

void ZeptickFileReader::load() {
  while (!has_block) {
    if (!readBlock()) {
      close();
      return;
    }
  }
}

bool ZeptickFileReader::readBlock() {
  if (at_end) return false;
  block_offset = position;
  ZeptickFile::BlockHeader header{};
  if (!read(&header, sizeof(header), nullptr) || header.magic != ZeptickFile::MAGIC) {
    READER_ERROR("Incorrect Header");
    return false;
  }
  uint64_t remaining = header.size;
  switch (header.type) {
    case ZeptickFile::BLOCK_END:
      at_end = true;
      break;
    case ZeptickFile::BLOCK_FILE_HEADER: {
      ZeptickFile::FileHeader file_header{};
      if (!read(&file_header, sizeof(file_header), &remaining)) {
        READER_ERROR("File header could not be loaded");
        return false;
      }
      // Stored before the version test, so a too-new file still tells its recording.
      alignment = file_header.alignment;
      file_id = file_header.file_id;
      file_header_read = true;
      if (file_header.required_version > ZeptickFile::VERSION) {
        READER_ERROR("This file is too new. Please update your Zeptick installation.");
        return false;
      }
      version = file_header.version;
      break;
    }
    case ZeptickFile::BLOCK_CHANNEL_MAP:
      if (!readChannelMap(remaining)) return false;
      break;
    case ZeptickFile::BLOCK_TIME_TAGS:
      return readTimeTagBlock(remaining);
    case ZeptickFile::BLOCK_JSON_CONFIG:
      if (!readSized(configuration, header.size, &remaining)) {
        READER_ERROR("JSON config could not be loaded");
        return false;
      }
      break;
    case ZeptickFile::BLOCK_LAST_MARKER:
      if (!readSized(last_marker, header.size, &remaining)) {
        READER_ERROR("last_marker could not be loaded");
        return false;
      }
      break;
    default:
      break;  // a kind of block this version does not know: skipped by its size
  }
  return read(nullptr, remaining, &remaining);
}

std::vector<int32_t> ZeptickFileReader::getRecordedChannels() const {
  std::vector<int32_t> recorded;
  for (int32_t channel : channels) {
    if (channel != CHANNEL_UNUSED) recorded.push_back(channel);
  }
  return recorded;
}

bool ZeptickFileReader::readChannelMap(uint64_t& remaining) {
  ZeptickFile::ChannelMap head{};
  if (!read(&head, sizeof(head), &remaining)) {
    READER_ERROR("Channel map could not be loaded");
    return false;
  }
  std::vector<ZeptickFile::ChannelMap::Entry> entries;
  if (!readSized(entries, head.count, &remaining)) {
    READER_ERROR("Channel map data could not be loaded");
    return false;
  }
  // Entries add to the tables without clearing them: a later map refines an earlier one.
  for (const ZeptickFile::ChannelMap::Entry& entry : entries) {
    if (entry.index < channels.size()) channels[entry.index] = entry.channel;
    inverted_channels[entry.channel] = entry.inverted_channel;
    inverted_channels[entry.inverted_channel] = entry.channel;
  }
  return true;
}

bool ZeptickFileReader::readTimeTagBlock(uint64_t& remaining) {
  if (!read(&block_header, sizeof(block_header), &remaining)) {
    READER_ERROR("Time tag block header could not be loaded");
    return false;
  }
  const bool raw = block_header.compression == ZeptickFile::COMPRESSION_NONE;
  const uint64_t stored_bytes =
      raw ? uint64_t{block_header.word_count} * sizeof(ShortTag) : block_header.stored_size;
  if (stored_only) {
    has_block = readSized(compressed, stored_bytes, &remaining);
    return has_block && read(nullptr, remaining, &remaining);
  }
  if (checked_blocks != nullptr && checked_blocks->take(key, block_offset, block_header, words)) {
    // Read and checked ahead: the same bytes need not be read again.
    has_block = read(nullptr, stored_bytes, &remaining);
    return has_block && read(nullptr, remaining, &remaining);
  }
  if (raw) {
    if (!readSized(words, block_header.word_count, &remaining)) {
      READER_ERROR("Time tag block data could not be loaded");
      return false;
    }
  } else if (block_header.compression == ZeptickFile::COMPRESSION_LZ4) {
    if (!readSized(compressed, block_header.stored_size, &remaining)) {
      READER_ERROR("Compressed time tag block data could not be loaded");
      return false;
    }
    const bool unpacked = detail::decompressWords(block_header, compressed, words);
    compressed.clear();
    if (!unpacked) {
      READER_ERROR("Time tag block data could not be decompressed");
      return false;
    }
  } else {
    READER_ERROR("Time tag block data with unknown compression");
    return false;
  }
  if (verify && !verifyBlock()) {
    READER_ERROR("Time tag block data with invalid hash or signature");
    return false;
  }
  has_block = true;
  return read(nullptr, remaining, &remaining);
}

bool ZeptickFileReader::verifyBlock() {
  uint8_t digest[32];
  if (!detail::sha1Digest(words.data(), words.size() * sizeof(ShortTag), digest)) {
    READER_ERROR("Hashing with SHA1 was not successful");
  }
  if (std::memcmp(digest, block_header.hash, sizeof(digest)) != 0) {
    READER_ERROR("Hash missmatch");
    return false;
  }
  if (!key || !key->verify(block_header.hash, block_header.signature)) {
    READER_ERROR("ECC signature is wrong");
    return false;
  }
  return true;
}

bool ZeptickFileReader::getBlockRange(int64_t& begin_time, int64_t& end_time) const {
  if (!has_block) return false;
  begin_time = block_header.begin_time;
  end_time = block_header.end_time;
  return true;
}

bool ZeptickFileReader::takeStoredBlock(ZeptickFile::TimeTagBlockHeader& header,
                                        std::vector<char>& stored) {
  if (!has_block || !stored_only) return false;
  header = block_header;
  std::swap(stored, compressed);
  return true;
}

bool ZeptickFileReader::skipBlock() {
  if (!has_block) return false;
  has_block = false;
  load();
  return true;
}

bool ZeptickFileReader::decodeBlock(std::vector<Tag>& tags, int64_t start_time,
                                    uint64_t& overflows) {
  if (!has_block) return false;
  // At most one tag per word: size once, fill through a pointer, trim at the end.
  tags.resize(words.size());
  Tag* out = tags.data();
  // Unsigned arithmetic: a forged delta may wrap, which must not be undefined.
  uint64_t time = static_cast<uint64_t>(start_time);
  const uint64_t unit = block_header.time_unit;
  bool overflow = block_header.overflow_at_begin != 0;
  for (const ShortTag word : words) {
    const uint8_t code = word.code();
    const uint64_t value = word.value();
    if (code <= ZeptickFile::MAX_CHANNEL_INDEX) {
      if (!overflow) {
        time += value * unit;
        *out++ = Tag{Tag::Type::TimeTag, 0, 0, channels[code], static_cast<int64_t>(time)};
      } else {
        *out++ = Tag{Tag::Type::MissedEvents, 0, static_cast<uint16_t>(value), channels[code],
                     static_cast<int64_t>(time)};
      }
      continue;
    }
    Tag::Type type;
    switch (code) {
      case ZeptickFile::SHORT_TAG_TIME_BITS_24:
        time += (value * unit) << 24;
        continue;
      case ZeptickFile::SHORT_TAG_TIME_BITS_48:
        time += (value * unit) << 48;
        continue;
      case ZeptickFile::SHORT_TAG_OVERFLOW_BEGIN:
        type = Tag::Type::OverflowBegin;
        overflow = true;
        ++overflows;
        break;
      case ZeptickFile::SHORT_TAG_OVERFLOW_END:
        type = Tag::Type::OverflowEnd;
        overflow = false;
        break;
      default:
        type = Tag::Type::Error;
        ++overflows;
        break;
    }
    time += value * unit;
    *out++ = Tag{type, 0, 0, CHANNEL_UNUSED, static_cast<int64_t>(time)};
  }
  tags.resize(static_cast<size_t>(out - tags.data()));
  has_block = false;
  load();
  return true;
}

int32_t ZeptickFileReader::getInvertedChannel(int32_t channel) const {
  auto found = inverted_channels.find(channel);
  return found == inverted_channels.end() ? CHANNEL_UNUSED : found->second;
}

}  // namespace zeptick
