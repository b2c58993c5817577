#pragma once

#include <cstdint>
#include <vector>

namespace zeptick::emulator {

/// Latency in ps from an input connector to its time-to-digital converter on a
/// board of `model`; `input` counts from 0. The paths differ in length by
/// exactly the amounts the host's delay compensation adds back, so the sum of
/// latency and compensation is the same for every input of a model.
int64_t inputPathLatencyPs(int model, int input);

/// The fine-time interpolator of one hardware channel: a fixed set of bins of
/// uneven width that together span one clock period.
class BinProfile {
 public:
  /// Widths vary by up to +-40% around ps_per_clock / bin_count, drawn from
  /// `seed`; the edges are whole picoseconds and every bin is at least 1 ps
  /// wide. Requires 1 <= bin_count <= 256 and ps_per_clock >= bin_count.
  BinProfile(int64_t ps_per_clock, int bin_count, uint64_t seed);

  /// Upper edge of each bin in ps from the clock edge; the last equals ps_per_clock.
  const std::vector<int64_t>& upperEdges() const { return upper_; }

  /// The bin of every offset 0 .. ps_per_clock - 1, for a lookup without search.
  const uint8_t* lookup() const { return lookup_.data(); }

 private:
  std::vector<int64_t> upper_;
  std::vector<uint8_t> lookup_;
};

/// Splits picoseconds into clock cycles and the offset within a cycle with a
/// multiply instead of a division. Exact for 0 <= t < 2^62.
class ClockDivider {
 public:
  explicit ClockDivider(int64_t ps_per_clock);

  int64_t clockOf(int64_t t) const {
    __extension__ using Wide = unsigned __int128;
    const auto c =
        static_cast<int64_t>((static_cast<Wide>(static_cast<uint64_t>(t)) * magic_) >> 64);
    return c + (t - c * ps_ >= ps_);  // the estimate is low by at most one
  }

  struct Split {
    int64_t clock;
    int64_t offset;  ///< ps from the start of the cycle
  };
  /// clockOf(t) and the offset of t within that cycle, with one multiply.
  Split split(int64_t t) const {
    __extension__ using Wide = unsigned __int128;
    const auto c =
        static_cast<int64_t>((static_cast<Wide>(static_cast<uint64_t>(t)) * magic_) >> 64);
    const int64_t offset = t - c * ps_;
    const bool low = offset >= ps_;
    return {c + low, low ? offset - ps_ : offset};
  }

  int64_t psPerClock() const { return ps_; }

 private:
  int64_t ps_;
  uint64_t magic_;
};

}  // namespace zeptick::emulator
