#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "zeptick/time_differences.h"

namespace zeptick {

/// One start-click histogram: the time from each start tag to every click tag
/// up to n_bins x binwidth ps later. With `start_channel` unused the click
/// channel starts as well, which gives its autocorrelation, each tag counting
/// once in bin 0. Non-time tags drop the pending starts. Counters are 32-bit.
class ZEPTICK_API Histogram : public TimeDifferences {
 public:
  /// By default 1000 bins of 1 ns. Throws std::invalid_argument if binwidth < 1 or n_bins < 1.
  Histogram(ZeptickBase* tagger, int click_channel, int start_channel = CHANNEL_UNUSED,
            int64_t binwidth = 1000, int n_bins = 1000);
  ~Histogram() override;

  /// Copies the counters. `array_out(n_bins)` is called once, before the lock is taken.
  void getData(std::function<int32_t*(size_t)> array_out);
  using TimeDifferences::getIndex;

 private:
  // A single histogram has no sequence to count.
  using TimeDifferences::getCounts;
  using TimeDifferences::ready;
  using TimeDifferences::setMaxCounts;
};

}  // namespace zeptick
