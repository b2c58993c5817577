#include "zeptick/counter.h"

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <utility>

namespace zeptick {

namespace {

int64_t checkedBinwidth(int64_t binwidth) {
  if (binwidth < 1) throw std::invalid_argument("binwidth must be at least 1 ps");
  return binwidth;
}

int32_t checkedNValues(int32_t n_values) {
  if (n_values < 1) throw std::invalid_argument("n_values must be at least 1");
  return n_values;
}

}  // namespace

Counter::Counter(ZeptickBase* tagger, std::vector<int> channels, int64_t binwidth, int32_t n_values)
    : IteratorBase(tagger),
      channels(std::move(channels)),
      binwidth(checkedBinwidth(binwidth)),
      n_values(checkedNValues(n_values)),
      ring_span(ringSpan(this->binwidth, this->n_values)) {
  data.assign(this->channels.size() * (static_cast<size_t>(this->n_values) + 1), 0);
  for (int channel : this->channels) registerChannel(channel);
  clear();
  finishInitialization();
}

Counter::~Counter() { stop(); }

void Counter::getData(std::function<int32_t*(size_t, size_t)> array_out) {
  const size_t rows = channels.size();
  const size_t columns = static_cast<size_t>(n_values);
  int32_t* out = array_out(rows, columns);
  auto guard = getLock();
  const size_t ring = columns + 1;
  // Oldest first: the column after the open one is the oldest finished bin.
  const size_t oldest = (static_cast<size_t>(index) + 1) % ring;
  for (size_t row = 0; row < rows; ++row) {
    const int32_t* in = data.data() + row * ring;
    int32_t* dest = out + row * columns;
    const size_t tail = std::min(columns, ring - oldest);
    std::copy(in + oldest, in + oldest + tail, dest);
    std::copy(in, in + (columns - tail), dest + tail);
  }
}

void Counter::getIndex(std::function<int64_t*(size_t)> array_out) {
  int64_t* out = array_out(static_cast<size_t>(n_values));
  for (int32_t i = 0; i < n_values; ++i) out[i] = binwidth * i;
}

void Counter::clear_impl() {
  bin_start = -1;
  index = 0;
  std::fill(data.begin(), data.end(), 0);
}

void Counter::on_start() {
  // The finished bins survive a stop; only the open bin starts afresh.
  bin_start = -1;
  zeroColumn(index);
}

void Counter::zeroColumn(int32_t column) {
  const size_t ring = static_cast<size_t>(n_values) + 1;
  for (size_t i = static_cast<size_t>(column); i < data.size(); i += ring) data[i] = 0;
}

int64_t Counter::ringSpan(int64_t binwidth, int32_t n_values) {
  const int64_t columns = static_cast<int64_t>(n_values) + 1;
  // A ring longer than the time axis can never be passed as a whole.
  if (binwidth > INT64_MAX / columns) return INT64_MAX;
  return columns * binwidth;
}

void Counter::setBinPosition(int64_t time) {
  if (time - bin_start >= ring_span) {
    // The whole ring has gone by. The new grid is derived from bin_start as the
    // clear leaves it (-1), so after a long gap bins start 1 ps before a
    // multiple of binwidth rather than continuing the old grid.
    clear_impl();
    bin_start = bin_start + binwidth * ((time - bin_start) / binwidth);
    return;
  }
  while (time - bin_start >= binwidth) {
    index = index == n_values ? 0 : index + 1;
    bin_start += binwidth;
    zeroColumn(index);
  }
}

bool Counter::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  if (bin_start == -1) bin_start = begin_time;
  const size_t ring = static_cast<size_t>(n_values) + 1;
  const size_t n = channels.size();
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      // Events were lost: the open bin would be short, so it is dropped.
      bin_start = -1;
      zeroColumn(index);
      continue;
    }
    for (size_t i = 0; i < n; ++i) {
      if (channels[i] != tag.channel) continue;
      if (bin_start == -1) bin_start = tag.time;
      setBinPosition(tag.time);
      // 32-bit counts wrap silently, like every histogram counter.
      int32_t& count = data[ring * i + static_cast<size_t>(index)];
      count = static_cast<int32_t>(static_cast<uint32_t>(count) + 1u);
    }
  }
  if (bin_start == -1) bin_start = end_time;
  setBinPosition(end_time);
  return false;
}

}  // namespace zeptick
