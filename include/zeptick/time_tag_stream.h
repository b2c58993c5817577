#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "zeptick/iterator_base.h"

namespace zeptick {

class FileReader;

/// A batch of raw events handed to the caller by TimeTagStream::getData and
/// FileReader::getData. It belongs to the caller and needs no lock. Each
/// accessor calls `array_out(size)` once and fills the array it returns.
class ZEPTICK_API TimeTagStreamBuffer {
 public:
  TimeTagStreamBuffer() = default;

  /// 1 for every event that is not a plain TimeTag, else 0.
  void getOverflows(std::function<uint8_t*(size_t)> array_out) const;
  void getChannels(std::function<int*(size_t)> array_out) const;
  /// Event times in picoseconds.
  void getTimestamps(std::function<int64_t*(size_t)> array_out) const;
  /// Lost events of MissedEvents tags, 0 for the others.
  void getMissedEvents(std::function<uint16_t*(size_t)> array_out) const;
  /// The raw Tag::Type values.
  void getEventTypes(std::function<uint8_t*(size_t)> array_out) const;

  /// Number of events held.
  uint64_t size = 0;
  /// Some event of the span was not a plain TimeTag.
  bool hasOverflows = false;
  /// Start of the span in picoseconds; -1 while no block opened it.
  int64_t tStart = -1;
  /// End of the span: end of the last block seen.
  int64_t tGetData = -1;

 private:
  friend class TimeTagStream;
  friend class FileReader;

  std::vector<int> channels;
  std::vector<int64_t> timestamps;
  std::vector<uint16_t> missed_events;
  std::vector<uint8_t> event_types;
};

/// Collects the raw tags of some channels (all tags with an empty list) up to
/// `n_max_events`; the caller drains them with getData. Tags past the limit
/// are dropped until the next getData. Tags that belong to no channel
/// (errors, overflow marks) are kept whatever the channel list. Room for up to
/// 16 Mi events is set aside in advance; beyond that, collecting allocates.
class ZEPTICK_API TimeTagStream : public IteratorBase {
 public:
  TimeTagStream(ZeptickBase* tagger, uint64_t n_max_events, std::vector<int> channels = {});
  ~TimeTagStream() override;

  /// Number of events held now.
  uint64_t getCounts();
  /// Hands over everything held and starts a new span where this one ended.
  /// Costs the same whatever the number of events.
  TimeTagStreamBuffer getData();

 protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  bool keeps(const Tag& tag) const;
  void append(const Tag& tag);

  uint64_t n_max_events;
  std::vector<int> filter;  // sorted, unique
  bool has_filter;
  TimeTagStreamBuffer held;
};

}  // namespace zeptick
