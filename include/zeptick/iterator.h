#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <iterator>
#include <mutex>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

/// Pull-style access to the stream, for the caller's own loop: the workers copy each block
/// (the tags of `channels`, all tags with an empty list; errors and overflow marks always)
/// into a bounded queue, and the caller takes blocks out with next(), waiting or polling.
///
/// The queue holds at most `max_tags` tags (or one block, if a single block is larger). When the
/// caller falls behind and a block does not fit, the block is dropped: the queue keeps the oldest
/// data, so what the caller reads stays a continuous stretch of the stream, and the gap is marked
/// as the instrument marks its own: the next block taken begins with an OverflowBegin tag at the
/// start of the first dropped block and an OverflowEnd tag at its own start. getDroppedTags()
/// counts what was dropped. Blocks without tags never queue up: they extend the span of the block
/// before them.
///
/// next() and the range-for may run on any one thread while the workers fill the queue; a
/// stop() wakes a waiting next(), which then drains what is left and returns false.
class ZEPTICK_API Iterator : public IteratorBase {
 public:
  /// One block of the stream: tags in [begin_time, end_time), in time order.
  struct Block {
    std::vector<Tag> tags;
    int64_t begin_time = 0;
    int64_t end_time = 0;
  };

  /// Throws std::invalid_argument if `max_tags` is 0.
  explicit Iterator(ZeptickBase* tagger, std::vector<int> channels = {},
                    uint64_t max_tags = uint64_t{1} << 24);
  ~Iterator() override;

  /// Moves the oldest queued block into `block` (its previous storage is kept for reuse, so a
  /// loop that passes the same Block allocates nothing in the steady state). Waits up to
  /// `timeout_ms` for one: negative waits for ever, 0 only polls. Returns false on timeout,
  /// and once the measurement is stopped and the queue is empty.
  bool next(Block& block, int timeout_ms = -1);
  /// Tags queued now.
  uint64_t size();
  /// Tags dropped since the last clear because the queue was full.
  uint64_t getDroppedTags();

  /// Input iterator over the tags of successive blocks, for `for (const Tag& tag : iterator)`;
  /// it waits for each block and ends as next() returns false.
  class TagIterator {
   public:
    using iterator_category = std::input_iterator_tag;
    using value_type = Tag;
    using difference_type = std::ptrdiff_t;
    using pointer = const Tag*;
    using reference = const Tag&;

    TagIterator() = default;
    explicit TagIterator(Iterator* source) : source(source) { advance(); }
    const Tag& operator*() const { return block.tags[position]; }
    const Tag* operator->() const { return &block.tags[position]; }
    TagIterator& operator++() {
      if (++position == block.tags.size()) advance();
      return *this;
    }
    void operator++(int) { ++*this; }
    bool operator==(std::default_sentinel_t) const { return source == nullptr; }

   private:
    void advance();
    Iterator* source = nullptr;
    Block block;
    size_t position = 0;
  };
  TagIterator begin() { return TagIterator(this); }
  std::default_sentinel_t end() { return std::default_sentinel; }

 protected:
  void clear_impl() override;
  void on_start() override;
  void on_stop() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  bool keeps(const Tag& tag) const;
  void enqueue(const std::vector<Tag>& tags, int64_t begin_time, int64_t end_time);

  const std::vector<int> channels;  // sorted, unique; empty: every channel
  const uint64_t max_tags;

  // The queue has a lock of its own, so that the caller never waits for a block's pass.
  std::mutex queue_mutex;
  std::condition_variable queue_ready;
  std::deque<Block> queue;    // GUARDED_BY queue_mutex
  std::vector<Block> spare;   // emptied blocks for reuse; GUARDED_BY queue_mutex
  uint64_t queued_tags = 0;   // GUARDED_BY queue_mutex
  uint64_t dropped_tags = 0;  // GUARDED_BY queue_mutex
  bool dropping = false;      // GUARDED_BY queue_mutex
  int64_t drop_begin = 0;     // GUARDED_BY queue_mutex
  bool stopped = false;       // GUARDED_BY queue_mutex
};

}  // namespace zeptick
