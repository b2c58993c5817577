#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

namespace detail {
class ChannelIndex;
}  // namespace detail

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
  // Counted per distinct channel, so that a tag costs one lookup however many channels are
  // listed; an entry reads its channel's slot. The slot after the last distinct channel takes
  // the tags of every other channel, which keeps the loop free of a "listed?" branch.
  // Channels close together are looked up in `near_slots` (by channel - lowest_channel; the
  // last entry for any channel beyond), others (virtual channels far from the inputs) in
  // `far_slots`.
  std::vector<uint32_t> near_slots;
  int32_t lowest_channel = 0;
  std::unique_ptr<detail::ChannelIndex> far_slots;
  std::vector<size_t> slot_of_entry;
  std::vector<int64_t> counts;        // per slot, since the last Error
  std::vector<int64_t> counts_total;  // per slot
  // Four interleaved copies of the per-slot totals for one block, so that tags of one
  // channel in a row do not wait on each other's read-modify-write.
  std::vector<int64_t> lanes;
};

}  // namespace zeptick
