#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// Counts the time tags of a click channel in bins framed by marker tags, as a scanning or
/// imaging experiment needs: a tag on `begin_channel` (a pixel or line clock) opens a bin, and
/// a tag on `end_channel` closes it; with `end_channel` unused the next begin closes the bin it
/// opens the next one from. Bins are half-open [begin, end) by time, whatever the order of tags
/// of equal time in the stream. A click outside every bin is not counted.
///
/// After `n_values` bins the measurement is ready(): without `wrap` it counts nothing more
/// (markers included) until clear(); with `wrap` it goes on, overwriting the oldest bin, and
/// getData returns the last `n_values` bins, oldest first.
///
/// Lost events are reported, never mixed into the counts: missed events on the click channel
/// are summed per bin in getMissedEvents, and a bin that saw an overflow, an error, or began
/// inside an overflow, is flagged in getOverflows (its count is a lower bound). Counts are
/// 32-bit and wrap.
class ZEPTICK_API CountBetweenMarkers : public IteratorBase {
 public:
  /// Throws std::invalid_argument if `n_values` < 1, or if `click_channel` or `begin_channel`
  /// is unused.
  CountBetweenMarkers(ZeptickBase* tagger, int click_channel, int begin_channel,
                      int end_channel = CHANNEL_UNUSED, int32_t n_values = 1000, bool wrap = false);
  ~CountBetweenMarkers() override;

  /// Clicks per bin, oldest first; bins not yet complete read 0. `array_out(n_values)` is
  /// called once, before the lock is taken. The same protocol for every accessor below.
  void getData(std::function<int32_t*(size_t)> array_out);
  /// Width of each bin in ps (end minus begin); 0 for bins not yet complete.
  void getBinWidths(std::function<int64_t*(size_t)> array_out);
  /// Stream time of each bin's begin marker in ps; 0 for bins not yet complete.
  void getIndex(std::function<int64_t*(size_t)> array_out);
  /// Events lost on the click channel inside each bin (from missed-events tags).
  void getMissedEvents(std::function<int64_t*(size_t)> array_out);
  /// 1 for each bin whose count is incomplete: an overflow or error touched it.
  void getOverflows(std::function<uint8_t*(size_t)> array_out);
  /// True once `n_values` bins are complete since the last clear.
  bool ready();

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  struct Bin {
    int64_t begin = 0;
    int64_t width = 0;
    int64_t missed = 0;
    int32_t count = 0;
    bool overflow = false;
  };

  void openBin(int64_t time);
  void closeBin(int64_t time);
  void onClick(const Tag& tag);
  template <class T, class Field>
  void copyOut(std::function<T*(size_t)>& array_out, Field field);

  const int click_channel;
  const int begin_channel;
  const int end_channel;
  const int32_t n_values;
  const bool wrap;

  std::vector<Bin> bins;  // a ring of n_values; `completed` of them are filled
  uint64_t completed = 0;
  bool open = false;
  Bin current;
  bool in_overflow = false;
  // Clicks counted into the open bin at the time of the latest click, so that a marker of
  // the same time can hand them to the bin it opens.
  int64_t last_click_time = 0;
  int32_t clicks_at_last_time = 0;
  int64_t missed_at_last_time = 0;
};

}  // namespace zeptick
