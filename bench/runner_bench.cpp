// Cost of carrying a small block through the worker threads and the chain of
// measurements, against calling the same measurements directly in one thread.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "bench_tagger.h"

namespace zeptick::bench {
namespace {

constexpr size_t kTagsPerBlock = 16;
constexpr int64_t kBlockSpan = 1000000;
constexpr uint64_t kBlocksPerIteration = 256;

std::vector<Tag> smallPattern() {
  std::vector<Tag> tags;
  for (size_t i = 0; i < kTagsPerBlock; ++i) {
    tags.push_back(
        Tag{Tag::Type::TimeTag, 0, 0, static_cast<int32_t>(1 + i % 4),
            static_cast<int64_t>(i) * (kBlockSpan / static_cast<int64_t>(kTagsPerBlock))});
  }
  return tags;
}

void setPerBlock(benchmark::State& state, uint64_t blocks) {
  state.SetItemsProcessed(static_cast<int64_t>(blocks));
  state.counters["time_per_block"] = benchmark::Counter(
      static_cast<double>(blocks), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// range(0) measurements in the chain: range(0) - 1 that do nothing and the
// counter that tells when a block has passed them all.
void BM_RunnerPerBlock(benchmark::State& state) {
  const auto measurements = static_cast<int>(state.range(0));
  BenchTagger tagger(smallPattern(), kBlockSpan);
  std::vector<std::unique_ptr<NullMeasurement>> chain;
  for (int i = 1; i < measurements; ++i)
    chain.push_back(std::make_unique<NullMeasurement>(&tagger));
  BlockCounter counter(&tagger);

  tagger.grant(kBlocksPerIteration);  // warm up: links the chain, sizes the workers' vectors
  counter.waitFor(kBlocksPerIteration);
  for (auto _ : state) {
    tagger.grant(kBlocksPerIteration);
    counter.waitFor(kBlocksPerIteration);
  }
  setPerBlock(state, state.iterations() * kBlocksPerIteration);
}
BENCHMARK(BM_RunnerPerBlock)->Arg(1)->Arg(4)->Arg(16)->UseRealTime();

// Baseline: the same virtual calls per block, in one thread, with no runner.
class DirectNull : public NullMeasurement {
 public:
  using NullMeasurement::NullMeasurement;
  bool call(std::vector<Tag>& tags, int64_t begin, int64_t end) {
    return next_impl(tags, begin, end);
  }
};

void BM_DirectCallsPerBlock(benchmark::State& state) {
  const auto measurements = static_cast<int>(state.range(0));
  BenchTagger tagger(smallPattern(), kBlockSpan, 1);
  std::vector<std::unique_ptr<DirectNull>> chain;
  for (int i = 0; i < measurements; ++i) chain.push_back(std::make_unique<DirectNull>(&tagger));
  std::vector<Tag> tags = smallPattern();
  int64_t begin = 0;
  for (auto _ : state) {
    for (uint64_t block = 0; block < kBlocksPerIteration; ++block) {
      for (auto& measurement : chain) {
        benchmark::DoNotOptimize(measurement->call(tags, begin, begin + kBlockSpan));
      }
      begin += kBlockSpan;
    }
  }
  setPerBlock(state, state.iterations() * kBlocksPerIteration);
}
BENCHMARK(BM_DirectCallsPerBlock)->Arg(1)->Arg(4)->Arg(16);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
