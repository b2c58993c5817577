// Feeds arbitrary bytes to ZeptickFileReader as a file, verifying off and on: no crash, no read
// out of bounds, no allocation beyond what the bytes justify (scripts/fuzz limits malloc).

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "files/zeptick_file_reader.h"
#include "fuzz/fuzz_input.h"

namespace {

void readAll(const std::string& path, bool verify, size_t size) {
  zeptick::ZeptickFileReader reader(path, verify);
  std::vector<zeptick::Tag> tags;
  uint64_t overflows = 0;
  int64_t begin = 0, end = 0;
  bool skip = false;
  while (reader.getBlockRange(begin, end)) {
    // Alternate between the two ways of moving on.
    if (skip) {
      reader.skipBlock();
    } else {
      reader.decodeBlock(tags, begin, overflows);
      // One word makes at most one tag, and a word takes four bytes of the file, or less
      // when compressed: LZ4 expands at most 255 times.
      if (tags.size() > size * 255 / 4 + 64) std::abort();
    }
    skip = !skip;
  }
  zeptick::ZeptickFile::FileId id;
  reader.getFileId(id);
  (void)reader.getInvertedChannel(static_cast<int32_t>(id[0]));
  (void)reader.getConfiguration().size();
  (void)reader.getLastMarker().size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static zeptick::fuzz::MemoryFile file;
  const std::string& path = file.fill(data, size);
  readAll(path, false, size);
  readAll(path, true, size);
  return 0;
}
