// Instrument faults on a running tagger: the emulated board is unplugged and plugged in again,
// and made to send error words, over and over, while measurements run. Each outage must show as
// exactly one error tag (however many reconnects fail meanwhile), each error word as one, the
// reloaded board must get its whole configuration again, the measurements must keep counting,
// nothing may deadlock and the heap must not grow with the cycles.
//
// Usage: instrument_faults [--cycles N] [--outage-ms M] [--timeout-s T]
// Prints progress on stderr and one table row on stdout; exits 0 when the run passed.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/control/board_control.h"
#include "reliability/soak_support.h"
#include "zeptick/countrate.h"
#include "zeptick/library.h"
#include "zeptick/logging.h"
#include "zeptick/zeptick_hardware.h"

namespace {

using namespace zeptick;
using namespace zeptick::reliability;
using std::chrono::milliseconds;

constexpr const char* kSerial = "FAULTS1";

std::atomic<uint64_t> reconnects{0};
std::atomic<uint64_t> failed_reads{0};
std::atomic<uint64_t> unexpected_logs{0};

// Counts reconnect notices and failed reads. Error lines other than those two
// faults' own are unexpected, and the first few are shown.
void countMessages(LogLevel level, std::string message) {
  const auto has = [&](const std::string& text) { return message.find(text) != std::string::npos; };
  if (has(std::string("Zeptick ") + kSerial + " reconnected")) {
    ++reconnects;
  } else if (has("Pipe transfer failed, len=")) {
    ++failed_reads;
  } else if (level >= LOGGER_ERROR && !has("Pipe transfer failed, second run") &&
             !has("Error event received")) {
    if (unexpected_logs++ < 5) std::fprintf(stderr, "log: %s\n", message.c_str());
  }
}

nlohmann::json boardConfiguration() {
  // Paced in real time, as in the lab: reads block until the stream has moved on.
  return emulatedUltra(
      kSerial,
      {{{"type", "poisson"}, {"input", 1}, {"rate_hz", 2e5}},
       {{"type", "pairs"}, {"inputs", {2, 3}}, {"delays_ps", {0, 1500}}, {"rate_hz", 5e4}}},
      18, false);
}

bool configurationSentAgain(const emulator::BoardControl& board) {
  const auto events = board.events();
  const auto sent = [&](const char* call, int64_t address) {
    return std::any_of(events.begin(), events.end(), [&](const emulator::BoardEvent& e) {
      return e.call == call && e.a == address;
    });
  };
  // The channel table, and the fence wire that carries every upload.
  return sent("WriteToPipeIn", 0x80) && sent("SetWireInValue", 8);
}

struct Run {
  int64_t cycles = 1000;
  int64_t outage_ms = 250;
  int64_t timeout_s = 60;

  TableRow row{"instrument faults", 0, 0, 0, 0, 0, "", false};
  MemoryTrend memory;
  MemoryTrend heap;
  std::string failure;

