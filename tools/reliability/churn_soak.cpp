// Churn on a running tagger: several application threads create measurements and virtual
// channels, read them and destroy them every few milliseconds, while another thread keeps
// changing settings and a long-lived witness watches the stream. Nothing may crash or deadlock,
// the witness must see one ordered stream that keeps flowing, and the heap must not grow.
//
// Usage: churn_soak [--seconds S] [--threads N] [--timeout-s T] [--free-running 0|1]
// Prints progress on stderr and one table row on stdout; exits 0 when the run passed.

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/control/board_control.h"
#include "reliability/soak_support.h"
#include "zeptick/coincidences.h"
#include "zeptick/combiner.h"
#include "zeptick/correlation.h"
#include "zeptick/counter.h"
#include "zeptick/countrate.h"
#include "zeptick/delayed_channel.h"
#include "zeptick/frequency_multiplier.h"
#include "zeptick/gated_channel.h"
#include "zeptick/histogram.h"
#include "zeptick/library.h"
#include "zeptick/logging.h"
#include "zeptick/start_stop.h"
#include "zeptick/time_differences.h"
#include "zeptick/time_tag_stream.h"

namespace {

using namespace zeptick;
using namespace zeptick::reliability;
using std::chrono::milliseconds;

constexpr const char* kSerial = "CHURN1";

std::atomic<uint64_t> error_logs{0};

void countErrors(LogLevel level, std::string message) {
  if (level >= LOGGER_ERROR && error_logs++ < 5) std::fprintf(stderr, "log: %s\n", message.c_str());
}

// Few inputs: opening calibrates every input, which is slow under a sanitizer.
// Free-running opens quickly there too (the calibration waits for test edges).
nlohmann::json boardConfiguration(bool free_running) {
  return emulatedUltra(
      kSerial,
      {{{"type", "poisson"}, {"input", 1}, {"rate_hz", 1e5}},
       {{"type", "periodic"}, {"input", 2}, {"period_ps", 1e7}},
       {{"type", "pairs"}, {"inputs", {3, 4}}, {"delays_ps", {0, 900}}, {"rate_hz", 5e4}},
       {{"type", "poisson"}, {"input", 5}, {"rate_hz", 2e4}}},
      6, free_running);
}

template <class T, class Data>
void read(T& measurement, void (T::*get)(std::function<Data*(size_t)>)) {
  std::vector<Data> out;
  (measurement.*get)([&](size_t n) {
    out.resize(n);
    return out.data();
  });
}
template <class T, class Data>
void read(T& measurement, void (T::*get)(std::function<Data*(size_t, size_t)>)) {
  std::vector<Data> out;
  (measurement.*get)([&](size_t rows, size_t columns) {
    out.resize(rows * columns);
    return out.data();
  });
}

// Lets a measurement run for a few milliseconds, now and then stopped,
// restarted or cleared on the way, as a user's program would.
void live(IteratorBase& measurement, std::mt19937& rng) {
  std::this_thread::sleep_for(milliseconds(std::uniform_int_distribution<int>(1, 5)(rng)));
  switch (std::uniform_int_distribution<int>(0, 5)(rng)) {
    case 0:
      measurement.stop();
      break;
    case 1:
      measurement.clear();
      break;
    case 2:
      measurement.startFor(1000000000);
      break;
    default:
      break;
  }
}

// One create-use-destroy round of a measurement, or of a virtual channel with
// a measurement on its output, chosen by `kind`.
void churnOnce(Zeptick* tagger, int kind, std::mt19937& rng) {
  switch (kind) {
    case 0: {
      Countrate rate(tagger, {1, 2});
      live(rate, rng);
      read(rate, &Countrate::getData);
      break;
    }
    case 1: {
      Correlation correlation(tagger, 3, 4, 100, 200);
      live(correlation, rng);
      read(correlation, &Correlation::getData);
      break;
    }
    case 2: {
      DelayedChannel delayed(tagger, 1, std::uniform_int_distribution<int64_t>(-5000, 5000)(rng));
      Histogram histogram(tagger, delayed.getChannel(), 1, 100, 200);
      live(histogram, rng);
      read(histogram, &Histogram::getData);
      break;
    }
    case 3: {
      Coincidences coincidences(tagger, {{3, 4}, {1, 5}}, 2000);
      Counter counter(tagger, coincidences.getChannels(), 1000000, 10);
      live(counter, rng);
      read(counter, &Counter::getData);
      break;
    }
    case 4: {
      Combiner combiner(tagger, {1, 5});
      Countrate rate(tagger, {combiner.getChannel()});
      live(combiner, rng);
      read(combiner, &Combiner::getData);
      read(rate, &Countrate::getCountsTotal);
      break;
    }
    case 5: {
      GatedChannel gated(tagger, 1, 3, 4);
      TimeTagStream stream(tagger, 1000, {gated.getChannel()});
      live(stream, rng);
      (void)stream.getData();
      break;
    }
    case 6: {
      FrequencyMultiplier multiplied(tagger, 2, 3);
      StartStop start_stop(tagger, multiplied.getChannel(), 2, 1000);
      live(start_stop, rng);
      read(start_stop, &StartStop::getData);
      break;
    }
    default: {
      TimeDifferences differences(tagger, 4, 3, CHANNEL_UNUSED, CHANNEL_UNUSED, 100, 100, 1);
      live(differences, rng);
      read(differences, &TimeDifferences::getData);
      break;
    }
  }
}

void changeSettings(Zeptick* tagger, int i) {
  tagger->setInputDelay(1 + i % 5, (i % 7 - 3) * 1000);
  tagger->setDeadtime(1 + i % 5, 2500 * (1 + i % 5));
  tagger->setTriggerLevel(1 + i % 5, 0.2 + 0.1 * (i % 5));
  tagger->setEventDivider(2, 1 + static_cast<uint32_t>(i % 3));
  tagger->setTestSignal(6, i % 9 == 0);
  if (i % 11 == 0) tagger->setConditionalFilter({3}, {4});
  if (i % 11 == 5) tagger->clearConditionalFilter();
  tagger->setStreamBlockSize(i % 2 == 0 ? 1024 : 131072, 1 + i % 20);
  if (i % 10 == 0) tagger->sync();
}

struct Options {
  int64_t seconds = 3600;
  int64_t threads = 3;
  int64_t timeout_s = 60;
  int64_t free_running = 0;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parseOptions(argc, argv,
                    {{"--seconds", &options.seconds},
                     {"--threads", &options.threads},
                     {"--timeout-s", &options.timeout_s},
                     {"--free-running", &options.free_running}})) {
    std::fprintf(stderr,
                 "usage: %s [--seconds S] [--threads N] [--timeout-s T] [--free-running 0|1]\n",
                 argv[0]);
    return 2;
  }
  setLogger(&countErrors);
  emulator::attachBoards(boardConfiguration(options.free_running != 0));
  Zeptick* tagger = createZeptick(kSerial);

