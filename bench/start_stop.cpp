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

#include "bench_tagger.h"
#include "thread_cpu_clock.h"
#include "zeptick/start_stop.h"

namespace zeptick::bench {
namespace {

constexpr int64_t kBlockSpan = 10000000000;  // 10 ms, about 100000 tags
constexpr int kBlocksPerLap = 10;

std::vector<std::vector<Tag>> makeLap() {
  std::mt19937_64 rng(2027);
  std::vector<Tag> tags;
  for (int channel : {1, 2}) {
    std::exponential_distribution<double> gap(5e6 * 1e-12);
    for (double t = gap(rng); t < kBlockSpan * kBlocksPerLap; t += gap(rng)) {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, static_cast<int64_t>(t)});
    }
  }
  std::sort(tags.begin(), tags.end(), [](const Tag& a, const Tag& b) { return a.time < b.time; });
  std::vector<std::vector<Tag>> blocks(kBlocksPerLap);
  for (const Tag& tag : tags) blocks[static_cast<size_t>(tag.time / kBlockSpan)].push_back(tag);
  return blocks;
}

__attribute__((noinline)) int64_t scanTags(const std::vector<Tag>& tags) {
  int64_t clicks = 0;
  int64_t starts = 0;
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::TimeTag) {
      clicks += tag.channel == 2;
      starts += tag.channel == 1;
    }
  }
  return clicks + 2 * starts;
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

class Driven : public StartStop {
 public:
  using StartStop::StartStop;
  void feed(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
    lock();
    next_impl(tags, begin_time, end_time);
    unlock();
  }
};

void BM_StartStop(benchmark::State& state) {
  using Clock = ThreadCpuClock;
  std::vector<std::vector<Tag>> lap = makeLap();
  BenchTagger tagger({}, kBlockSpan, 1);
  Driven measurement(&tagger, 2, 1, state.range(0));
  measurement.stop();
  HashDivision reference(state.range(0));
  int64_t tags_done = 0;
  int64_t lap_offset = 0;
  size_t block = 0;
  std::chrono::duration<double> measured{0}, scanned{0}, referenced{0};
  for (auto _ : state) {
    std::vector<Tag>& tags = lap[block];
    const int64_t begin = lap_offset + static_cast<int64_t>(block) * kBlockSpan;
    const auto t0 = Clock::now();
    measurement.feed(tags, begin, begin + kBlockSpan);
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
    if (++block == lap.size()) {
      block = 0;
      lap_offset += kBlockSpan * kBlocksPerLap;
      for (auto& lap_block : lap) {
        for (Tag& tag : lap_block) tag.time += kBlockSpan * kBlocksPerLap;
      }
    }
  }
  state.SetItemsProcessed(tags_done);
  state.counters["vs_scan"] = scanned.count() / measured.count();
  state.counters["vs_hash_division"] = referenced.count() / measured.count();
}
BENCHMARK(BM_StartStop)->Arg(1)->Arg(1000)->UseManualTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
