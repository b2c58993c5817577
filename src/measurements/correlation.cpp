#include "zeptick/correlation.h"

#include <algorithm>
#include <stdexcept>

#include "measurements/histogram_common.h"

namespace zeptick {

Correlation::Correlation(ZeptickBase* tagger, int channel_1, int channel_2, int64_t binwidth,
                         int n_bins)
    : IteratorBase(tagger), stamps{std::make_unique<Stamps>(), std::make_unique<Stamps>()} {
  if (binwidth < 1) throw std::invalid_argument("binwidth must be at least 1 ps");
  if (n_bins < 1) throw std::invalid_argument("n_bins must be at least 1");

  this->n_bins = n_bins;
  this->binwidth = binwidth;
  half_range = detail::histogramRange(binwidth, n_bins) / 2;
  channels[0] = channel_1;
  channels[1] = tagger->isUnusedChannel(channel_2) ? channel_1 : channel_2;
  registerChannel(channels[0]);
  registerChannel(channels[1]);

  data.assign(static_cast<size_t>(n_bins), 0);
  binner = FastBinning(static_cast<uint64_t>(binwidth), 2 * static_cast<uint64_t>(half_range));
  clear();
  finishInitialization();
}

Correlation::~Correlation() { stop(); }

void Correlation::getData(std::function<int32_t*(size_t)> array_out) {
  int32_t* out = array_out(static_cast<size_t>(n_bins));
  auto guard = getLock();
  std::copy(data.begin(), data.end(), out);
}

void Correlation::getDataNormalized(std::function<double*(size_t)> array_out) {
  double* out = array_out(static_cast<size_t>(n_bins));
  auto guard = getLock();
  // Left unguarded on purpose: no tags on a channel gives NaN or infinity, which says
  // "no estimate" better than any number would.
  const double scale = static_cast<double>(capture_duration) /
                       ((static_cast<double>(binwidth) * static_cast<double>(counts[0])) *
                        static_cast<double>(counts[1]));
  for (size_t i = 0; i < data.size(); ++i) out[i] = data[i] * scale;
}

void Correlation::getIndex(std::function<int64_t*(size_t)> array_out) {
  int64_t* out = array_out(static_cast<size_t>(n_bins));
  for (int i = 0; i < n_bins; ++i) out[i] = i * binwidth - half_range;
}

void Correlation::clear_impl() {
  std::fill(data.begin(), data.end(), 0);
  counts[0] = counts[1] = 0;
  stamps[0]->release();
  stamps[1]->release();
  capture_duration = 0;
  in_overflow = false;
}

void Correlation::trimOlderThan(Stamps& queue, int64_t now) {
  // A stamp exactly half_range old still pairs.
  while (!queue.empty() && detail::timeDifference(now, queue.front()) > half_range) {
    queue.pop_front();
  }
}

bool Correlation::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  withBinningMode(
      binner, [&](auto mode) { processBlock<decltype(mode)::value>(tags, begin_time, end_time); });
  trimOlderThan(*stamps[0], end_time);
  trimOlderThan(*stamps[1], end_time);
  return false;
}

template <FastBinning::Mode M>
void Correlation::processBlock(const std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  int64_t segment_begin = begin_time;
  const Tag* tag = tags.data();
  const Tag* const last = tag + tags.size();
  while (tag != last) {
    // Time tags go in runs through the pair counting; the other types are rare
    // and only touch the bookkeeping.
    const Tag* run_end = tag;
    while (run_end != last && run_end->type == Tag::Type::TimeTag) ++run_end;
    if (run_end != tag) {
      countPairs<M>(tag, run_end);
      tag = run_end;
      continue;
    }
    switch (tag->type) {
      case Tag::Type::Error:
        stamps[0]->clear();
        stamps[1]->clear();
        break;
      case Tag::Type::OverflowBegin:
        capture_duration += tag->time - segment_begin;
        in_overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        if (in_overflow) {
          segment_begin = tag->time;
          in_overflow = false;
        } else {
          // Began inside an overflow: the time before this end is not trustworthy.
          capture_duration = 0;
        }
        break;
      default:
        break;
    }
    ++tag;
  }
  if (!in_overflow) capture_duration += end_time - segment_begin;
}

