#include "zeptick/time_differences.h"

#include <algorithm>
#include <cstddef>
#include <stdexcept>

#include "measurements/histogram_common.h"

namespace zeptick {

namespace {

// Runs of at most this many tags go through the two passes.
constexpr size_t kChunk = 256;
// Starts that the AVX-512 form looks at per click, one per lane.
constexpr size_t kLanes = 8;

struct Click {
  int64_t time;
  size_t starts_end;  // the starts filed before it, itself included
};

// The pending starts as the kernels index them: entry i's time and where its
// counts go (its histogram x n_bins).
struct StartColumns {
  int64_t* time;
  size_t* offset;
};

}  // namespace

/// The pending starts, oldest first, in two columns kept in step, so that the
/// AVX-512 forms load eight times or eight offsets at once.
class TimeDifferences::Pending {
 public:
  bool empty() const { return times.empty(); }
  size_t head() const { return times.head(); }
  size_t end() const { return times.end(); }
  StartColumns columns() { return {times.at(), offsets.at()}; }

  void reserve(size_t more) {
    times.reserve(more);
    offsets.reserve(more);
  }
  void setEnd(size_t end) {
    times.setEnd(end);
    offsets.setEnd(end);
  }
  void push_back(int64_t time, size_t offset) {
    times.push_back(time);
    offsets.push_back(offset);
  }
  /// Drops the starts at least `range` older than `now`, as popping from the
  /// front would; `from_back` walks back over the ones kept instead.
  void dropOlderThan(int64_t now, int64_t range, bool from_back) {
    auto in_range = [&](int64_t time) { return detail::timeDifference(now, time) < range; };
    if (from_back) {
      times.keepNewestWhile(in_range);
    } else {
      while (!times.empty() && !in_range(times.front())) times.pop_front();
    }
    offsets.setHead(times.head());
  }
  void release() {
    times.release();
    offsets.release();
  }

