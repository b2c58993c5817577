#pragma once

// Unpacking, checking and decoding the words of a time tag block, shared by the file reader and
// the replay workers that do this work for it, each on a block of its own.

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "files/block_signing.h"
#include "files/file_format.h"
#include "zeptick/tag.h"

namespace zeptick::detail {

/// Short-tag code to channel, as the channel maps read so far give it.
using ChannelTable = std::array<int32_t, ZeptickFile::MAX_CHANNEL_INDEX + 1>;

/// What tells a block's fault, in the order the reader logs it: string literals only.
using BlockFaults = std::vector<const char*>;

/// One time tag block as the file stores it, with all it needs to be unpacked, checked and
/// decoded on any thread.
struct PackedBlock {
  ZeptickFile::TimeTagBlockHeader header{};
  std::vector<char> stored;                  // raw words or LZ4 data, as in the file
  std::vector<ZeptickFile::ShortTag> words;  // the unpacked words, once `unpacked`
  bool unpacked = false;                     // `words` hold the block, already checked
  ChannelTable channels{};                   // the channel maps as they stood at the block
  bool verify = false;                       // check digest and signature with `key`
  std::shared_ptr<const VerifyingKey> key;   // null with `verify`: every block fails
};

/// Decompresses the LZ4 data `stored` of a block with `header` into `words`; false if the
/// header's claims are implausible or the data does not give exactly `word_count` words. Sizes
/// `words` only once the claim is plausible.
bool decompressWords(const ZeptickFile::TimeTagBlockHeader& header, const std::vector<char>& stored,
                     std::vector<ZeptickFile::ShortTag>& words);

/// Whether the SHA-1 digest of `words` could be made and matches the header's hash field.
/// Silent: the reader tells each failure in its own words.
bool digestMatches(const ZeptickFile::TimeTagBlockHeader& header,
                   const std::vector<ZeptickFile::ShortTag>& words);

/// Checks `words` against the header's digest and signature with `key` (null fails). On a fault
/// appends what tells it, ending with the verdict line, and returns false.
bool checkWords(const ZeptickFile::TimeTagBlockHeader& header,
                const std::vector<ZeptickFile::ShortTag>& words, const VerifyingKey* key,
                BlockFaults& faults);

/// Replaces `tags` with the tags of `words`, the time running from `start_time`, and adds one
/// to `overflows` for each overflow begin and each error.
void decodeWords(const std::vector<ZeptickFile::ShortTag>& words,
                 const ZeptickFile::TimeTagBlockHeader& header, const ChannelTable& channels,
                 int64_t start_time, std::vector<Tag>& tags, uint64_t& overflows);

/// Unpacks `block` into its words (unless already `unpacked`) and, with `verify`, checks them. On a
/// fault appends what tells it and returns false.
bool unpackWords(PackedBlock& block, BlockFaults& faults);

/// Unpacks (unless already `unpacked`), checks (with `verify`) and decodes `block` as the file
/// reader would. On a fault leaves `tags` alone, appends what tells it and returns false.
bool unpackBlock(PackedBlock& block, int64_t start_time, std::vector<Tag>& tags,
                 uint64_t& overflows, BlockFaults& faults);

}  // namespace zeptick::detail
