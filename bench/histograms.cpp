// Correlation, Histogram and TimeDifferences on a stream like a busy
// experiment's: channel 1 at 3 MHz, channel 2 at 2 MHz with a third of its
// tags 2 ns after a channel 1 tag, and a 10 kHz next channel. Each block goes
// through the measurement and then through a bare loop that only scans the
// same tags, both timed in the same iteration
// on the thread's CPU clock. items_per_second is the
// measurement's rate in tags/s; `vs_scan` is that rate over the scan's.
// First argument: 0 for a 10 ns range (1000 bins of 10 ps), 1 for 1 us (1000 of
// 1 ns). Second: 0 for the fastest kernels this processor has, 1 for the plain
// ones that run where it lacks AVX-512.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>
#include <random>
#include <utility>
#include <vector>

#include "bench_lap.h"
#include "bench_tagger.h"
#include "measurements/histogram_common.h"
#include "thread_cpu_clock.h"
#include "zeptick/correlation.h"
#include "zeptick/histogram.h"
#include "zeptick/time_differences.h"

namespace zeptick::bench {
namespace {

constexpr int64_t kBlockSpan = 10000000000;  // 10 ms, about 50000 tags
constexpr int kBlocksPerLap = 20;
constexpr int kBins = 1000;

int64_t binwidthFor(const benchmark::State& state) { return state.range(0) == 0 ? 10 : 1000; }

Lap makeLap() {
  std::mt19937_64 rng(2026);
  std::vector<Tag> tags;
  auto poisson = [&](int channel, double rate_hz) {
    std::exponential_distribution<double> gap(rate_hz * 1e-12);
    for (double t = gap(rng); t < kBlockSpan * kBlocksPerLap; t += gap(rng)) {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, static_cast<int64_t>(t)});
    }
  };
  poisson(1, 3e6);
  poisson(3, 1e4);
  std::normal_distribution<double> jitter(2000, 50);
  std::bernoulli_distribution correlated(1.0 / 3);
  const size_t first_channel_tags = tags.size();
  for (size_t i = 0; i < first_channel_tags; ++i) {
    if (tags[i].channel == 1 && correlated(rng)) {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, 2, tags[i].time + std::lround(jitter(rng))});
    }
  }
  poisson(2, 2e6 - 1e6);
  return Lap(std::move(tags), kBlockSpan, kBlocksPerLap);
}

template <typename Measurement, typename... Args>
void runAgainstScan(benchmark::State& state, Args&&... args) {
  using Clock = ThreadCpuClock;
  detail::forcePlainHistogramKernels(state.range(1) == 1);
  Lap lap = makeLap();
  BenchTagger tagger({}, kBlockSpan, 1);  // no block is ever granted
  Driven<Measurement> measurement(&tagger, std::forward<Args>(args)...);

  int64_t tags_done = 0;
  double measurement_seconds = 0;
  double scan_seconds = 0;
  for (auto _ : state) {
    std::vector<Tag>& tags = lap.tags();
    const auto start = Clock::now();
    measurement.feed(tags, lap.begin(), lap.end());
    const auto measured = Clock::now();
    benchmark::DoNotOptimize(scanTags(tags));
    const auto scanned = Clock::now();
    const double seconds = std::chrono::duration<double>(measured - start).count();
    measurement_seconds += seconds;
    scan_seconds += std::chrono::duration<double>(scanned - measured).count();
    state.SetIterationTime(seconds);
    tags_done += static_cast<int64_t>(tags.size());
    lap.advance();
  }
  state.SetItemsProcessed(tags_done);
  state.counters["scan_tags_per_s"] = static_cast<double>(tags_done) / scan_seconds;
  state.counters["vs_scan"] = scan_seconds / measurement_seconds;
  detail::forcePlainHistogramKernels(false);
}

void BM_Correlation(benchmark::State& state) {
  runAgainstScan<Correlation>(state, 1, 2, binwidthFor(state), kBins);
}
void BM_Histogram(benchmark::State& state) {
  runAgainstScan<Histogram>(state, 2, 1, binwidthFor(state), kBins);
}
void BM_TimeDifferences(benchmark::State& state) {
  runAgainstScan<TimeDifferences>(state, 2, 1, 3, CHANNEL_UNUSED, binwidthFor(state), kBins, 16);
}
BENCHMARK(BM_Correlation)->ArgsProduct({{0, 1}, {0, 1}})->UseManualTime();
BENCHMARK(BM_Histogram)->ArgsProduct({{0, 1}, {0, 1}})->UseManualTime();
BENCHMARK(BM_TimeDifferences)->ArgsProduct({{0, 1}, {0, 1}})->UseManualTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