 private:
  detail::StampHistory<int64_t, kLookback> times;
  detail::StampHistory<size_t, kLookback> offsets;
};

namespace {

// Starts are in time order, so those still in range at a click are the newest
// ones: each click looks at a fixed window of them, valid up to the first that is
// not, and goes on in a loop only when the whole window is valid. Returns how
// many bins it listed in bins_hit; those past the window are counted directly.
template <FastBinning::Mode M>
void countBeyondWindow(const FastBinning& binner, int64_t range, int64_t time, ptrdiff_t from,
                       const StartColumns& at, ptrdiff_t head, int32_t* counters) {
  for (ptrdiff_t i = from; i >= head; --i) {
    const uint64_t delta = static_cast<uint64_t>(time) - static_cast<uint64_t>(at.time[i]);
    if (delta >= static_cast<uint64_t>(range)) break;
    detail::wrappingIncrement(counters[at.offset[i] + binner.template divide<M>(delta)]);
  }
}

template <FastBinning::Mode M, size_t kWindow>
size_t binClicks(const FastBinning& binner, int64_t range, const Click* clicks, size_t n_clicks,
                 const StartColumns& at, ptrdiff_t head, int32_t* counters, size_t* bins_hit) {
  size_t n_hit = 0;
  for (size_t c = 0; c < n_clicks; ++c) {
    const int64_t time = clicks[c].time;
    const ptrdiff_t newest = static_cast<ptrdiff_t>(clicks[c].starts_end) - 1;
    bool in_range = false;
    for (size_t back = 0; back < kWindow; ++back) {
      const ptrdiff_t i = newest - static_cast<ptrdiff_t>(back);
      const uint64_t delta = static_cast<uint64_t>(time) - static_cast<uint64_t>(at.time[i]);
      in_range = (i >= head) & (delta < static_cast<uint64_t>(range));
      bins_hit[n_hit] = at.offset[i] + binner.template divide<M>(delta);
      n_hit += in_range;
    }
    if (in_range) {
      countBeyondWindow<M>(binner, range, time, newest - static_cast<ptrdiff_t>(kWindow), at, head,
                           counters);
    }
  }
  return n_hit;
}

#if defined(__x86_64__)
// The same with one start per lane. bins_hit needs kLanes slots of slack.
template <FastBinning::Mode M>
ZEPTICK_AVX512 size_t binClicksWide(const FastBinning& binner, int64_t range, const Click* clicks,
                                    size_t n_clicks, const StartColumns& at, ptrdiff_t head,
                                    int32_t* counters, size_t* bins_hit) {
  // Locals, not loads through pointers: the vector stores may alias anything.
  const detail::LaneDivider<M> divide(binner);
  const int64_t* const times = at.time;
  const size_t* const offsets = at.offset;
  const __m512i lane = _mm512_setr_epi64(0, 1, 2, 3, 4, 5, 6, 7);
  const __m512i range_lanes = _mm512_set1_epi64(range);
  size_t n_hit = 0;
  for (size_t c = 0; c < n_clicks; ++c) {
    const int64_t time = clicks[c].time;
    const ptrdiff_t newest = static_cast<ptrdiff_t>(clicks[c].starts_end) - 1;
    const ptrdiff_t oldest = newest - static_cast<ptrdiff_t>(kLanes - 1);
    const __m512i delta =
        _mm512_sub_epi64(_mm512_set1_epi64(time), _mm512_loadu_si512(times + oldest));
    const __mmask8 in_range = _mm512_cmplt_epu64_mask(delta, range_lanes) &
                              _mm512_cmpge_epi64_mask(lane, _mm512_set1_epi64(head - oldest));
    const __m512i bins = _mm512_add_epi64(_mm512_loadu_si512(offsets + oldest), divide(delta));
    _mm512_storeu_si512(bins_hit + n_hit, _mm512_maskz_compress_epi64(in_range, bins));
    n_hit += static_cast<size_t>(__builtin_popcount(in_range));
    if (in_range & 1) {
      countBeyondWindow<M>(binner, range, time, oldest - 1, at, head, counters);
    }
  }
  return n_hit;
}

// The channels that sort a run's tags.
struct Roles {
  int click, start, next, sync;
  bool has_next, has_sync;
};

// The first pass eight tags at a time, as far as whole groups of plain tags go:
// returns the first tag not filed, at a group holding a tag that may change the
// sequence or at fewer than eight before `limit`. Needs room for eight entries
// past each group in `at` and `clicks`.
ZEPTICK_AVX512 const Tag* fileRunWide(const Tag* tag, const Tag* limit, const Roles& roles,
                                      bool open, size_t offset, const StartColumns& at, size_t& end,
                                      Click* clicks, size_t& n_clicks) {
  static_assert(sizeof(Click) == 16);
  // Locals, not loads through the arguments: the vector stores may alias anything.
  const bool has_next = roles.has_next;
  const bool has_sync = roles.has_sync;
  int64_t* const times = at.time;
  size_t* const start_offsets = at.offset;
  size_t n_starts = end;
  size_t n_clicked = n_clicks;
  const __m512i click = detail::channelLanes(roles.click);
  const __m512i start = detail::channelLanes(roles.start);
  const __m512i next = detail::channelLanes(roles.next);
  const __m512i sync = detail::channelLanes(roles.sync);
  const __m512i offsets = _mm512_set1_epi64(static_cast<int64_t>(offset));
  for (; limit - tag >= 8; tag += 8) {
    const detail::TagLanes tags = detail::loadTags(tag);
    const __m512i channel = detail::channelsOf(tags);
    __mmask8 sequence =
        _mm512_test_epi64_mask(tags.head, _mm512_set1_epi64(0xFF));  // not time tags
    if (has_next) sequence |= _mm512_cmpeq_epi64_mask(channel, next);
    if (has_sync) sequence |= _mm512_cmpeq_epi64_mask(channel, sync);
    if (sequence != 0) break;
    const __mmask8 starts = open ? _mm512_cmpeq_epi64_mask(channel, start) : 0;
    const __mmask8 clicked = _mm512_cmpeq_epi64_mask(channel, click);
    _mm512_storeu_si512(times + n_starts, _mm512_maskz_compress_epi64(starts, tags.time));
    _mm512_storeu_si512(start_offsets + n_starts, offsets);
    detail::storePairs(
        clicks + n_clicked, _mm512_maskz_compress_epi64(clicked, tags.time),
        _mm512_maskz_compress_epi64(clicked, detail::countLanes(starts, true, n_starts)));
    n_starts += static_cast<size_t>(__builtin_popcount(starts));
    n_clicked += static_cast<size_t>(__builtin_popcount(clicked));
  }
  end = n_starts;
  n_clicks = n_clicked;
  return tag;
}
#else
template <FastBinning::Mode M>
size_t binClicksWide(const FastBinning& binner, int64_t range, const Click* clicks, size_t n_clicks,
                     const StartColumns& at, ptrdiff_t head, int32_t* counters, size_t* bins_hit) {
  return binClicks<M, kLanes>(binner, range, clicks, n_clicks, at, head, counters, bins_hit);
}

struct Roles {
  int click, start, next, sync;
  bool has_next, has_sync;
};

const Tag* fileRunWide(const Tag* tag, const Tag*, const Roles&, bool, size_t, const StartColumns&,
                       size_t&, Click*, size_t&) {
  return tag;
}
#endif

}  // namespace

TimeDifferences::TimeDifferences(ZeptickBase* tagger, int click_channel, int start_channel,
                                 int next_channel, int sync_channel, int64_t binwidth, int n_bins,
                                 int n_histograms)
    : TimeDifferences(DeferStart{}, tagger, click_channel, start_channel, next_channel,
                      sync_channel, binwidth, n_bins, n_histograms) {
  finishInitialization();
}

TimeDifferences::TimeDifferences(DeferStart, ZeptickBase* tagger, int click_channel,
                                 int start_channel, int next_channel, int sync_channel,
                                 int64_t binwidth, int n_bins, int n_histograms)
    : IteratorBase(tagger), pending(std::make_unique<Pending>()) {
  if (binwidth < 1) throw std::invalid_argument("binwidth must be at least 1 ps");
  if (n_bins < 1) throw std::invalid_argument("n_bins must be at least 1");
  if (n_histograms < 1) throw std::invalid_argument("n_histograms must be at least 1");

  this->click_channel = click_channel;
  this->start_channel = tagger->isUnusedChannel(start_channel) ? click_channel : start_channel;
  this->next_channel = next_channel;
  this->sync_channel = sync_channel;
  next_unused = tagger->isUnusedChannel(next_channel);
  sync_unused = tagger->isUnusedChannel(sync_channel);
  this->n_bins = n_bins;
  this->n_histograms = n_histograms;
  this->binwidth = binwidth;

  registerChannel(this->click_channel);
  registerChannel(this->start_channel);
  registerChannel(this->next_channel);
  registerChannel(this->sync_channel);

  // Sized in 64 bits: a product beyond memory fails here as an allocation
  // error instead of wrapping into a small table.
  data.assign(static_cast<size_t>(n_bins) * static_cast<size_t>(n_histograms), 0);
  range = detail::histogramRange(binwidth, n_bins);
  binner = FastBinning(static_cast<uint64_t>(binwidth), static_cast<uint64_t>(range));

  clear();
}

TimeDifferences::~TimeDifferences() { stop(); }

void TimeDifferences::getData(std::function<int32_t*(size_t, size_t)> array_out) {
  int32_t* out = array_out(static_cast<size_t>(n_histograms), static_cast<size_t>(n_bins));
  auto guard = getLock();
  std::copy(data.begin(), data.end(), out);
}

void TimeDifferences::getIndex(std::function<int64_t*(size_t)> array_out) {
  int64_t* out = array_out(static_cast<size_t>(n_bins));
  for (int i = 0; i < n_bins; ++i) out[i] = i * binwidth;
}

void TimeDifferences::setMaxCounts(uint64_t max_counts) {
  auto guard = getLock();
  this->max_counts = max_counts;
}

uint64_t TimeDifferences::getCounts() { return counts.load(std::memory_order_relaxed); }

bool TimeDifferences::ready() {
  auto guard = getLock();
  return counts.load(std::memory_order_relaxed) >= max_counts && pending->empty();
}

void TimeDifferences::clear_impl() {
  std::fill(data.begin(), data.end(), 0);
  counts.store(0, std::memory_order_relaxed);
  on_start();
}

void TimeDifferences::on_start() {
  histogram_index = next_unused ? 0 : -1;
  waiting_for_sync = !sync_unused;
  pending->release();
}

void TimeDifferences::dropExpired(int64_t now) { pending->dropOlderThan(now, range, false); }

bool TimeDifferences::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  withBinningMode(binner, [&](auto mode) { processBlock<decltype(mode)::value>(tags); });
  // Lets ready() turn true at the end of a quiet stream.
  dropExpired(end_time);
  return false;
}