template <FastBinning::Mode M>
void Correlation::countPairs(const Tag* tag, const Tag* const end) {
  // Two passes over chunks of up to kChunk time tags. The first files each tag's
  // time under its channel without a branch on the channel (a store that the
  // next one overwrites unless the tag is on that channel), since the channels
  // of successive tags are as good as random and a mispredicted branch costs
  // more than the work; with it, each tag notes how many stamps of the other
  // channel came before it. The second pairs each filed tag with the kLookback
  // newest of those, again without a branch per pair, and the counters are
  // bumped last from the list of bins hit. Stamps are in time order, so those
  // within half_range of a tag are the newest ones: the lanes are valid up to
  // the first that is not, and a tag whose lanes are all valid goes on in a loop.
  constexpr size_t kChunk = 256;
  struct Filed {
    int64_t time;
    size_t other_end;  // stamps of the other channel before it
  };
  Filed filed[2][kChunk];
  size_t bins_hit[2 * kChunk * kLookback];

  Stamps& first = *stamps[0];
  Stamps& second = *stamps[1];
  const int channel_1 = channels[0];
  const int channel_2 = channels[1];
  const int64_t shift = half_range;
  const int64_t bins = n_bins;
  int32_t* const counters = data.data();
  // offset + half_range in two's complement, so any lane, even one past the
  // stamps in range, computes without overflow.
  auto offsetOf = [shift](int64_t d, bool flip) {
    const uint64_t offset = flip ? 0 - static_cast<uint64_t>(d) : static_cast<uint64_t>(d);
    return offset + static_cast<uint64_t>(shift);
  };

  while (tag != end) {
    const size_t room = std::min<size_t>(kChunk, static_cast<size_t>(end - tag));
    first.reserve(room);
    second.reserve(room);
    int64_t* const at[2] = {first.at(), second.at()};
    size_t ends[2] = {first.end(), second.end()};
    size_t n_filed[2] = {0, 0};
    for (const Tag* const chunk_end = tag + room; tag != chunk_end; ++tag) {
      const int64_t time = tag->time;
      const bool on_1 = tag->channel == channel_1;
      const bool on_2 = tag->channel == channel_2;
      // In an autocorrelation the tag pairs with the first channel's stamps
      // including itself, and with the second's before it.
      at[0][ends[0]] = time;
      ends[0] += on_1;
      filed[0][n_filed[0]] = Filed{time, ends[1]};
      n_filed[0] += on_1;
      at[1][ends[1]] = time;
      ends[1] += on_2;
      filed[1][n_filed[1]] = Filed{time, ends[0]};
      n_filed[1] += on_2;
    }
    first.setEnd(ends[0]);
    second.setEnd(ends[1]);
    counts[0] += n_filed[0];
    counts[1] += n_filed[1];

    // offset = (channel 1 time) - (channel 2 time), whichever came later: for a
    // channel 1 tag d, for a channel 2 tag -d.
    size_t n_hit = 0;
    for (size_t side = 0; side < 2; ++side) {
      const int64_t* const other = at[1 - side];
      const ptrdiff_t head = static_cast<ptrdiff_t>(stamps[1 - side]->head());
      const bool flip = side == 1;
      for (size_t f = 0; f < n_filed[side]; ++f) {
        const int64_t time = filed[side][f].time;
        const ptrdiff_t newest = static_cast<ptrdiff_t>(filed[side][f].other_end) - 1;
        bool in_range = false;
        for (size_t back = 0; back < kLookback; ++back) {
          const ptrdiff_t i = newest - static_cast<ptrdiff_t>(back);
          const int64_t d = detail::timeDifference(time, other[i]);
          const uint64_t bin = binner.template divide<M>(offsetOf(d, flip));
          in_range = (i >= head) & (d <= shift);
          bins_hit[n_hit] = bin;
          n_hit += in_range & (static_cast<int64_t>(bin) < bins);
        }
        if (in_range) {
          for (ptrdiff_t i = newest - static_cast<ptrdiff_t>(kLookback);
               i >= head && detail::timeDifference(time, other[i]) <= shift; --i) {
            const uint64_t bin =
                binner.template divide<M>(offsetOf(detail::timeDifference(time, other[i]), flip));
            if (static_cast<int64_t>(bin) < bins) detail::wrappingIncrement(counters[bin]);
          }
        }
      }
    }
    for (size_t i = 0; i < n_hit; ++i) detail::wrappingIncrement(counters[bins_hit[i]]);
    // No later tag can reach a stamp out of range of the chunk's last tag.
    trimOlderThan(first, tag[-1].time);
    trimOlderThan(second, tag[-1].time);
  }
}

}  // namespace zeptick
