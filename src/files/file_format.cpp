#include "files/file_format.h"

#include <string_view>

namespace zeptick::ZeptickFile {

std::string makeFileName(const std::string& base, uint32_t index) {
  const std::string_view extension = EXTENSION;
  std::string name = base;
  if (name.size() > extension.size() && std::string_view(name).ends_with(extension)) {
    name.resize(name.size() - extension.size());
  }
  if (index > 0) {
    name += '.';
    name += std::to_string(index);
  }
  name += extension;
  return name;
}

}  // namespace zeptick::ZeptickFile
