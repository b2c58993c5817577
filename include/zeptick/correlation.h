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
template <typename T, size_t kLookback>
class StampHistory;
}

/// Cross-correlation of two channels: a histogram of (time on channel 1) minus
/// (time on channel 2) over every pair of tags, in n_bins bins centred on zero
/// (bin i starts at i x binwidth - n_bins x binwidth / 2). With the second
/// channel unused it is the first channel's autocorrelation, in which each tag
/// counts once at offset 0 and every other pair once on each side.
///
/// An error tag forgets earlier tags, as the stream before and after it cannot
/// be compared. Overflows keep them but leave their lost time out of the
/// normalisation. Counters are 32-bit and wrap.
class ZEPTICK_API Correlation : public IteratorBase {
 public:
  /// By default the autocorrelation of `channel_1` in 1000 bins of 1 ns.
  /// Throws std::invalid_argument if binwidth < 1 or n_bins < 1.
  Correlation(ZeptickBase* tagger, int channel_1, int channel_2 = CHANNEL_UNUSED,
              int64_t binwidth = 1000, int n_bins = 1000);
  ~Correlation() override;

  /// The raw counters. `array_out(n_bins)` is called once, before the lock is taken.
  void getData(std::function<int32_t*(size_t)> array_out);
  /// The counters scaled so that uncorrelated streams give 1: each times the
  /// captured stream time (overflows left out) over binwidth x count on channel
  /// 1 x count on channel 2. Without tags on a channel this is NaN or infinity.
  void getDataNormalized(std::function<double*(size_t)> array_out);
  /// Lower edge of each bin in ps. `array_out(n_bins)` is called once.
  void getIndex(std::function<int64_t*(size_t)> array_out);

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  // How far back from its newest stamp a kernel may read without a bounds test.
  static constexpr size_t kLookback = 8;
  using Stamps = detail::StampHistory<int64_t, kLookback>;

  template <FastBinning::Mode M>
  void processBlock(const std::vector<Tag>& tags, int64_t begin_time, int64_t end_time);
  template <FastBinning::Mode M>
  void countPairs(const Tag* begin, const Tag* end);
  void trimOlderThan(Stamps& stamps, int64_t now);

  int channels[2];
  int n_bins;
  int64_t binwidth;
  int64_t half_range;
  int64_t capture_duration = 0;  // stream time outside overflows, for the normalisation
  bool in_overflow = false;
  std::vector<int32_t> data;
  std::unique_ptr<Stamps> stamps[2];
  uint64_t counts[2] = {0, 0};
  FastBinning binner;
};

}  // namespace zeptick
