#include "zeptick/countrate.h"

#include <algorithm>
#include <utility>

namespace zeptick {

Countrate::Countrate(ZeptickBase* tagger, std::vector<int> channels)
    : IteratorBase(tagger),
      channels(std::move(channels)),
      counts(this->channels.size(), 0),
      counts_total(this->channels.size(), 0) {
  clear();
  for (int channel : this->channels) registerChannel(channel);
  finishInitialization();
}

Countrate::~Countrate() { stop(); }

void Countrate::getData(std::function<double*(size_t)> array_out) {
  // `channels` never changes after construction, so its size is safe to read unlocked.
  double* out = array_out(channels.size());
  auto guard = getLock();
  const int64_t span = last_time - first_time;
  for (size_t i = 0; i < counts.size(); ++i) {
    out[i] = span == 0 ? 0.0 : static_cast<double>(counts[i]) * 1e12 / static_cast<double>(span);
  }
}

void Countrate::getCountsTotal(std::function<int64_t*(size_t)> array_out) {
  int64_t* out = array_out(channels.size());
  auto guard = getLock();
  std::copy(counts_total.begin(), counts_total.end(), out);
}

void Countrate::clear_impl() {
  last_time = 0;
  first_time = 0;
  std::fill(counts.begin(), counts.end(), 0);
  std::fill(counts_total.begin(), counts_total.end(), 0);
}

void Countrate::on_start() { clear_impl(); }

bool Countrate::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  // Only the totals are counted per tag: one running sum per entry keeps the
  // loop short and branch-free. Meanwhile `counts` holds each total as it was
  // at the last Error, and becomes "since then" again at the end.
  int64_t first = first_time != 0 ? first_time : begin_time;
  const int* const wanted = channels.data();
  const size_t n = channels.size();
  int64_t* const at_error = counts.data();
  int64_t* const total = counts_total.data();
  for (size_t i = 0; i < n; ++i) at_error[i] = total[i] - at_error[i];

  for (const Tag& tag : tags) {
    if (isCountedEvent(tag)) {
      const int64_t events = tag.type == Tag::Type::TimeTag ? 1 : tag.missed_events;
      bool listed = false;
      for (size_t i = 0; i < n; ++i) {
        const bool match = wanted[i] == tag.channel;
        total[i] += match ? events : 0;
        listed |= match;
      }
      if (listed && first == 0) first = tag.time;
    } else if (tag.type == Tag::Type::Error) {
      // The rate restarts after a device error; the totals carry on.
      first = 0;
      std::copy(total, total + n, at_error);
    }
  }

  for (size_t i = 0; i < n; ++i) at_error[i] = total[i] - at_error[i];
  last_time = end_time;
  first_time = first != 0 ? first : end_time;
  return false;
}

}  // namespace zeptick
