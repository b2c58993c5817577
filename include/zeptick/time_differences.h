#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "zeptick/fast_binning.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

/// Start-click histograms: each click counts the time since every start within
/// the last n_bins x binwidth ps, into one of n_histograms histograms of n_bins
/// bins. A next-channel tag steps the histogram that new starts go to, a
/// sync-channel tag restarts the sequence at the first one. A tag may be sync,
/// next, start and click at once and then acts in that order, so a tag on both
/// start and click channel counts itself in bin 0.
///
/// Any tag other than a time tag (error, overflow, missed events) drops the
/// pending starts and restarts the sequence; with a sync channel the
/// measurement then waits for the next sync tag. Counters are 32-bit and wrap.
class ZEPTICK_API TimeDifferences : public IteratorBase {
 public:
  /// `start_channel` unused means the click channel; `next_channel` or
  /// `sync_channel` unused switches that part of the sequence off. The defaults
  /// give one histogram of 1000 bins of 1 ns.
  /// Throws std::invalid_argument if binwidth < 1, n_bins < 1 or n_histograms < 1.
  TimeDifferences(ZeptickBase* tagger, int click_channel, int start_channel = CHANNEL_UNUSED,
                  int next_channel = CHANNEL_UNUSED, int sync_channel = CHANNEL_UNUSED,
                  int64_t binwidth = 1000, int n_bins = 1000, int n_histograms = 1);
  ~TimeDifferences() override;

  /// Copies all counters, histogram after histogram. `array_out(n_histograms,
  /// n_bins)` is called once, before the lock is taken.
  void getData(std::function<int32_t*(size_t, size_t)> array_out);
  /// Lower edge of each bin in ps, i x binwidth. `array_out(n_bins)` is called once.
  void getIndex(std::function<int64_t*(size_t)> array_out);
  /// Stops taking new starts once this many sequences completed; 0 means no
  /// limit. Takes effect at once, also while running; clear() keeps it.
  void setMaxCounts(uint64_t max_counts);
  /// Completed sequences since the last clear. Thread-safe, takes no lock.
  uint64_t getCounts();
  /// True once the max_counts sequences completed and no start can count any more.
  bool ready();

 protected:
  struct DeferStart {};
  /// For subclasses: everything but the start, which the subclass's constructor makes last,
  /// so that no worker calls into the object while its type is still being set up.
  TimeDifferences(DeferStart, ZeptickBase* tagger, int click_channel, int start_channel,
                  int next_channel, int sync_channel, int64_t binwidth, int n_bins,
                  int n_histograms);

  void clear_impl() override;
  /// Restarts the sequence and drops the pending starts.
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  // How many starts each click looks at without a loop; a click with more in
  // range takes a slower path for the rest.
  static constexpr size_t kLookback = 8;
  // The starts still in range, oldest first, with the histogram each counts in.
  class Pending;

  template <FastBinning::Mode M>
  void processBlock(const std::vector<Tag>& tags);
  template <FastBinning::Mode M>
  void processSequenceTag(const Tag& tag);
  void dropExpired(int64_t now);

  int click_channel;
  int start_channel;
  int next_channel;
  int sync_channel;
  bool next_unused;
  bool sync_unused;
  int n_bins;
  int n_histograms;
  int64_t binwidth;
  int64_t range;  // n_bins x binwidth, saturated at the largest time difference
  std::vector<int32_t> data;
  std::unique_ptr<Pending> pending;
  bool waiting_for_sync = false;
  int histogram_index = -1;
  std::atomic<uint64_t> counts{0};
  uint64_t max_counts = 0;
  FastBinning binner;
};

}  // namespace zeptick
