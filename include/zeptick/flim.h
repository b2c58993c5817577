#pragma once

#include "zeptick/time_differences.h"

namespace zeptick {

/// Start-click histograms stepped by a next channel, as for a scanned image:
/// each next tag moves new starts on to the following histogram, and the step
/// past the last one wraps to the first. Before the first next tag, and after
/// any non-time tag until the next next tag, nothing counts. Counters are 32-bit.
class ZEPTICK_API Flim : public TimeDifferences {
 public:
  /// By default one histogram of 1000 bins of 1 ns.
  /// Throws std::invalid_argument if binwidth < 1, n_bins < 1 or n_histograms < 1.
  Flim(ZeptickBase* tagger, int click_channel, int start_channel = CHANNEL_UNUSED,
       int next_channel = CHANNEL_UNUSED, int64_t binwidth = 1000, int n_bins = 1000,
       int n_histograms = 1);
  ~Flim() override;

  using TimeDifferences::getData;
  using TimeDifferences::getIndex;

 private:
  // The sequence runs for ever without a sync channel: there is nothing to count up to.
  using TimeDifferences::getCounts;
  using TimeDifferences::ready;
  using TimeDifferences::setMaxCounts;
};

}  // namespace zeptick
