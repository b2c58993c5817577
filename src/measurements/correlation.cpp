#include "zeptick/correlation.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include "measurements/histogram_common.h"

namespace zeptick {

namespace {

// Runs of at most this many time tags go through the two passes.
constexpr size_t kChunk = 256;
// Stamps that the plain form looks at per tag without a loop, and the AVX-512 form, one per lane.
constexpr size_t kWindow = 4;
constexpr size_t kLanes = 8;

struct Filed {
  int64_t time;
  size_t other_end;  // stamps of the other channel before it
};

struct PairBinning {
  const FastBinning& binner;
  int64_t half_range;
  int64_t n_bins;
  int32_t* counters;
};

// offset + half_range in two's complement, where the offset is d for a channel 1
// tag and -d for a channel 2 one; any lane, even one past the stamps in range,
// computes without overflow.
inline uint64_t shiftedOffset(int64_t d, bool flip, int64_t half_range) {
  const uint64_t offset = flip ? 0 - static_cast<uint64_t>(d) : static_cast<uint64_t>(d);
  return offset + static_cast<uint64_t>(half_range);
}

// The stamps in range of a tag are the newest ones, as stamps are in time order:
// each tag looks at a fixed window of them, valid up to the first that is not,
// and goes on in a loop only when the whole window is valid. Returns how many
// bins it listed in bins_hit; those past the window are counted directly.
template <FastBinning::Mode M>
void countBeyondWindow(const PairBinning& pairs, int64_t time, bool flip, ptrdiff_t from,
                       const int64_t* other, ptrdiff_t head) {
  for (ptrdiff_t i = from; i >= head && detail::timeDifference(time, other[i]) <= pairs.half_range;
       --i) {
    const uint64_t bin = pairs.binner.template divide<M>(
        shiftedOffset(detail::timeDifference(time, other[i]), flip, pairs.half_range));
    if (bin < static_cast<uint64_t>(pairs.n_bins)) detail::wrappingIncrement(pairs.counters[bin]);
  }
}

template <FastBinning::Mode M, size_t kSize>
size_t binPairs(const PairBinning& pairs, const Filed* filed, size_t n_filed, bool flip,
                const int64_t* other, ptrdiff_t head, size_t* bins_hit) {
  size_t n_hit = 0;
  for (size_t f = 0; f < n_filed; ++f) {
    const int64_t time = filed[f].time;
    const ptrdiff_t newest = static_cast<ptrdiff_t>(filed[f].other_end) - 1;
    bool in_range = false;
    for (size_t back = 0; back < kSize; ++back) {
      const ptrdiff_t i = newest - static_cast<ptrdiff_t>(back);
      const int64_t d = detail::timeDifference(time, other[i]);
      const uint64_t bin =
          pairs.binner.template divide<M>(shiftedOffset(d, flip, pairs.half_range));
      in_range = (i >= head) & (d <= pairs.half_range);
      bins_hit[n_hit] = bin;
      n_hit += in_range & (bin < static_cast<uint64_t>(pairs.n_bins));
    }
    if (in_range) {
      countBeyondWindow<M>(pairs, time, flip, newest - static_cast<ptrdiff_t>(kSize), other, head);
    }
  }
  return n_hit;
}

#if defined(__x86_64__)
// The same with one stamp per lane. bins_hit needs kLanes slots of slack.
template <FastBinning::Mode M>
ZEPTICK_AVX512 size_t binPairsWide(const PairBinning& pairs, const Filed* filed, size_t n_filed,
                                   bool flip, const int64_t* other, ptrdiff_t head,
                                   size_t* bins_hit) {
  // Locals, not loads through pointers: the vector stores may alias anything.
  const detail::LaneDivider<M> divide(pairs.binner);
  const __m512i lane = _mm512_setr_epi64(0, 1, 2, 3, 4, 5, 6, 7);
  const __m512i half_range = _mm512_set1_epi64(pairs.half_range);
  const __m512i n_bins = _mm512_set1_epi64(pairs.n_bins);
  size_t n_hit = 0;
  for (size_t f = 0; f < n_filed; ++f) {
    const int64_t time = filed[f].time;
    const ptrdiff_t newest = static_cast<ptrdiff_t>(filed[f].other_end) - 1;
    const ptrdiff_t oldest = newest - static_cast<ptrdiff_t>(kLanes - 1);
    const __m512i d =
        _mm512_sub_epi64(_mm512_set1_epi64(time),
                         _mm512_loadu_si512(reinterpret_cast<const long long*>(other + oldest)));
    const __mmask8 in_range = _mm512_cmple_epi64_mask(d, half_range) &
                              _mm512_cmpge_epi64_mask(lane, _mm512_set1_epi64(head - oldest));
    const __m512i shifted =
        flip ? _mm512_sub_epi64(half_range, d) : _mm512_add_epi64(d, half_range);
    const __m512i bins = divide(shifted);
    const __mmask8 hit = in_range & _mm512_cmplt_epu64_mask(bins, n_bins);
    _mm512_storeu_si512(bins_hit + n_hit, _mm512_maskz_compress_epi64(hit, bins));
    n_hit += static_cast<size_t>(__builtin_popcount(hit));
    if (in_range & 1) countBeyondWindow<M>(pairs, time, flip, oldest - 1, other, head);
  }
  return n_hit;
}

// What the first pass writes: each channel's stamps, and the tags filed under it.
struct Filing {
  int64_t* stamps[2];
  size_t ends[2];
  Filed* filed[2];
  size_t n_filed[2];
};

// The first pass eight time tags at a time, as far as whole groups go: returns
// the first tag not filed. Needs room for eight entries past each group.
ZEPTICK_AVX512 const Tag* fileTagsWide(const Tag* tag, const Tag* limit, int channel_1,
                                       int channel_2, Filing& out) {
  static_assert(sizeof(Filed) == 16);
  // Locals, not loads through `out`: the vector stores may alias anything.
  int64_t* const stamps[2] = {out.stamps[0], out.stamps[1]};
  Filed* const filed[2] = {out.filed[0], out.filed[1]};
  size_t ends[2] = {out.ends[0], out.ends[1]};
  size_t n_filed[2] = {out.n_filed[0], out.n_filed[1]};
  const __m512i on[2] = {detail::channelLanes(channel_1), detail::channelLanes(channel_2)};
  for (; limit - tag >= 8; tag += 8) {
    const detail::TagLanes tags = detail::loadTags(tag);
    const __m512i channel = detail::channelsOf(tags);
    const __mmask8 of[2] = {_mm512_cmpeq_epi64_mask(channel, on[0]),
                            _mm512_cmpeq_epi64_mask(channel, on[1])};
    // As in the plain loop: a tag pairs with the first channel's stamps up to
    // and including itself, and with the second's before it.
    const __m512i other_ends[2] = {detail::countLanes(of[1], false, ends[1]),
                                   detail::countLanes(of[0], true, ends[0])};
    for (size_t side = 0; side < 2; ++side) {
      const __m512i filed_times = _mm512_maskz_compress_epi64(of[side], tags.time);
      _mm512_storeu_si512(stamps[side] + ends[side], filed_times);
      detail::storePairs(filed[side] + n_filed[side], filed_times,
                         _mm512_maskz_compress_epi64(of[side], other_ends[side]));
      const auto count = static_cast<size_t>(__builtin_popcount(of[side]));
      ends[side] += count;
      n_filed[side] += count;
    }
  }
  for (size_t side = 0; side < 2; ++side) {
    out.ends[side] = ends[side];
    out.n_filed[side] = n_filed[side];
  }
  return tag;
}
#else
template <FastBinning::Mode M>
size_t binPairsWide(const PairBinning& pairs, const Filed* filed, size_t n_filed, bool flip,
                    const int64_t* other, ptrdiff_t head, size_t* bins_hit) {
  return binPairs<M, kLanes>(pairs, filed, n_filed, flip, other, head, bins_hit);
}

struct Filing {
  int64_t* stamps[2];
  size_t ends[2];
  Filed* filed[2];
  size_t n_filed[2];
};

const Tag* fileTagsWide(const Tag* tag, const Tag*, int, int, Filing&) { return tag; }
#endif

}  // namespace

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
  // channel came before it. The second pairs each filed tag with a fixed window
  // of the newest of those, again without a branch per pair, and the counters
  // are bumped last from the list of bins hit. Both passes have an AVX-512 form,
  // taken when the processor has it.
  Filed filed[2][kChunk];
  size_t bins_hit[2 * kChunk * kLanes + kLanes];
  const bool wide_filing = detail::wideHistogramKernels();
  const bool wide = detail::hasWideBinning(M) && wide_filing;

