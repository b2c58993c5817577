#include "zeptick/time_differences.h"

#include <algorithm>
#include <stdexcept>

#include "measurements/histogram_common.h"
#include "measurements/ring_queue.h"

namespace zeptick {

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
    : IteratorBase(tagger), pending(std::make_unique<detail::RingQueue<PendingStart>>()) {
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

void TimeDifferences::dropExpired(int64_t now) {
  while (!pending->empty() && detail::timeDifference(now, pending->front().timestamp) >= range) {
    pending->pop_front();
  }
}

bool TimeDifferences::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  withBinningMode(binner, [&](auto mode) { processBlock<decltype(mode)::value>(tags); });
  // Lets ready() turn true at the end of a quiet stream.
  dropExpired(end_time);
  return false;
}

template <FastBinning::Mode M>
void TimeDifferences::processBlock(const std::vector<Tag>& tags) {
  // The sequence state lives in locals for the loop: the counters share their
  // type with histogram_index, so the compiler could not keep it in a register.
  int index = histogram_index;
  bool waiting = waiting_for_sync;
  uint64_t completed = counts.load(std::memory_order_relaxed);
  const uint64_t limit = max_counts;
  const bool has_next = !next_unused;
  const bool has_sync = !sync_unused;
  const size_t bins = static_cast<size_t>(n_bins);
  int32_t* const counters = data.data();
  detail::RingQueue<PendingStart>& starts = *pending;

  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      histogram_index = index;
      waiting_for_sync = waiting;
      on_start();
      index = histogram_index;
      waiting = waiting_for_sync;
      continue;
    }
    const int channel = tag.channel;
    const int64_t time = tag.time;

    if (has_sync && channel == sync_channel && (limit == 0 || limit > completed)) {
      if (!waiting) ++completed;
      waiting = false;
      index = has_next ? -1 : 0;
    }
    if (has_next && channel == next_channel && !waiting && (limit == 0 || limit > completed)) {
      const int stepped = index + 1;
      if (stepped < n_histograms) {
        index = stepped;
      } else {
        ++completed;
        if (has_sync) {
          index = stepped;
          waiting = true;
        } else {
          index = 0;
        }
      }
    }
    if (channel == start_channel && !waiting && (limit == 0 || limit > completed) && index >= 0 &&
        index < n_histograms) {
      starts.push_back(PendingStart{time, static_cast<size_t>(index) * bins});
    }
    if (channel == click_channel) {
      // Starts expire only here and at the end of the block: between clicks
      // nothing reads them, and the clicks see the same starts as if every tag
      // expired them. All that remain are younger than the range, so every bin
      // is in bounds.
      while (!starts.empty() && detail::timeDifference(time, starts.front().timestamp) >= range) {
        starts.pop_front();
      }
      starts.forEach([&](const PendingStart& start) {
        const uint64_t delta = static_cast<uint64_t>(time) - static_cast<uint64_t>(start.timestamp);
        detail::wrappingIncrement(counters[start.offset + binner.template divide<M>(delta)]);
      });
    }
  }

  histogram_index = index;
  waiting_for_sync = waiting;
  counts.store(completed, std::memory_order_relaxed);
}

}  // namespace zeptick
