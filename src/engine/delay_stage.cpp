#include "engine/delay_stage.h"

#include <algorithm>
#include <array>
#include <bit>

namespace zeptick {

namespace {

// Earliest (time, rank) on top. Differences rather than plain comparison keep
// the order right across the wrap of the 64-bit time.
struct LaterTag {
  bool operator()(const Tag& a, const Tag& b) const {
    const int64_t d = timeDifference(a.time, b.time);
    return d > 0 || (d == 0 && a.reserved > b.reserved);
  }
};

const Tag& tagOf(const Tag& tag) { return tag; }
const Tag& tagOf(const PreDelayTag& p) { return p.tag; }

struct LaterNumbered {
  template <class N>
  bool operator()(const N& a, const N& b) const {
    const Tag& x = tagOf(a.item);
    const Tag& y = tagOf(b.item);
    if (LaterTag{}(x, y)) return true;
    return !LaterTag{}(y, x) && a.seq > b.seq;
  }
};

// How far back a new tag may be inserted into a sorted buffer. Small input
// delays and fine offsets reorder a few neighbours; beyond that a queue or a
// heap is cheaper than shifting.
constexpr size_t kMaxShift = 8;

// Where `tag` belongs in the sorted `[data, data + size)`, if within kMaxShift
// of the end; the tags behind it are moved up one place. `data` has room for one more.
template <class T, class TagOf>
T* insertSorted(T* data, size_t size, const Tag& tag, TagOf tagOf) {
  T* const end = data + size;
  T* const floor = size > kMaxShift ? end - kMaxShift : data;
  T* at = end;
  while (at != floor && LaterTag{}(tagOf(at[-1]), tag)) --at;
  if (at == floor && at != data && LaterTag{}(tagOf(at[-1]), tag)) return nullptr;
  // Few places at most: a plain loop beats a call to memmove.
  for (T* p = end; p != at; --p) p[0] = p[-1];
  return at;
}

constexpr std::array<int64_t, 8> kZeptick20Compensation = {1580, 1859, 1490, 829,
                                                           1820, 1757, 1316, 0};
constexpr std::array<int64_t, 18> kUltraCompensation = {1574, 1814, 1742, 1083, 822,  658,
                                                        614,  470,  0,    2895, 2722, 2964,
                                                        2893, 3130, 3145, 2849, 3000, 2947};
// The cable between synchronized devices.
constexpr int64_t kLinkDelay = 780;

}  // namespace

void DelayStage::setBlockSettings(const DelaySettings& s) { settings = s; }

void DelayStage::clear() {
  preEnd = 0;
  preHeap.clear();
  nearEnd = 0;
  outputHeap.clear();
  for (Lane& lane : lanes) lane.head = lane.end = 0;
  activeLanes = 0;
  farHeld = 0;
}

void DelayStage::reset(int64_t time) {
  clear();
  until = time;
  filter = 0;
  overflow = false;
}

void DelayStage::growNear() { near.resize(std::max<size_t>(256, near.size() * 2)); }

Tag* DelayStage::nearSlotBehind(int64_t time, uint8_t rank) {
  Tag probe{};
  probe.reserved = rank;
  probe.time = time;
  Tag* const slot =
      insertSorted(near.data(), nearEnd, probe, [](const Tag& t) -> const Tag& { return t; });
  if (slot != nullptr) ++nearEnd;
  return slot;
}

void DelayStage::pushHeap(const Tag& tag) {
  ++farHeld;
  outputHeap.push_back({tag, heapSeq++});
  std::push_heap(outputHeap.begin(), outputHeap.end(), LaterNumbered{});
}

void DelayStage::growLane(Lane& lane) {
  // A lane that never runs empty (a channel held back for good) wraps round
  // instead of growing, once half of it has left.
  const size_t live = lane.end - lane.head;
  if (lane.head >= live && live != 0) {
    std::copy(lane.tags.begin() + static_cast<std::ptrdiff_t>(lane.head),
              lane.tags.begin() + static_cast<std::ptrdiff_t>(lane.end), lane.tags.begin());
    lane.head = 0;
    lane.end = live;
    return;
  }
  lane.tags.resize(std::max<size_t>(64, lane.tags.size() * 2));
}

void DelayStage::pushPreDelayBehind(const PreDelayTag& tag, uint8_t rank) {
  PreDelayTag held = tag;
  held.tag.reserved = rank;
  if (preEnd == preNear.size()) preNear.resize(std::max<size_t>(256, preNear.size() * 2));
  PreDelayTag* const slot = insertSorted(preNear.data(), preEnd, held.tag,
                                         [](const PreDelayTag& p) -> const Tag& { return p.tag; });
  if (slot != nullptr) {
    *slot = held;
    ++preEnd;
  } else {
    preHeap.push_back({held, heapSeq++});
    std::push_heap(preHeap.begin(), preHeap.end(), LaterNumbered{});
  }
}

inline void DelayStage::passFilter(PreDelayTag p) {
  const uint32_t i = p.index();
  const uint64_t bit = uint64_t{1} << i;
  // A trigger opens every filtered channel, its own included.
  filter |= uint64_t{0} - ((settings.triggerMask >> i) & 1);
  if (((~settings.filteredMask | filter) >> i) & 1) {
    p.tag.time = timeSum(p.tag.time, settings.delays[i]);
    const size_t record =
        static_cast<size_t>(i) * static_cast<size_t>(settings.binStride) + p.bin();
    ++settings.distributions[record].count;
    counted |= bit;
    pushEvent(i, p.tag);
    filter &= ~bit;
  }
}

void DelayStage::releasePreDelay() {
  // Raw arrival order across channels decides the filter, so it runs before
  // the delays reorder anything.
  size_t taken = 0;
  if (preHeap.empty()) {
    while (taken < preEnd && before(preNear[taken].tag.time, until)) passFilter(preNear[taken++]);
  }
  for (;;) {
    const bool fromNear = taken < preEnd;
    const bool fromHeap = !preHeap.empty();
    if (!fromNear && !fromHeap) break;
    const bool heapFirst =
        fromHeap && (!fromNear || LaterTag{}(preNear[taken].tag, preHeap.front().item.tag));
    const PreDelayTag& next = heapFirst ? preHeap.front().item : preNear[taken];
    if (!before(next.tag.time, until)) break;
    if (heapFirst) {
      std::pop_heap(preHeap.begin(), preHeap.end(), LaterNumbered{});
      const PreDelayTag p = preHeap.back().item;
      preHeap.pop_back();
      passFilter(p);
    } else {
      passFilter(preNear[taken++]);
    }
  }
  std::copy(preNear.begin() + static_cast<std::ptrdiff_t>(taken),
            preNear.begin() + static_cast<std::ptrdiff_t>(preEnd), preNear.begin());
  preEnd -= taken;
}

void DelayStage::finish(Tag* begin, Tag* end) {
  if (!overflow) {
    for (Tag* tag = begin; tag != end; ++tag) tag->reserved = 0;
    return;
  }
  for (Tag* tag = begin; tag != end; ++tag) {
    tag->reserved = 0;
    if (tag->type == Tag::Type::OverflowEnd) overflow = false;
    if (overflow && tag->type == Tag::Type::TimeTag) {
      tag->type = Tag::Type::MissedEvents;
      tag->missed_events = 1;
    }
  }
}

void DelayStage::releaseDue(std::vector<Tag>& out) {
  if (preEnd != 0 || !preHeap.empty()) releasePreDelay();
  if (farHeld != 0) {
    mergeDue(out);
    return;
  }
  size_t due = 0;
  while (due < nearEnd && before(near[due].time, until)) ++due;
  if (due == 0) return;
  const size_t first = out.size();
  out.insert(out.end(), near.begin(), near.begin() + static_cast<std::ptrdiff_t>(due));
  finish(out.data() + first, out.data() + out.size());
  std::copy(near.begin() + static_cast<std::ptrdiff_t>(due),
            near.begin() + static_cast<std::ptrdiff_t>(nearEnd), near.begin());
  nearEnd -= due;
}

void DelayStage::mergeOneLane(std::vector<Tag>& out) {
  // One channel delayed far behind the rest: two sorted sequences, merged
  // without branching on which one leads.
  Lane& lane = lanes[static_cast<size_t>(std::countr_zero(activeLanes))];
  const Tag* a = near.data();
  const Tag* b = lane.tags.data() + lane.head;
  size_t na = 0;
  while (na < nearEnd && before(a[na].time, until)) ++na;
  const size_t held = lane.end - lane.head;
  size_t nb = 0;
  while (nb < held && before(b[nb].time, until)) ++nb;
  if (na + nb == 0) return;
  const size_t first = out.size();
  out.resize(first + na + nb);
  Tag* to = out.data() + first;
  const Tag* const aEnd = a + na;
  const Tag* const bEnd = b + nb;
  while (a != aEnd && b != bEnd) {
    // Which one leads is a coin toss: computed, not branched on.
    const int64_t d = timeDifference(a->time, b->time);
    const size_t takeB =
        static_cast<size_t>(d > 0) |
        (static_cast<size_t>(d == 0) & static_cast<size_t>(a->reserved > b->reserved));
    const Tag* const from = reinterpret_cast<const Tag*>(
        reinterpret_cast<uintptr_t>(a) ^
        ((reinterpret_cast<uintptr_t>(a) ^ reinterpret_cast<uintptr_t>(b)) &
         (uintptr_t{0} - takeB)));
    *to++ = *from;
    b += takeB;
    a += takeB ^ 1;
  }
  to = std::copy(a, aEnd, to);
  std::copy(b, bEnd, to);
  finish(out.data() + first, out.data() + out.size());
  lane.head += nb;
  farHeld -= nb;
  if (lane.head == lane.end) activeLanes = 0;
  std::copy(near.begin() + static_cast<std::ptrdiff_t>(na),
            near.begin() + static_cast<std::ptrdiff_t>(nearEnd), near.begin());
  nearEnd -= na;
}

void DelayStage::mergeDue(std::vector<Tag>& out) {
  if (outputHeap.empty() && std::has_single_bit(activeLanes)) {
    mergeOneLane(out);
    return;
  }
  size_t taken = 0;
  for (;;) {
    // The earliest of the sorted buffer's front, the heap's top and the queue
    // fronts; few queues are in use.
    const Tag* earliest = taken < nearEnd ? &near[taken] : nullptr;
    int source = -1;
    if (!outputHeap.empty() &&
        (earliest == nullptr || LaterTag{}(*earliest, outputHeap.front().item))) {
      earliest = &outputHeap.front().item;
      source = 64;
    }
    for (uint64_t m = activeLanes; m != 0; m &= m - 1) {
      const int i = std::countr_zero(m);
      const Lane& lane = lanes[static_cast<size_t>(i)];
      const Tag& front = lane.tags[lane.head];
      if (earliest == nullptr || LaterTag{}(*earliest, front)) {
        earliest = &front;
        source = i;
      }
    }
    if (earliest == nullptr || !before(earliest->time, until)) break;
    out.push_back(*earliest);
    if (source < 0) {
      ++taken;
    } else if (source == 64) {
      std::pop_heap(outputHeap.begin(), outputHeap.end(), LaterNumbered{});
      outputHeap.pop_back();
      --farHeld;
    } else {
      Lane& lane = lanes[static_cast<size_t>(source)];
      if (++lane.head == lane.end) activeLanes &= ~(uint64_t{1} << source);
      --farHeld;
    }
    finish(&out.back(), &out.back() + 1);
  }
  std::copy(near.begin() + static_cast<std::ptrdiff_t>(taken),
            near.begin() + static_cast<std::ptrdiff_t>(nearEnd), near.begin());
  nearEnd -= taken;
}

int64_t hardwareDelayCompensation(std::string_view model, int input, bool synchronized) {
  const int64_t link = synchronized ? kLinkDelay : 0;
  const auto lookup = [input](const auto& table) -> int64_t {
    return input >= 0 && static_cast<size_t>(input) < table.size()
               ? table[static_cast<size_t>(input)]
               : 0;
  };
  return link +
         (model == "Zeptick 20" ? lookup(kZeptick20Compensation) : lookup(kUltraCompensation));
}

std::vector<int64_t> hardwareDelayTable(std::string_view model, int channelCount,
                                        bool synchronized) {
  const int half = channelCount / 2;
  std::vector<int64_t> table(static_cast<size_t>(std::max(channelCount, 0)));
  for (int index = 0; index < channelCount; ++index) {
    table[static_cast<size_t>(index)] =
        hardwareDelayCompensation(model, half > 0 ? index % half : 0, synchronized);
  }
  return table;
}

int64_t effectiveInputDelay(int64_t inputDelay, int64_t hardwareDelay, bool compensationEnabled,
                            int64_t minInputDelay) {
  int64_t delay = inputDelay + (compensationEnabled ? hardwareDelay : 0);
  if (minInputDelay < 0) delay -= minInputDelay;
  return delay;
}

}  // namespace zeptick
