#include "zeptick/start_stop.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace zeptick {

StartStop::StartStop(ZeptickBase* tagger, int click_channel, int start_channel, int64_t binwidth)
    : IteratorBase(tagger),
      click_channel(click_channel),
      start_channel(tagger->isUnusedChannel(start_channel) ? click_channel : start_channel),
      binwidth(binwidth) {
  // Other widths are taken as they are: a negative one bins everything at 0.
  if (binwidth == 0) throw std::invalid_argument("binwidth must be at least 1 ps");
  registerChannel(this->click_channel);
  registerChannel(this->start_channel);
  // Any non-negative time difference may occur: there is no range.
  binner = FastBinning(static_cast<uint64_t>(binwidth),
                       static_cast<uint64_t>(std::numeric_limits<int64_t>::max()));
  clear();
  finishInitialization();
}

StartStop::~StartStop() { stop(); }

void StartStop::getData(std::function<int64_t*(size_t, size_t)> array_out) {
  auto guard = getLock();
  std::vector<uint64_t> keys;
  keys.reserve(bins.size());
  for (const auto& entry : bins) keys.push_back(entry.first);
  std::sort(keys.begin(), keys.end());
  int64_t* out = array_out(keys.size(), 2);
  for (uint64_t key : keys) {
    *out++ = binwidth * static_cast<int64_t>(key);
    *out++ = bins[key];
  }
}

void StartStop::clear_impl() {
  last_start = 0;
  bins.clear();
}

void StartStop::on_start() { last_start = 0; }

bool StartStop::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t /*end_time*/) {
  withBinningMode(binner, [&](auto mode) { processBlock<decltype(mode)::value>(tags); });
  return false;
}

template <FastBinning::Mode M>
void StartStop::processBlock(const std::vector<Tag>& tags) {
  int64_t open = last_start;
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      open = 0;
      continue;
    }
    // Close before opening, so that a tag on both channels measures from the
    // previous one and then starts the next interval.
    if (tag.channel == click_channel && open != 0) {
      const uint64_t delta = static_cast<uint64_t>(tag.time) - static_cast<uint64_t>(open);
      ++bins[binner.template divide<M>(delta)];
      open = 0;
    }
    if (tag.channel == start_channel) open = tag.time;
  }
  last_start = open;
}

}  // namespace zeptick
