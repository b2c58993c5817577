#include "zeptick/histogram_log_bins.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace zeptick {

namespace {

// 10^exponent ps, truncated. Out-of-range results saturate rather than invoke
// an undefined conversion, so absurd exponents give an edge no span can pass.
int64_t edgeFromExponent(double exponent) {
  const double value = std::pow(10.0, exponent);
  if (!(value < 9223372036854775808.0)) return INT64_MAX;
  return static_cast<int64_t>(value);
}

std::vector<int64_t> logEdges(double exp_start, double exp_stop, int n_bins) {
  const double a = exp_start + 12;
  const double b = (exp_stop + 12) - a;
  std::vector<int64_t> edges;
  edges.push_back(edgeFromExponent(a));
  for (int i = 1; i <= n_bins; ++i) {
    edges.push_back(edgeFromExponent(static_cast<double>(i) * b / n_bins + a));
  }
  return edges;
}

}  // namespace

HistogramLogBins::HistogramLogBins(ZeptickBase* tagger, int click_channel, int start_channel,
                                   double exp_start, double exp_stop, int n_bins)
    : IteratorBase(tagger),
      click_channel(click_channel),
      start_channel(start_channel),
      bin_edges(logEdges(exp_start, exp_stop, n_bins)) {
  registerChannel(start_channel);
  registerChannel(click_channel);
  read_index.assign(bin_edges.size(), 0);
  counts.assign(bin_edges.size() - 1, 0);
  ring_buffer.assign(16, 0);
  ring_mask = 15;
  settle_after_reset = true;
  clear();
  finishInitialization();
}

HistogramLogBins::~HistogramLogBins() { stop(); }

void HistogramLogBins::getData(std::function<uint64_t*(size_t)> array_out) {
  uint64_t* out = array_out(counts.size());
  auto guard = getLock();
  std::copy(counts.begin(), counts.end(), out);
}

void HistogramLogBins::getBinEdges(std::function<int64_t*(size_t)> array_out) {
  int64_t* out = array_out(bin_edges.size());
  std::copy(bin_edges.begin(), bin_edges.end(), out);
}

void HistogramLogBins::getDataNormalizedCountsPerPs(std::function<double*(size_t)> array_out) {
  double* out = array_out(counts.size());
  auto guard = getLock();
  for (size_t i = 0; i < counts.size(); ++i) {
    out[i] = static_cast<double>(counts[i]) / static_cast<double>(bin_edges[i + 1] - bin_edges[i]);
  }
}

void HistogramLogBins::getDataNormalizedG2(std::function<double*(size_t)> array_out) {
  double* out = array_out(counts.size());
  auto guard = getLock();
  const double scale = static_cast<double>(capture_duration) /
                       (static_cast<double>(click_count) * static_cast<double>(start_count));
  for (size_t i = 0; i < counts.size(); ++i) {
    out[i] = static_cast<double>(counts[i]) * scale /
             static_cast<double>(bin_edges[i + 1] - bin_edges[i]);
  }
}

void HistogramLogBins::clear_impl() { clear_internal(true); }

void HistogramLogBins::clear_internal(bool full) {
  if (full) {
    std::fill(counts.begin(), counts.end(), 0);
    click_count = 0;
    start_count = 0;
    capture_duration = 0;
  }
  std::fill(read_index.begin(), read_index.end(), 0);
  ring_write = 0;
  reset_time = 0;
  settling = settle_after_reset;
}

void HistogramLogBins::forget_ring(int64_t time) {
  std::fill(read_index.begin(), read_index.end(), 0);
  ring_write = 0;
  settling = settle_after_reset;
  reset_time = time;
}

bool HistogramLogBins::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  const int64_t range = bin_edges.back();
  int64_t segment_begin = begin_time;
  if (reset_time == 0) reset_time = begin_time;
  for (const Tag& tag : tags) {
    if (settling && tag.time - reset_time > range) {
      // Valid time begins when the whole range had been seen, not at this tag.
      settling = false;
      segment_begin = reset_time + range;
    }
    switch (tag.type) {
      case Tag::Type::TimeTag:
        if (tag.channel == start_channel) {
          if (!settling) ++start_count;
          store_start(tag.time);
        }
        // Stored first, so a tag on both channels sees itself at a difference of 0.
        if (tag.channel == click_channel && !settling) {
          ++click_count;
          on_stop_event(tag.time);
        }
        break;
      case Tag::Type::Error:
        // The time since segment_begin is dropped: nothing says how much of it was valid.
        forget_ring(tag.time);
        break;
      case Tag::Type::OverflowBegin:
        if (!settling) capture_duration += tag.time - segment_begin;
        forget_ring(tag.time);
        in_overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        clear_internal(false);
        reset_time = tag.time;
        in_overflow = false;
        segment_begin = tag.time;
        break;
      case Tag::Type::MissedEvents:
        break;
    }
  }
  if (!settling && !in_overflow) capture_duration += end_time - segment_begin;
  return false;
}

void HistogramLogBins::store_start(int64_t time) {
  const uint32_t oldest = read_index.back();
  if (((ring_write + 1 - oldest) & ring_mask) == 0) {
    // Full. Without clicks the read indices stand still, so first drop the
    // starts that have left the range for good; grow only if that frees too
    // little to pay for itself, which keeps growth amortised.
    if (drop_expired_starts(time) < (ring_mask + 1) / 4) increase_ring_buffer();
  }
  ring_buffer[ring_write & ring_mask] = time;
  ++ring_write;
}

uint32_t HistogramLogBins::drop_expired_starts(int64_t now) {
  // A start at or before now - range is beyond every edge for each later
  // click, so each index would step over it anyway: moving the indices past it
  // now leaves every later count unchanged.
  const int64_t limit = now - bin_edges.back();
  const uint32_t oldest = read_index.back();
  uint32_t index = oldest;
  while (index != ring_write && limit - ring_buffer[index & ring_mask] >= 0) ++index;
  const uint32_t dropped = index - oldest;
  for (uint32_t& edge_index : read_index) {
    if (edge_index - oldest < dropped) edge_index = index;
  }
  return dropped;
}

void HistogramLogBins::increase_ring_buffer() {
  const size_t size = ring_buffer.size();
  if (size >= (size_t{1} << 32)) {
    throw std::runtime_error("maximum buffer size for HistogramLogBins");
  }
  // Both halves hold the same data, so every absolute index is valid under
  // the new mask whichever value its new top bit has: nothing moves.
  ring_buffer.resize(2 * size);
  std::copy(ring_buffer.begin(), ring_buffer.begin() + static_cast<std::ptrdiff_t>(size),
            ring_buffer.begin() + static_cast<std::ptrdiff_t>(size));
  ring_mask = ring_mask * 2 + 1;
}

void HistogramLogBins::on_stop_event(int64_t time) {
  const int64_t* const ring = ring_buffer.data();
  const uint32_t mask = ring_mask;
  const uint32_t end = ring_write;
  const size_t n_edges = bin_edges.size();
  uint32_t* const index = read_index.data();
  for (size_t i = 0; i < n_edges; ++i) {
    // Leaves index[i] at the first start later than time - edge i.
    const int64_t limit = time - bin_edges[i];
    uint32_t at = index[i];
    while (at != end && limit - ring[at & mask] >= 0) ++at;
    index[i] = at;
  }
  uint64_t* const bins = counts.data();
  for (size_t i = 0; i + 1 < n_edges; ++i)
    bins[i] += static_cast<uint32_t>(index[i] - index[i + 1]);
}

}  // namespace zeptick
