#include "emulator/stream/stream_profile.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "emulator/stream/source_random.h"

namespace zeptick::emulator {
namespace {

// Path latencies of the inputs in ps. The longest path (4000 ps) belongs to
// the input that the host compensates by nothing.
constexpr std::array<int64_t, 8> kLatencyModel4 = {2420, 2141, 2510, 3171, 2180, 2243, 2684, 4000};
constexpr std::array<int64_t, 18> kLatencyUltra = {2426, 2186, 2258, 2917, 3178, 3342,
                                                   3386, 3530, 4000, 1105, 1278, 1036,
                                                   1107, 870,  855,  1151, 1000, 1053};
constexpr int64_t kLongestPathPs = 4000;

constexpr double kWidthSpread = 0.4;

}  // namespace

int64_t inputPathLatencyPs(int model, int input) {
  if (input < 0) return kLongestPathPs;
  const auto index = static_cast<size_t>(input);
  if (model == 4) return index < kLatencyModel4.size() ? kLatencyModel4[index] : kLongestPathPs;
  return index < kLatencyUltra.size() ? kLatencyUltra[index] : kLongestPathPs;
}

BinProfile::BinProfile(int64_t ps_per_clock, int bin_count, uint64_t seed) {
  Random random(seed);
  std::vector<double> cumulative(static_cast<size_t>(bin_count));
  double total = 0;
  for (double& c : cumulative) {
    total += 1.0 + kWidthSpread * (2.0 * random.uniform() - 1.0);
    c = total;
  }
  upper_.resize(static_cast<size_t>(bin_count));
  for (size_t b = 0; b < upper_.size(); ++b) {
    upper_[b] = std::llround(static_cast<double>(ps_per_clock) * cumulative[b] / total);
  }
  // Rounding may leave a bin empty when bins are narrow; push edges apart so
  // every bin is at least 1 ps wide and the last edge stays on the clock period.
  upper_.back() = ps_per_clock;
  for (size_t b = 0; b < upper_.size(); ++b) {
    const int64_t lower = b == 0 ? 0 : upper_[b - 1];
    upper_[b] = std::max(upper_[b], lower + 1);
  }
  for (size_t b = upper_.size(); b-- > 0;) {
    const int64_t limit = b + 1 == upper_.size() ? ps_per_clock : upper_[b + 1] - 1;
    upper_[b] = std::min(upper_[b], limit);
  }

  lookup_.resize(static_cast<size_t>(ps_per_clock));
  int64_t offset = 0;
  for (size_t b = 0; b < upper_.size(); ++b) {
    for (; offset < upper_[b]; ++offset)
      lookup_[static_cast<size_t>(offset)] = static_cast<uint8_t>(b);
  }
}

ClockDivider::ClockDivider(int64_t ps_per_clock)
    : ps_(ps_per_clock),
      magic_(std::numeric_limits<uint64_t>::max() / static_cast<uint64_t>(ps_per_clock)) {}

}  // namespace zeptick::emulator
