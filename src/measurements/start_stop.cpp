#include "zeptick/start_stop.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace zeptick {
namespace {

// Bins below this are counted in a plain array (at most 8 MiB of counts): with
// a bin width of 1 ps that is every start-click pair closer than a microsecond.
constexpr uint64_t kDenseBins = uint64_t{1} << 20;

// The largest difference whose bin lies below kDenseBins.
uint64_t nearRange(uint64_t width) {
  constexpr uint64_t kWhole = std::numeric_limits<int64_t>::max();
  return width > kWhole / kDenseBins ? kWhole : kDenseBins * width - 1;
}

}  // namespace

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
  // Over the narrower range a reciprocal is nearly always exact, where the
  // whole range would often need a division per pair.
  near_binner =
      FastBinning(static_cast<uint64_t>(binwidth), nearRange(static_cast<uint64_t>(binwidth)));
  clear();
  finishInitialization();
}

StartStop::~StartStop() { stop(); }

void StartStop::getData(std::function<int64_t*(size_t, size_t)> array_out) {
  auto guard = getLock();
  // A bin exists once counted, and counts only grow: a zero is an absent bin.
  const size_t near_rows =
      dense.size() - static_cast<size_t>(std::count(dense.begin(), dense.end(), 0));
  std::vector<uint64_t> far_keys;
  far_keys.reserve(far_bins.size());
  for (const auto& entry : far_bins) far_keys.push_back(entry.first);
  std::sort(far_keys.begin(), far_keys.end());
  int64_t* out = array_out(near_rows + far_keys.size(), 2);
  for (size_t bin = 0; bin < dense.size(); ++bin) {
    if (dense[bin] == 0) continue;
    *out++ = binwidth * static_cast<int64_t>(bin);
    *out++ = dense[bin];
  }
  for (uint64_t key : far_keys) {  // all past the dense bins
    *out++ = binwidth * static_cast<int64_t>(key);
    *out++ = far_bins[key];
  }
}

void StartStop::clear_impl() {
  last_start = 0;
  std::fill(dense.begin(), dense.end(), 0);
  far_bins.clear();
}

void StartStop::countDense(uint64_t bin) {
  if (bin >= dense.size()) {
    // Doubling keeps the number of reallocations small; the bound keeps one
    // stray long pair from costing more than the cap.
    const uint64_t grown = std::max<uint64_t>({bin + 1, 2 * dense.size(), 1024});
    dense.resize(static_cast<size_t>(std::min(grown, kDenseBins)), 0);
  }
  ++dense[bin];
}

void StartStop::countOutside(uint64_t delta) {
  if (delta <= near_binner.getMaxDuration()) {
    withBinningMode(near_binner, [&](auto mode) {
      countDense(near_binner.template divide<decltype(mode)::value>(delta));
    });
    return;
  }
  uint64_t bin = 0;
  withBinningMode(binner,
                  [&](auto mode) { bin = binner.template divide<decltype(mode)::value>(delta); });
  if (bin < kDenseBins) {
    countDense(bin);
  } else {
    ++far_bins[bin];
  }
}

void StartStop::on_start() { last_start = 0; }

bool StartStop::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t /*end_time*/) {
  withBinningMode(near_binner, [&](auto mode) { processBlock<decltype(mode)::value>(tags); });
  return false;
}

template <FastBinning::Mode M>
void StartStop::processBlock(const std::vector<Tag>& tags) {
  // Starts and clicks interleave at random, so a branch on "this click closes
  // a pair" mispredicts half the time. The first pass finds the pairs without
  // branching, writing every tag's difference and keeping it only for a pair;
  // the second bins the kept ones.
  constexpr size_t kBatch = 512;
  uint64_t deltas[kBatch];
  const uint64_t near_max = near_binner.getMaxDuration();
  int64_t open = last_start;
  const Tag* tag = tags.data();
  const Tag* const end = tag + tags.size();
  while (tag != end) {
    const Tag* const batch_end = tag + std::min<size_t>(kBatch, static_cast<size_t>(end - tag));
    size_t pairs = 0;
    for (; tag != batch_end; ++tag) {
      const bool time_tag = tag->type == Tag::Type::TimeTag;
      const bool closes = time_tag & (tag->channel == click_channel) & (open != 0);
      deltas[pairs] = static_cast<uint64_t>(tag->time) - static_cast<uint64_t>(open);
      pairs += closes;
      // Close before opening, so that a tag on both channels measures from the
      // previous one and then starts the next interval; any other tag closes.
      // Masks rather than conditions, which the compiler would turn into branches.
      const uint64_t starts = 0 - static_cast<uint64_t>(tag->channel == start_channel);
      const uint64_t kept = static_cast<uint64_t>(open) & (static_cast<uint64_t>(closes) - 1);
      const uint64_t after = (static_cast<uint64_t>(tag->time) & starts) | (kept & ~starts);
      open = static_cast<int64_t>(after & (0 - static_cast<uint64_t>(time_tag)));
    }
    for (size_t k = 0; k < pairs; ++k) {
      const uint64_t delta = deltas[k];
      const uint64_t bin = delta <= near_max ? near_binner.template divide<M>(delta) : 0;
      if (delta <= near_max && bin < dense.size()) {
        ++dense[bin];
      } else {
        countOutside(delta);
      }
    }
  }
  last_start = open;
}

}  // namespace zeptick
