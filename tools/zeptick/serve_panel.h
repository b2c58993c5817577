// One histogram panel of `zeptick serve`: a correlation or start-stop
// histogram of two inputs over a chosen range, read as dense counts.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zeptick {
class Zeptick;
class Correlation;
class StartStop;
}  // namespace zeptick

namespace zeptick::cli::serve {

/// Most bins a panel may have: enough for any screen, small enough to push 5 times a second.
inline constexpr int64_t kMaxPanelBins = 100000;

struct Panel {
  /// Checks {"kind", "channels", "binwidth", "range"} (ApiError 400 naming the
  /// field) against the tagger's channels and starts the measurement.
  Panel(Zeptick* tagger, int64_t id, const nlohmann::json& body);
  ~Panel();
  Panel(const Panel&) = delete;
  Panel& operator=(const Panel&) = delete;

  /// {"id", "kind", "channels", "binwidth", "range", "first_bin"}: bin i starts at first_bin + i x
  /// binwidth.
  nlohmann::json describe() const;
  /// The counts of every bin, oldest data included since the last clear.
  std::vector<int64_t> counts();
  void clear();

  const int64_t id;
  std::string kind = "correlation";
  int channels[2] = {0, 0};
  int64_t binwidth = 10;
  int64_t range = 10000;
  int64_t n_bins = 0;
  int64_t first_bin = 0;
  std::unique_ptr<Correlation> correlation;
  std::unique_ptr<StartStop> start_stop;
};

}  // namespace zeptick::cli::serve
