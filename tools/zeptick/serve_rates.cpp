#include "serve_rates.h"

#include <algorithm>
#include <chrono>

namespace zeptick::cli::serve {

RateHistory::RateHistory(ZeptickBase* tagger, std::vector<int> channels)
    : IteratorBase(tagger), channels(std::move(channels)), counts(this->channels.size(), 0) {
  for (int channel : this->channels) registerChannel(channel);
  finishInitialization();
}

RateHistory::~RateHistory() { stop(); }

RateHistory::Points RateHistory::points() {
  auto guard = getLock();
  return {{times.begin(), times.end()}, {rates.begin(), rates.end()}};
}

RateHistory::Points RateHistory::latest() {
  auto guard = getLock();
  if (times.empty()) return {};
  return {{times.back()}, {rates.back()}};
}

void RateHistory::clear_impl() {
  point_end = 0;
  std::fill(counts.begin(), counts.end(), 0);
  times.clear();
  rates.clear();
}

void RateHistory::closePoint(double at) {
  std::vector<double> row(counts.size());
  for (size_t i = 0; i < counts.size(); ++i)
    row[i] = static_cast<double>(counts[i]) * 1e12 / kRateIntervalPs;
  std::fill(counts.begin(), counts.end(), 0);
  times.push_back(at);
  rates.push_back(std::move(row));
  if (times.size() > kRatePoints) {
    times.pop_front();
    rates.pop_front();
  }
}

// Closes every point that ends by stream time `time`. A point's wall time is
// now less the stream time still to come in this block, so points closed
// together by one late block keep their spacing.
void RateHistory::advanceTo(int64_t time, int64_t end_time, double now) {
  if (time - point_end > kRateIntervalPs * static_cast<int64_t>(kRatePoints)) {
    // After a gap longer than the history, only zeros would follow; skip them.
    closePoint(now);
    point_end = time + kRateIntervalPs;
    return;
  }
  while (time - point_end >= 0) {
    closePoint(now - static_cast<double>(end_time - point_end) * 1e-12);
    point_end += kRateIntervalPs;
  }
}

bool RateHistory::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  const double now =
      std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  if (point_end == 0) point_end = begin_time + kRateIntervalPs;
  for (const Tag& tag : tags) {
    advanceTo(tag.time, end_time, now);
    if (!isCountedEvent(tag)) continue;
    const int64_t events = tag.type == Tag::Type::TimeTag ? 1 : tag.missed_events;
    for (size_t i = 0; i < channels.size(); ++i)
      if (channels[i] == tag.channel) counts[i] += events;
  }
  advanceTo(end_time, end_time, now);
  return false;
}

}  // namespace zeptick::cli::serve
