#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "zeptick/fast_binning.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

namespace detail {
template <typename T>
class RingQueue;
}  // namespace detail

/// Start-click histograms addressed by several step-through sequences at once.
/// Each dimension j has an index stepped by next_channels[j] through
/// n_histograms[j] values and, optionally, restarted by sync_channels[j]; a
/// start takes the tuple of indices current at its arrival, and every click
/// within n_bins x binwidth of it counts in that tuple's histogram.
///
/// Without a sync channel a dimension wraps at its end; with one it stops past
/// its end and takes no start until its sync and then its next tag. Nothing
/// counts until every dimension has stepped once. Any tag other than a time tag
/// restarts all sequences but keeps open starts, which later clicks can still
/// close. Counters are 32-bit and wrap.
class ZEPTICK_API TimeDifferencesND : public IteratorBase {
 public:
  /// `sync_channels` is empty (every dimension wraps) or one entry per
  /// dimension, CHANNEL_UNUSED for a dimension that wraps. Throws
  /// std::invalid_argument on mismatched list sizes, binwidth < 1, n_bins 0 or
  /// an element of n_histograms below 1.
  TimeDifferencesND(ZeptickBase* tagger, int click_channel, int start_channel,
                    std::vector<int> next_channels, std::vector<int> sync_channels,
                    std::vector<int> n_histograms, int64_t binwidth, uint64_t n_bins);
  ~TimeDifferencesND() override;

  /// All histograms, the first dimension varying fastest.
  /// `array_out(total histograms, n_bins)` is called once, before the lock is taken.
  void getData(std::function<int32_t*(size_t, size_t)> array_out);
  /// Lower bin edges, i x binwidth ps. No lock: they never change.
  void getIndex(std::function<int64_t*(size_t)> array_out);

 protected:
  void clear_impl() override;
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  struct PendingStart {
    int64_t timestamp;
    int64_t offset;  // of the start's histogram in data
  };

  template <FastBinning::Mode M>
  void process(const std::vector<Tag>& tags);
  bool step_indices(int channel);
  void update_offset();
  void expire(int64_t time);

  const int click_channel;
  const int start_channel;
  const std::vector<int> next_channels;
  const std::vector<int> sync_channels;
  std::vector<unsigned char> rollover;
  const std::vector<int> n_histograms;
  const int64_t binwidth;
  const uint64_t n_bins;
  int64_t range = 0;  // n_bins x binwidth, saturated
  // Open starts, oldest first.
  std::unique_ptr<detail::RingQueue<PendingStart>> pending;
  std::vector<uint32_t> data;  // wraps silently; handed out as 32-bit ints
  std::vector<unsigned char> waiting;
  std::vector<int> histogram_index;
  int64_t flat_offset = 0;
  bool offset_valid = false;
  FastBinning binner;
};

}  // namespace zeptick