  TableRow row{"churn soak", 0, 0, 0, 0, 0, "", false};
  std::string failure;
  MemoryTrend memory;
  MemoryTrend heap;
  // One progress counter per application thread, the settings thread last.
  std::vector<std::atomic<uint64_t>> rounds(static_cast<size_t>(options.threads) + 1);
  {
    StreamWatch witness(tagger, {1, 2, 3, 4, 5});
    Watchdog watchdog(std::chrono::seconds(options.timeout_s), [&] {
      TableRow now = row;
      now.tags = witness.timeTags();
      return now;
    });
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int64_t t = 0; t < options.threads; ++t) {
      threads.emplace_back([&, t] {
        std::mt19937 rng(static_cast<unsigned>(1000 + t));
        std::uniform_int_distribution<int> kinds(0, 7);
        for (auto& done = rounds[static_cast<size_t>(t)]; !stop; ++done) {
          churnOnce(tagger, kinds(rng), rng);
        }
      });
    }
    threads.emplace_back([&] {
      for (auto& done = rounds.back(); !stop; ++done) {
        changeSettings(tagger, static_cast<int>(done % 1000000));
        std::this_thread::sleep_for(milliseconds(2));
      }
    });

    // Memory every second (ten times as often in a short run), and progress:
    // the watchdog is fed only while every thread and the stream move on.
    const auto begin = std::chrono::steady_clock::now();
    const auto period = options.seconds >= 60 ? milliseconds(1000) : milliseconds(100);
    std::vector<uint64_t> last(rounds.size(), 0);
    uint64_t last_tags = 0;
    for (auto next = begin + period; next < begin + std::chrono::seconds(options.seconds);
         next += period) {
      std::this_thread::sleep_until(next);
      const double hours = std::chrono::duration<double>(next - begin).count() / 3600;
      memory.add(hours, residentKiB());
      heap.add(hours, heapInUseKiB());
      bool moving = witness.timeTags() > last_tags;
      for (size_t i = 0; i < rounds.size(); ++i) moving &= rounds[i] > last[i];
      if (moving) {
        watchdog.beat("churn");
        last_tags = witness.timeTags();
        for (size_t i = 0; i < rounds.size(); ++i) last[i] = rounds[i];
      }
      if (memory.size() % 60 == 0) {
        std::fprintf(stderr, "%.0f s, %llu tags, RSS %.0f KiB, heap %.0f KiB\n", hours * 3600,
                     static_cast<unsigned long long>(witness.timeTags()), memory.last(),
                     heap.last());
      }
    }
    watchdog.beat("join");
    stop = true;
    for (std::thread& thread : threads) thread.join();
    watchdog.beat("free");
    tagger->sync();
    row.tags = witness.timeTags();
    row.losses = witness.disorders();
    if (witness.disorders() > 0) failure = "blocks out of order";
    if (witness.timeTags() == 0) failure = "no tags";
  }
  freeZeptick(tagger);
  emulator::detachBoards();

  for (const auto& done : rounds) row.faults += done;
  // A leak of one small object per round would be megabytes an hour; the
  // allocator's drift stays well below. Short runs only report the figure.
  // Judged on the heap in use, which only a leak makes grow; the resident size
  // is reported beside it. Short runs only report: warming up dominates them.
  const double per_hour = memory.slope();
  const double heap_per_hour = heap.slope();
  char slope[160];
  std::snprintf(slope, sizeof slope, "RSS %+.0f KiB/h (%.0f -> %.0f KiB), heap %+.0f KiB/h",
                per_hour, memory.first(), memory.last(), heap_per_hour);
  row.slope = slope;
  if (options.seconds >= 60 && heap_per_hour > 1024) failure = "the heap grows";
  if (error_logs > 0) failure = "error messages";
  row.passed = failure.empty();
  if (!failure.empty()) std::fprintf(stderr, "churn soak: %s\n", failure.c_str());
  row.print();
  return row.passed ? 0 : 1;
}