template <FastBinning::Mode M>
void TimeDifferences::processBlock(const std::vector<Tag>& tags) {
  // Two passes over runs of up to kChunk tags. The first files each start and
  // each click without a branch on its channel (a store that the next one
  // overwrites unless the tag has that role), since the roles of successive tags
  // are as good as random and a mispredicted branch costs more than the work. The
  // second bins each click against a fixed window of the newest starts filed
  // before it, again without a branch per start, and the counters are bumped last
  // from the list of bins hit. Both passes have an AVX-512 form, taken when the
  // processor has it. A run stops at any tag that can change the sequence (not a
  // time tag, or on the next or sync channel), which takes the exact tag-by-tag
  // path, so within a run whether a start counts, and in which histogram, is fixed.
  Click clicks[kChunk];
  size_t bins_hit[kChunk * kLookback + kLanes];
  const bool wide_filing = detail::wideHistogramKernels();
  const bool wide = detail::hasWideBinning(M) && wide_filing;
  const Roles roles{click_channel, start_channel, next_channel,
                    sync_channel,  !next_unused,  !sync_unused};

  const size_t bins = static_cast<size_t>(n_bins);
  int32_t* const counters = data.data();
  Pending& starts = *pending;

  const Tag* tag = tags.data();
  const Tag* const last = tag + tags.size();
  while (tag != last) {
    const uint64_t completed = counts.load(std::memory_order_relaxed);
    const bool open = !waiting_for_sync && (max_counts == 0 || max_counts > completed) &&
                      histogram_index >= 0 && histogram_index < n_histograms;
    const size_t offset = open ? static_cast<size_t>(histogram_index) * bins : 0;
    const size_t room = std::min<size_t>(kChunk, static_cast<size_t>(last - tag));
    starts.reserve(room);
    const StartColumns at = starts.columns();

    const Tag* const run_begin = tag;
    const Tag* const run_limit = tag + room;
    size_t end = starts.end();
    size_t n_clicks = 0;
    if (wide_filing) {
      tag = fileRunWide(tag, run_limit, roles, open, offset, at, end, clicks, n_clicks);
    }
    for (; tag != run_limit; ++tag) {
      const int channel = tag->channel;
      if ((tag->type != Tag::Type::TimeTag) | (roles.has_next & (channel == next_channel)) |
          (roles.has_sync & (channel == sync_channel))) {
        break;
      }
      at.time[end] = tag->time;
      at.offset[end] = offset;
      end += open & (channel == start_channel);
      clicks[n_clicks] = Click{tag->time, end};
      n_clicks += channel == click_channel;
    }
    starts.setEnd(end);

    const ptrdiff_t head = static_cast<ptrdiff_t>(starts.head());
    size_t n_hit;
    if constexpr (detail::hasWideBinning(M)) {
      n_hit = wide ? binClicksWide<M>(binner, range, clicks, n_clicks, at, head, counters, bins_hit)
                   : binClicks<M, kLookback>(binner, range, clicks, n_clicks, at, head, counters,
                                             bins_hit);
    } else {
      n_hit =
          binClicks<M, kLookback>(binner, range, clicks, n_clicks, at, head, counters, bins_hit);
    }
    for (size_t i = 0; i < n_hit; ++i) detail::wrappingIncrement(counters[bins_hit[i]]);
    // No later click can reach a start out of range of the run's last tag.
    if (tag != run_begin) {
      const int64_t now = tag[-1].time;
      starts.dropOlderThan(now, range, true);
    }

    if (tag != run_limit) {
      processSequenceTag<M>(*tag);
      ++tag;
    }
  }
}

