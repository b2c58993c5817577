#include "zeptick/correlation.h"

#include <algorithm>
#include <stdexcept>

#include "measurements/histogram_common.h"
#include "measurements/ring_queue.h"

namespace zeptick {

Correlation::Correlation(ZeptickBase* tagger, int channel_1, int channel_2, int64_t binwidth,
                         int n_bins)
    : IteratorBase(tagger),
      stamps{std::make_unique<detail::RingQueue<int64_t>>(),
             std::make_unique<detail::RingQueue<int64_t>>()} {
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

void Correlation::trimOlderThan(detail::RingQueue<int64_t>& queue, int64_t now) {
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
  detail::RingQueue<int64_t>& first = *stamps[0];
  detail::RingQueue<int64_t>& second = *stamps[1];
  const int channel_1 = channels[0];
  const int channel_2 = channels[1];
  const int64_t shift = half_range;
  const int64_t bins = n_bins;
  int32_t* const counters = data.data();
  int64_t segment_begin = begin_time;

  // A queue is trimmed only just before a tag of the other channel scans it,
  // and at the end of the block: the pairs come out the same as with a trim on
  // every tag, for a test less per tag. The scanned offsets then run from
  // -half_range to +half_range, so offset + half_range is a non-negative delta
  // within the binner's range; only the top edge can give bin n_bins, dropped.
  auto count = [&](int64_t offset) {
    const uint64_t bin = binner.template divide<M>(static_cast<uint64_t>(offset + shift));
    if (static_cast<int64_t>(bin) < bins) detail::wrappingIncrement(counters[bin]);
  };

  for (const Tag& tag : tags) {
    switch (tag.type) {
      case Tag::Type::TimeTag: {
        const int64_t time = tag.time;
        if (tag.channel == channel_1) {
          trimOlderThan(second, time);
          ++counts[0];
          first.push_back(time);
          second.forEach([&](int64_t stamp) { count(detail::timeDifference(time, stamp)); });
        }
        if (tag.channel == channel_2) {
          trimOlderThan(first, time);
          // Against channel 1's stamps, which hold this very tag in an autocorrelation.
          ++counts[1];
          second.push_back(time);
          first.forEach([&](int64_t stamp) { count(detail::timeDifference(stamp, time)); });
        }
        break;
      }
      case Tag::Type::Error:
        first.clear();
        second.clear();
        break;
      case Tag::Type::OverflowBegin:
        capture_duration += tag.time - segment_begin;
        in_overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        if (in_overflow) {
          segment_begin = tag.time;
          in_overflow = false;
        } else {
          // Began inside an overflow: the time before this end is not trustworthy.
          capture_duration = 0;
        }
        break;
      default:
        break;
    }
  }
  if (!in_overflow) capture_duration += end_time - segment_begin;
}

}  // namespace zeptick
