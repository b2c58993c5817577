// Overload: a periodic input at twice what the board's USB side drains, with
// measurements running, then the rate dropped below it by the event divider,
// cycle after cycle. Every overflow must read begin, missed events, end, with
// no time tag inside; the pulses of the periodic input must all be either
// delivered or counted as missed; a Countrate must count exactly the delivered
// and missed events; and every low-rate phase must leave the overflow. Prints
// one row of the reliability table; exits 1 on any violation.
//
//   overload [--cycles N]

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "emulator/control/board_control.h"
#include "reliability/stream/report.h"
#include "zeptick/zeptick.h"

namespace zeptick::reliability {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t kPeriod = 500000;          // ps: 2 MHz on input 1
constexpr int64_t kHighSpan = 300000000000;  // ps of stream per overloaded phase
constexpr int64_t kLowSpan = 400000000000;   // ps of stream per quiet phase
constexpr uint32_t kQuietDivider = 20;       // 100 kHz, a tenth of the drain
constexpr int64_t kOneMs = 1000000000;

// The USB side drains 1e6 words a second, half of what input 1 alone sends.
constexpr char kBoard[] = R"({"devices": [{
  "serial": "OVERLOAD1", "model": "Zeptick Ultra", "pacing": "free", "seed": 5,
  "usb_words_per_second": 1e6,
  "sources": [
    {"type": "periodic", "input": 1, "period_ps": 500000},
    {"type": "poisson", "input": 2, "rate_hz": 5e4}]}]})";

/// Follows the overflow state tag by tag and keeps what the checks need.
class OverflowChecker : public IteratorBase {
 public:
  explicit OverflowChecker(ZeptickBase* tagger) : IteratorBase(tagger) {
    registerChannel(1);
    registerChannel(2);
    finishInitialization();
  }
  ~OverflowChecker() override { stop(); }

  /// A gap of input 1 between two delivered tags with an overflow in it.
  struct Gap {
    int64_t from, to, missed;
  };
  struct State {
    int64_t stream_time = 0;
    bool in_overflow = false;
    int64_t begins = 0, ends = 0, last_begin = 0, last_end = 0;
    int64_t delivered[3] = {0, 0, 0}, missed[3] = {0, 0, 0};
  };
  /// Polled often: holds nothing that grows with the run.
  State state() {
    auto guard = getLock();
    return now;
  }
  /// The gaps closed since the last call.
  std::vector<Gap> takeGaps() {
    auto guard = getLock();
    return std::exchange(gap_list, {});
  }
  std::vector<std::string> violations() {
    auto guard = getLock();
    return violation_list;
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t, int64_t end_time) override {
    for (const Tag& tag : tags) take(tag);
    now.stream_time = end_time;
    return false;
  }

 private:
  void violation(const std::string& what, const Tag& tag) {
    if (violation_list.size() < 20) {
      violation_list.push_back(what + " at " + std::to_string(tag.time) + " ps");
    }
  }
  void take(const Tag& tag) {
    const int channel = tag.channel == 1 || tag.channel == 2 ? tag.channel : 0;
    switch (tag.type) {
      case Tag::Type::TimeTag:
        if (now.in_overflow) violation("time tag inside an overflow", tag);
        ++now.delivered[channel];
        if (channel == 1) {
          if (gap_missed >= 0 && last_one > 0) gap_list.push_back({last_one, tag.time, gap_missed});
          gap_missed = -1;
          last_one = tag.time;
        }
        return;
      case Tag::Type::OverflowBegin:
        if (now.in_overflow) violation("overflow begins twice", tag);
        now.in_overflow = true;
        ++now.begins;
        now.last_begin = tag.time;
        gap_missed = std::max<int64_t>(gap_missed, 0);
        return;
      case Tag::Type::MissedEvents:
        if (!now.in_overflow) violation("missed events outside an overflow", tag);
        now.missed[channel] += tag.missed_events;
        if (channel == 1) gap_missed += tag.missed_events;
        return;
      case Tag::Type::OverflowEnd:
        if (!now.in_overflow) violation("overflow ends outside one", tag);
        now.in_overflow = false;
        ++now.ends;
        now.last_end = tag.time;
        return;
      case Tag::Type::Error:
        violation("error tag", tag);
        return;
    }
  }

  State now;
  std::vector<Gap> gap_list;
  std::vector<std::string> violation_list;
  int64_t last_one = 0;
  int64_t gap_missed = -1;  // missed on input 1 since its last tag; -1 without an overflow
};

/// Waits until the checker's stream passes `time`; false after a minute of no progress.
bool waitForStream(OverflowChecker& checker, int64_t time, MemorySampler& memory) {
  int64_t seen = checker.state().stream_time;
  auto moved = Clock::now();
  while (seen < time) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    memory.sample();
    const int64_t now = checker.state().stream_time;
    if (now != seen) moved = Clock::now();
    if (Clock::now() - moved > std::chrono::seconds(60)) return false;
    seen = now;
  }
  return true;
}