template <FastBinning::Mode M>
void TimeDifferences::processSequenceTag(const Tag& tag) {
  if (tag.type != Tag::Type::TimeTag) {
    on_start();
    return;
  }
  const int channel = tag.channel;
  const int64_t time = tag.time;
  uint64_t completed = counts.load(std::memory_order_relaxed);
  auto open = [&] { return max_counts == 0 || max_counts > completed; };

  if (!sync_unused && channel == sync_channel && open()) {
    if (!waiting_for_sync) ++completed;
    waiting_for_sync = false;
    histogram_index = next_unused ? 0 : -1;
  }
  if (!next_unused && channel == next_channel && !waiting_for_sync && open()) {
    const int stepped = histogram_index + 1;
    if (stepped < n_histograms) {
      histogram_index = stepped;
    } else {
      ++completed;
      if (!sync_unused) {
        histogram_index = stepped;
        waiting_for_sync = true;
      } else {
        histogram_index = 0;
      }
    }
  }
  counts.store(completed, std::memory_order_relaxed);
  if (channel == start_channel && !waiting_for_sync && open() && histogram_index >= 0 &&
      histogram_index < n_histograms) {
    pending->push_back(time, static_cast<size_t>(histogram_index) * static_cast<size_t>(n_bins));
  }
  if (channel == click_channel) {
    dropExpired(time);
    if (pending->empty()) return;
    const StartColumns at = pending->columns();
    for (size_t i = pending->head(); i != pending->end(); ++i) {
      const uint64_t delta = static_cast<uint64_t>(time) - static_cast<uint64_t>(at.time[i]);
      // A start later than the click only comes from a stream out of order: no bin, and no
      // write outside the counters.
      if (delta >= static_cast<uint64_t>(range)) continue;
      detail::wrappingIncrement(data[at.offset[i] + binner.template divide<M>(delta)]);
    }
  }
}

}  // namespace zeptick
