#include "files/zeptick_file_writer.h"

#include <lz4.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "core/log.h"

namespace zeptick {
namespace {

using ZeptickFile::ShortTag;

constexpr size_t kStreamBufferSize = 1 << 20;
// Smaller blocks would not repay the compressor's set-up.
constexpr size_t kMinCompressedBytes = 1024;
constexpr uint64_t kBits24 = uint64_t{1} << 24;
constexpr uint64_t kBits48 = uint64_t{1} << 48;
constexpr char kWriteError[] = "FileWriter: Error on writing to the disk.";
constexpr uint8_t kZeros[ZeptickFile::ALIGNMENT] = {};

std::string tooManyChannels() {
  return "Too many channels. This format does not support more than " +
         std::to_string(ZeptickFile::MAX_CHANNELS) + " channels.";
}

}  // namespace

ZeptickFileWriter::TimeTagBlockState* ZeptickFileWriter::BlockPool::take() {
  if (free_blocks.empty()) return &blocks.emplace_back();
  TimeTagBlockState* state = free_blocks.back();
  free_blocks.pop_back();
  return state;
}

void ZeptickFileWriter::BlockPool::give(TimeTagBlockState* state) { free_blocks.push_back(state); }

ZeptickFileWriter::ZeptickFileWriter(const std::string& filename, uint32_t split_index,
                                     const ZeptickFile::FileId& file_id,
                                     std::shared_ptr<BlockPool> pool)
    : pool(pool ? std::move(pool) : std::make_shared<BlockPool>()),
      key(detail::currentSigningKey()),
      file_buffer(new char[kStreamBufferSize]) {
  direct_index.fill(kNoIndex);
  file = std::fopen(ZeptickFile::makeFileName(filename, split_index).c_str(), "wb");
  if (file == nullptr) {
    throw std::runtime_error("FileWriter: Error on opening the file '" + filename +
                             "' for writing.");
  }
  std::setvbuf(file, file_buffer.get(), _IOFBF, kStreamBufferSize);
  ZeptickFile::FileHeader header{};
  header.alignment = ZeptickFile::ALIGNMENT;
  header.version = ZeptickFile::VERSION;
  header.required_version = ZeptickFile::VERSION;
  header.file_id = file_id;
  std::lock_guard<std::mutex> guard(file_mutex);
  try {
    writeBlockHeader(ZeptickFile::BLOCK_FILE_HEADER, sizeof(header));
    writeBytes(&header, sizeof(header));
  } catch (...) {
    std::fclose(file);
    throw;
  }
}

ZeptickFileWriter::~ZeptickFileWriter() {
  std::lock_guard<std::mutex> guard(file_mutex);
  bool failed = false;
  try {
    writeBlockHeader(ZeptickFile::BLOCK_END, 0);
  } catch (const std::runtime_error&) {
    failed = true;
  }
  failed |= std::fflush(file) != 0;
  failed |= std::fclose(file) != 0;
  // A destructor cannot throw: the end of the file is the last chance to tell.
  if (failed) ZT_LOG_ERROR("%s", kWriteError);
}

void ZeptickFileWriter::writeBytes(const void* data, size_t size) {
  if (size == 0) return;
  const size_t written = std::fwrite(data, 1, size, file);
  bytes_written.fetch_add(written, std::memory_order_relaxed);
  if (written != size || std::ferror(file)) throw std::runtime_error(kWriteError);
}

void ZeptickFileWriter::writeBlockHeader(uint32_t type, uint32_t size) {
  const ZeptickFile::BlockHeader header{ZeptickFile::MAGIC, size, type, 0};
  writeBytes(&header, sizeof(header));
}

void ZeptickFileWriter::writePadding(uint64_t payload_size) {
  writeBytes(kZeros, ZeptickFile::paddingAfter(payload_size));
}

void ZeptickFileWriter::writeText(uint32_t type, const std::string& text) {
  if (text.size() > std::numeric_limits<uint32_t>::max()) throw std::runtime_error(kWriteError);
  std::lock_guard<std::mutex> guard(file_mutex);
  writeBlockHeader(type, static_cast<uint32_t>(text.size()));
  writeBytes(text.data(), text.size());
  writePadding(text.size());
}

void ZeptickFileWriter::writeConfiguration(const std::string& text) {
  writeText(ZeptickFile::BLOCK_JSON_CONFIG, text);
}

void ZeptickFileWriter::writeMarker(const std::string& text) {
  writeText(ZeptickFile::BLOCK_LAST_MARKER, text);
}

void ZeptickFileWriter::writeChannelMap(const std::vector<std::pair<int32_t, int32_t>>& channels) {
  std::map<int32_t, uint32_t> index_of;
  std::vector<ZeptickFile::ChannelMap::Entry> entries;
  uint32_t index = 0;
  for (const auto& [channel, inverted] : channels) {
    if (!index_of.emplace(channel, index).second) continue;
    entries.push_back({index, channel, inverted, 0});
    // Checked after the entry is made, so 251 distinct channels pass: indices 0 to 250.
    if (index > ZeptickFile::MAX_CHANNEL_INDEX) throw std::runtime_error(tooManyChannels());
    ++index;
  }
  ZeptickFile::ChannelMap head{};
  head.count = static_cast<uint32_t>(entries.size());
  const size_t entry_bytes = entries.size() * sizeof(ZeptickFile::ChannelMap::Entry);
  {
    std::lock_guard<std::mutex> guard(file_mutex);
    writeBlockHeader(ZeptickFile::BLOCK_CHANNEL_MAP,
                     static_cast<uint32_t>(sizeof(head) + entry_bytes));
    writeBytes(&head, sizeof(head));
    writeBytes(entries.data(), entry_bytes);
  }

  channel_index = std::move(index_of);
  direct_index.fill(kNoIndex);
  far_index.clear();
  for (const auto& [channel, channel_code] : channel_index) {
    if (channel >= -kDirectChannels && channel < kDirectChannels) {
      direct_index[static_cast<size_t>(channel + kDirectChannels)] =
          static_cast<uint8_t>(channel_code);
    } else {
      far_index.emplace_back(channel, channel_code);  // already sorted: the map is ordered
    }
  }
}

uint32_t ZeptickFileWriter::lookupIndex(int32_t channel) const {
  if (channel >= -kDirectChannels && channel < kDirectChannels) {
    return direct_index[static_cast<size_t>(channel + kDirectChannels)];
  }
  auto found = std::lower_bound(far_index.begin(), far_index.end(), channel,
                                [](const auto& entry, int32_t key) { return entry.first < key; });
  return found != far_index.end() && found->first == channel ? found->second : kNoIndex;
}

ZeptickFileWriter::TimeTagBlockState* ZeptickFileWriter::encodeBlock(const std::vector<Tag>& tags,
                                                                     int64_t begin_time,
                                                                     int64_t end_time) {
  const bool overflow_at_begin = in_overflow;
  TimeTagBlockState* state = pool->take();
  state->key = key;

  // A tag takes at most three words: high bits 48, high bits 24, and its own.
  state->data.resize(tags.size() * 3);
  ShortTag* out = state->data.data();
  bool overflow = in_overflow;
  uint64_t events = 0;
  int64_t last = begin_time;
  int64_t valid = 0;
  int64_t mark = begin_time;
  bool marked = false;
  for (const Tag& tag : tags) {
    // Nearly every tag: a time tag outside an overflow, of a channel written or skipped, a short
    // step after the one before. It takes one word, or none; anything else takes the general
    // path below.
    if (tag.type == Tag::Type::TimeTag && !overflow) {
      const uint32_t near = static_cast<uint32_t>(tag.channel) + uint32_t{kDirectChannels};
      const uint32_t index =
          near < 2 * kDirectChannels ? direct_index[near] : lookupIndex(tag.channel);
      if (index == kNoIndex) continue;
      // A time before `last` wraps to a huge step, so it takes the general path too.
      const uint64_t delta = static_cast<uint64_t>(tag.time) - static_cast<uint64_t>(last);
      if (delta < kBits24) {
        *out++ = ShortTag::make(static_cast<uint32_t>(delta), static_cast<uint8_t>(index));
        last = tag.time;
        ++events;
        continue;
      }
    }
    uint8_t code;
    if (tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents) {
      const uint32_t index = lookupIndex(tag.channel);
      if (index == kNoIndex) continue;
      if (tag.type == Tag::Type::MissedEvents) {
        // Inside an overflow the count stands for the lost tags; outside it means nothing.
        if (overflow) {
          *out++ = ShortTag::make(tag.missed_events, static_cast<uint8_t>(index));
          ++events;
        }
        continue;
      }
      code = static_cast<uint8_t>(index);
    } else if (tag.type == Tag::Type::OverflowBegin) {
      code = ZeptickFile::SHORT_TAG_OVERFLOW_BEGIN;
    } else if (tag.type == Tag::Type::OverflowEnd) {
      code = ZeptickFile::SHORT_TAG_OVERFLOW_END;
    } else {
      code = ZeptickFile::SHORT_TAG_ERROR;
    }

    // Unsigned from here: a delta is never negative, and the top bits need no sign.
    if (tag.time < last) continue;
    uint64_t delta = static_cast<uint64_t>(tag.time) - static_cast<uint64_t>(last);
    if (delta >= kBits48) {
      *out++ =
          ShortTag::make(static_cast<uint32_t>(delta >> 48), ZeptickFile::SHORT_TAG_TIME_BITS_48);
      last += static_cast<int64_t>((delta >> 48) << 48);
      delta &= kBits48 - 1;
    }
    if (delta >= kBits24) {
      *out++ =
          ShortTag::make(static_cast<uint32_t>(delta >> 24), ZeptickFile::SHORT_TAG_TIME_BITS_24);
      last += static_cast<int64_t>((delta >> 24) << 24);
      delta &= kBits24 - 1;
    }
    if (code <= ZeptickFile::MAX_CHANNEL_INDEX) {
      // The high words stay: they moved `last`, and the next delta counts from there.
      if (overflow) continue;
    } else if (code == ZeptickFile::SHORT_TAG_OVERFLOW_BEGIN) {
      // A repeated mark changes no state: only the edges count towards the valid time.
      if (!overflow) valid += tag.time - mark;
      overflow = true;
      marked = true;
    } else if (code == ZeptickFile::SHORT_TAG_OVERFLOW_END) {
      if (overflow) mark = tag.time;
      overflow = false;
      marked = true;
    }
    *out++ = ShortTag::make(static_cast<uint32_t>(delta), code);
    last = tag.time;
    ++events;
  }
  state->data.resize(static_cast<size_t>(out - state->data.data()));
  if (!overflow) valid += end_time - mark;

  in_overflow = overflow;
  state->overflow_marked = marked;
  state->overflow_at_end = overflow;
  events_written += events;
  ZeptickFile::TimeTagBlockHeader& header = state->header;
  header.begin_time = begin_time;
  header.end_time = end_time;
  header.valid_time = valid;
  header.word_count = static_cast<uint32_t>(state->data.size());
  header.time_unit = 1;
  header.overflow_at_begin = overflow_at_begin ? 1 : 0;
  return state;
}

void ZeptickFileWriter::finishBlock(TimeTagBlockState* state) {
  ZeptickFile::TimeTagBlockHeader& header = state->header;
  const size_t raw = state->data.size() * sizeof(ShortTag);
  state->is_compressed = false;
  size_t stored = raw;
  if (raw >= kMinCompressedBytes && raw <= LZ4_MAX_INPUT_SIZE) {
    const int bound = LZ4_compressBound(static_cast<int>(raw));
    // Grown only, never shrunk or cleared: the scratch keeps its size from block to block.
    if (state->compressed.size() < static_cast<size_t>(bound)) state->compressed.resize(bound);
    const int length = LZ4_compress_default(reinterpret_cast<const char*>(state->data.data()),
                                            state->compressed.data(), static_cast<int>(raw), bound);
    if (length > 0 && static_cast<size_t>(length) < raw) {
      state->is_compressed = true;
      stored = static_cast<size_t>(length);
    }
  }
  // A block too large for the size field is caught by writeBlock.
  header.stored_size = static_cast<uint32_t>(std::min<size_t>(stored, UINT32_MAX));
  header.compression =
      state->is_compressed ? ZeptickFile::COMPRESSION_LZ4 : ZeptickFile::COMPRESSION_NONE;

  if (!detail::sha1Digest(state->data.data(), raw, header.hash)) {
    ZT_LOG_ERROR("Hashing with SHA1 was not successful");
  }
  std::memset(header.signature, 0, sizeof(header.signature));
  header.signature_kind = ZeptickFile::SIGNATURE_SHA1_ECDSA;
  if (!state->key || !state->key->sign(header.hash, header.signature)) {
    ZT_LOG_ERROR("Signing with ECC was not successful");
  }
}

void ZeptickFileWriter::writeBlock(TimeTagBlockState* state) {
  const ZeptickFile::TimeTagBlockHeader& header = state->header;
  const uint64_t payload = uint64_t{ZeptickFile::TIME_TAG_BLOCK_HEADER_SIZE} + header.stored_size;
  if (payload > UINT32_MAX || state->data.size() != header.word_count) {
    // Over 4 GiB in one block: the format cannot describe it.
    throw std::runtime_error(kWriteError);
  }
  const void* stored = state->is_compressed ? static_cast<const void*>(state->compressed.data())
                                            : static_cast<const void*>(state->data.data());
  {
    std::lock_guard<std::mutex> guard(file_mutex);
    writeBlockHeader(ZeptickFile::BLOCK_TIME_TAGS, static_cast<uint32_t>(payload));
    writeBytes(&header, sizeof(header));
    writeBytes(stored, header.stored_size);
    writePadding(header.stored_size);
  }
  state->data.clear();
}

void ZeptickFileWriter::recycleBlock(TimeTagBlockState* state) {
  state->header = ZeptickFile::TimeTagBlockHeader{};
  state->data.clear();
  state->is_compressed = false;
  state->overflow_marked = false;
  state->overflow_at_end = false;
  pool->give(state);
}

}  // namespace zeptick
