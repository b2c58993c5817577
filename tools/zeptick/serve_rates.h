// Count rates of the last minute for the strip chart: a measurement that
// closes one point per 200 ms of stream time, so every point covers exactly
// that much of the stream however unevenly blocks arrive.
#pragma once

#include <cstdint>
#include <deque>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick::cli::serve {

/// Stream time per point, and points kept (one minute).
inline constexpr int64_t kRateIntervalPs = 200000000000;
inline constexpr size_t kRatePoints = 300;

class RateHistory : public IteratorBase {
 public:
  /// Counts events (missed ones included) on each of `channels`.
  RateHistory(ZeptickBase* tagger, std::vector<int> channels);
  ~RateHistory() override;

  struct Points {
    std::vector<double> times;               ///< Unix seconds at which each point closed.
    std::vector<std::vector<double>> rates;  ///< Counts per second, one row per point.
  };
  /// The points of the last minute, oldest first.
  Points points();
  /// The newest point only (empty if none yet).
  Points latest();

  const std::vector<int> channels;

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  void advanceTo(int64_t time, int64_t end_time, double now);
  void closePoint(double at);
  int64_t point_end = 0;  // stream time at which the open point closes; 0 before the first block
  std::vector<int64_t> counts;
  std::deque<double> times;
  std::deque<std::vector<double>> rates;
};

}  // namespace zeptick::cli::serve
