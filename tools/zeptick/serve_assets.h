// The page's files, compiled into the program so `zeptick serve` needs nothing
// beside it. The table is generated at build time from web/ (cmake/EmbedFiles.cmake).
#pragma once

#include <cstddef>
#include <string>

namespace zeptick::cli::serve {

struct Asset {
  const char* name;  // file name as served, e.g. "app.js"
  const unsigned char* data;
  size_t size;
};

/// The embedded file called `name`, or nullptr.
const Asset* findAsset(const std::string& name);

}  // namespace zeptick::cli::serve
