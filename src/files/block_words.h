#pragma once

// Unpacking and checking the words of a time tag block, shared by the file reader and the
// workers that check blocks ahead of it.

#include <vector>

#include "files/file_format.h"

namespace zeptick::detail {

/// Decompresses the LZ4 data `stored` of a block with `header` into `words`; false if the
/// header's claims are implausible or the data does not give exactly `word_count` words. Sizes
/// `words` only once the claim is plausible.
bool decompressWords(const ZeptickFile::TimeTagBlockHeader& header, const std::vector<char>& stored,
                     std::vector<ZeptickFile::ShortTag>& words);

/// Whether the SHA-1 digest of `words` could be made and matches the header's hash field.
/// Silent: the reader tells each failure in its own words.
bool digestMatches(const ZeptickFile::TimeTagBlockHeader& header,
                   const std::vector<ZeptickFile::ShortTag>& words);

}  // namespace zeptick::detail
