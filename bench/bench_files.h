#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zeptick/file_reader.h"
#include "zeptick/tag.h"

namespace zeptick::bench {

/// Reads every tag of a recording through FileReader alone (no tagger, no verification) and
/// returns how many there were.
inline uint64_t readAlone(const std::string& name) {
  FileReader reader(name);
  std::vector<Tag> block;
  uint64_t tags = 0;
  while (reader.hasData()) {
    reader.getDataRaw(block);
    tags += block.size();
  }
  return tags;
}

}  // namespace zeptick::bench
