#include "zeptick/coincidences.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <set>
#include <stdexcept>

#include "measurements/channel_index.h"
#include "measurements/coincidence_windows.h"
#include "measurements/ring_queue.h"

namespace zeptick {

namespace detail {

namespace {
std::atomic<WindowForm> fastest_allowed{WindowForm::Avx512};
}  // namespace

WindowForm coincidenceWindowForm(size_t entries) {
  if (entries > 8) return WindowForm::Plain;
#if defined(__x86_64__)
  static const WindowForm supported =
      __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512vl") ? WindowForm::Avx512
      : __builtin_cpu_supports("avx2")                                        ? WindowForm::Avx2
                                                                              : WindowForm::Plain;
  return std::min(supported, fastest_allowed.load(std::memory_order_relaxed));
#else
  return WindowForm::Plain;
#endif
}

void limitCoincidenceWindows(WindowForm fastest) {
  fastest_allowed.store(fastest, std::memory_order_relaxed);
}

}  // namespace detail

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
  const size_t entries = last_times.size();
  std::vector<uint64_t> group_masks(groups_in.size(), 0);
  std::vector<std::vector<int>> groups_of(entries);  // ascending
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
      std::vector<int>& indices = groups_of[static_cast<size_t>(entry)];
      if (indices.empty() || indices.back() != static_cast<int>(g)) {
        indices.push_back(static_cast<int>(g));
      }
    }
  }
  layOutTests(group_masks, groups_of);
}

void Coincidences::layOutTests(const std::vector<uint64_t>& group_masks,
                               const std::vector<std::vector<int>>& groups_of) {
  const size_t entries = last_times.size();
  // Only the entries of a channel's groups can decide whether they fire.
  std::vector<std::vector<int>> others(entries);
  for (size_t e = 0; e < entries; ++e) {
    uint64_t relevant = 0;
    for (int g : groups_of[e]) relevant |= group_masks[static_cast<size_t>(g)];
    relevant &= ~(uint64_t{1} << e);
    for (; relevant != 0; relevant &= relevant - 1) others[e].push_back(std::countr_zero(relevant));
    check_stride = std::max(check_stride, others[e].size());
    fire_stride = std::max(fire_stride, groups_of[e].size());
  }
  // Loops of one length for every channel keep the branch predictor right
  // when channels alternate at random; past a few the padding costs more.
  checks_padded = check_stride <= 8;
  if (checks_padded) check_stride = std::bit_ceil(std::max<size_t>(check_stride, 1));
  fires_padded = fire_stride <= 4 && entries < 64;
  checks.assign(entries * check_stride, 0);
  check_counts.assign(entries, 0);
  // A mask with the bit of no entry never lies within the window mask.
  fires.assign(entries * fire_stride, Fire{uint64_t{1} << (entries % 64), 0, 0});
  fire_counts.assign(entries, 0);
  for (size_t e = 0; e < entries; ++e) {
    for (size_t k = 0; k < check_stride; ++k) {
      checks[e * check_stride + k] = k < others[e].size() ? others[e][k] : static_cast<int>(e);
    }
    check_counts[e] = static_cast<int>(checks_padded ? check_stride : others[e].size());
    for (size_t k = 0; k < groups_of[e].size(); ++k) {
      const int g = groups_of[e][k];
      fires[e * fire_stride + k] = Fire{group_masks[static_cast<size_t>(g)],
                                        groups[static_cast<size_t>(g)].virtual_channel, g};
    }
    fire_counts[e] = static_cast<int>(groups_of[e].size());
  }
}

Coincidences::~Coincidences() { stop(); }

std::vector<int> Coincidences::getChannels() { return virtual_channels; }

void Coincidences::setCoincidenceWindow(int64_t new_window) {
  if (new_window == window.load(std::memory_order_relaxed)) return;
  auto guard = getLock();
  window.store(new_window, std::memory_order_relaxed);
}

namespace {

// Input tags per step of the output's growth: enough to make the check rare,
// few enough that the room made for coincidences that do not happen stays small.
constexpr size_t kChunk = 256;

// Puts `value` into the pending tags q[head, tail) behind every one of earlier
// or equal time; `tail` grows by one. Room for it is the caller's duty.
[[gnu::always_inline]] inline void insertPending(Tag* q, size_t head, size_t& tail,
                                                 const Tag& value) {
  size_t i = tail++;
  for (; i > head && value.time - q[i - 1].time < 0; --i) q[i] = q[i - 1];
  q[i] = value;
}

}  // namespace