  void fail(const std::string& what) {
    if (failure.empty()) failure = what;
  }
};

int64_t countsTotal(Countrate& rate) {
  int64_t total = 0;
  std::vector<int64_t> counts;
  rate.getCountsTotal([&](size_t n) {
    counts.resize(n);
    return counts.data();
  });
  for (int64_t c : counts) total += c;
  return total;
}

// Once the stream flows again every error tag of the fault has arrived; a
// missing or doubled one is a loss, and the count restarts from what was seen.
void checkErrorTags(Run& run, StreamWatch& watch, uint64_t& expected_errors, const char* after) {
  const uint64_t seen = watch.errorTags();
  if (seen == expected_errors) return;
  ++run.row.losses;
  std::fprintf(stderr, "after %s: %llu error tags for %llu faults\n", after,
               static_cast<unsigned long long>(seen),
               static_cast<unsigned long long>(expected_errors));
  run.fail("error tags do not match the faults");
  expected_errors = seen;
}

void cycle(Run& run, Zeptick& tagger, emulator::BoardControl& board, StreamWatch& watch,
           Countrate& rate, Watchdog& watchdog, uint64_t& expected_errors) {
  const milliseconds limit(run.timeout_s * 1000);
  // A fault's error tag may come after tags read before it (the board's buffer,
  // the reads under way), so the run waits for it, and then for fresh tags and
  // counts, before it checks that no second one came.
  const auto settled = [&](const char* fault) {
    waitFor([&] { return watch.errorTags() >= expected_errors; }, limit);
    const uint64_t tags_before = watch.timeTags();
    const int64_t counts_before = countsTotal(rate);
    if (!waitFor(
            [&] {
              return watch.timeTags() > tags_before + 100 && countsTotal(rate) > counts_before;
            },
            limit)) {
      ++run.row.hangs;
      run.fail(std::string("measurements stopped after ") + fault);
      return false;
    }
    checkErrorTags(run, watch, expected_errors, fault);
    return true;
  };

  // Unplugged. The outage's error tag waits in the stream until later tags
  // pass it, so it is counted once the board is back.
  watchdog.beat("unplug");
  const uint64_t reconnects_before = reconnects;
  const uint64_t failed_before = failed_reads;
  board.unplug();
  ++run.row.faults;
  ++expected_errors;
  if (!waitFor([&] { return failed_reads > failed_before; }, limit)) {
    ++run.row.hangs;
    return run.fail("the tagger did not notice an unplug");
  }
  // Long enough for a few failed reconnects, none of which may add an error tag.
  std::this_thread::sleep_for(milliseconds(run.outage_ms));
  // A setting made while the board is away must reach it once it is back.
  tagger.setInputDelay(1, static_cast<int64_t>(expected_errors % 5) * 1000);

  watchdog.beat("replug");
  board.clearTraffic();
  board.replug();
  if (!waitFor([&] { return reconnects > reconnects_before; }, limit)) {
    ++run.row.hangs;
    return run.fail("no reconnection after a replug");
  }
  if (!settled("an unplug")) return;
  if (!configurationSentAgain(board)) run.fail("the reloaded board did not get its configuration");

  // An error word: one error tag, no reconnection.
  watchdog.beat("error word");
  board.injectError();
  ++run.row.faults;
  ++expected_errors;
  if (!settled("an error word")) return;
  if (reconnects != reconnects_before + 1) run.fail("an error word made the tagger reconnect");
}

int execute(Run& run) {
  setLogger(&countMessages);
  emulator::attachBoards(boardConfiguration());
  std::shared_ptr<emulator::BoardControl> board = emulator::findBoard(kSerial);
  Zeptick* tagger = createZeptick(kSerial);
  uint64_t expected_errors = 0;
  {
    StreamWatch watch(tagger, {1, 2, 3});
    Countrate rate(tagger, {1, 2, 3});
    Watchdog watchdog(std::chrono::seconds(2 * run.timeout_s), [&] {
      TableRow row = run.row;
      row.tags = watch.timeTags();
      return row;
    });
    if (!waitFor([&] { return watch.timeTags() > 1000; }, milliseconds(run.timeout_s * 1000))) {
      run.fail("no tags at the start");
    }
    for (int64_t i = 0; i < run.cycles && run.failure.empty(); ++i) {
      cycle(run, *tagger, *board, watch, rate, watchdog, expected_errors);
      run.memory.add(static_cast<double>(i), residentKiB());
      run.heap.add(static_cast<double>(i), heapInUseKiB());
      if ((i + 1) % 100 == 0) {
        std::fprintf(stderr, "%lld cycles, %llu error tags, RSS %.0f KiB\n",
                     static_cast<long long>(i + 1),
                     static_cast<unsigned long long>(watch.errorTags()), run.memory.last());
      }
    }
    watchdog.beat("last checks");
    // Late or doubled error tags would arrive within a few reads.
    std::this_thread::sleep_for(milliseconds(300));
    checkErrorTags(run, watch, expected_errors, "the last fault");
    run.row.losses += watch.disorders();
    if (watch.disorders() > 0) run.fail("blocks out of order");
    run.row.tags = watch.timeTags();
    watchdog.beat("free");
    tagger->sync();
  }
  freeZeptick(tagger);
  emulator::detachBoards();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Run run;
  if (!parseOptions(argc, argv,
                    {{"--cycles", &run.cycles},
                     {"--outage-ms", &run.outage_ms},
                     {"--timeout-s", &run.timeout_s}})) {
    std::fprintf(stderr, "usage: %s [--cycles N] [--outage-ms M] [--timeout-s T]\n", argv[0]);
    return 2;
  }
  execute(run);
  // A leak of a reconnect (a firmware image, a worker's buffers) is tens of KiB
  // or more per cycle. Judged on the heap in use, which only a leak makes grow;
  // the resident size is reported beside it. A handful of cycles only reports.
  const double per_cycle = run.memory.slope();
  const double heap_per_cycle = run.heap.slope();
  char slope[160];
  std::snprintf(slope, sizeof slope, "RSS %+.2f KiB/cycle (%.0f -> %.0f KiB), heap %+.2f KiB/cycle",
                per_cycle, run.memory.first(), run.memory.last(), heap_per_cycle);
  run.row.slope = slope;
  if (run.cycles >= 100 && heap_per_cycle > 1.0) run.fail("the heap grows with the cycles");
  if (unexpected_logs > 0) run.fail("unexpected error messages");
  run.row.passed = run.failure.empty();
  if (!run.failure.empty()) std::fprintf(stderr, "instrument faults: %s\n", run.failure.c_str());
  run.row.print();
  return run.row.passed ? 0 : 1;
}
