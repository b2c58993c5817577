#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// Time tags per channel in consecutive bins of `binwidth`, keeping the last
/// `n_values` finished bins of each channel. The grid follows the stream clock,
/// so empty stretches still move it on. Any tag but a time tag throws away the
/// bin being filled, and the grid restarts at the next time tag or block end.
/// A stop and start keeps the finished bins; a clear drops them.
class ZEPTICK_API Counter : public IteratorBase {
 public:
  /// Throws std::invalid_argument if `binwidth` < 1 or `n_values` < 1. A channel
  /// listed twice gets two rows.
  Counter(ZeptickBase* tagger, std::vector<int> channels, int64_t binwidth, int32_t n_values);
  ~Counter() override;

  /// Finished bins, one row per channel from oldest to newest; bins not yet
  /// finished read 0. `array_out(channels, n_values)` is called before the
  /// lock is taken and must return room for channels x n_values values.
  void getData(std::function<int32_t*(size_t, size_t)> array_out);
  /// Start of each returned bin relative to the oldest: i x binwidth.
  /// `array_out(n_values)` must return room for n_values values.
  void getIndex(std::function<int64_t*(size_t)> array_out);

 protected:
  void clear_impl() override;
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  void setBinPosition(int64_t time);
  static int64_t ringSpan(int64_t binwidth, int32_t n_values);
  void zeroColumn(int32_t column);

  std::vector<int32_t> data;  // one ring of n_values + 1 columns per channel
  std::vector<int> channels;
  int64_t binwidth;
  int32_t n_values;
  int32_t index = 0;       // ring column of the bin being filled, never returned
  int64_t bin_start = -1;  // -1: no bin open
  int64_t ring_span;       // (n_values + 1) x binwidth, saturated
};

}  // namespace zeptick
