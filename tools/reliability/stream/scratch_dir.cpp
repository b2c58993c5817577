#include "reliability/stream/scratch_dir.h"

#include <stdlib.h>

#include <cstdio>
#include <stdexcept>
#include <system_error>

namespace zeptick::reliability {

ScratchDirectory::ScratchDirectory(const std::string& parent, const std::string& stem, bool keep)
    : keep(keep) {
  const std::filesystem::path base =
      parent.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(parent);
  std::filesystem::create_directories(base);
  std::string pattern = (base / (stem + ".XXXXXX")).string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("cannot make a directory under " + base.string());
  }
  where = pattern;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  if (keep) {
    std::fprintf(stderr, "files kept in %s\n", where.c_str());
  } else {
    std::filesystem::remove_all(where, ignored);
  }
}

uintmax_t ScratchDirectory::bytes() const {
  uintmax_t sum = 0;
  for (const auto& entry : std::filesystem::directory_iterator(where)) {
    if (entry.is_regular_file()) sum += entry.file_size();
  }
  return sum;
}

size_t ScratchDirectory::files() const {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(where)) {
    count += entry.is_regular_file() ? 1 : 0;
  }
  return count;
}

}  // namespace zeptick::reliability