template <CoincidenceTimestamp Stamp>
int64_t Coincidences::groupTime(const Group& group, const int64_t* last, int64_t time) {
  if constexpr (Stamp == CoincidenceTimestamp::Average) {
    // Offsets from the completing tag stay within the window, so their sum
    // cannot overflow as a sum of absolute times could.
    int64_t sum = 0;
    for (int bit : group.bits) sum += last[bit] - time;
    return time + sum / static_cast<int64_t>(group.bits.size());
  } else if constexpr (Stamp == CoincidenceTimestamp::First) {
    int64_t earliest = 0;
    for (int bit : group.bits) {
      earliest = std::min(earliest, last[bit] - time);
    }
    return time + earliest;
  } else {
    return last[group.bits.front()];
  }
}

Tag* Coincidences::room(size_t size) {
  // The vector swapped in last time already holds a block's worth of tags, so
  // this mostly constructs only the few that coincidences add.
  if (output.size() < size) output.resize(size);
  return output.data();
}

template <class Fn>
void Coincidences::withWindow(Fn&& fn) {
  int64_t* const last = last_times.data();
  const size_t entries = last_times.size();
  // Where each channel has one partner, the delayed stamps run the plain test
  // faster: it is as short, and the vector form's setup per tag does not pay.
  const bool vector_pays = timestamp == CoincidenceTimestamp::Last || check_stride > 1;
  switch (vector_pays ? detail::coincidenceWindowForm(entries) : detail::WindowForm::Plain) {
#if defined(__x86_64__)
    case detail::WindowForm::Avx512:
      return detail::withAvx512Window(last, entries, fn);
    case detail::WindowForm::Avx2:
      return detail::withAvx2Window(last, entries, fn);
#endif
    default:
      break;
  }
  const auto plain = [&]<int kChecks>() {
    detail::ListedWindow<kChecks> window(last, entries, checks.data(), check_counts.data(),
                                         check_stride);
    fn(window);
  };
  if (!checks_padded) return plain.template operator()<0>();
  switch (check_stride) {
    case 1:
      return plain.template operator()<1>();
    case 2:
      return plain.template operator()<2>();
    case 4:
      return plain.template operator()<4>();
    default:
      return plain.template operator()<8>();
  }
}

void Coincidences::runLast(const std::vector<Tag>& tags, int64_t window_now) {
  withWindow([&](auto& window) {
    if (!fires_padded) return runLastWith<0>(tags, window_now, window);
    switch (fire_stride) {
      case 1:
        return runLastWith<1>(tags, window_now, window);
      case 2:
        return runLastWith<2>(tags, window_now, window);
      case 3:
        return runLastWith<3>(tags, window_now, window);
      default:
        return runLastWith<4>(tags, window_now, window);
    }
  });
}

template <int kFires, class Window>
void Coincidences::runLastWith(const std::vector<Tag>& tags, int64_t window_now, Window& window) {
  // Everything the loop reads stays in locals: a Tag store may alias any
  // member, which would make the compiler reload them after each.
  const detail::ChannelIndex& index = *channels;
  const Tag* const in = tags.data();
  const size_t n = tags.size();
  const Fire* const all_fires = fires.data();
  const int* const fire_count = fire_counts.data();
  const size_t fires_per_entry = kFires > 0 ? kFires : fire_stride;
  const size_t per_tag = 1 + fires_per_entry;
  size_t written = 0;
  for (size_t i = 0; i < n;) {
    const size_t chunk_end = std::min(n, i + kChunk);
    Tag* const out = room(written + (chunk_end - i) * per_tag);
    for (; i < chunk_end; ++i) {
      const Tag* const tag = in + i;
      // Whole-tag copies as one 16-byte move each.
      std::memcpy(out + written++, tag, sizeof(Tag));
      if (tag->type != Tag::Type::TimeTag) {
        window.forget(window_now);
        continue;
      }
      const int entry = index.find(tag->channel);
      if (entry < 0) continue;
      const uint64_t mask = window.mask(entry, tag->time, window_now);
      const Fire* const fire = all_fires + static_cast<size_t>(entry) * fires_per_entry;
      const int count = kFires > 0 ? kFires : fire_count[entry];
      // Each group's tag is written in any case and kept only if it fires.
      for (int k = 0; k < count; ++k) {
        std::memcpy(out + written, tag, sizeof(Tag));
        out[written].channel = fire[k].virtual_channel;
        written += (mask & fire[k].mask) == fire[k].mask;
      }
    }
  }
  output.resize(written);
}

