#include "zeptick/time_tag_stream.h"

#include <algorithm>
#include <utility>

namespace zeptick {

namespace {

constexpr uint64_t kMaxReserved = uint64_t{1} << 24;  // 16 Mi events, 240 MiB

}  // namespace

void TimeTagStreamBuffer::getOverflows(std::function<uint8_t*(size_t)> array_out) const {
  uint8_t* out = array_out(event_types.size());
  for (size_t i = 0; i < event_types.size(); ++i) {
    out[i] = event_types[i] != static_cast<uint8_t>(Tag::Type::TimeTag) ? 1 : 0;
  }
}

void TimeTagStreamBuffer::getChannels(std::function<int*(size_t)> array_out) const {
  std::copy(channels.begin(), channels.end(), array_out(channels.size()));
}

void TimeTagStreamBuffer::getTimestamps(std::function<int64_t*(size_t)> array_out) const {
  std::copy(timestamps.begin(), timestamps.end(), array_out(timestamps.size()));
}

void TimeTagStreamBuffer::getMissedEvents(std::function<uint16_t*(size_t)> array_out) const {
  std::copy(missed_events.begin(), missed_events.end(), array_out(missed_events.size()));
}

void TimeTagStreamBuffer::getEventTypes(std::function<uint8_t*(size_t)> array_out) const {
  std::copy(event_types.begin(), event_types.end(), array_out(event_types.size()));
}

TimeTagStream::TimeTagStream(ZeptickBase* tagger, uint64_t n_max_events, std::vector<int> channels)
    : IteratorBase(tagger),
      n_max_events(n_max_events),
      filter(std::move(channels)),
      has_filter(!filter.empty()) {
  for (int channel : filter) registerChannel(channel);
  std::sort(filter.begin(), filter.end());
  filter.erase(std::unique(filter.begin(), filter.end()), filter.end());
  clear();
  finishInitialization();
}

TimeTagStream::~TimeTagStream() { stop(); }

uint64_t TimeTagStream::getCounts() {
  auto guard = getLock();
  return held.size;
}

TimeTagStreamBuffer TimeTagStream::getData() {
  TimeTagStreamBuffer result;
  auto guard = getLock();
  result.size = held.size;
  result.tStart = held.tStart;
  result.tGetData = held.tGetData;
  result.hasOverflows = held.hasOverflows;
  // Copied out, not swapped: the held buffers keep their room (and their pages),
  // so neither this call nor the workers allocate it again.
  result.channels = held.channels;
  result.timestamps = held.timestamps;
  result.missed_events = held.missed_events;
  result.event_types = held.event_types;
  const int64_t span_end = held.tGetData;
  clear_impl();
  held.tStart = span_end;
  return result;
}

void TimeTagStream::clear_impl() {
  held.size = 0;
  held.channels.clear();
  held.timestamps.clear();
  held.missed_events.clear();
  held.event_types.clear();
  // Room for the limit once, so the workers never allocate while collecting. A
  // limit meant as "no limit" gets a large room, not a failed allocation.
  const auto room = static_cast<size_t>(std::min<uint64_t>(n_max_events, kMaxReserved));
  if (held.channels.capacity() < room) {
    held.channels.reserve(room);
    held.timestamps.reserve(room);
    held.missed_events.reserve(room);
    held.event_types.reserve(room);
  }
  held.hasOverflows = false;
  held.tStart = -1;
}

bool TimeTagStream::keeps(const Tag& tag) const {
  if (!has_filter || !isCountedEvent(tag)) return true;
  if (filter.size() <= 8)
    return std::find(filter.begin(), filter.end(), tag.channel) != filter.end();
  return std::binary_search(filter.begin(), filter.end(), tag.channel);
}

void TimeTagStream::append(const Tag& tag) {
  held.channels.push_back(tag.channel);
  held.timestamps.push_back(tag.time);
  held.missed_events.push_back(tag.missed_events);
  held.event_types.push_back(static_cast<uint8_t>(tag.type));
  ++held.size;
}

bool TimeTagStream::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  held.tGetData = end_time;
  // The span opens at the end of its first block, not at its beginning.
  if (held.size == 0 && held.tStart == -1) held.tStart = end_time;

  if (!has_filter) {
    const size_t room = static_cast<size_t>(n_max_events - std::min(n_max_events, held.size));
    const size_t taken = std::min(tags.size(), room);
    for (size_t i = 0; i < taken; ++i) append(tags[i]);
    // An overflow mark beyond the limit still tells the caller that data went missing.
    for (const Tag& tag : tags) held.hasOverflows |= isSpecialTag(tag);
    return false;
  }
  for (const Tag& tag : tags) {
    held.hasOverflows |= isSpecialTag(tag);
    if (held.size < n_max_events && keeps(tag)) append(tag);
  }
  return false;
}

}  // namespace zeptick
