#include "files/checked_signatures.h"

#include <algorithm>
#include <cstring>

namespace zeptick::detail {

bool CheckedSignatures::hasRoom() {
  MutexLock guard(mutex);
  return pairs.size() < capacity;
}

uint64_t CheckedSignatures::currentFile() {
  MutexLock guard(mutex);
  return file;
}

void CheckedSignatures::checkAhead(uint64_t for_file, std::shared_ptr<const VerifyingKey> key,
                                   uint64_t offset, const uint8_t (&hash)[32],
                                   const uint8_t (&signature)[64]) {
  if (!key || !key->verify(hash, signature)) return;
  Pair pair{std::move(key), offset};
  std::memcpy(pair.hash.data(), hash, sizeof(hash));
  std::memcpy(pair.signature.data(), signature, sizeof(signature));
  MutexLock guard(mutex);
  if (for_file == file && pairs.size() < capacity) pairs.push_back(std::move(pair));
}

bool CheckedSignatures::verify(const std::shared_ptr<const VerifyingKey>& key, uint64_t offset,
                               const uint8_t (&hash)[32], const uint8_t (&signature)[64]) {
  if (!key) return false;
  {
    MutexLock guard(mutex);
    const auto same = [&](const Pair& pair) {
      return pair.offset == offset && pair.key == key &&
             std::memcmp(pair.hash.data(), hash, sizeof(hash)) == 0 &&
             std::memcmp(pair.signature.data(), signature, sizeof(signature)) == 0;
    };
    const bool kept = std::any_of(pairs.begin(), pairs.end(), same);
    std::erase_if(pairs, [offset](const Pair& pair) { return pair.offset <= offset; });
    if (kept) return true;
  }
  return key->verify(hash, signature);
}

void CheckedSignatures::clear() {
  MutexLock guard(mutex);
  pairs.clear();
  ++file;
}

}  // namespace zeptick::detail
