// Times on the command line carry a unit: "10ps", "2.5ns", "1s", "10m".
#pragma once

#include <cstdint>
#include <string>

namespace zeptick::cli {

/// Picoseconds in `text`, a number followed by ps, ns, us, ms, s or m.
/// Throws std::invalid_argument with a message naming the accepted units.
int64_t parseTime(const std::string& text);

}  // namespace zeptick::cli
