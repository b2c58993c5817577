#include "engine/delay_stage.h"

#include <algorithm>
#include <array>
#include <bit>

namespace zeptick {

namespace {

// Earliest time on top. Differences rather than plain comparison keep the
// order right across the wrap of the 64-bit time.
struct LaterTag {
  bool operator()(const Tag& a, const Tag& b) const { return timeDifference(a.time, b.time) > 0; }
};

struct LaterPreDelayTag {
  bool operator()(const PreDelayTag& a, const PreDelayTag& b) const {
    return timeDifference(a.tag.time, b.tag.time) > 0;
  }
};

bool before(int64_t time, int64_t t) { return timeDifference(t, time) > 0; }

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
  preDelayHeap.clear();
  outputHeap.clear();
  for (Lane& lane : lanes) {
    lane.tags.clear();
    lane.head = 0;
  }
  activeLanes = 0;
  held = 0;
}

void DelayStage::reset(int64_t time) {
  clear();
  until = time;
  filter = 0;
  overflow = false;
}

void DelayStage::pushOutput(const Tag& tag) {
  outputHeap.push_back(tag);
  std::push_heap(outputHeap.begin(), outputHeap.end(), LaterTag{});
  noteHeld(tag.time);
}

void DelayStage::pushPreDelay(const PreDelayTag& tag) {
  preDelayHeap.push_back(tag);
  std::push_heap(preDelayHeap.begin(), preDelayHeap.end(), LaterPreDelayTag{});
}

void DelayStage::releasePreDelay(int64_t t) {
  // Raw arrival order across channels decides the filter, so it runs before
  // the delays reorder anything.
  while (!preDelayHeap.empty() && before(preDelayHeap.front().tag.time, t)) {
    std::pop_heap(preDelayHeap.begin(), preDelayHeap.end(), LaterPreDelayTag{});
    PreDelayTag p = preDelayHeap.back();
    preDelayHeap.pop_back();
    const uint32_t i = p.index();
    const uint64_t bit = uint64_t{1} << i;
    if (settings.triggerMask & bit) filter = ~uint64_t{0};
    if (!(settings.filteredMask & bit) || (filter & bit)) {
      p.tag.time = timeSum(p.tag.time, settings.delays[i]);
      const size_t record =
          static_cast<size_t>(i) * static_cast<size_t>(settings.binStride) + p.bin();
      ++settings.distributions[record].count;
      counted |= bit;
      pushEvent(i, p.tag);
      filter &= ~bit;
    }
  }
}

void DelayStage::release(int64_t t, std::vector<Tag>& out) {
  if (!preDelayHeap.empty()) releasePreDelay(t);
  while (held != 0) {
    // The earliest of the heap's top and the queue fronts; few queues are in use.
    int64_t earliest = 0;
    int source = -1;
    if (!outputHeap.empty()) {
      earliest = outputHeap.front().time;
      source = 64;
    }
    for (uint64_t m = activeLanes; m != 0; m &= m - 1) {
      const int i = std::countr_zero(m);
      const int64_t time = laneFront[static_cast<size_t>(i)];
      if (source < 0 || timeDifference(time, earliest) < 0) {
        earliest = time;
        source = i;
      }
    }
    if (!before(earliest, t)) {
      nextDue = earliest;
      return;
    }
    Tag& tag = out.emplace_back();
    if (source == 64) {
      std::pop_heap(outputHeap.begin(), outputHeap.end(), LaterTag{});
      copyTag(tag, outputHeap.back());
      outputHeap.pop_back();
    } else {
      Lane& lane = lanes[static_cast<size_t>(source)];
      copyTag(tag, lane.tags[lane.head++]);
      if (lane.head == lane.tags.size()) {
        activeLanes &= ~(uint64_t{1} << source);
      } else {
        laneFront[static_cast<size_t>(source)] = lane.tags[lane.head].time;
      }
    }
    --held;
    if (tag.type == Tag::Type::OverflowEnd) overflow = false;
    if (overflow && tag.type == Tag::Type::TimeTag) {
      tag.type = Tag::Type::MissedEvents;
      tag.missed_events = 1;
    }
  }
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
