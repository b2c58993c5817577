// Free-running word generation of one emulated board on one core, against a
// plain fill of the same 1 MiB buffer timed in the same iterations, so the
// ratio holds on a shared, noisy machine. Both are timed in the thread's CPU
// time: the model runs on one thread, and time slices lost to other programs
// would otherwise count against whichever side they fell in.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <ctime>
#include <numeric>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/control/board_control.h"
#include "emulator/stream/stream_model.h"
#include "thread_cpu_clock.h"

namespace {

using zeptick::bench::threadSeconds;

using zeptick::emulator::FirmwareSetup;
using zeptick::emulator::StreamModel;
using zeptick::emulator::StreamParameters;

constexpr size_t kWords = (size_t{1} << 20) / 4;

StreamParameters ultra() {
  StreamParameters p;
  p.model = 36;
  p.inputs = 18;
  p.ps_per_clock = 2500;
  p.bin_count = 256;
  p.seed = 1;
  p.paced = false;
  p.usb_words_per_second = 1e8;
  return p;
}

// What a host measuring the four inputs sends: their rising channels enabled,
// 0.5 V trigger levels, the default hardware buffer.
FirmwareSetup measuring(const StreamParameters& p) {
  FirmwareSetup s;
  s.channels.assign(static_cast<size_t>(2 * p.inputs), {});
  for (size_t i = 0; i < 4; ++i) s.channels[i].enabled = true;
  s.trigger_volts.assign(static_cast<size_t>(p.inputs), 0.5);
  s.buffer_words = 67108864;
  s.test_period_word = 126;
  s.test_half_period_word = 63;
  s.started = true;
  return s;
}

void run(benchmark::State& state, const nlohmann::json& sources) {
  const StreamParameters p = ultra();
  StreamModel model(p, sources);
  model.configure(measuring(p));
  std::vector<uint32_t> buffer(kWords);
  auto* bytes = reinterpret_cast<unsigned char*>(buffer.data());
  model.read(bytes, static_cast<long>(kWords * 4));  // warm up the model's own buffers

  double model_seconds = 0;
  double fill_seconds = 0;
  uint32_t start = 0;
  for (auto _ : state) {
    const double t0 = threadSeconds();
    model.read(bytes, static_cast<long>(kWords * 4));
    benchmark::DoNotOptimize(buffer.data());
    benchmark::ClobberMemory();
    const double t1 = threadSeconds();
    std::iota(buffer.begin(), buffer.end(), start++);
    benchmark::DoNotOptimize(buffer.data());
    benchmark::ClobberMemory();
    const double t2 = threadSeconds();
    model_seconds += t1 - t0;
    fill_seconds += t2 - t1;
    state.SetIterationTime(t1 - t0);
  }
  const double words = static_cast<double>(state.iterations()) * kWords;
  state.counters["model_words_per_s"] = words / model_seconds;
  state.counters["fill_words_per_s"] = words / fill_seconds;
  state.counters["model_to_fill"] = fill_seconds / model_seconds;
  state.SetItemsProcessed(static_cast<int64_t>(words));
}

// The built-in default board's sources.
void BM_FreeRunningDefaultBoard(benchmark::State& state) {
  run(state, zeptick::emulator::defaultConfiguration()["devices"][0]["sources"]);
}
BENCHMARK(BM_FreeRunningDefaultBoard)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same kinds of sources at a busier rate: photon pairs at 3 MHz.
void BM_FreeRunningBusyPairs(benchmark::State& state) {
  run(state, nlohmann::json::parse(R"([
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 3e6},
    {"type": "periodic", "input": 3, "period_ps": 100000, "jitter_ps": 5},
    {"type": "poisson", "input": 4, "rate_hz": 1e6}
  ])"));
}
BENCHMARK(BM_FreeRunningBusyPairs)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
