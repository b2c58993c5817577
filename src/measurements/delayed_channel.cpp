#include "zeptick/delayed_channel.h"

#include <set>
#include <stdexcept>

#include "measurements/channel_index.h"
#include "measurements/ring_queue.h"

namespace zeptick {
namespace {

// Up to three inputs a scan beats hashing; both give the input's entry or -1.
struct ScanLookup {
  const int* inputs;
  size_t count;
  int operator()(int channel) const {
    for (size_t i = 0; i < count; ++i) {
      if (inputs[i] == channel) return static_cast<int>(i);
    }
    return -1;
  }
};

struct MapLookup {
  const detail::ChannelIndex& map;
  int operator()(int channel) const { return map.find(channel); }
};

Tag asMissedEvent(Tag tag) {
  tag.type = Tag::Type::MissedEvents;
  tag.missed_events = 1;
  return tag;
}

}  // namespace

DelayedChannel::DelayedChannel(ZeptickBase* tagger, int input_channel, int64_t delay)
    : DelayedChannel(tagger, std::vector<int>{input_channel}, delay) {}

DelayedChannel::DelayedChannel(ZeptickBase* tagger, const std::vector<int>& input_channels,
                               int64_t delay)
    : IteratorBase(tagger),
      pending(std::make_unique<detail::RingQueue<Tag>>()),
      channel_map(std::make_unique<detail::ChannelIndex>()) {
  setDelay(delay);
  if (std::set<int>(input_channels.begin(), input_channels.end()).size() != input_channels.size()) {
    throw std::invalid_argument("redundant channels are not permitted");
  }
  for (int channel : input_channels) {
    const int virtual_channel = getNewVirtualChannel();
    channel_map->insert(channel, static_cast<int>(this->input_channels.size()));
    output_channels.push_back(virtual_channel);
    this->input_channels.push_back(channel);
    registerChannel(channel);
  }
  n_channels = static_cast<int64_t>(this->input_channels.size());
  constructed = true;
  finishInitialization();
}

DelayedChannel::~DelayedChannel() { stop(); }

void DelayedChannel::setDelay(int64_t new_delay) {
  if (new_delay == delay.load()) return;
  if (constructed && new_delay < 0 && non_negative.load()) {
    throw std::invalid_argument(
        "changing from a positive delay to a negative delay while running is not supported");
  }
  auto guard = getLock();
  non_negative = new_delay >= 0;
  if (new_delay >= 0 && new_delay < delay) {
    // Copies already queued would leave after copies of later tags.
    pending->release();
  }
  delay = new_delay;
}

int DelayedChannel::getChannel() {
  return output_channels.empty() ? CHANNEL_UNUSED : output_channels.front();
}

std::vector<int> DelayedChannel::getChannels() { return output_channels; }

void DelayedChannel::on_start() { pending->release(); }

[[gnu::always_inline]] inline void DelayedChannel::flushCopies(int64_t limit) {
  detail::RingQueue<Tag>& queue = *pending;
  while (!queue.empty() && queue.front().time - limit < 0) {
    // A copy landing inside an overflow may stand for tags lost there.
    output.push_back(in_overflow ? asMissedEvent(queue.front()) : queue.front());
    queue.pop_front();
  }
}

[[gnu::always_inline]] inline void DelayedChannel::flushStream(int64_t limit) {
  detail::RingQueue<Tag>& queue = *pending;
  while (!queue.empty() && queue.front().time - limit < 0) {
    const Tag& tag = queue.front();
    // The copies are placed in the lagging stream, so its overflow state is theirs.
    if (tag.type == Tag::Type::OverflowBegin) in_overflow = true;
    if (tag.type == Tag::Type::OverflowEnd) in_overflow = false;
    output.push_back(tag);
    queue.pop_front();
  }
}

template <class Lookup>
void DelayedChannel::runNonNegative(const std::vector<Tag>& tags, int64_t end_time,
                                    const Lookup& lookup) {
  const int64_t shift = delay.load(std::memory_order_relaxed);
  detail::RingQueue<Tag>& queue = *pending;
  for (const Tag& tag : tags) {
    flushCopies(tag.time);
    output.push_back(tag);
    switch (tag.type) {
      case Tag::Type::TimeTag: {
        const int entry = lookup(tag.channel);
        if (entry < 0) break;
        Tag copy = tag;
        copy.channel = output_channels[entry];
        copy.time += shift;
        // A plain append unless the delay was raised while copies were queued.
        queue.insertSorted(copy);
        break;
      }
      case Tag::Type::Error:
        queue.clear();
        break;
      case Tag::Type::OverflowBegin:
        in_overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        in_overflow = false;
        break;
      default:
        break;
    }
  }
  flushCopies(end_time);
}

template <class Lookup>
void DelayedChannel::runNegative(const std::vector<Tag>& tags, int64_t end_time,
                                 const Lookup& lookup) {
  const int64_t lag = -delay.load(std::memory_order_relaxed);
  detail::RingQueue<Tag>& queue = *pending;
  for (const Tag& tag : tags) {
    flushStream(tag.time);
    Tag lagging = tag;
    lagging.time += lag;
    queue.insertSorted(lagging);
    if (tag.type != Tag::Type::TimeTag) continue;
    const int entry = lookup(tag.channel);
    if (entry < 0) continue;
    Tag copy = tag;
    copy.channel = output_channels[entry];
    output.push_back(in_overflow ? asMissedEvent(copy) : copy);
  }
  flushStream(end_time);
}

bool DelayedChannel::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  output.clear();
  const ScanLookup scan{input_channels.data(), input_channels.size()};
  const MapLookup map{*channel_map};
  if (non_negative.load(std::memory_order_relaxed)) {
    if (n_channels <= 3) {
      runNonNegative(tags, end_time, scan);
    } else {
      runNonNegative(tags, end_time, map);
    }
  } else {
    if (n_channels <= 3) {
      runNegative(tags, end_time, scan);
    } else {
      runNegative(tags, end_time, map);
    }
  }
  tags.swap(output);
  return true;
}

}  // namespace zeptick
