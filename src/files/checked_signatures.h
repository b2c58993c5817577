#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "core/annotated_mutex.h"
#include "files/block_signing.h"

namespace zeptick::detail {

/// Signatures of time tag blocks checked ahead of the reader that needs them, so that the
/// costly curve arithmetic runs on any worker instead of inside the serial block step. Only
/// pairs that a key accepted are kept, so a kept pair is as good as checking it again.
/// Holds at most `capacity` pairs. Thread-safe.
class CheckedSignatures {
 public:
  explicit CheckedSignatures(size_t capacity) : capacity(capacity) {}

  /// Whether checkAhead may keep another pair.
  bool hasRoom();
  /// Names the file being read; clear() moves on to the next.
  uint64_t currentFile();
  /// Checks `signature` of `hash` with `key` (outside the lock) and keeps the pair, under the
  /// block's offset, if the key accepts it and `for_file` is still the file being read.
  void checkAhead(uint64_t for_file, std::shared_ptr<const VerifyingKey> key, uint64_t offset,
                  const uint8_t (&hash)[32], const uint8_t (&signature)[64]);
  /// Whether `key` accepts `signature` of `hash`. A kept pair of the same block answers at once
  /// and is dropped with every pair of this or an earlier block, which the reader has passed;
  /// anything else is checked here.
  bool verify(const std::shared_ptr<const VerifyingKey>& key, uint64_t offset,
              const uint8_t (&hash)[32], const uint8_t (&signature)[64]);
  /// Drops every pair, as when the reader moves to another file.
  void clear();

 private:
  struct Pair {
    std::shared_ptr<const VerifyingKey> key;
    uint64_t offset = 0;
    std::array<uint8_t, 32> hash{};
    std::array<uint8_t, 64> signature{};
  };

  const size_t capacity;
  Mutex mutex;
  std::vector<Pair> pairs ZT_GUARDED_BY(mutex);
  uint64_t file ZT_GUARDED_BY(mutex) = 0;
};

}  // namespace zeptick::detail