  Stamps& first = *stamps[0];
  Stamps& second = *stamps[1];
  const int channel_1 = channels[0];
  const int channel_2 = channels[1];
  int32_t* const counters = data.data();

  while (tag != end) {
    const size_t room = std::min<size_t>(kChunk, static_cast<size_t>(end - tag));
    first.reserve(room);
    second.reserve(room);
    Filing out{
        {first.at(), second.at()}, {first.end(), second.end()}, {filed[0], filed[1]}, {0, 0}};
    const Tag* const chunk_end = tag + room;
    if (wide_filing) tag = fileTagsWide(tag, chunk_end, channel_1, channel_2, out);
    int64_t* const* const at = out.stamps;
    size_t* const ends = out.ends;
    size_t* const n_filed = out.n_filed;
    for (; tag != chunk_end; ++tag) {
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

    // A channel 1 tag pairs with channel 2's stamps, and the reverse with the sign flipped.
    const PairBinning pairs{binner, half_range, n_bins, counters};
    size_t n_hit = 0;
    for (size_t side = 0; side < 2; ++side) {
      const ptrdiff_t head = static_cast<ptrdiff_t>(stamps[1 - side]->head());
      const bool flip = side == 1;
      if constexpr (detail::hasWideBinning(M)) {
        if (wide) {
          n_hit += binPairsWide<M>(pairs, filed[side], n_filed[side], flip, at[1 - side], head,
                                   bins_hit + n_hit);
          continue;
        }
      }
      n_hit += binPairs<M, kWindow>(pairs, filed[side], n_filed[side], flip, at[1 - side], head,
                                    bins_hit + n_hit);
    }
    for (size_t i = 0; i < n_hit; ++i) detail::wrappingIncrement(counters[bins_hit[i]]);
    // No later tag can reach a stamp out of range of the chunk's last tag.
    const int64_t now = tag[-1].time;
    auto in_range = [&](int64_t stamp) { return detail::timeDifference(now, stamp) <= half_range; };
    first.keepNewestWhile(in_range);
    second.keepNewestWhile(in_range);
  }
}

}  // namespace zeptick
