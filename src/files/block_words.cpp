#include "files/block_words.h"

#include <lz4.h>

#include <climits>
#include <cstring>

#include "files/block_signing.h"

namespace zeptick::detail {
namespace {

// LZ4 turns one stored byte into at most 255 output bytes (a run-length byte adds 255 to a
// match), so a claim above this cannot be true and must not size a buffer.
constexpr uint64_t kMaxLz4Ratio = 255;
constexpr uint64_t kLz4Slack = 64;

}  // namespace

bool decompressWords(const ZeptickFile::TimeTagBlockHeader& header, const std::vector<char>& stored,
                     std::vector<ZeptickFile::ShortTag>& words) {
  const uint64_t raw_bytes = uint64_t{header.word_count} * sizeof(ZeptickFile::ShortTag);
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
                   const std::vector<ZeptickFile::ShortTag>& words) {
  uint8_t digest[32];
  return sha1Digest(words.data(), words.size() * sizeof(ZeptickFile::ShortTag), digest) &&
         std::memcmp(digest, header.hash, sizeof(digest)) == 0;
}

}  // namespace zeptick::detail
