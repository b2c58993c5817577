// StartStop on starts at 5 MHz and clicks at 5 MHz (Poisson both), against two loops fed the
// same blocks in the same iteration, all on the thread's CPU clock:
// - a bare scan that only looks at each tag's type and channel (`vs_scan`);
// - the same pairing counted the simplest way, a hash map of bins and a 64-bit division per
//   pair (`vs_hash_division`): what StartStop must beat.
// Argument: the bin width in ps (1: no arithmetic at all; 1000: a width no shift can take).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <unordered_map>
#include <vector>

#include "bench_lap.h"
#include "bench_tagger.h"
#include "thread_cpu_clock.h"
#include "zeptick/start_stop.h"

namespace zeptick::bench {
namespace {

constexpr int64_t kBlockSpan = 10000000000;  // 10 ms, about 100000 tags
constexpr int kBlocksPerLap = 10;

Lap makeLap() {
  std::mt19937_64 rng(2027);
  std::vector<Tag> tags;
  for (int channel : {1, 2}) {
    std::exponential_distribution<double> gap(5e6 * 1e-12);
    for (double t = gap(rng); t < kBlockSpan * kBlocksPerLap; t += gap(rng)) {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, static_cast<int64_t>(t)});
    }
  }
  return Lap(std::move(tags), kBlockSpan, kBlocksPerLap);
}

class HashDivision {
 public:
  explicit HashDivision(int64_t binwidth) : binwidth(static_cast<uint64_t>(binwidth)) {}
  __attribute__((noinline)) void feed(const std::vector<Tag>& tags) {
    for (const Tag& tag : tags) {
      if (tag.type != Tag::Type::TimeTag) {
        open = 0;
        continue;
      }
      if (tag.channel == 2 && open != 0) {
        ++bins[(static_cast<uint64_t>(tag.time) - static_cast<uint64_t>(open)) / binwidth];
        open = 0;
      }
      if (tag.channel == 1) open = tag.time;
    }
  }

 private:
  uint64_t binwidth;
  int64_t open = 0;
  std::unordered_map<uint64_t, int64_t> bins;
};

void BM_StartStop(benchmark::State& state) {
  using Clock = ThreadCpuClock;
  Lap lap = makeLap();
  BenchTagger tagger({}, kBlockSpan, 1);
  Driven<StartStop> measurement(&tagger, 2, 1, state.range(0));
  HashDivision reference(state.range(0));
  int64_t tags_done = 0;
  std::chrono::duration<double> measured{0}, scanned{0}, referenced{0};
  for (auto _ : state) {
    std::vector<Tag>& tags = lap.tags();
    const auto t0 = Clock::now();
    measurement.feed(tags, lap.begin(), lap.end());
    const auto t1 = Clock::now();
    benchmark::DoNotOptimize(scanTags(tags));
    const auto t2 = Clock::now();
    reference.feed(tags);
    const auto t3 = Clock::now();
    measured += t1 - t0;
    scanned += t2 - t1;
    referenced += t3 - t2;
    state.SetIterationTime(std::chrono::duration<double>(t1 - t0).count());
    tags_done += static_cast<int64_t>(tags.size());
    lap.advance();
  }
  state.SetItemsProcessed(tags_done);
  state.counters["vs_scan"] = scanned.count() / measured.count();
  state.counters["vs_hash_division"] = referenced.count() / measured.count();
}
BENCHMARK(BM_StartStop)->Arg(1)->Arg(1000)->UseManualTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
