#include "files/zeptick_file_reader.h"

#include <sys/stat.h>

#include <algorithm>

#include "core/log.h"
#include "files/block_words.h"

namespace zeptick {
namespace {

using ZeptickFile::ShortTag;

constexpr size_t kStreamBufferSize = 1 << 20;
constexpr size_t kMinStreamBufferSize = 4096;

}  // namespace

void ZeptickFileReader::fault(const char* text) {
  // A reader with deferred checks tells its faults once the blocks before are settled.
  if (deferred) {
    held.push_back(text);
  } else {
    ZT_LOG_ERROR("%s", text);
  }
}

ZeptickFileReader::ZeptickFileReader(const std::string& filename, bool verify) : verify(verify) {
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
    fault("Block is too small");
    return false;
  }
  if (buffer != nullptr) {
    // Checked first so that a short file never reaches a partial read.
    if (file == nullptr || !available(size) || std::fread(buffer, 1, size, file) != size) {
      fault("File access failed");
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
        fault("File access failed");
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
    fault("Block is too small");
    return false;
  }
  if (!available(bytes)) {
    fault("File access failed");
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
  ZeptickFile::BlockHeader header{};
  if (!read(&header, sizeof(header), nullptr) || header.magic != ZeptickFile::MAGIC) {
    fault("Incorrect Header");
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
        fault("File header could not be loaded");
        return false;
      }
      // Stored before the version test, so a too-new file still tells its recording.
      alignment = file_header.alignment;
      file_id = file_header.file_id;
      file_header_read = true;
      if (file_header.required_version > ZeptickFile::VERSION) {
        fault("This file is too new. Please update your Zeptick installation.");
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
        fault("JSON config could not be loaded");
        return false;
      }
      break;
    case ZeptickFile::BLOCK_LAST_MARKER:
      if (!readSized(last_marker, header.size, &remaining)) {
        fault("last_marker could not be loaded");
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
    fault("Channel map could not be loaded");
    return false;
  }
  std::vector<ZeptickFile::ChannelMap::Entry> entries;
  if (!readSized(entries, head.count, &remaining)) {
    fault("Channel map data could not be loaded");
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
    fault("Time tag block header could not be loaded");
    return false;
  }
  const bool raw = block_header.compression == ZeptickFile::COMPRESSION_NONE;
  const uint64_t stored_bytes =
      raw ? uint64_t{block_header.word_count} * sizeof(ShortTag) : block_header.stored_size;
  if (deferred) {
    // Read as stored, with the same messages as below; unpacking and checks come later.
    if (!raw && block_header.compression != ZeptickFile::COMPRESSION_LZ4) {
      fault("Time tag block data with unknown compression");
      return false;
    }
    if (!readSized(compressed, stored_bytes, &remaining)) {
      fault(raw ? "Time tag block data could not be loaded"
                : "Compressed time tag block data could not be loaded");
      return false;
    }
    packed = true;
    has_block = true;
    return read(nullptr, remaining, &remaining);
  }
  if (raw) {
    if (!readSized(words, block_header.word_count, &remaining)) {
      fault("Time tag block data could not be loaded");
      return false;
    }
  } else if (block_header.compression == ZeptickFile::COMPRESSION_LZ4) {
    if (!readSized(compressed, block_header.stored_size, &remaining)) {
      fault("Compressed time tag block data could not be loaded");
      return false;
    }
    const bool unpacked = detail::decompressWords(block_header, compressed, words);
    compressed.clear();
    if (!unpacked) {
      fault("Time tag block data could not be decompressed");
      return false;
    }
  } else {
    fault("Time tag block data with unknown compression");
    return false;
  }
  detail::BlockFaults faults;
  if (verify && !detail::checkWords(block_header, words, key.get(), faults)) {
    for (const char* text : faults) fault(text);
    return false;
  }
  packed = false;
  has_block = true;
  return read(nullptr, remaining, &remaining);
}

bool ZeptickFileReader::getBlockRange(int64_t& begin_time, int64_t& end_time) const {
  if (!has_block) return false;
  begin_time = block_header.begin_time;
  end_time = block_header.end_time;
  return true;
}

bool ZeptickFileReader::unpackLoaded() {
  if (!packed) return true;
  // Nothing taken before is still unchecked when a block is skipped or decoded here, so its
  // faults are told at once.
  detail::PackedBlock block;
  block.header = block_header;
  std::swap(block.stored, compressed);
  std::swap(block.words, words);
  block.verify = verify;
  block.key = key;
  detail::BlockFaults faults;
  const bool passed = detail::unpackWords(block, faults);
  std::swap(block.stored, compressed);
  std::swap(block.words, words);
  packed = false;
  for (const char* text : faults) ZT_LOG_ERROR("%s", text);
  if (!passed) endHere();
  return passed;
}

bool ZeptickFileReader::skipBlock() {
  if (!has_block) return false;
  if (!unpackLoaded()) return false;
  has_block = false;
  load();
  return true;
}

bool ZeptickFileReader::decodeBlock(std::vector<Tag>& tags, int64_t start_time,
                                    uint64_t& overflows) {
  if (!has_block || !unpackLoaded()) return false;
  detail::decodeWords(words, block_header, channels, start_time, tags, overflows);
  has_block = false;
  load();
  return true;
}

bool ZeptickFileReader::takePackedBlock(detail::PackedBlock& block) {
  if (!has_block) return false;
  block.header = block_header;
  block.unpacked = !packed;
  std::swap(block.stored, compressed);
  std::swap(block.words, words);
  block.channels = channels;
  block.verify = verify;
  block.key = key;
  has_block = false;
  packed = false;
  load();
  return true;
}

detail::BlockFaults ZeptickFileReader::takeHeldFaults() {
  detail::BlockFaults faults;
  std::swap(faults, held);
  return faults;
}

void ZeptickFileReader::endHere() {
  ended_here = true;
  has_block = false;
  packed = false;
  held.clear();
  close();
}

int32_t ZeptickFileReader::getInvertedChannel(int32_t channel) const {
  auto found = inverted_channels.find(channel);
  return found == inverted_channels.end() ? CHANNEL_UNUSED : found->second;
}

}  // namespace zeptick
