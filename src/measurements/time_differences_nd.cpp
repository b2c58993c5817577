#include "zeptick/time_differences_nd.h"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <utility>

#include "measurements/ring_queue.h"

namespace zeptick {

namespace {

// Saturates instead of wrapping, so that an absurd size fails to allocate
// rather than yielding a histogram smaller than its offsets.
uint64_t saturatingProduct(uint64_t a, uint64_t b) {
  uint64_t product;
  return __builtin_mul_overflow(a, b, &product) ? std::numeric_limits<uint64_t>::max() : product;
}

}  // namespace

TimeDifferencesND::TimeDifferencesND(ZeptickBase* tagger, int click_channel, int start_channel,
                                     std::vector<int> next_channels, std::vector<int> sync_channels,
                                     std::vector<int> n_histograms, int64_t binwidth,
                                     uint64_t n_bins)
    : IteratorBase(tagger),
      click_channel(click_channel),
      start_channel(start_channel),
      next_channels(std::move(next_channels)),
      sync_channels(std::move(sync_channels)),
      n_histograms(std::move(n_histograms)),
      binwidth(binwidth),
      n_bins(n_bins),
      pending(std::make_unique<detail::RingQueue<PendingStart>>()) {
  const size_t dimensions = this->next_channels.size();
  if ((!this->sync_channels.empty() && this->sync_channels.size() != dimensions) ||
      this->n_histograms.size() != dimensions) {
    throw std::invalid_argument("dimension mismatch of input arguments");
  }
  if (binwidth < 1) throw std::invalid_argument("binwidth must be at least 1 ps");
  if (n_bins == 0) throw std::invalid_argument("n_bins must be at least 1");
  uint64_t size = n_bins;
  for (int n : this->n_histograms) {
    if (n < 1) throw std::invalid_argument("all elements of n_histograms must be at least 1");
    size = saturatingProduct(size, static_cast<uint64_t>(n));
  }
  if (size > std::numeric_limits<size_t>::max()) size = std::numeric_limits<size_t>::max();
  data.assign(static_cast<size_t>(size), 0);
  rollover.assign(dimensions, 0);
  waiting.assign(dimensions, 0);
  histogram_index.assign(dimensions, -1);

  registerChannel(click_channel);
  registerChannel(start_channel);
  for (size_t j = 0; j < dimensions; ++j) {
    const bool has_sync = !this->sync_channels.empty();
    rollover[j] = !has_sync || tagger->isUnusedChannel(this->sync_channels[j]);
    registerChannel(this->next_channels[j]);
    if (has_sync) registerChannel(this->sync_channels[j]);
  }

  const uint64_t span = saturatingProduct(n_bins, static_cast<uint64_t>(binwidth));
  range = static_cast<int64_t>(std::min<uint64_t>(span, std::numeric_limits<int64_t>::max()));
  binner = FastBinning(static_cast<uint64_t>(binwidth), static_cast<uint64_t>(range));
  clear();
  finishInitialization();
}

TimeDifferencesND::~TimeDifferencesND() { stop(); }

void TimeDifferencesND::getData(std::function<int32_t*(size_t, size_t)> array_out) {
  const auto bins = static_cast<size_t>(n_bins);
  int32_t* out = array_out(data.size() / bins, bins);
  auto guard = getLock();
  std::transform(data.begin(), data.end(), out,
                 [](uint32_t count) { return static_cast<int32_t>(count); });
}

void TimeDifferencesND::getIndex(std::function<int64_t*(size_t)> array_out) {
  int64_t* out = array_out(static_cast<size_t>(n_bins));
  for (uint64_t i = 0; i < n_bins; ++i) out[i] = static_cast<int64_t>(i) * binwidth;
}

void TimeDifferencesND::clear_impl() {
  pending->release();
  std::fill(data.begin(), data.end(), 0);
}

void TimeDifferencesND::on_start() {
  // Open starts stay: clicks after an overflow may still close them.
  flat_offset = 0;
  offset_valid = false;
  std::fill(waiting.begin(), waiting.end(), 0);
  std::fill(histogram_index.begin(), histogram_index.end(), -1);
}

bool TimeDifferencesND::next_impl(std::vector<Tag>& tags, int64_t, int64_t end_time) {
  withBinningMode(binner, [&](auto mode) { process<decltype(mode)::value>(tags); });
  expire(end_time);
  return false;
}

template <FastBinning::Mode M>
void TimeDifferencesND::process(const std::vector<Tag>& tags) {
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      on_start();
      continue;
    }
    if (step_indices(tag.channel)) update_offset();
    expire(tag.time);
    // Stored before the click below, so a tag on both channels counts itself in bin 0.
    if (tag.channel == start_channel && offset_valid) {
      pending->push_back(PendingStart{tag.time, flat_offset});
    }
    if (tag.channel == click_channel) {
      uint32_t* const counts = data.data();
      pending->forEach([&](const PendingStart& open) {
        const auto bin = binner.divide<M>(static_cast<uint64_t>(tag.time - open.timestamp));
        ++counts[static_cast<uint64_t>(open.offset) + bin];
      });
    }
  }
}

bool TimeDifferencesND::step_indices(int channel) {
  for (size_t j = 0; j < sync_channels.size(); ++j) {
    if (channel == sync_channels[j]) {
      // A sync does not step: the dimension takes no start before its next tag.
      histogram_index[j] = -1;
      waiting[j] = 0;
      offset_valid = false;
    }
  }
  bool stepped = false;
  for (size_t j = 0; j < next_channels.size(); ++j) {
    if (channel != next_channels[j] || waiting[j]) continue;
    if (++histogram_index[j] == n_histograms[j]) {
      if (rollover[j]) {
        histogram_index[j] = 0;
      } else {
        waiting[j] = 1;
      }
    }
    stepped = true;
  }
  return stepped;
}

void TimeDifferencesND::update_offset() {
  offset_valid = true;
  flat_offset = 0;
  auto stride = static_cast<int64_t>(n_bins);
  for (size_t j = 0; j < histogram_index.size(); ++j) {
    flat_offset += histogram_index[j] * stride;
    stride *= n_histograms[j];
    offset_valid = offset_valid && histogram_index[j] >= 0 &&
                   histogram_index[j] < n_histograms[j] && !waiting[j];
  }
}

void TimeDifferencesND::expire(int64_t time) {
  detail::RingQueue<PendingStart>& open = *pending;
  while (!open.empty() && time - open.front().timestamp >= range) open.pop_front();
}

}  // namespace zeptick
