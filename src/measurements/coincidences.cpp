#include "zeptick/coincidences.h"

#include <algorithm>
#include <bit>
#include <set>
#include <stdexcept>

#include "measurements/channel_index.h"
#include "measurements/ring_queue.h"

namespace zeptick {

Coincidences::Coincidences(ZeptickBase* tagger, const std::vector<std::vector<int>>& groups_in,
                           int64_t window, CoincidenceTimestamp timestamp)
    : Coincidences(DeferStart{}, tagger, groups_in, window, timestamp) {
  finishInitialization();
}

Coincidences::Coincidences(DeferStart, ZeptickBase* tagger,
                           const std::vector<std::vector<int>>& groups_in, int64_t window,
                           CoincidenceTimestamp timestamp)
    : IteratorBase(tagger),
      channels(std::make_unique<detail::ChannelIndex>()),
      window(window),
      timestamp(timestamp),
      pending(std::make_unique<detail::RingQueue<Tag>>()) {
  if (static_cast<unsigned>(timestamp) > 3) {
    throw std::invalid_argument("invalid coincidence timestamp type");
  }
  if (groups_in.empty()) throw std::invalid_argument("coincidences groups are empty");
  std::set<int> distinct;
  for (const std::vector<int>& group : groups_in) {
    if (group.empty()) throw std::invalid_argument("one of the groups is empty");
    distinct.insert(group.begin(), group.end());
  }
  if (distinct.size() > 64) {
    throw std::invalid_argument(
        "no more than 64 different channels can be used at once on a single Coincidences "
        "measurement. Split the groups into multiple measurements");
  }

  for (const std::vector<int>& group : groups_in) {
    for (int channel : group) {
      const int entry = static_cast<int>(last_times.size());
      if (channels->insert(channel, entry) != entry) continue;
      registerChannel(channel);
      last_times.push_back(-window);
    }
  }
  group_indices.resize(last_times.size());
  relevant_masks.assign(last_times.size(), 0);
  group_masks.assign(groups_in.size(), 0);
  groups.resize(groups_in.size());
  for (size_t g = 0; g < groups_in.size(); ++g) {
    Group& group = groups[g];
    group.first_channel = groups_in[g].front();
    group.virtual_channel = getNewVirtualChannel();
    virtual_channels.push_back(group.virtual_channel);
    for (int channel : groups_in[g]) {
      const int entry = channels->find(channel);
      group_masks[g] |= uint64_t{1} << entry;
      group.group_channels.push_back(channel);
      group.bits.push_back(entry);
      std::vector<int>& indices = group_indices[entry];
      if (indices.empty() || indices.back() != static_cast<int>(g)) {
        indices.push_back(static_cast<int>(g));
      }
    }
    for (int entry : group.bits) relevant_masks[entry] |= group_masks[g];
  }
}

Coincidences::~Coincidences() { stop(); }

std::vector<int> Coincidences::getChannels() { return virtual_channels; }

void Coincidences::setCoincidenceWindow(int64_t new_window) {
  if (new_window == window.load(std::memory_order_relaxed)) return;
  auto guard = getLock();
  window.store(new_window, std::memory_order_relaxed);
}

[[gnu::always_inline]] inline uint64_t Coincidences::updateMask(int entry, int64_t time,
                                                                int64_t window_now) {
  last_times[entry] = time;
  // Only the entries of this channel's groups can decide whether they fire:
  // one pass over their union builds the mask all of them are checked against.
  uint64_t mask = 0;
  const int64_t* const last = last_times.data();
  for (uint64_t rest = relevant_masks[entry]; rest != 0; rest &= rest - 1) {
    const int i = std::countr_zero(rest);
    mask |= static_cast<uint64_t>(time - last[i] < window_now) << i;
  }
  return mask;
}

void Coincidences::forgetAll(int64_t window_now) {
  std::fill(last_times.begin(), last_times.end(), -window_now);
}

int64_t Coincidences::groupTime(const Group& group, int64_t time) const {
  switch (timestamp) {
    case CoincidenceTimestamp::Average: {
      // Offsets from the completing tag stay within the window, so their sum
      // cannot overflow as a sum of absolute times could.
      int64_t sum = 0;
      for (int bit : group.bits) sum += last_times[bit] - time;
      return time + sum / static_cast<int64_t>(group.bits.size());
    }
    case CoincidenceTimestamp::First: {
      int64_t earliest = 0;
      for (int bit : group.bits) earliest = std::min(earliest, last_times[bit] - time);
      return time + earliest;
    }
    default:
      return last_times[group.bits.front()];
  }
}

template <class Fire>
[[gnu::always_inline]] inline void Coincidences::testTag(const Tag& tag, int64_t window_now,
                                                         Fire fire) {
  if (tag.type != Tag::Type::TimeTag) {
    forgetAll(window_now);
    return;
  }
  const int entry = channels->find(tag.channel);
  if (entry < 0) return;
  const uint64_t mask = updateMask(entry, tag.time, window_now);
  for (int g : group_indices[entry]) {
    if ((mask & group_masks[g]) == group_masks[g]) fire(groups[g]);
  }
}

void Coincidences::runLast(const std::vector<Tag>& tags, int64_t window_now) {
  for (const Tag& tag : tags) {
    output.push_back(tag);
    testTag(tag, window_now, [&](const Group& group) {
      Tag copy = tag;
      copy.channel = group.virtual_channel;
      output.push_back(copy);
    });
  }
}

void Coincidences::runDelayed(const std::vector<Tag>& tags, int64_t end_time, int64_t window_now) {
  detail::RingQueue<Tag>& pending = *this->pending;
  for (const Tag& tag : tags) {
    while (!pending.empty() && pending.front().time - tag.time < 0) {
      output.push_back(pending.front());
      pending.pop_front();
    }
    Tag shifted = tag;
    shifted.time += window_now;
    // A plain append unless the window shrank since the queued tags were shifted.
    pending.insertSorted(shifted);
    testTag(tag, window_now, [&](const Group& group) {
      Tag coincidence = tag;
      coincidence.channel = group.virtual_channel;
      coincidence.time = groupTime(group, tag.time) + window_now;
      pending.insertSorted(coincidence);
    });
  }
  while (!pending.empty() && pending.front().time - end_time < 0) {
    output.push_back(pending.front());
    pending.pop_front();
  }
}

bool Coincidences::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  output.clear();
  const int64_t window_now = window.load(std::memory_order_relaxed);
  switch (timestamp) {
    case CoincidenceTimestamp::Last:
      runLast(tags, window_now);
      break;
    case CoincidenceTimestamp::Average:
    case CoincidenceTimestamp::First:
    case CoincidenceTimestamp::ListedFirst:
      runDelayed(tags, end_time, window_now);
      break;
    default:
      throw std::runtime_error("invalid timestamp type for Coincidences Measurement");
  }
  tags.swap(output);
  return true;
}

}  // namespace zeptick
