#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

namespace detail {
class ChannelIndex;
template <typename T>
class RingQueue;
}  // namespace detail

/// The time stamped on an inserted coincidence tag.
enum class CoincidenceTimestamp : int {
  Last = 0,         ///< the tag that completed the coincidence
  Average = 1,      ///< the mean of the group's latest tag times, rounded towards zero
  First = 2,        ///< the earliest of the group's latest tag times
  ListedFirst = 3,  ///< the latest tag time of the group's first listed channel
};

/// Virtual channels for coincidences in several groups of channels at once.
/// A group fires on each time tag of one of its channels while every channel
/// of the group has had a tag less than `window` ago; each firing inserts a
/// tag on the group's own virtual channel. Tags are not used up, and any tag
/// that is not a time tag (error, overflow) makes the memory forget all tags.
///
/// With `Last` the new tag stands right behind the completing tag. The other
/// stamps lie in the past, so then the whole stream, including the new tags,
/// leaves `window` later than it came, and the last `window` of the stream
/// stays queued between blocks. The window must be positive in those modes.
class ZEPTICK_API Coincidences : public IteratorBase {
 public:
  /// `groups`: one list of channels per virtual channel; a channel may be in
  /// several groups, and at most 64 distinct channels in all. `window` in ps.
  /// Throws std::invalid_argument for an unknown stamp, no groups, an empty
  /// group or more than 64 distinct channels.
  Coincidences(ZeptickBase* tagger, const std::vector<std::vector<int>>& groups,
               int64_t window = 1000, CoincidenceTimestamp timestamp = CoincidenceTimestamp::Last);
  ~Coincidences() override;

  /// The virtual channels, in the order of the groups. Thread-safe.
  std::vector<int> getChannels();
  /// Changes the window for tags from the next block on; tags already queued
  /// keep the lag they were given. Thread-safe.
  void setCoincidenceWindow(int64_t window);

 protected:
  struct DeferStart {};
  /// For subclasses: everything but the start, which the subclass's constructor makes last,
  /// so that no worker calls into the object while its type is still being set up.
  Coincidences(DeferStart, ZeptickBase* tagger, const std::vector<std::vector<int>>& groups,
               int64_t window, CoincidenceTimestamp timestamp);

  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  struct Group {
    int first_channel;
    int virtual_channel;
    std::vector<int> group_channels;  // as listed, repeats kept
    std::vector<int> bits;            // the entry of each of group_channels
  };
  // One group of an entry's channel: it fires when `mask` lies within the mask
  // of entries inside the window.
  struct Fire {
    uint64_t mask;
    int virtual_channel;
    int group;
  };

  // Builds the per-entry tables of the tag loops from each group's mask and
  // each entry's groups.
  void layOutTests(const std::vector<uint64_t>& group_masks,
                   const std::vector<std::vector<int>>& groups_of);
  // The time a firing group stamps, from the last times by entry.
  template <CoincidenceTimestamp Stamp>
  static int64_t groupTime(const Group& group, const int64_t* last, int64_t time);
  // Makes `output` hold at least `size` tags and returns its data.
  Tag* room(size_t size);
  // Calls fn(window) with the fastest window test the processor has for these
  // entries; the plain one is compiled for the padded width of the check table.
  template <class Fn>
  void withWindow(Fn&& fn);
  void runLast(const std::vector<Tag>& tags, int64_t window_now);
  // With kFires the padded width of the group table, or 0 for each entry's own count.
  template <int kFires, class Window>
  void runLastWith(const std::vector<Tag>& tags, int64_t window_now, Window& window);
  template <CoincidenceTimestamp Stamp, class Window>
  void runDelayed(const std::vector<Tag>& tags, int64_t end_time, int64_t window_now,
                  Window& window);

  std::vector<Tag> output;
  std::unique_ptr<detail::ChannelIndex> channels;  // channel to entry (its bit)
  std::vector<int64_t> last_times;                 // per entry
  // Per entry, the other entries of its groups, at check_stride per entry; padded
  // with the entry itself, whose test adds nothing, so that every loop is as long
  // (1, 2, 4 or 8: the tag loop is compiled for each).
  std::vector<int> checks;
  std::vector<int> check_counts;
  size_t check_stride = 0;
  bool checks_padded = false;
  // Per entry, its groups in ascending order, at fire_stride per entry. Where
  // padded, by groups that never fire, so that the loop length does not vary
  // (up to 4).
  std::vector<Fire> fires;
  std::vector<int> fire_counts;  // the real ones
  size_t fire_stride = 0;
  bool fires_padded = false;
  std::vector<Group> groups;
  // Read without the lock by setCoincidenceWindow's early return.
  std::atomic<int64_t> window;
  CoincidenceTimestamp timestamp;
  std::unique_ptr<detail::RingQueue<Tag>> pending;  // the delayed stream, in time order
  std::vector<int> virtual_channels;
};

}  // namespace zeptick