/// Inside an undivided phase, from `from` to `to` in stream time, every pulse of input 1 is
/// delivered or counted as missed: a gap holds one pulse fewer than its length in periods.
void account(const std::vector<OverflowChecker::Gap>& gaps, int64_t from, int64_t to,
             int64_t& checked, int64_t& unaccounted) {
  for (const OverflowChecker::Gap& gap : gaps) {
    if (gap.from < from || gap.to >= to) continue;
    ++checked;
    const int64_t pulses = std::llround(static_cast<double>(gap.to - gap.from) / kPeriod) - 1;
    unaccounted += std::llabs(pulses - gap.missed);
  }
}

int run(int argc, char** argv) {
  const int cycles = static_cast<int>(numberOption(argc, argv, "cycles", 3));
  attachEmulatedDevices(kBoard);
  Zeptick* tagger = createZeptick("OVERLOAD1");
  // The emulated board logs the configuration traffic for tests, up to 65536 entries a log; two
  // uploads a cycle would fill them over the first few hundred cycles. Cleared every cycle, so
  // that the memory measured is the library's.
  const std::shared_ptr<emulator::BoardControl> board = emulator::findBoard("OVERLOAD1");
  tagger->setHardwareBufferSize(32768);
  MemorySampler memory;
  std::vector<std::string> problems;
  OverflowChecker::State end;
  int64_t checked = 0, unaccounted = 0;
  std::vector<int64_t> counted;
  int64_t hangs = 0;
  double worst_recovery_ms = 0;
  {
    SynchronizedMeasurements group(tagger);
    OverflowChecker checker(group.getTagger());
    Countrate rates(group.getTagger(), {1, 2});
    group.start();
    for (int cycle = 0; cycle < cycles && hangs == 0; ++cycle) {
      if (board) board->clearTraffic();
      tagger->setEventDivider(1, 1);
      tagger->sync();
      const OverflowChecker::State high = checker.state();
      if (!waitForStream(checker, high.stream_time + kHighSpan, memory)) ++hangs;
      const OverflowChecker::State before = checker.state();
      // Gaps are taken as they close, so that nothing here grows with the run.
      account(checker.takeGaps(), high.stream_time, before.stream_time, checked, unaccounted);
      if (before.begins == high.begins) {
        problems.push_back("cycle " + std::to_string(cycle) + ": no overflow at twice the drain");
      }
      tagger->setEventDivider(1, kQuietDivider);
      tagger->sync();
      const int64_t quiet = checker.state().stream_time;
      if (!waitForStream(checker, quiet + kLowSpan, memory)) ++hangs;
      const OverflowChecker::State after = checker.state();
      // The quiet phase's gaps may begin in the undivided one, but run over its end.
      account(checker.takeGaps(), high.stream_time, before.stream_time, checked, unaccounted);
      if (after.in_overflow || after.last_begin > quiet + kOneMs) {
        problems.push_back("cycle " + std::to_string(cycle) + ": no recovery at a tenth");
      }
      if (after.ends > 0 && after.last_end > before.stream_time) {
        worst_recovery_ms = std::max(
            worst_recovery_ms, static_cast<double>(after.last_end - before.stream_time) / kOneMs);
      }
    }
    group.stop();
    end = checker.state();
    for (const std::string& line : checker.violations()) problems.push_back(line);
    rates.getCountsTotal([&](size_t n) {
      counted.resize(n);
      return counted.data();
    });
  }
  freeZeptick(tagger);
  detachEmulatedDevices();

  if (end.begins != end.ends) problems.push_back("overflow begins and ends differ");
  for (int channel : {1, 2}) {
    const int64_t seen = end.delivered[channel] + end.missed[channel];
    if (counted.size() != 2 || counted[static_cast<size_t>(channel - 1)] != seen) {
      problems.push_back("Countrate of channel " + std::to_string(channel) +
                         " is not its delivered plus missed events");
    }
  }
  if (checked == 0) problems.push_back("no overflow gap to account for");
  if (unaccounted != 0) {
    problems.push_back(std::to_string(unaccounted) + " pulses neither delivered nor missed");
  }

  std::fprintf(stderr,
               "overload: %d cycles, %lld overflows, %lld delivered and %lld missed on input 1, "
               "%lld gaps accounted pulse by pulse, recovery within %.1f ms of stream time\n",
               cycles, static_cast<long long>(end.begins), static_cast<long long>(end.delivered[1]),
               static_cast<long long>(end.missed[1]), static_cast<long long>(checked),
               worst_recovery_ms);
  std::fprintf(stderr, "  %s\n", memory.trajectory().c_str());
  for (const std::string& line : problems) std::fprintf(stderr, "  problem: %s\n", line.c_str());

  Row row;
  row.run = "overload at 2x the USB drain, then a tenth";
  row.tags = end.delivered[0] + end.delivered[1] + end.delivered[2];
  row.faults = std::to_string(end.begins) + " overflows in " + std::to_string(cycles) + " cycles";
  row.losses = unaccounted;
  row.hangs = hangs;
  row.memory_slope = memory.slope();
  row.passed = problems.empty() && hangs == 0;
  return printRow(row);
}

}  // namespace
}  // namespace zeptick::reliability

int main(int argc, char** argv) {
  return zeptick::reliability::runProgram("overload", zeptick::reliability::run, argc, argv);
}
