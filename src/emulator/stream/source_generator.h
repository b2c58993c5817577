#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "emulator/stream/source_config.h"
#include "emulator/stream/source_random.h"

namespace zeptick::emulator {

/// A growable array of edge times that leaves room uninitialised until it is
/// written, which the generation loops rely on. Not thread-safe.
class EdgeBuffer {
 public:
  size_t size() const { return size_; }
  int64_t* data() { return edges_.get(); }
  const int64_t* data() const { return edges_.get(); }
  int64_t& operator[](size_t i) { return edges_[i]; }
  int64_t operator[](size_t i) const { return edges_[i]; }
  int64_t* begin() { return edges_.get(); }
  int64_t* end() { return edges_.get() + size_; }

  /// Appends `n` unwritten edges; returns where they start.
  int64_t* grow(size_t n) {
    if (size_ + n > capacity_) reallocate(std::max(2 * capacity_, size_ + n + 64));
    size_ += n;
    return edges_.get() + size_ - n;
  }
  void push_back(int64_t t) { *grow(1) = t; }
  /// Drops the last `n` edges.
  void shrink(size_t n) { size_ -= n; }
  /// Drops the first `n` edges.
  void dropFront(size_t n);
  void clear() { size_ = 0; }

 private:
  void reallocate(size_t capacity);

  std::unique_ptr<int64_t[]> edges_;
  size_t size_ = 0;
  size_t capacity_ = 0;
};

/// The edge times that one source puts on one hardware channel, in stream ps,
/// waiting for the firmware. Edges are appended in occurrence order, which
/// jitter and overlapping bursts may disturb slightly; settle() restores order.
struct Lane {
  int index = 0;  ///< hardware channel
  int input = 0;  ///< hardware input the channel belongs to
  bool active = false;
  bool ordered = false;  ///< edges always arrive in order: settle() need not sort
  EdgeBuffer edges;
  size_t head = 0;    ///< first edge the firmware has not taken
  size_t sorted = 0;  ///< edges[0, sorted) are in order
  size_t ready = 0;   ///< edges[head, ready) lie before the current window's end

  /// Sorts the edges appended since the last call and marks those before `end` ready.
  void settle(int64_t end);
  /// Drops the ready edges, which the firmware has taken.
  void consume();
  void reset();
  void rebase(int64_t shift);
  /// Appends `n` edges to be written through the pointer returned.
  int64_t* grow(size_t n) { return edges.grow(n); }
  /// Takes back the last `n` edges of a grow() that were not written.
  void shrink(size_t n) { edges.shrink(n); }
  int64_t front() const {
    return head < edges.size() ? edges[head] : std::numeric_limits<int64_t>::max();
  }
};

/// One signal source at run time. Occurrences come at periodic or Poisson
/// times; each gives a pulse per member, whose leading and trailing edges go
/// to the member's lanes. The occurrence time used here is a reference that
/// lies at or before every edge it produces (latencies, delays and the jitter,
/// cut at six standard deviations, are folded into non-negative offsets), so
/// once all occurrences before time T are generated, no later edge lies before T.
class Source {
 public:
  /// `latency` gives the path latency of each hardware input; `inputs` is the
  /// board's input count (the falling channel of input i is inputs + i).
  Source(const SourceDescription& description, const std::vector<int64_t>& latency, int inputs,
         uint64_t seed);
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;

  /// Generates every occurrence with a reference time before `end` (ps).
  void generate(int64_t end);
  /// Continues from `from` (ps) after a pause: periodic timing keeps its phase,
  /// Poisson timing starts afresh.
  void restart(int64_t from);
  /// Reference time of the next occurrence: no edge to come lies before it.
  int64_t nextReference() const { return next_; }
  void rebase(int64_t shift);

  std::vector<Lane>& lanes() { return lanes_; }
  /// Points the members at their active lanes; call after changing Lane::active.
  void bind();
  bool active() const { return active_; }
  /// Edges per second on the active lanes.
  double activeEdgeRate() const;
  double amplitude() const { return amplitude_; }

