#include "files/block_words.h"

#include <lz4.h>

#include <climits>
#include <cstring>

namespace zeptick::detail {
namespace {

using ZeptickFile::ShortTag;

// LZ4 turns one stored byte into at most 255 output bytes (a run-length byte adds 255 to a
// match), so a claim above this cannot be true and must not size a buffer.
constexpr uint64_t kMaxLz4Ratio = 255;
constexpr uint64_t kLz4Slack = 64;

}  // namespace

bool decompressWords(const ZeptickFile::TimeTagBlockHeader& header, const std::vector<char>& stored,
                     std::vector<ShortTag>& words) {
  const uint64_t raw_bytes = uint64_t{header.word_count} * sizeof(ShortTag);
  const bool plausible = raw_bytes <= uint64_t{header.stored_size} * kMaxLz4Ratio + kLz4Slack &&
                         raw_bytes <= INT_MAX && header.stored_size <= INT_MAX &&
                         stored.size() == header.stored_size;
  if (!plausible) return false;
  words.resize(header.word_count);
  const int length =
      LZ4_decompress_safe(stored.data(), reinterpret_cast<char*>(words.data()),
                          static_cast<int>(header.stored_size), static_cast<int>(raw_bytes));
  return length >= 0 && static_cast<uint64_t>(length) == raw_bytes;
}

bool digestMatches(const ZeptickFile::TimeTagBlockHeader& header,
                   const std::vector<ShortTag>& words) {
  uint8_t digest[32];
  return sha1Digest(words.data(), words.size() * sizeof(ShortTag), digest) &&
         std::memcmp(digest, header.hash, sizeof(digest)) == 0;
}

bool checkWords(const ZeptickFile::TimeTagBlockHeader& header, const std::vector<ShortTag>& words,
                const VerifyingKey* key, BlockFaults& faults) {
  uint8_t digest[32];
  if (!sha1Digest(words.data(), words.size() * sizeof(ShortTag), digest)) {
    faults.push_back("Hashing with SHA1 was not successful");
  }
  bool valid = std::memcmp(digest, header.hash, sizeof(digest)) == 0;
  if (!valid) {
    faults.push_back("Hash missmatch");
  } else if (key == nullptr || !key->verify(header.hash, header.signature)) {
    faults.push_back("ECC signature is wrong");
    valid = false;
  }
  if (!valid) faults.push_back("Time tag block data with invalid hash or signature");
  return valid;
}

void decodeWords(const std::vector<ShortTag>& words, const ZeptickFile::TimeTagBlockHeader& header,
                 const ChannelTable& channels, int64_t start_time, std::vector<Tag>& tags,
                 uint64_t& overflows) {
  // At most one tag per word: size once, fill through a pointer, trim at the end.
  tags.resize(words.size());
  Tag* out = tags.data();
  // Unsigned arithmetic: a forged delta may wrap, which must not be undefined.
  uint64_t time = static_cast<uint64_t>(start_time);
  const uint64_t unit = header.time_unit;
  bool overflow = header.overflow_at_begin != 0;
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
}

bool unpackWords(PackedBlock& block, BlockFaults& faults) {
  if (block.unpacked) return true;
  const ZeptickFile::TimeTagBlockHeader& header = block.header;
  if (header.compression == ZeptickFile::COMPRESSION_LZ4) {
    if (!decompressWords(header, block.stored, block.words)) {
      faults.push_back("Time tag block data could not be decompressed");
      return false;
    }
  } else {
    // The reader stores raw words only, and exactly word_count of them.
    block.words.resize(block.stored.size() / sizeof(ShortTag));
    // An empty block has no data to copy, and no pointer memcpy may be given.
    if (!block.words.empty()) {
      std::memcpy(block.words.data(), block.stored.data(), block.words.size() * sizeof(ShortTag));
    }
  }
  return !block.verify || checkWords(header, block.words, block.key.get(), faults);
}

bool unpackBlock(PackedBlock& block, int64_t start_time, std::vector<Tag>& tags,
                 uint64_t& overflows, BlockFaults& faults) {
  if (!unpackWords(block, faults)) return false;
  decodeWords(block.words, block.header, block.channels, start_time, tags, overflows);
  return true;
}

}  // namespace zeptick::detail
