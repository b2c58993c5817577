#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "files/block_signing.h"
#include "files/file_format.h"
#include "zeptick/detail/annotated_mutex.h"

namespace zeptick::detail {

/// Time tag blocks unpacked and checked (digest and signature) ahead of the reader that needs
/// them, so that this work runs on any worker instead of inside the serial block step. Only
/// blocks that pass every check are kept, under the header and key they were checked with, so
/// that a kept block is as good as reading and checking it again. Holds at most `capacity`
/// blocks; their buffers are reused. Thread-safe.
class CheckedBlocks {
 public:
  explicit CheckedBlocks(size_t capacity) : capacity(capacity) {}

  /// Whether checkAhead may keep another block.
  bool hasRoom();
  /// Names the file being read; clear() moves on to the next.
  uint64_t currentFile();
  /// Unpacks the data `stored` of the block at `offset` and checks it against `header` and
  /// `key` (outside the lock); keeps its words if every check passes and `for_file` is still
  /// the file being read.
  void checkAhead(uint64_t for_file, const std::shared_ptr<const VerifyingKey>& key,
                  uint64_t offset, const ZeptickFile::TimeTagBlockHeader& header,
                  const std::vector<char>& stored);
  /// If the block at `offset` was kept with this very header and key, swaps its words into
  /// `words` and returns true. Drops every block up to `offset`: the reader has passed them.
  bool take(const std::shared_ptr<const VerifyingKey>& key, uint64_t offset,
            const ZeptickFile::TimeTagBlockHeader& header,
            std::vector<ZeptickFile::ShortTag>& words);
  /// Drops every block, as when the reader moves to another file.
  void clear();

 private:
  struct Kept {
    std::shared_ptr<const VerifyingKey> key;
    uint64_t offset = 0;
    ZeptickFile::TimeTagBlockHeader header{};
    std::vector<ZeptickFile::ShortTag> words;
  };

  std::vector<ZeptickFile::ShortTag> spareBuffer();
  void recycle(std::vector<ZeptickFile::ShortTag>&& words) ZT_REQUIRES(mutex);

  const size_t capacity;
  Mutex mutex;
  std::vector<Kept> kept ZT_GUARDED_BY(mutex);
  std::vector<std::vector<ZeptickFile::ShortTag>> spare ZT_GUARDED_BY(mutex);
  uint64_t file ZT_GUARDED_BY(mutex) = 0;
};

}  // namespace zeptick::detail