 private:
  struct Member {
    int64_t offset = 0;  ///< reference to leading edge, jitter excluded
    bool jittered = false;
    bool here = true;  ///< drives an input of this board
    size_t lead_lane = 0;
    size_t trail_lane = 0;
    Lane* lead = nullptr;
    Lane* trail = nullptr;
  };

  void emit(int64_t reference);
  template <bool kPeriodic, bool kJitter>
  void generateSingle(int64_t end);
  template <bool kJitter>
  void generatePair(int64_t end);
  void generateCascade(int64_t end);
  void advance();
  void advancePeriods(uint64_t periods);

  /// Moves the time of the next occurrence on by whole ps plus a 32-bit
  /// binary fraction: an integer sum, so the loop-carried work per occurrence
  /// is a few additions, whatever produced the interval.
  static void step(int64_t& next, uint64_t& fraction, int64_t whole, uint64_t part) {
    fraction += part;
    next += whole + static_cast<int64_t>(fraction >> 32);
    fraction &= 0xFFFFFFFFULL;
  }

  void advancePeriodic() { step(next_, fraction_, period_whole_, period_fraction_); }

  void advancePoisson() { poissonStep(mean_interval_, random_, next_, fraction_); }

  /// One exponential interval, kept to 2^-32 ps through the fraction. Below
  /// 2^30 ps the interval scaled by 2^32 is the same whole and fraction in
  /// one exact conversion.
  static void poissonStep(double mean_interval, Random& random, int64_t& next, uint64_t& fraction) {
    const double interval = mean_interval * random.exponential();
    if (interval < 0x1.0p30) [[likely]] {
      fraction += static_cast<uint64_t>(static_cast<int64_t>(interval * 0x1.0p32));
      next += static_cast<int64_t>(fraction >> 32);
      fraction &= 0xFFFFFFFFULL;
      return;
    }
    const auto whole = static_cast<int64_t>(interval);
    const double part = (interval - static_cast<double>(whole)) * 0x1.0p32;
    step(next, fraction, whole, static_cast<uint64_t>(static_cast<int64_t>(part)));
  }

  /// Normal jitter rounded to whole ps, cut at the clamp. Rounding adds
  /// 1.5 * 2^52, which leaves the nearest integer in the low mantissa bits
  /// (exact while |v| < 2^51; the clamp keeps it far below).
  int64_t jitter() { return roundedJitter(sigma_, clamp_limit_, random_); }
  static int64_t roundedJitter(double sigma, double clamp, Random& random) {
    const double v = std::min(std::max(sigma * random.normal(), -clamp), clamp);
    return std::bit_cast<int64_t>(v + 0x1.8p52) - std::bit_cast<int64_t>(0x1.8p52);
  }

  SourceDescription::Timing timing_;
  bool seeded_ = false;   ///< a random stream of its own, shared by the boards it spans
  bool started_ = false;  ///< restart() ran once
  Random random_;
  std::vector<Member> members_;
  std::vector<Lane> lanes_;
  // Per lane, during generateCascade(): the active members' edges per
  // occurrence, and where the next edge goes.
  std::vector<size_t> edges_per_occurrence_;
  std::vector<int64_t*> cursors_;
  bool active_ = false;
  double amplitude_;
  double rate_;
  int64_t width_;
  double sigma_;
  int64_t clamp_;
  double clamp_limit_;
  int64_t next_ = 0;
  uint64_t fraction_ = 0;  ///< of next_, in units of 2^-32 ps
  // Periodic timing: the period as whole ps plus a 32-bit binary fraction.
  int64_t period_whole_ = 0;
  uint64_t period_fraction_ = 0;
  // Poisson timing: the mean interval in ps.
  double mean_interval_ = 0;
};

}  // namespace zeptick::emulator
