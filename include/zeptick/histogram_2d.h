#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// Two-dimensional start-stop histogram. After a start it waits for one tag
/// on each stop channel; the two differences to the start select a cell. Only
/// one event is open at a time: a new start replaces it, a stop that fires
/// again before the other counts with its later time, and any tag other than
/// a time tag (error, overflow) abandons it. Counters are 32-bit and wrap.
class ZEPTICK_API Histogram2D : public IteratorBase {
 public:
  /// Cell (i, j) holds differences in [i binwidth_1, (i + 1) binwidth_1) and
  /// [j binwidth_2, (j + 1) binwidth_2) ps. The arguments are not checked; an
  /// event that meets a bin width below 1 or a count below 1 closes without a count.
  Histogram2D(ZeptickBase* tagger, int start_channel, int stop_channel_1, int stop_channel_2,
              int64_t binwidth_1, int64_t binwidth_2, int n_bins_1, int n_bins_2);
  ~Histogram2D() override;

  /// Counts, row by row (the second dimension varies fastest).
  /// `array_out(n_bins_1, n_bins_2)` is called once, before the lock is taken.
  void getData(std::function<int32_t*(size_t, size_t)> array_out);
  /// For each cell in row order the pair (i binwidth_1, j binwidth_2) in ps;
  /// `array_out(n_bins_1, n_bins_2, 2)`. No lock: it reads only what never changes.
  void getIndex(std::function<int64_t*(size_t, size_t, size_t)> array_out);
  /// Lower edges of the first dimension, i binwidth_1 ps.
  void getIndex_1(std::function<int64_t*(size_t)> array_out);
  /// Lower edges of the second dimension, j binwidth_2 ps.
  void getIndex_2(std::function<int64_t*(size_t)> array_out);

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  int64_t start_time = 0;
  int64_t stop_time_1 = 0;
  int64_t stop_time_2 = 0;
  bool have_start = false;
  bool have_stop_1 = false;
  bool have_stop_2 = false;
  const int start_channel;
  const int stop_channel_1;
  const int stop_channel_2;
  const int64_t binwidth_1;
  const int64_t binwidth_2;
  const int n_bins_1;
  const int n_bins_2;
  std::vector<uint32_t> data;  // wraps silently; handed out as 32-bit ints
};

}  // namespace zeptick
