#pragma once

// What the fuzzers share: the library's log silenced before the first input, and an in-memory
// file that the code under test opens by name like any other.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "zeptick/logging.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  zeptick::setLogger([](zeptick::LogLevel, std::string) {});
  return 0;
}

namespace zeptick::fuzz {

class MemoryFile {
 public:
  MemoryFile() : descriptor(memfd_create("zeptick-fuzz", 0)) {
    if (descriptor < 0) std::abort();
    path = "/proc/self/fd/" + std::to_string(descriptor);
  }
  /// Replaces the content with `size` bytes from `data`; returns the name to open.
  const std::string& fill(const void* data, size_t size) {
    if (ftruncate(descriptor, 0) != 0) std::abort();
    for (size_t done = 0; done < size;) {
      const ssize_t written = pwrite(descriptor, static_cast<const char*>(data) + done, size - done,
                                     static_cast<off_t>(done));
      if (written <= 0) std::abort();
      done += static_cast<size_t>(written);
    }
    return path;
  }

 private:
  int descriptor;
  std::string path;
};

}  // namespace zeptick::fuzz
