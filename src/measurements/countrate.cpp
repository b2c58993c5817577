#include "zeptick/countrate.h"

#include <algorithm>
#include <utility>

#include "measurements/channel_index.h"

namespace zeptick {

namespace {

// Channels spanning at most this many numbers get a plain table (16 KiB).
constexpr int64_t kNearSpan = 4096;
constexpr size_t kLanes = 4;

}  // namespace

Countrate::Countrate(ZeptickBase* tagger, std::vector<int> channels)
    : IteratorBase(tagger),
      channels(std::move(channels)),
      far_slots(std::make_unique<detail::ChannelIndex>()) {
  int distinct = 0;
  int lowest = 0;
  int highest = 0;
  for (int channel : this->channels) {
    const int slot = far_slots->insert(channel, distinct);
    if (slot == distinct) {
      lowest = distinct == 0 ? channel : std::min(lowest, channel);
      highest = distinct == 0 ? channel : std::max(highest, channel);
      ++distinct;
    }
    slot_of_entry.push_back(static_cast<size_t>(slot));
  }
  const auto spare = static_cast<uint32_t>(distinct);
  if (int64_t{highest} - int64_t{lowest} < kNearSpan) {
    lowest_channel = lowest;
    // One entry more than the span, for every channel outside it.
    near_slots.assign(static_cast<size_t>(int64_t{highest} - lowest + 2), spare);
    for (size_t i = 0; i < this->channels.size(); ++i) {
      near_slots[static_cast<size_t>(this->channels[i] - lowest)] =
          static_cast<uint32_t>(slot_of_entry[i]);
    }
    far_slots.reset();
  }
  counts.assign(spare + 1, 0);
  counts_total.assign(spare + 1, 0);
  lanes.assign((spare + 1) * kLanes, 0);
  clear();
  for (int channel : this->channels) registerChannel(channel);
  finishInitialization();
}

Countrate::~Countrate() { stop(); }

void Countrate::getData(std::function<double*(size_t)> array_out) {
  // `channels` never changes after construction, so its size is safe to read unlocked.
  double* out = array_out(channels.size());
  auto guard = getLock();
  const int64_t span = last_time - first_time;
  for (size_t i = 0; i < slot_of_entry.size(); ++i) {
    const auto count = static_cast<double>(counts[slot_of_entry[i]]);
    out[i] = span == 0 ? 0.0 : count * 1e12 / static_cast<double>(span);
  }
}

void Countrate::getCountsTotal(std::function<int64_t*(size_t)> array_out) {
  int64_t* out = array_out(channels.size());
  auto guard = getLock();
  for (size_t i = 0; i < slot_of_entry.size(); ++i) out[i] = counts_total[slot_of_entry[i]];
}

void Countrate::clear_impl() {
  last_time = 0;
  first_time = 0;
  std::fill(counts.begin(), counts.end(), 0);
  std::fill(counts_total.begin(), counts_total.end(), 0);
}

void Countrate::on_start() { clear_impl(); }

namespace {

// Adds up the events of [tag, end) per slot into `lanes` (kLanes per slot), up to the first
// Error tag, which it returns (or `end`). `first` takes the time of the first listed event
// if it is 0.
template <class SlotOf>
const Tag* countUntilError(const Tag* tag, const Tag* end, SlotOf slot_of, uint32_t spare,
                           int64_t* lanes, int64_t& first) {
  // Any tag, into `lane`; false for an Error.
  auto count_one = [&](const Tag& one, size_t lane) {
    if (one.type == Tag::Type::Error) return false;
    const uint32_t slot = isCountedEvent(one) ? slot_of(one.channel) : spare;
    lanes[slot * kLanes + lane] += one.type == Tag::Type::TimeTag ? 1 : one.missed_events;
    if (first == 0 && slot != spare) first = one.time;
    return true;
  };
  // Until the rate has its first event, tag by tag.
  for (; first == 0 && tag != end; ++tag) {
    if (!count_one(*tag, 0)) return tag;
  }
  // Then four plain time tags at a time, one lane each: the common case costs a lookup and an
  // increment per tag. A group holding anything else goes tag by tag.
  static_assert(kLanes == 4);
  for (; end - tag >= 4; tag += 4) {
    const bool plain = (static_cast<uint8_t>(tag[0].type) | static_cast<uint8_t>(tag[1].type) |
                        static_cast<uint8_t>(tag[2].type) | static_cast<uint8_t>(tag[3].type)) ==
                       static_cast<uint8_t>(Tag::Type::TimeTag);
    if (plain) {
      ++lanes[slot_of(tag[0].channel) * kLanes];
      ++lanes[slot_of(tag[1].channel) * kLanes + 1];
      ++lanes[slot_of(tag[2].channel) * kLanes + 2];
      ++lanes[slot_of(tag[3].channel) * kLanes + 3];
      continue;
    }
    for (size_t lane = 0; lane < 4; ++lane) {
      if (!count_one(tag[lane], lane)) return tag + lane;
    }
  }
  for (; tag != end; ++tag) {
    if (!count_one(*tag, 0)) return tag;
  }
  return end;
}

}  // namespace

bool Countrate::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  // Only the totals are counted per tag. Meanwhile `counts` holds each total as it was at the
  // last Error, and becomes "since then" again at the end.
  int64_t first = first_time != 0 ? first_time : begin_time;
  const size_t slots = counts.size();
  const auto spare = static_cast<uint32_t>(slots - 1);
  int64_t* const at_error = counts.data();
  int64_t* const total = counts_total.data();
  int64_t* const lane_totals = lanes.data();
  for (size_t i = 0; i < slots; ++i) at_error[i] = total[i] - at_error[i];
  auto fold_lanes = [&] {
    for (size_t i = 0; i < slots; ++i) {
      for (size_t lane = 0; lane < kLanes; ++lane) {
        total[i] += std::exchange(lane_totals[i * kLanes + lane], 0);
      }
    }
  };

  const uint32_t* const near = near_slots.data();
  const auto outside = static_cast<uint32_t>(near_slots.size()) - 1;
  const auto lowest = static_cast<uint32_t>(lowest_channel);
  auto near_slot = [=](int32_t channel) {
    const uint32_t offset = static_cast<uint32_t>(channel) - lowest;
    // Clamped rather than tested: tags of unlisted channels (a virtual channel's among the
    // inputs', say) come in no order a branch could predict.
    return near[std::min(offset, outside)];
  };
  const detail::ChannelIndex* const far = far_slots.get();
  auto far_slot = [=](int32_t channel) {
    const int found = far->find(channel);
    return found < 0 ? spare : static_cast<uint32_t>(found);
  };

  const Tag* tag = tags.data();
  const Tag* const end = tag + tags.size();
  while (true) {
    tag = far == nullptr ? countUntilError(tag, end, near_slot, spare, lane_totals, first)
                         : countUntilError(tag, end, far_slot, spare, lane_totals, first);
    fold_lanes();
    if (tag == end) break;
    // The rate restarts after a device error; the totals carry on.
    first = 0;
    std::copy(total, total + slots, at_error);
    ++tag;
  }

  for (size_t i = 0; i < slots; ++i) at_error[i] = total[i] - at_error[i];
  last_time = end_time;
  first_time = first != 0 ? first : end_time;
  return false;
}

}  // namespace zeptick
