#include "emulator/stream/source_generator.h"

#include <algorithm>
#include <cmath>

namespace zeptick::emulator {
namespace {

constexpr uint64_t kFractionMask = 0xFFFFFFFFULL;
constexpr double kFractionScale = 0x1.0p32;

// Jitter beyond this many standard deviations is cut, which bounds how far an
// edge can move ahead of its occurrence (probability of a cut: 2e-9).
constexpr double kJitterCut = 6.0;

// Occurrences to make room for: enough for `span` ps on average, plus a
// margin; a Poisson source that runs past it simply comes round again.
size_t roomFor(int64_t span, double mean_interval) {
  const double expected = static_cast<double>(span) / mean_interval;
  return static_cast<size_t>(std::min(expected + 4 * std::sqrt(expected), 65536.0)) + 16;
}

}  // namespace

void EdgeBuffer::dropFront(size_t n) {
  std::copy(edges_.get() + n, edges_.get() + size_, edges_.get());
  size_ -= n;
}

void EdgeBuffer::reallocate(size_t capacity) {
  std::unique_ptr<int64_t[]> grown(new int64_t[capacity]);
  if (size_ > 0) std::copy(edges_.get(), edges_.get() + size_, grown.get());
  edges_ = std::move(grown);
  capacity_ = capacity;
}

void Lane::settle(int64_t end) {
  for (size_t i = std::max(sorted, head + 1); !ordered && i < edges.size(); ++i) {
    const int64_t v = edges[i];
    if (edges[i - 1] <= v) continue;
    size_t j = i;
    for (; j > head && edges[j - 1] > v; --j) edges[j] = edges[j - 1];
    edges[j] = v;
  }
  sorted = edges.size();
  size_t r = edges.size();
  while (r > head && edges[r - 1] >= end) --r;
  ready = r;
}

void Lane::consume() {
  head = ready;
  if (head == edges.size()) {
    edges.clear();
    head = sorted = ready = 0;
  } else if (head >= 1024 && head * 2 >= edges.size()) {
    edges.dropFront(head);
    sorted -= head;
    ready -= head;
    head = 0;
  }
}

void Lane::reset() {
  edges.clear();
  head = sorted = ready = 0;
}

void Lane::rebase(int64_t shift) {
  for (int64_t& e : edges) e -= shift;
}

Source::Source(const SourceDescription& description, const std::vector<int64_t>& latency,
               int inputs, uint64_t seed)
    : timing_(description.timing),
      seeded_(description.seed.has_value()),
      random_(seed),
      amplitude_(description.amplitude_volts),
      rate_(description.occurrenceRate()),
      width_(std::max<int64_t>(1, std::llround(description.width_ps))),
      sigma_(description.jitter_ps),
      clamp_(description.jitter_ps > 0
                 ? static_cast<int64_t>(std::ceil(kJitterCut * description.jitter_ps))
                 : 0),
      clamp_limit_(static_cast<double>(clamp_)) {
  // A source of its own seed may span boards with different latencies, so its occurrences
  // are measured from the earliest delay alone; a board's own source starts at its earliest edge.
  std::vector<int64_t> base;
  std::vector<int64_t> delays;
  for (const SourceMember& m : description.members) {
    delays.push_back(std::llround(m.delay_ps));
    base.push_back(delays.back() + (m.here ? latency[static_cast<size_t>(m.input)] : 0));
  }
  const int64_t min_base = description.seed ? *std::min_element(delays.begin(), delays.end())
                                            : *std::min_element(base.begin(), base.end());

  const bool negative = amplitude_ < 0;
  for (size_t i = 0; i < description.members.size(); ++i) {
    const int input = description.members[i].input;
    const int rising = input;
    const int falling = inputs + input;
    auto lane_of = [this](int index, int in) {
      for (size_t l = 0; l < lanes_.size(); ++l) {
        if (lanes_[l].index == index) return l;
      }
      Lane lane;
      lane.index = index;
      lane.input = in;
      lanes_.push_back(std::move(lane));
      return lanes_.size() - 1;
    };
    Member m;
    m.offset = base[i] - min_base + clamp_;
    m.jittered = description.members[i].jittered && sigma_ > 0;
    m.here = description.members[i].here;
    m.lead_lane = lane_of(negative ? falling : rising, input);
    m.trail_lane = lane_of(negative ? rising : falling, input);
    members_.push_back(m);
  }

  if (timing_ == SourceDescription::Timing::Periodic) {
    period_whole_ = static_cast<int64_t>(std::floor(description.period_ps));
    period_fraction_ = static_cast<uint64_t>(std::llround(
        (description.period_ps - static_cast<double>(period_whole_)) * kFractionScale));
    if (period_fraction_ > kFractionMask) {
      ++period_whole_;
      period_fraction_ = 0;
    }
    next_ = std::llround(description.phase_ps) + min_base - clamp_;
  } else {
    mean_interval_ = 1e12 / description.rate_hz;
  }

  // A lane fed by one member whose jitter cannot swap neighbours receives its
  // edges in order and needs no sorting.
  std::vector<int> feeders(lanes_.size());
  std::vector<bool> jittered(lanes_.size());
  for (const Member& m : members_) {
    for (size_t lane : {m.lead_lane, m.trail_lane}) {
      ++feeders[lane];
      if (m.jittered) jittered[lane] = true;
    }
  }
  const bool jitter_keeps_order =
      timing_ == SourceDescription::Timing::Periodic && period_whole_ > 2 * clamp_;
  for (size_t l = 0; l < lanes_.size(); ++l) {
    lanes_[l].ordered = feeders[l] == 1 && (!jittered[l] || jitter_keeps_order);
  }
  restart(0);
}

void Source::bind() {
  active_ = false;
  edges_per_occurrence_.assign(lanes_.size(), 0);
  cursors_.assign(lanes_.size(), nullptr);
  for (Member& m : members_) {
    m.lead = m.here && lanes_[m.lead_lane].active ? &lanes_[m.lead_lane] : nullptr;
    m.trail = m.here && lanes_[m.trail_lane].active ? &lanes_[m.trail_lane] : nullptr;
    active_ = active_ || m.lead != nullptr || m.trail != nullptr;
    if (m.lead != nullptr) ++edges_per_occurrence_[m.lead_lane];
    if (m.trail != nullptr) ++edges_per_occurrence_[m.trail_lane];
  }
}

double Source::activeEdgeRate() const {
  int edges = 0;
  for (const Member& m : members_) edges += (m.lead != nullptr) + (m.trail != nullptr);
  return rate_ * edges;
}

void Source::restart(int64_t from) {
  // A source of its own seed keeps one sequence in absolute time, so that the boards it spans
  // agree whenever each of them switched it on: it skips ahead, drawing what it would have.
  if (seeded_ && timing_ == SourceDescription::Timing::Poisson && started_) {
    while (next_ < from) {
      for (const Member& m : members_) {
        if (m.jittered) jitter();
      }
      advancePoisson();
    }
    return;
  }
  started_ = true;
  if (timing_ == SourceDescription::Timing::Poisson) {
    next_ = from;
    fraction_ = 0;
    advance();
    return;
  }
  if (next_ >= from) return;
  const double period =
      static_cast<double>(period_whole_) + static_cast<double>(period_fraction_) / kFractionScale;
  const double estimate = std::floor(static_cast<double>(from - next_) / period) - 1;
  if (estimate > 0) advancePeriods(static_cast<uint64_t>(estimate));
  while (next_ < from) advancePeriods(1);
}

void Source::advancePeriods(uint64_t periods) {
  __extension__ using Wide = unsigned __int128;
  const Wide fraction = static_cast<Wide>(periods) * period_fraction_ + fraction_;
  next_ += static_cast<int64_t>(periods) * period_whole_ + static_cast<int64_t>(fraction >> 32);
  fraction_ = static_cast<uint64_t>(fraction) & kFractionMask;
}

void Source::advance() {
  if (timing_ == SourceDescription::Timing::Periodic) {
    advancePeriodic();
  } else {
    advancePoisson();
  }
}

void Source::emit(int64_t reference) {
  for (Member& m : members_) {
    int64_t t = reference + m.offset;
    if (m.jittered) t += jitter();
    if (m.lead != nullptr) m.lead->edges.push_back(t);
    if (m.trail != nullptr) m.trail->edges.push_back(t + width_);
  }
}

// One member: a laser, a detector's dark counts, a pulse train. The hot loops
// of the common sources, with the timing and the jitter decided at compile
// time, writing into room made in the lanes ahead of the loop.
template <bool kPeriodic, bool kJitter>
void Source::generateSingle(int64_t end) {
  Lane* lead = members_[0].lead;
  Lane* trail = members_[0].trail;
  const int64_t offset = members_[0].offset;
  const int64_t width = width_;
  // Settings in locals too: the edge stores could alias the members.
  const double sigma = sigma_;
  const double clamp = clamp_limit_;
  const int64_t period_whole = period_whole_;
  const uint64_t period_fraction = period_fraction_;
  const double mean_interval = mean_interval_;
  // The state lives in locals during the loop: the edge stores could alias members.
  int64_t next = next_;
  uint64_t fraction = fraction_;
  Random random = random_;
  while (next < end) {
    const size_t room =
        roomFor(end - next, kPeriodic ? static_cast<double>(period_whole) : mean_interval);
    int64_t* lead_at = lead != nullptr ? lead->grow(room) : nullptr;
    int64_t* trail_at = trail != nullptr ? trail->grow(room) : nullptr;
    size_t k = 0;
    for (; k < room && next < end; ++k) {
      int64_t t = next + offset;
      if constexpr (kJitter) t += roundedJitter(sigma, clamp, random);
      if (lead_at != nullptr) lead_at[k] = t;
      if (trail_at != nullptr) trail_at[k] = t + width;
      if constexpr (kPeriodic) {
        step(next, fraction, period_whole, period_fraction);
      } else {
        poissonStep(mean_interval, random, next, fraction);
      }
    }
    if (lead != nullptr) lead->shrink(room - k);
    if (trail != nullptr) trail->shrink(room - k);
  }
  next_ = next;
  fraction_ = fraction;
  random_ = random;
}

void Source::generate(int64_t end) {
  if (members_.size() == 1) {
    const bool periodic = timing_ == SourceDescription::Timing::Periodic;
    const bool jittered = members_[0].jittered;
    if (periodic && jittered) return generateSingle<true, true>(end);
    if (periodic) return generateSingle<true, false>(end);
    if (jittered) return generateSingle<false, true>(end);
    return generateSingle<false, false>(end);
  }
  if (timing_ == SourceDescription::Timing::Poisson) {
    const Member& first = members_[0];
    const Member& second = members_[1];
    // Photon pairs seen on their leading edges only: the usual correlated source.
    if (members_.size() == 2 && first.trail == nullptr && second.trail == nullptr &&
        first.lead != nullptr && second.lead != nullptr && first.lead != second.lead &&
        !first.jittered) {
      return second.jittered ? generatePair<true>(end) : generatePair<false>(end);
    }
    return generateCascade(end);
  }
  while (next_ < end) {
    emit(next_);
    advance();
  }
}

// Two members on lanes of their own, leading edges only: generateCascade()
// without the walk over the members.
template <bool kJitter>
void Source::generatePair(int64_t end) {
  Lane& first = *members_[0].lead;
  Lane& second = *members_[1].lead;
  const int64_t first_offset = members_[0].offset;
  const int64_t second_offset = members_[1].offset;
  int64_t next = next_;
  uint64_t fraction = fraction_;
  Random random = random_;
  const double sigma = sigma_;
  const double clamp = clamp_limit_;
  const double mean_interval = mean_interval_;
  while (next < end) {
    const size_t room = roomFor(end - next, mean_interval);
    int64_t* const first_at = first.grow(room);
    int64_t* const second_at = second.grow(room);
    size_t k = 0;
    for (; k < room && next < end; ++k) {
      first_at[k] = next + first_offset;
      int64_t t = next + second_offset;
      if constexpr (kJitter) t += roundedJitter(sigma, clamp, random);
      second_at[k] = t;
      poissonStep(mean_interval, random, next, fraction);
    }
    first.shrink(room - k);
    second.shrink(room - k);
  }
  next_ = next;
  fraction_ = fraction;
  random_ = random;
}

// Pairs, cascades and bursts: Poisson occurrences with several members, the
// state in locals and the edges written into room made ahead, as in
// generateSingle(); several members may feed one lane.
void Source::generateCascade(int64_t end) {
  int64_t next = next_;
  uint64_t fraction = fraction_;
  Random random = random_;
  const int64_t width = width_;
  const double sigma = sigma_;
  const double clamp = clamp_limit_;
  const double mean_interval = mean_interval_;
  int64_t** const cursors = cursors_.data();
  while (next < end) {
    const size_t room = roomFor(end - next, mean_interval);
    for (size_t l = 0; l < lanes_.size(); ++l) {
      if (edges_per_occurrence_[l] != 0)
        cursors[l] = lanes_[l].grow(room * edges_per_occurrence_[l]);
    }
    size_t k = 0;
    for (; k < room && next < end; ++k) {
      for (const Member& m : members_) {
        int64_t t = next + m.offset;
        if (m.jittered) t += roundedJitter(sigma, clamp, random);
        if (m.lead != nullptr) *cursors[m.lead_lane]++ = t;
        if (m.trail != nullptr) *cursors[m.trail_lane]++ = t + width;
      }
      poissonStep(mean_interval, random, next, fraction);
    }
    for (size_t l = 0; l < lanes_.size(); ++l) {
      if (edges_per_occurrence_[l] != 0) lanes_[l].shrink((room - k) * edges_per_occurrence_[l]);
    }
  }
  next_ = next;
  fraction_ = fraction;
  random_ = random;
}

void Source::rebase(int64_t shift) {
  next_ -= shift;
  for (Lane& lane : lanes_) lane.rebase(shift);
  // A source left idle while the origin moves on would drift out of range;
  // periodic timing keeps its phase, Poisson timing draws anew when it wakes.
  constexpr int64_t kOldest = -(int64_t{1} << 52);
  if (next_ < kOldest) {
    if (timing_ == SourceDescription::Timing::Periodic) {
      restart(kOldest);
    } else {
      next_ = kOldest;
    }
  }
}

}  // namespace zeptick::emulator
