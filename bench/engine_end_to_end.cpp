// The hardware tagger end to end: a free-running emulated board read, decoded
// and ordered by the tagger's workers into a Countrate of all four inputs and
// a Correlation of the photon pairs on inputs 1 and 2, as a user would run
// them, against the emulator's own generation of the same words on one
// thread, timed in the same run. The tagger's figure includes the generation
// (the emulated board produces its words inside the pipe read), so
// `vs_generation` can reach 1 only with a second core reading while the
// first decodes; `generation_tags_per_s` is the emulator's rate on its own.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/native_tag.h"
#include "emulator/board_control.h"
#include "emulator/stream_model.h"
#include "engine/zeptick_impl.h"
#include "zeptick/correlation.h"
#include "zeptick/countrate.h"
#include "zeptick/library.h"

namespace {

using Clock = std::chrono::steady_clock;
using nlohmann::json;

// CPU seconds of the whole process or of this thread. On a shared machine
// the wall-clock rates move with everything else running; tags per CPU
// second of the tagger's threads move much less.
double cpuSeconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// 100 million events per second of stream time on four inputs, busy enough
// that rollover words hardly count: every read is nearly all events.
json busySources() {
  return json::parse(R"([
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 2.5e7},
    {"type": "poisson", "input": 3, "rate_hz": 2.5e7},
    {"type": "poisson", "input": 4, "rate_hz": 2.5e7}
  ])");
}

// The emulator alone: words of the same sources with the four rising
// channels enabled, read in the tagger's largest block size.
struct Generation {
  double events = 0;
  double seconds = 0;
  double cpu_seconds = 0;
};

Generation generate(double seconds) {
  zeptick::emulator::StreamParameters p;
  p.model = 36;
  p.inputs = 18;
  p.ps_per_clock = 2500;
  p.bin_count = 256;
  p.seed = 1;
  p.paced = false;
  p.usb_words_per_second = 1e8;
  zeptick::emulator::StreamModel model(p, busySources());
  zeptick::emulator::FirmwareSetup setup;
  setup.channels.assign(36, {});
  for (size_t i = 0; i < 4; ++i) setup.channels[i].enabled = true;
  setup.trigger_volts.assign(18, 0.5);
  setup.buffer_words = 67108864;
  setup.started = true;
  model.configure(setup);
  std::vector<zeptick::NativeTag> words(131072);
  auto* bytes = reinterpret_cast<unsigned char*>(words.data());
  uint64_t events = 0;
  const auto start = Clock::now();
  const double cpu_start = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
  double elapsed = 0;
  while (elapsed < seconds) {
    model.read(bytes, static_cast<long>(words.size() * 4));
    for (const zeptick::NativeTag word : words) events += word.kind() == 1 && word.code() < 58;
    elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  }
  return {static_cast<double>(events), elapsed, cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu_start};
}

int64_t totalCounts(zeptick::Countrate& rate) {
  std::vector<int64_t> totals;
  rate.getCountsTotal([&totals](size_t n) {
    totals.resize(n);
    return totals.data();
  });
  int64_t sum = 0;
  for (int64_t value : totals) sum += value;
  return sum;
}

void BM_EmulatedBoardIntoCountrateAndCorrelation(benchmark::State& state) {
  // The emulator's firmware files sit in the source tree, which holds the
  // build directory (<tree>/<build>/bench/<program>), unless told otherwise.
  if (std::getenv("ZEPTICK_BASE_DIRECTORY") == nullptr) {
    const auto tree = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
    setenv("ZEPTICK_BASE_DIRECTORY", tree.parent_path().c_str(), 1);
    setenv("ZEPTICK_FIRMWARE_SUBDIRECTORY", "firmware", 1);
  }
  zeptick::emulator::attachBoards(
      {{"devices", {{{"serial", "BENCH1"}, {"pacing", "free"}, {"sources", busySources()}}}}});
  double tagger_seconds = 0;
  double tagger_cpu_seconds = 0;
  double tags = 0;
  double correlated = 0;
  Generation generation;
  {
    zeptick::ZeptickImpl tagger("BENCH1");
    zeptick::Countrate rate(&tagger, {1, 2, 3, 4});
    // 10 ps bins over +-5 ns: the pairs' 1.5 ns peak and its accidental floor.
    zeptick::Correlation correlation(&tagger, 1, 2, 10, 1000);
    tagger.sync();
    for (auto _ : state) {
      const int64_t before = totalCounts(rate);
      const auto t0 = Clock::now();
      const double cpu0 = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
      std::this_thread::sleep_for(std::chrono::milliseconds(500));
      const int64_t after = totalCounts(rate);
      const auto t1 = Clock::now();
      tagger_cpu_seconds += cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - cpu0;
      const double seconds = std::chrono::duration<double>(t1 - t0).count();
      tagger_seconds += seconds;
      tags += static_cast<double>(after - before);
      state.SetIterationTime(seconds);
    }
    // The correlation must have had its pairs, or the figure would flatter.
    std::vector<int32_t> bins;
    correlation.getData([&bins](size_t n) {
      bins.resize(n);
      return bins.data();
    });
    for (int32_t count : bins) correlated += count;
  }
  zeptick::emulator::detachBoards();
  for (int i = 0; i < static_cast<int>(state.iterations()); ++i) {
    const Generation part = generate(0.5);
    generation.events += part.events;
    generation.seconds += part.seconds;
    generation.cpu_seconds += part.cpu_seconds;
  }
  const double tagger_rate = tags / tagger_seconds;
  const double generation_rate = generation.events / generation.seconds;
  state.counters["tags_per_s"] = tagger_rate;
  state.counters["generation_tags_per_s"] = generation_rate;
  state.counters["vs_generation"] = tagger_rate / generation_rate;
  // The same per CPU second: the tagger's worker threads together against
  // the one thread that only generates.
  const double tagger_cpu_rate = tags / tagger_cpu_seconds;
  const double generation_cpu_rate = generation.events / generation.cpu_seconds;
  state.counters["tags_per_cpu_s"] = tagger_cpu_rate;
  state.counters["generation_tags_per_cpu_s"] = generation_cpu_rate;
  state.counters["vs_generation_cpu"] = tagger_cpu_rate / generation_cpu_rate;
  state.counters["correlated_pairs"] = correlated;
  state.SetItemsProcessed(static_cast<int64_t>(tags));
}
BENCHMARK(BM_EmulatedBoardIntoCountrateAndCorrelation)
    ->UseManualTime()
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
