// FastBinning's multiply and shift modes against a plain 64-bit division over
// the same deltas, timed in the same iteration, on the thread's CPU clock, so both see
// the same machine load. items_per_second is the binning mode's rate; `vs_div` is how many times
// faster than the division it is.

#include "zeptick/fast_binning.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <random>
#include <vector>

#include "thread_cpu_clock.h"

namespace zeptick::bench {
namespace {

constexpr size_t kDeltas = 65536;

std::vector<uint64_t> randomDeltas(uint64_t max_duration) {
  std::mt19937_64 rng(7);
  std::uniform_int_distribution<uint64_t> delta(0, max_duration);
  std::vector<uint64_t> deltas(kDeltas);
  for (uint64_t& d : deltas) d = delta(rng);
  return deltas;
}

template <FastBinning::Mode M>
__attribute__((noinline)) uint64_t sumOfBins(const FastBinning& binner,
                                             const std::vector<uint64_t>& deltas) {
  uint64_t sum = 0;
  for (uint64_t delta : deltas) sum += binner.divide<M>(delta);
  return sum;
}

__attribute__((noinline)) uint64_t sumOfQuotients(uint64_t divisor,
                                                  const std::vector<uint64_t>& deltas) {
  uint64_t sum = 0;
  for (uint64_t delta : deltas) sum += delta / divisor;
  return sum;
}

template <FastBinning::Mode M>
void runBinningVsDivision(benchmark::State& state, uint64_t divisor, uint64_t max_duration) {
  using Clock = ThreadCpuClock;
  const FastBinning binner(divisor, max_duration);
  if (binner.getMode() != M) {
    state.SkipWithError("the arguments select another mode");
    return;
  }
  const std::vector<uint64_t> deltas = randomDeltas(max_duration);
  // Hidden from the optimiser, so that the baseline really divides.
  uint64_t runtime_divisor = divisor;
  benchmark::DoNotOptimize(runtime_divisor);

  Clock::duration division_time{};
  double binning_seconds = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    const uint64_t bins = sumOfBins<M>(binner, deltas);
    const auto binned = Clock::now();
    const uint64_t quotients = sumOfQuotients(runtime_divisor, deltas);
    division_time += Clock::now() - binned;
    const double seconds = std::chrono::duration<double>(binned - start).count();
    binning_seconds += seconds;
    state.SetIterationTime(seconds);
    if (bins != quotients) {
      state.SkipWithError("binning and division disagree");
      return;
    }
  }
  const auto items = static_cast<double>(state.iterations() * kDeltas);
  const double division_seconds = std::chrono::duration<double>(division_time).count();
  state.SetItemsProcessed(static_cast<int64_t>(items));
  state.counters["div_per_s"] = items / division_seconds;
  state.counters["vs_div"] = division_seconds / binning_seconds;
}

void BM_ShiftVsDivision(benchmark::State& state) {
  runBinningVsDivision<FastBinning::ModeShift>(state, 1024, 1000000);
}
void BM_Mul32VsDivision(benchmark::State& state) {
  runBinningVsDivision<FastBinning::ModeMul32>(state, 1000, 1000000);
}
void BM_MulHigh64VsDivision(benchmark::State& state) {
  runBinningVsDivision<FastBinning::ModeMulHigh64>(state, 1000, 1000000000);
}
// A divisor near 10^8 over a 100 ms range: the 32-bit reciprocal is off after a few
// hundred bins, the 64-bit one is exact.
void BM_MulHigh64LargeVsDivision(benchmark::State& state) {
  runBinningVsDivision<FastBinning::ModeMulHigh64>(state, 100000007, 100000000000);
}
BENCHMARK(BM_ShiftVsDivision)->UseManualTime();
BENCHMARK(BM_Mul32VsDivision)->UseManualTime();
BENCHMARK(BM_MulHigh64VsDivision)->UseManualTime();
BENCHMARK(BM_MulHigh64LargeVsDivision)->UseManualTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
