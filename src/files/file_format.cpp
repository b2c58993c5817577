#include "files/file_format.h"

#include <string_view>

namespace zeptick::ZeptickFile {

std::string makeFileName(const std::string& base, uint32_t index) {
  const std::string_view extension = EXTENSION;
  std::string_view stem = base;
  if (stem.size() > extension.size() && stem.ends_with(extension)) {
    stem.remove_suffix(extension.size());
  }
  // Appended piece by piece: gcc 12 reports a false -Wrestrict on string += chains at -O3.
  const std::string number = index > 0 ? std::to_string(index) : std::string();
  std::string name;
  name.reserve(stem.size() + number.size() + extension.size() + 1);
  name.append(stem);
  if (!number.empty()) name.append(1, '.').append(number);
  name.append(extension);
  return name;
}

}  // namespace zeptick::ZeptickFile
