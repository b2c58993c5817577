#include "files/checked_blocks.h"

#include <cstring>
#include <utility>

#include "files/block_words.h"

namespace zeptick::detail {

bool CheckedBlocks::hasRoom() {
  MutexLock guard(mutex);
  return kept.size() < capacity;
}

uint64_t CheckedBlocks::currentFile() {
  MutexLock guard(mutex);
  return file;
}

std::vector<ZeptickFile::ShortTag> CheckedBlocks::spareBuffer() {
  MutexLock guard(mutex);
  if (spare.empty()) return {};
  std::vector<ZeptickFile::ShortTag> words = std::move(spare.back());
  spare.pop_back();
  return words;
}

void CheckedBlocks::recycle(std::vector<ZeptickFile::ShortTag>&& words) {
  // One buffer for each block kept or being checked is enough; more would only hold memory.
  if (spare.size() < capacity) spare.push_back(std::move(words));
}

void CheckedBlocks::checkAhead(uint64_t for_file, const std::shared_ptr<const VerifyingKey>& key,
                               uint64_t offset, const ZeptickFile::TimeTagBlockHeader& header,
                               const std::vector<char>& stored) {
  if (!key) return;
  std::vector<ZeptickFile::ShortTag> words = spareBuffer();
  bool unpacked = false;
  if (header.compression == ZeptickFile::COMPRESSION_LZ4) {
    unpacked = decompressWords(header, stored, words);
  } else if (header.compression == ZeptickFile::COMPRESSION_NONE &&
             stored.size() == uint64_t{header.word_count} * sizeof(ZeptickFile::ShortTag)) {
    words.resize(header.word_count);
    std::memcpy(words.data(), stored.data(), stored.size());
    unpacked = true;
  }
  const bool passed =
      unpacked && digestMatches(header, words) && key->verify(header.hash, header.signature);
  MutexLock guard(mutex);
  if (passed && for_file == file && kept.size() < capacity) {
    kept.push_back(Kept{key, offset, header, std::move(words)});
  } else {
    recycle(std::move(words));
  }
}

bool CheckedBlocks::take(const std::shared_ptr<const VerifyingKey>& key, uint64_t offset,
                         const ZeptickFile::TimeTagBlockHeader& header,
                         std::vector<ZeptickFile::ShortTag>& words) {
  if (!key) return false;
  MutexLock guard(mutex);
  bool found = false;
  for (Kept& block : kept) {
    if (block.offset == offset && block.key == key &&
        std::memcmp(&block.header, &header, sizeof(header)) == 0) {
      std::swap(block.words, words);
      found = true;
      break;
    }
  }
  for (auto it = kept.begin(); it != kept.end();) {
    if (it->offset <= offset) {
      recycle(std::move(it->words));
      it = kept.erase(it);
    } else {
      ++it;
    }
  }
  return found;
}

void CheckedBlocks::clear() {
  MutexLock guard(mutex);
  for (Kept& block : kept) recycle(std::move(block.words));
  kept.clear();
  ++file;
}

}  // namespace zeptick::detail
