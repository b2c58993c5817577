#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "zeptick/fast_binning.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

/// The time from each start tag to the first click tag after it, as a sparse
/// histogram with no range: a bin exists once it has a count. A later start
/// replaces an open one, and clicks after the first find no open start. With
/// `start_channel` unused each click also starts, which histograms the spacing
/// of consecutive tags. Any non-time tag, and every start of the measurement,
/// closes the open start. Counts are 64-bit.
class ZEPTICK_API StartStop : public IteratorBase {
 public:
  /// By default the spacing of consecutive clicks in bins of 1 ns.
  /// Throws std::invalid_argument for a binwidth of 0, which would divide by zero.
  StartStop(ZeptickBase* tagger, int click_channel, int start_channel = CHANNEL_UNUSED,
            int64_t binwidth = 1000);
  ~StartStop() override;

  /// Rows of (bin start in ps, count) in rising time, empty bins left out.
  /// `array_out(rows, 2)` is called once WITH the lock held, so that the row
  /// count stays true: it must not call back into this measurement.
  void getData(std::function<int64_t*(size_t, size_t)> array_out);

 protected:
  void clear_impl() override;
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  template <FastBinning::Mode M>
  void processBlock(const std::vector<Tag>& tags);
  // A pair that the dense array cannot count yet: one past its present end, or
  // a difference beyond the near binner's range. REQUIRES: lock held.
  void countOutside(uint64_t delta);
  void countDense(uint64_t bin);

  FastBinning binner;       // the whole range of a time difference; for far pairs
  FastBinning near_binner;  // differences whose bins the dense array can hold
  // Counts of bins 0 .. size - 1, grown on demand up to a bound; bins past the
  // bound, rare and possibly far apart, go to the hash map.
  std::vector<int64_t> dense;
  std::unordered_map<uint64_t, int64_t> far_bins;
  int click_channel;
  int start_channel;
  int64_t binwidth;
  int64_t last_start = 0;  // 0: no start open
};

}  // namespace zeptick
