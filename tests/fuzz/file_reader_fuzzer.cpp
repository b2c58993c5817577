// Feeds arbitrary bytes to ZeptickFileReader as a file, with verification off and on. The
// reader must neither crash, nor read out of bounds, nor allocate more than the bytes justify
// (scripts/fuzz runs this with a small malloc limit).

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "files/zeptick_file_reader.h"
#include "zeptick/logging.h"

namespace {

void quiet(zeptick::LogLevel, std::string) {}

// The input lives in an in-memory file that the reader opens by name like any other.
struct InputFile {
  InputFile() : descriptor(memfd_create("zeptick-fuzz", 0)) {
    if (descriptor < 0) std::abort();
    path = "/proc/self/fd/" + std::to_string(descriptor);
  }
  void fill(const uint8_t* data, size_t size) {
    if (ftruncate(descriptor, 0) != 0) std::abort();
    size_t done = 0;
    while (done < size) {
      const ssize_t written =
          pwrite(descriptor, data + done, size - done, static_cast<off_t>(done));
      if (written <= 0) std::abort();
      done += static_cast<size_t>(written);
    }
  }
  int descriptor;
  std::string path;
};

void readAll(const std::string& path, bool verify, size_t size) {
  zeptick::ZeptickFileReader reader(path, verify);
  std::vector<zeptick::Tag> tags;
  uint64_t overflows = 0;
  int64_t begin = 0;
  int64_t end = 0;
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

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zeptick::setLogger(&quiet);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static InputFile file;
  file.fill(data, size);
  readAll(file.path, false, size);
  readAll(file.path, true, size);
  return 0;
}
