#include "zeptick/count_between_markers.h"

#include <stdexcept>

namespace zeptick {

namespace {

int32_t checkedNValues(int32_t n_values) {
  if (n_values < 1) throw std::invalid_argument("n_values must be at least 1");
  return n_values;
}

int checkedChannel(int channel, const char* name) {
  if (channel == CHANNEL_UNUSED) throw std::invalid_argument(std::string(name) + " must be used");
  return channel;
}

}  // namespace

CountBetweenMarkers::CountBetweenMarkers(ZeptickBase* tagger, int click_channel, int begin_channel,
                                         int end_channel, int32_t n_values, bool wrap)
    : IteratorBase(tagger),
      click_channel(checkedChannel(click_channel, "click_channel")),
      begin_channel(checkedChannel(begin_channel, "begin_channel")),
      end_channel(end_channel),
      n_values(checkedNValues(n_values)),
      wrap(wrap),
      bins(static_cast<size_t>(n_values)) {
  registerChannel(click_channel);
  registerChannel(begin_channel);
  if (end_channel != CHANNEL_UNUSED) registerChannel(end_channel);
  clear();
  finishInitialization();
}

CountBetweenMarkers::~CountBetweenMarkers() { stop(); }

template <class T, class Field>
void CountBetweenMarkers::copyOut(std::function<T*(size_t)>& array_out, Field field) {
  T* out = array_out(static_cast<size_t>(n_values));
  auto guard = getLock();
  const uint64_t size = static_cast<uint64_t>(n_values);
  // Oldest first: once the ring has wrapped, the oldest bin is the next to be overwritten.
  const uint64_t oldest = completed > size ? completed % size : 0;
  for (uint64_t i = 0; i < size; ++i) {
    const bool filled = i < completed;
    out[i] = filled ? static_cast<T>(field(bins[(oldest + i) % size])) : T{};
  }
}

void CountBetweenMarkers::getData(std::function<int32_t*(size_t)> array_out) {
  copyOut(array_out, [](const Bin& bin) { return bin.count; });
}

void CountBetweenMarkers::getBinWidths(std::function<int64_t*(size_t)> array_out) {
  copyOut(array_out, [](const Bin& bin) { return bin.width; });
}

void CountBetweenMarkers::getIndex(std::function<int64_t*(size_t)> array_out) {
  copyOut(array_out, [](const Bin& bin) { return bin.begin; });
}

void CountBetweenMarkers::getMissedEvents(std::function<int64_t*(size_t)> array_out) {
  copyOut(array_out, [](const Bin& bin) { return bin.missed; });
}

void CountBetweenMarkers::getOverflows(std::function<uint8_t*(size_t)> array_out) {
  copyOut(array_out, [](const Bin& bin) { return bin.overflow ? 1 : 0; });
}

bool CountBetweenMarkers::ready() {
  auto guard = getLock();
  return completed >= static_cast<uint64_t>(n_values);
}

void CountBetweenMarkers::clear_impl() {
  completed = 0;
  open = false;
  clicks_at_last_time = 0;
  missed_at_last_time = 0;
  // An overflow in progress stays in progress: the stream still says so.
}

void CountBetweenMarkers::openBin(int64_t time) {
  current = Bin{};
  current.begin = time;
  current.overflow = in_overflow;
  open = true;
  // Clicks at exactly this time counted into the bin just closed belong to this one.
  if (last_click_time == time) {
    current.count = clicks_at_last_time;
    current.missed = missed_at_last_time;
  } else {
    clicks_at_last_time = 0;
    missed_at_last_time = 0;
  }
}

void CountBetweenMarkers::closeBin(int64_t time) {
  if (last_click_time == time) {
    // Bins are half-open: clicks at the closing time are not this bin's.
    current.count -= clicks_at_last_time;
    current.missed -= missed_at_last_time;
  } else {
    clicks_at_last_time = 0;
    missed_at_last_time = 0;
  }
  current.width = time - current.begin;
  bins[completed % static_cast<uint64_t>(n_values)] = current;
  completed += 1;
  open = false;
}

void CountBetweenMarkers::onClick(const Tag& tag) {
  if (tag.time != last_click_time) {
    last_click_time = tag.time;
    clicks_at_last_time = 0;
    missed_at_last_time = 0;
  }
  if (tag.type == Tag::Type::TimeTag) {
    clicks_at_last_time += 1;
    if (open) current.count = static_cast<int32_t>(static_cast<uint32_t>(current.count) + 1u);
  } else {
    missed_at_last_time += tag.missed_events;
    if (open) current.missed += tag.missed_events;
  }
}

bool CountBetweenMarkers::next_impl(std::vector<Tag>& tags, int64_t, int64_t) {
  const uint64_t limit = static_cast<uint64_t>(n_values);
  for (const Tag& tag : tags) {
    if (!wrap && completed >= limit) {
      // Full: nothing is counted, but the overflow state follows the stream, since the bins
      // that a clear() lets in must know whether they begin inside an overflow.
      if (tag.type == Tag::Type::OverflowBegin) in_overflow = true;
      if (tag.type == Tag::Type::OverflowEnd) in_overflow = false;
      continue;
    }
    switch (tag.type) {
      case Tag::Type::OverflowBegin:
        in_overflow = true;
        if (open) current.overflow = true;
        continue;
      case Tag::Type::OverflowEnd:
        in_overflow = false;
        continue;
      case Tag::Type::Error:
        if (open) current.overflow = true;
        continue;
      default:
        break;
    }
    const bool marker = tag.channel == begin_channel || tag.channel == end_channel;
    if (marker && tag.type == Tag::Type::MissedEvents && open) {
      current.overflow = true;  // a lost marker: the bin's frame is unknown
    }
    // A channel may serve several roles: the end of one bin, then the begin of the next.
    if (tag.channel == end_channel && tag.type == Tag::Type::TimeTag && open) closeBin(tag.time);
    if (tag.channel == begin_channel && tag.type == Tag::Type::TimeTag) {
      if (open) closeBin(tag.time);
      if (wrap || completed < limit) openBin(tag.time);
    }
    if (tag.channel == click_channel) onClick(tag);
  }
  return false;
}

}  // namespace zeptick
