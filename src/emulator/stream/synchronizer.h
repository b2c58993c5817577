#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace zeptick::emulator {

/// How the boards of an emulated setup hang on its Synchronizer, as the
/// configuration's "synchronizer" object describes it (format in the README).
struct SynchronizerWiring {
  std::vector<std::string> boards;  ///< CLK IN and SYNC IN cabled to the Synchronizer
  std::string feedback;             ///< whose FDBK OUT reaches the Synchronizer; "" none
  /// Board -> the board whose LOOP OUT feeds its LOOP IN; "" or absent: nothing.
  std::map<std::string, std::string> loop_in;
  std::map<std::string, int> phase;  ///< CLK IN against SYNC IN, 0 to 31; 10 when absent
  uint32_t counter_start = 0;        ///< the counter in the first period

  /// Reads the "synchronizer" object; `serials` are the configured devices.
  /// Throws std::invalid_argument naming the offending field.
  static SynchronizerWiring parse(const nlohmann::json& object,
                                  const std::vector<std::string>& serials);
};

/// The emulated Synchronizer: one clock for every board cabled to it (their
/// streams count the same periods from the same start, so they share one time
/// axis), its running counter of periods, and the ring the boards form
/// through FDBK and LOOP OUT / LOOP IN, which the host reads on wire-outs
/// 0x2B and 0x2C. Free-running boards are kept within a few periods of each
/// other, as one clock would keep them.
///
/// Thread-safe: boards call it from their own threads.
class Synchronizer {
 public:
  explicit Synchronizer(SynchronizerWiring wiring);

  /// A board's wire-in 0x14 took effect: the word it sends around the ring.
  void setRingWord(const std::string& serial, uint32_t word);

  bool drives(const std::string& serial) const;
  /// Wire-out 0x2C: bit 2 when cabled, the CLK/SYNC phase in bits 6 to 10.
  uint32_t statusWire(const std::string& serial) const;
  /// Wire-out 0x2B, low byte first: the identifier and probe byte that the
  /// Synchronizer returns from the FDBK board, then those on LOOP IN.
  uint32_t loopWire(const std::string& serial) const;

  /// The counter the Synchronizer sends in period `period` of the shared clock.
  uint32_t counter(uint64_t period);
  /// A restart of the Synchronizer: from the period after the furthest board,
  /// the counter starts over at `value`.
  void restart(uint32_t value);

  /// A free-running board reports how far its stream has come (in periods).
  void report(const std::string& serial, uint64_t period);
  /// Whether a free-running board at `period` may run further: not more than a
  /// few periods ahead of any other board read lately.
  bool mayAdvance(const std::string& serial, uint64_t period);
  /// The furthest period any other board read lately has reached, 0 for none.
  uint64_t furthestOther(const std::string& serial);

 private:
  struct Restart {
    uint64_t period;
    uint32_t value;
  };
  struct Position {
    uint64_t period = 0;
    std::chrono::steady_clock::time_point seen;
  };

  const SynchronizerWiring wiring_;
  mutable std::mutex mutex_;
  std::map<std::string, uint32_t> ring_words_;  // guarded by mutex_
  std::vector<Restart> restarts_;               // guarded by mutex_
  std::map<std::string, Position> positions_;   // guarded by mutex_
};

}  // namespace zeptick::emulator
