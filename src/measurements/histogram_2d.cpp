#include "zeptick/histogram_2d.h"

#include <algorithm>

namespace zeptick {

namespace {

size_t extent(int n_bins) { return n_bins > 0 ? static_cast<size_t>(n_bins) : 0; }

// The cell index of one difference, or -1 when it lies outside the histogram.
// A width below 1 has no cells, so a bad argument cannot fault a worker.
int64_t binOf(int64_t difference, int64_t binwidth, int n_bins) {
  if (binwidth < 1) return -1;
  const int64_t bin = difference / binwidth;
  return bin < n_bins ? bin : -1;
}

void writeEdges(int64_t* out, size_t n, int64_t binwidth) {
  for (size_t i = 0; i < n; ++i) out[i] = static_cast<int64_t>(i) * binwidth;
}

}  // namespace

Histogram2D::Histogram2D(ZeptickBase* tagger, int start_channel, int stop_channel_1,
                         int stop_channel_2, int64_t binwidth_1, int64_t binwidth_2, int n_bins_1,
                         int n_bins_2)
    : IteratorBase(tagger),
      start_channel(start_channel),
      stop_channel_1(stop_channel_1),
      stop_channel_2(stop_channel_2),
      binwidth_1(binwidth_1),
      binwidth_2(binwidth_2),
      n_bins_1(n_bins_1),
      n_bins_2(n_bins_2) {
  registerChannel(start_channel);
  registerChannel(stop_channel_1);
  registerChannel(stop_channel_2);
  // A 64-bit size: a 32-bit product could wrap below the cells it must hold.
  data.assign(extent(n_bins_1) * extent(n_bins_2), 0);
  clear();
  finishInitialization();
}

Histogram2D::~Histogram2D() { stop(); }

void Histogram2D::getData(std::function<int32_t*(size_t, size_t)> array_out) {
  int32_t* out = array_out(extent(n_bins_1), extent(n_bins_2));
  auto guard = getLock();
  std::transform(data.begin(), data.end(), out,
                 [](uint32_t count) { return static_cast<int32_t>(count); });
}

void Histogram2D::getIndex(std::function<int64_t*(size_t, size_t, size_t)> array_out) {
  const size_t rows = extent(n_bins_1);
  const size_t columns = extent(n_bins_2);
  int64_t* out = array_out(rows, columns, 2);
  for (size_t i = 0; i < rows; ++i) {
    for (size_t j = 0; j < columns; ++j) {
      *out++ = static_cast<int64_t>(i) * binwidth_1;
      *out++ = static_cast<int64_t>(j) * binwidth_2;
    }
  }
}

void Histogram2D::getIndex_1(std::function<int64_t*(size_t)> array_out) {
  writeEdges(array_out(extent(n_bins_1)), extent(n_bins_1), binwidth_1);
}

void Histogram2D::getIndex_2(std::function<int64_t*(size_t)> array_out) {
  writeEdges(array_out(extent(n_bins_2)), extent(n_bins_2), binwidth_2);
}

void Histogram2D::clear_impl() {
  std::fill(data.begin(), data.end(), 0);
  have_start = have_stop_1 = have_stop_2 = false;
}

bool Histogram2D::next_impl(std::vector<Tag>& tags, int64_t, int64_t) {
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      have_start = have_stop_1 = have_stop_2 = false;
      continue;
    }
    // One tag may take several roles; this order makes a start forget earlier
    // stops, and a tag that is start and stop a difference of 0.
    if (tag.channel == start_channel) {
      have_start = true;
      have_stop_1 = have_stop_2 = false;
      start_time = tag.time;
    }
    if (tag.channel == stop_channel_1) {
      have_stop_1 = true;
      stop_time_1 = tag.time;
    }
    if (tag.channel == stop_channel_2) {
      have_stop_2 = true;
      stop_time_2 = tag.time;
    }
    if (have_start && have_stop_1 && have_stop_2) {
      const int64_t bin_1 = binOf(stop_time_1 - start_time, binwidth_1, n_bins_1);
      const int64_t bin_2 = binOf(stop_time_2 - start_time, binwidth_2, n_bins_2);
      if (bin_1 >= 0 && bin_2 >= 0) ++data[static_cast<size_t>(bin_1 * n_bins_2 + bin_2)];
      have_start = have_stop_1 = have_stop_2 = false;
    }
  }
  return false;
}

}  // namespace zeptick