// The output vector is the delayed stream itself: tags that left are
// q[0, head), those still pending q[head, tail). So a tag that leaves moves
// nowhere; only those left pending at the block's end go to `pending`.
template <CoincidenceTimestamp Stamp, class Window>
void Coincidences::runDelayed(const std::vector<Tag>& tags, int64_t end_time, int64_t window_now,
                              Window& window) {
  const detail::ChannelIndex& index = *channels;
  const Tag* const in = tags.data();
  const size_t n = tags.size();
  const size_t per_tag = 1 + fire_stride;
  const Fire* const all_fires = fires.data();
  const int* const fire_count = fire_counts.data();
  const size_t fires_per_entry = fire_stride;
  const bool padded = fires_padded;
  const Group* const all_groups = groups.data();
  size_t head = 0;
  size_t tail = 0;
  {
    Tag* const q = room(pending->size());
    pending->forEach([&](const Tag& tag) { q[tail++] = tag; });
    pending->clear();
  }
  // Tags leave once a later tag's time passes theirs. Finding them on every
  // tag costs a branch that mispredicts, so `head` may lag behind `passed`, the
  // latest such time: while times rise and every new tag lands after the one
  // that brings it (a positive window), the tags it lags by are earlier than
  // any new one, so no insertion passes them and the lag changes nothing.
  bool lagging = false;
  int64_t passed = 0;
  // Insertion keeps q[head, tail) in time order, so the tags that left over a
  // long lag are found by bisection rather than by a walk over the block.
  const auto catchUp = [&](const Tag* q) {
    if (lagging) {
      head = static_cast<size_t>(
          std::partition_point(q + head, q + tail,
                               [&](const Tag& queued) { return queued.time - passed < 0; }) -
          q);
    }
    lagging = false;
  };
  for (size_t i = 0; i < n;) {
    const size_t chunk_end = std::min(n, i + kChunk);
    Tag* const q = room(tail + (chunk_end - i) * per_tag);
    for (; i < chunk_end; ++i) {
      const Tag tag = in[i];
      if (window_now > 0 && (!lagging || tag.time - passed >= 0)) {
        lagging = true;
      } else {
        catchUp(q);
        while (head != tail && q[head].time - tag.time < 0) ++head;
      }
      passed = tag.time;
      Tag shifted = tag;
      shifted.time += window_now;
      // A plain append unless the window shrank since the queued tags were shifted.
      insertPending(q, head, tail, shifted);
      if (tag.type != Tag::Type::TimeTag) {
        window.forget(window_now);
        continue;
      }
      const int entry = index.find(tag.channel);
      if (entry < 0) continue;
      const uint64_t mask = window.mask(entry, tag.time, window_now);
      const Fire* fire = all_fires + static_cast<size_t>(entry) * fires_per_entry;
      const Fire* const end =
          fire + (padded ? fires_per_entry : static_cast<size_t>(fire_count[entry]));
      for (; fire != end; ++fire) {
        if ((mask & fire->mask) != fire->mask) continue;
        Tag coincidence = tag;
        coincidence.channel = fire->virtual_channel;
        coincidence.time =
            groupTime<Stamp>(all_groups[fire->group], window.times(), tag.time) + window_now;
        insertPending(q, head, tail, coincidence);
      }
    }
  }
  const Tag* const q = output.data();
  catchUp(q);
  while (head != tail && q[head].time - end_time < 0) ++head;
  for (size_t k = head; k < tail; ++k) pending->push_back(q[k]);
  output.resize(head);
}

bool Coincidences::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  const int64_t window_now = window.load(std::memory_order_relaxed);
  switch (timestamp) {
    case CoincidenceTimestamp::Last:
      runLast(tags, window_now);
      break;
    case CoincidenceTimestamp::Average:
      withWindow([&](auto& window) {
        runDelayed<CoincidenceTimestamp::Average>(tags, end_time, window_now, window);
      });
      break;
    case CoincidenceTimestamp::First:
      withWindow([&](auto& window) {
        runDelayed<CoincidenceTimestamp::First>(tags, end_time, window_now, window);
      });
      break;
    case CoincidenceTimestamp::ListedFirst:
      withWindow([&](auto& window) {
        runDelayed<CoincidenceTimestamp::ListedFirst>(tags, end_time, window_now, window);
      });
      break;
    default:
      throw std::runtime_error("invalid timestamp type for Coincidences Measurement");
  }
  tags.swap(output);
  return true;
}

}  // namespace zeptick
