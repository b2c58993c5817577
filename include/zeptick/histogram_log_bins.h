#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// Start-click histogram with logarithmic bins, for ranges over many decades.
/// Every click counts against every earlier start within range, yet a click
/// never visits each pair: start times sit in a ring with one read index per
/// bin edge, and a click only moves those indices forward.
///
/// After construction, clear(), an Error or an overflow the measurement settles:
/// starts are stored but not counted, clicks are ignored and no capture time
/// runs, until one whole range has passed, so that every counted click sees all
/// of its range. Counters are 64-bit. The one failure is some 2^32 starts
/// alive within the range at once: it stops the measurement (logged as an
/// unhandled exception), and the counts so far stay readable.
class ZEPTICK_API HistogramLogBins : public IteratorBase {
 public:
  /// `exp_start` and `exp_stop` are decimal exponents of seconds: edge i of the
  /// `n_bins` + 1 edges is 10^(exp_start + 12 + i (exp_stop - exp_start) / n_bins)
  /// picoseconds, truncated. The arguments are not checked: `n_bins` < 1 gives
  /// no bins, and `exp_stop` <= `exp_start` gives meaningless counts.
  HistogramLogBins(ZeptickBase* tagger, int click_channel, int start_channel, double exp_start,
                   double exp_stop, int n_bins);
  ~HistogramLogBins() override;

  /// Counts per bin. `array_out(n_bins)` is called once, before the lock is taken.
  void getData(std::function<uint64_t*(size_t)> array_out);
  /// The n_bins + 1 edges in picoseconds; thread-safe without the lock, as they never change.
  void getBinEdges(std::function<int64_t*(size_t)> array_out);
  /// Counts divided by each bin's width in picoseconds.
  void getDataNormalizedCountsPerPs(std::function<double*(size_t)> array_out);
  /// Counts scaled so that uncorrelated starts and clicks give 1 in every bin:
  /// counts x time / (clicks x starts x bin width), over the time counted
  /// outside settling and overflows (less than getCaptureDuration()). With no
  /// click or no start counted yet the result is infinite or NaN.
  void getDataNormalizedG2(std::function<double*(size_t)> array_out);

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  void clear_internal(bool full);
  void store_start(int64_t time);
  void increase_ring_buffer();
  uint32_t drop_expired_starts(int64_t now);
  void on_stop_event(int64_t time);
  void forget_ring(int64_t time);

  const int click_channel;
  const int start_channel;
  std::vector<int64_t> bin_edges;
  bool settle_after_reset = true;
  std::vector<int64_t> ring_buffer;
  uint32_t ring_mask = 15;
  uint32_t ring_write = 0;  // absolute; masked only at access
  std::vector<uint32_t> read_index;
  std::vector<uint64_t> counts;
  int64_t reset_time = 0;  // 0 means not yet set
  int64_t capture_duration = 0;
  bool settling = true;
  bool in_overflow = false;
  uint64_t click_count = 0;
  uint64_t start_count = 0;
};

}  // namespace zeptick
