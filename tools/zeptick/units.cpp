#include "units.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace zeptick::cli {

int64_t parseTime(const std::string& text) {
  static const std::pair<const char*, double> kUnits[] = {{"ps", 1.0}, {"ns", 1e3}, {"us", 1e6},
                                                          {"ms", 1e9}, {"s", 1e12}, {"m", 60e12}};
  const char* begin = text.c_str();
  char* end = nullptr;
  const double value = std::strtod(begin, &end);
  const std::string unit(end);
  if (end != begin && value >= 0.0 && std::isfinite(value)) {
    for (const auto& [name, scale] : kUnits) {
      if (unit == name && value * scale < 9.2e18) return std::llround(value * scale);
    }
  }
  throw std::invalid_argument("'" + text +
                              "' is not a time; write a number and a unit: ps, ns, us, ms, s or m "
                              "(e.g. 10ps, 2s)");
}

std::string readText(const std::string& path) {
  std::ifstream in(path);
  if (!in) throw std::runtime_error("cannot read '" + path + "'");
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace zeptick::cli
