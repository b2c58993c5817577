// CountBetweenMarkers, Scope and Iterator against a bare scan of the same tags in the same
// run. The two measurements run their block hook on this thread, alternating with the bare
// scan, and report `vs_bare`: the bare scan's thread CPU time over theirs. Iterator runs on
// the runner's workers with a consumer thread taking every block, against memcpy of the same
// bytes.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

#include "bench_tagger.h"
#include "thread_cpu_clock.h"
#include "zeptick/count_between_markers.h"
#include "zeptick/iterator.h"
#include "zeptick/scope.h"

namespace zeptick::bench {
namespace {

constexpr size_t kTagsPerBlock = 131072;
constexpr int64_t kBlockSpan = 1000000000;  // 1 ms: 131 M tags per second

// Clicks and edges on 1, 2 and their falling edges -1, -2; a marker or trigger on 5 about
// every 1000 tags.
std::vector<Tag> pattern() {
  std::mt19937_64 rng(7);
  const int channels[] = {1, 2, -1, -2, 1, 2, -1, -2, 3, 4};
  std::vector<int64_t> times(kTagsPerBlock);
  std::uniform_int_distribution<int64_t> when(0, kBlockSpan - 1);
  for (int64_t& time : times) time = when(rng);
  std::sort(times.begin(), times.end());
  std::vector<Tag> tags;
  for (size_t i = 0; i < kTagsPerBlock; ++i) {
    const int channel = i % 1000 == 0 ? 5 : channels[rng() % std::size(channels)];
    tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, times[i]});
  }
  return tags;
}

// Counts the tags of channel 1: the least any measurement of the stream must do.
__attribute__((noinline)) int64_t bareScan(const std::vector<Tag>& tags) {
  int64_t count = 0;
  for (const Tag& tag : tags) count += tag.channel == 1;
  return count;
}

template <class Measurement>
class Fed : public Measurement {
 public:
  using Measurement::Measurement;
  void feed(std::vector<Tag>& tags, int64_t begin, int64_t end) {
    this->lock();
    this->next_impl(tags, begin, end);
    this->unlock();
  }
};

template <class Measurement, class... Args>
void runAgainstBare(benchmark::State& state, Args... args) {
  std::vector<Tag> block = pattern();
  BenchTagger tagger(block, kBlockSpan, 1);  // no blocks granted: only this thread feeds
  Fed<Measurement> measurement(&tagger, args...);
  measurement.stop();
  ThreadCpuClock::duration measured{}, bare{};
  int64_t begin = 0;
  for (auto _ : state) {
    std::vector<Tag> shifted = block;
    for (Tag& tag : shifted) tag.time += begin;
    auto start = ThreadCpuClock::now();
    measurement.feed(shifted, begin, begin + kBlockSpan);
    auto middle = ThreadCpuClock::now();
    benchmark::DoNotOptimize(bareScan(shifted));
    bare += ThreadCpuClock::now() - middle;
    measured += middle - start;
    begin += kBlockSpan;
  }
  const double tags = static_cast<double>(state.iterations() * kTagsPerBlock);
  state.counters["tags_per_s"] = tags / std::chrono::duration<double>(measured).count();
  state.counters["bare_tags_per_s"] = tags / std::chrono::duration<double>(bare).count();
  state.counters["vs_bare"] =
      std::chrono::duration<double>(bare).count() / std::chrono::duration<double>(measured).count();
}

void BM_CountBetweenMarkers(benchmark::State& state) {
  runAgainstBare<CountBetweenMarkers>(state, 1, 5, CHANNEL_UNUSED, 1000000, true);
}
BENCHMARK(BM_CountBetweenMarkers);

void BM_Scope(benchmark::State& state) {
  // A window of a tenth of the marker spacing, and traces without end.
  runAgainstBare<Scope>(state, std::vector<int>{1, 2}, 5, int64_t{760000}, 1 << 30);
}
BENCHMARK(BM_Scope);

// Blocks from the runner's workers to a consumer thread, against copying the same bytes.
void BM_IteratorToConsumer(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const std::vector<Tag> block = pattern();
  BenchTagger tagger(block, kBlockSpan, 0);
  // Room for every block of a batch, so that a slow consumer shows as time, not as drops.
  constexpr uint64_t kBlocks = 32;
  Iterator iterator(&tagger, {}, kBlocks * kTagsPerBlock);
  std::vector<Tag> copy(block.size());
  Clock::duration delivered{}, copied{};
  for (auto _ : state) {
    uint64_t tags = 0;
    const auto start = Clock::now();
    std::thread consumer([&] {
      Iterator::Block taken;
      // Blocks without tags would merge, so count tags, with a timeout against a hang.
      while (tags < kBlocks * kTagsPerBlock && iterator.next(taken, 10000)) {
        tags += taken.tags.size();
      }
    });
    tagger.grant(kBlocks);
    consumer.join();
    const auto middle = Clock::now();
    for (uint64_t i = 0; i < kBlocks; ++i) {
      std::memcpy(copy.data(), block.data(), block.size() * sizeof(Tag));
      benchmark::ClobberMemory();
    }
    copied += Clock::now() - middle;
    delivered += middle - start;
    benchmark::DoNotOptimize(tags);
  }
  const double tags = static_cast<double>(state.iterations() * kBlocks * kTagsPerBlock);
  state.counters["tags_per_s"] = tags / std::chrono::duration<double>(delivered).count();
  state.counters["memcpy_tags_per_s"] = tags / std::chrono::duration<double>(copied).count();
  state.counters["vs_memcpy"] = std::chrono::duration<double>(copied).count() /
                                std::chrono::duration<double>(delivered).count();
  state.counters["dropped"] = static_cast<double>(iterator.getDroppedTags());
}
BENCHMARK(BM_IteratorToConsumer)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
