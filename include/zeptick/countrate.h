#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// Average event rate per channel since the last clear, and total counts.
/// Missed events inside overflows count as events; an Error tag restarts the
/// rate but not the totals. Every start() begins from nothing.
class ZEPTICK_API Countrate : public IteratorBase {
 public:
  /// `channels` may repeat a channel (each entry gets the same count) or be empty.
  Countrate(ZeptickBase* tagger, std::vector<int> channels);
  ~Countrate() override;

  /// Events per second per channel. `array_out(n)` is called once, before the
  /// lock is taken, and must return room for n doubles.
  void getData(std::function<double*(size_t)> array_out);
  /// Events per channel since the last clear, same protocol.
  void getCountsTotal(std::function<int64_t*(size_t)> array_out);

 protected:
  void clear_impl() override;
  void on_start() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  std::vector<int> channels;
  int64_t last_time = 0;
  int64_t first_time = 0;  // 0 means not yet set
  std::vector<int64_t> counts;
  std::vector<int64_t> counts_total;
};

}  // namespace zeptick
