// What the command line names: times with a unit ("10ps", "2.5ns", "1s", "10m") and files of
// text such as keys.
#pragma once

#include <cstdint>
#include <string>

namespace zeptick::cli {

/// Picoseconds in `text`, a number followed by ps, ns, us, ms, s or m.
/// Throws std::invalid_argument with a message naming the accepted units.
int64_t parseTime(const std::string& text);

/// The whole content of the file `path` (a key in PEM form, say).
/// Throws std::runtime_error naming the file when it cannot be read.
std::string readText(const std::string& path);

}  // namespace zeptick::cli
