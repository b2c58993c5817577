#pragma once

// The .ztbin time-tag file: a flat sequence of self-describing blocks, each starting at a
// multiple of 16 bytes. The records below are written to disk exactly as they stand in memory,
// so their sizes and field offsets are part of the format and are pinned by static_asserts.

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>

#include "zeptick/tag.h"

static_assert(std::endian::native == std::endian::little,
              "time-tag files are little-endian and written from memory as they stand");

namespace zeptick::ZeptickFile {

/// "MIZT" read as a little-endian 32-bit number.
inline constexpr uint32_t MAGIC = 0x545A494D;
/// Every block, and every sub-field written by the writer, is padded to this many bytes.
inline constexpr uint32_t ALIGNMENT = 16;
/// The version this library writes, and the highest `required_version` it reads.
inline constexpr uint32_t VERSION = 1;
/// File name extension of every file of a recording.
inline constexpr const char* EXTENSION = ".ztbin";

/// Block kinds. A reader skips any other kind by its size.
enum BlockType : uint32_t {
  BLOCK_END = 1,
  BLOCK_FILE_HEADER = 2,
  BLOCK_CHANNEL_MAP = 3,
  BLOCK_TIME_TAGS = 4,
  BLOCK_JSON_CONFIG = 5,
  BLOCK_LAST_MARKER = 6,
};

/// In front of every block. `size` counts the payload without its trailing alignment bytes.
struct BlockHeader {
  uint32_t magic;
  uint32_t size;
  uint32_t type;
  uint32_t reserved;
};

/// 128-bit identifier shared by all files of one recording.
using FileId = std::array<uint32_t, 4>;

/// Payload of BLOCK_FILE_HEADER.
struct FileHeader {
  uint32_t alignment;         ///< every later read is padded up to a multiple of this; 0 = none
  uint32_t version;           ///< kept, not tested
  uint32_t required_version;  ///< a reader older than this must refuse the file
  uint32_t reserved;
  FileId file_id;
};

/// Head of BLOCK_CHANNEL_MAP; `count` entries follow.
struct ChannelMap {
  uint32_t count;
  uint32_t reserved[3];

  struct Entry {
    uint32_t index;            ///< short-tag code of the channel, 0 to MAX_CHANNEL_INDEX
    int32_t channel;           ///< channel number
    int32_t inverted_channel;  ///< the other edge's channel, as the tagger reported it
    uint32_t reserved;
  };
};

/// Compression of a time tag block's stored data.
inline constexpr uint32_t COMPRESSION_NONE = 0;
inline constexpr uint32_t COMPRESSION_LZ4 = 1;
/// SHA-1 digest in `hash`, ECDSA signature of `hash` in `signature`.
inline constexpr uint32_t SIGNATURE_SHA1_ECDSA = 1;

/// Head of BLOCK_TIME_TAGS; `stored_size` bytes of short tags (maybe LZ4-compressed) follow.
struct TimeTagBlockHeader {
  int64_t begin_time;  ///< start of the span in ps; the first delta counts from here
  int64_t end_time;    ///< end of the span in ps
  int64_t valid_time;  ///< ps of the span spent outside overflow
  uint32_t word_count;
  uint32_t stored_size;  ///< compressed length, or 4 x word_count when raw
  uint32_t time_unit;    ///< ps per unit of a short tag's value
  uint32_t compression;
  uint32_t signature_kind;
  uint8_t overflow_at_begin;  ///< 1 if the stream was in overflow when the block began
  uint8_t reserved[3];
  uint8_t hash[32];       ///< SHA-1 of the uncompressed words, then 12 zero bytes
  uint8_t signature[64];  ///< ECDSA P-256 signature of `hash`, raw r then s
};

/// Codes 0 to this value name channels through the channel map.
inline constexpr uint32_t MAX_CHANNEL_INDEX = 250;
/// The channel limit that users are told about.
inline constexpr int MAX_CHANNELS = 250;

/// Control codes of the low byte of a short tag.
inline constexpr uint8_t SHORT_TAG_TIME_BITS_24 = 251;
inline constexpr uint8_t SHORT_TAG_TIME_BITS_48 = 252;
inline constexpr uint8_t SHORT_TAG_OVERFLOW_BEGIN = 253;
inline constexpr uint8_t SHORT_TAG_OVERFLOW_END = 254;
inline constexpr uint8_t SHORT_TAG_ERROR = 255;

/// One word of a time tag block: a 24-bit value over an 8-bit code.
struct ShortTag {
  uint32_t word;

  /// Left uninitialised on purpose: word buffers are sized first and filled after, and zeroing
  /// them on every block would cost as much as the encoding.
  ShortTag() noexcept {}
  constexpr explicit ShortTag(uint32_t word) noexcept : word(word) {}

  static constexpr ShortTag make(uint32_t value, uint8_t code) {
    return ShortTag((value << 8) | code);
  }
  constexpr uint8_t code() const { return static_cast<uint8_t>(word & 0xFF); }
  constexpr uint32_t value() const { return word >> 8; }
};

/// Bytes the time tag block header adds to a block's payload.
inline constexpr uint32_t TIME_TAG_BLOCK_HEADER_SIZE = 144;

static_assert(sizeof(BlockHeader) == 16);
static_assert(offsetof(BlockHeader, size) == 4 && offsetof(BlockHeader, type) == 8);
static_assert(sizeof(FileHeader) == 32);
static_assert(offsetof(FileHeader, version) == 4 && offsetof(FileHeader, required_version) == 8);
static_assert(offsetof(FileHeader, file_id) == 16);
static_assert(sizeof(ChannelMap) == 16 && sizeof(ChannelMap::Entry) == 16);
static_assert(offsetof(ChannelMap::Entry, channel) == 4);
static_assert(offsetof(ChannelMap::Entry, inverted_channel) == 8);
static_assert(sizeof(TimeTagBlockHeader) == TIME_TAG_BLOCK_HEADER_SIZE);
static_assert(offsetof(TimeTagBlockHeader, end_time) == 8);
static_assert(offsetof(TimeTagBlockHeader, valid_time) == 16);
static_assert(offsetof(TimeTagBlockHeader, word_count) == 24);
static_assert(offsetof(TimeTagBlockHeader, stored_size) == 28);
static_assert(offsetof(TimeTagBlockHeader, time_unit) == 32);
static_assert(offsetof(TimeTagBlockHeader, compression) == 36);
static_assert(offsetof(TimeTagBlockHeader, signature_kind) == 40);
static_assert(offsetof(TimeTagBlockHeader, overflow_at_begin) == 44);
static_assert(offsetof(TimeTagBlockHeader, hash) == 48);
static_assert(offsetof(TimeTagBlockHeader, signature) == 80);
static_assert(sizeof(ShortTag) == 4);

/// Zero bytes that follow `size` bytes of payload up to the next multiple of ALIGNMENT.
constexpr uint32_t paddingAfter(uint64_t size) {
  return static_cast<uint32_t>((ALIGNMENT - size % ALIGNMENT) % ALIGNMENT);
}

/// Name of file `index` of the recording `base`: a trailing ".ztbin" of `base` is dropped,
/// ".<index>" is added for index above 0, and ".ztbin" ends the name.
/// makeFileName("data", 3) and makeFileName("data.ztbin", 3) are both "data.3.ztbin".
std::string makeFileName(const std::string& base, uint32_t index);

}  // namespace zeptick::ZeptickFile
