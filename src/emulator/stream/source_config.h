#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include <nlohmann/json_fwd.hpp>

// Signal sources of an emulated board: the "sources" array of a device.
//
// Every element is an object with a "type" and the keys of that type. Inputs
// count from 1, as printed on the front panel. Times are in picoseconds, rates
// in hertz, levels in volts; numbers may be fractional.
//
//   {"type": "periodic", "input": 3, "period_ps": 100000, "jitter_ps": 5, "phase_ps": 0}
//       One pulse every period_ps, the first at phase_ps; every pulse moves by a
//       normal jitter of RMS jitter_ps (default 0).
//   {"type": "poisson", "input": 4, "rate_hz": 500000}
//       Pulses at random times, rate_hz on average.
//   {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "rate_hz": 2e6, "jitter_ps": 30}
//       Correlated pulses, e.g. photon pairs: at random times (rate_hz on
//       average) one pulse on each listed input, delays_ps after the common
//       instant. Every member but the first moves by a normal jitter of RMS
//       jitter_ps, so the delay from the first member to each other one has
//       exactly that spread. "cascade" is the same with two or more inputs.
//       With "seed" (a whole number) the source draws from a random stream of
//       its own instead of the board's, and its members' edges lie at the
//       occurrence plus their delay plus their input's latency, whatever the
//       board: the same source on two boards of one Synchronizer makes the same
//       occurrences on both. Such a source may list null for a member that
//       drives an input of another board; it draws that member's jitter all
//       the same. The Synchronizer's "sources" are expanded into this form.
//   {"type": "pulses", "input": 5, "width_ps": 5000, "period_ps": 1e6}
//       Pulses of a stated width, periodic (period_ps, jitter_ps, phase_ps) or,
//       with "rate_hz" instead of "period_ps", at random times.
//   {"type": "bursts", "input": 6, "rate_hz": 1000, "events": 10, "spacing_ps": 20000}
//       At random times (rate_hz), a burst of `events` pulses spacing_ps apart;
//       jitter_ps moves every pulse of a burst but the first.
//
// Keys that every type accepts:
//   "amplitude_volts" (default 1.0): the pulse height above a 0 V baseline. An
//       input sees a pulse only when its trigger level lies strictly between
//       0 V and the amplitude. A negative amplitude is a negative-going pulse:
//       its leading edge falls (the input's falling channel) and its trailing
//       edge rises (the rising channel) width_ps later.
//   "width_ps" (default 1000): time from the leading to the trailing edge of a
//       pulse. For periodic timing it must be shorter than the period. A
//       positive pulse gives its rising edge on the input's rising channel and
//       its falling edge on the falling channel.
// Pulses never interact: overlapping pulses are not merged into one. Several
// sources may drive the same input. An input switched to the internal test
// signal ignores its sources. Unknown keys and values out of range are refused
// with std::invalid_argument naming the source (counted from 1) and the key.

namespace zeptick::emulator {

/// One pulse of an occurrence: which input, how long after the occurrence.
struct SourceMember {
  int input = 0;          ///< hardware input, counted from 0
  double delay_ps = 0;    ///< from the occurrence to this member's leading edge
  bool jittered = false;  ///< moved by the source's jitter
  bool here = true;       ///< false: an input of another board, not driven here
};

/// A validated source description. Every occurrence of a source gives one
/// pulse per member.
struct SourceDescription {
  enum class Timing { Periodic, Poisson };
  Timing timing = Timing::Poisson;
  std::vector<SourceMember> members;
  double rate_hz = 0;    ///< Poisson timing
  double period_ps = 0;  ///< periodic timing
  double phase_ps = 0;   ///< periodic timing: the first occurrence
  double jitter_ps = 0;  ///< RMS of the normal jitter of jittered members
  double width_ps = 1000;
  double amplitude_volts = 1.0;
  /// A random stream of the source's own, shared by every board it spans.
  std::optional<uint64_t> seed;

  /// Mean occurrences per second.
  double occurrenceRate() const;
};

/// Validates the "sources" array of a board with `inputs` inputs. A null value
/// means no sources. Throws std::invalid_argument with a readable message.
std::vector<SourceDescription> parseSources(const nlohmann::json& sources, int inputs);

}  // namespace zeptick::emulator
