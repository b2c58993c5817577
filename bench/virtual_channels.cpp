// Coincidences and DelayedChannel against the least any virtual channel does:
// rebuilding each block by copying its tags into an output vector and swapping.
// Both run alternately on the same blocks in this process; `vs_copy` is the
// channel's throughput over that pass-through copy's, and `copy_tags_per_s`
// the copy's own figure. Times are the thread's CPU time, so that other
// processes on a shared machine distort them less; tags/s is tags in over it.

#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <utility>
#include <vector>

#include "bench_lap.h"
#include "bench_tagger.h"
#include "measurements/coincidence_windows.h"
#include "thread_cpu_clock.h"
#include "zeptick/coincidences.h"
#include "zeptick/delayed_channel.h"

namespace zeptick::bench {
namespace {

constexpr size_t kTagsPerBlock = 131072;
constexpr int64_t kMeanGap = 1000;  // 1 ns between tags over all 8 inputs: 1e9 tags/s
constexpr int64_t kBlockSpan = static_cast<int64_t>(kTagsPerBlock) * kMeanGap;
constexpr int kBlocksPerIteration = 8;

// Time tags spread over inputs 1 to 8, with equal times now and then and an
// overflow span every few thousand tags.
std::vector<Tag> busyPattern() {
  std::mt19937_64 rng(7);
  std::uniform_int_distribution<int> channel(1, 8);
  std::uniform_int_distribution<int64_t> gap(0, 2 * kMeanGap - 1);
  std::vector<Tag> tags;
  tags.reserve(kTagsPerBlock);
  int64_t time = 0;
  for (size_t i = 0; i < kTagsPerBlock; ++i) {
    time = std::min(time + gap(rng), kBlockSpan - 1);
    if (i % 5000 == 4000) {
      tags.push_back(Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, time});
    } else if (i % 5000 == 4002) {
      tags.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, time});
    } else {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel(rng), time});
    }
  }
  return tags;
}

// The floor of every virtual channel: the block copied into a new vector.
class PassThrough {
 public:
  __attribute__((noinline)) void feed(std::vector<Tag>& tags, int64_t, int64_t) {
    output.clear();
    for (const Tag& tag : tags) output.push_back(tag);
    tags.swap(output);
    benchmark::DoNotOptimize(tags.data());
  }

 private:
  std::vector<Tag> output;
};

// The block as a tagger would hand it over: the pattern moved to its span.
void fill(std::vector<Tag>& block, const std::vector<Tag>& pattern, int64_t begin) {
  block.resize(pattern.size());
  for (size_t i = 0; i < pattern.size(); ++i) {
    block[i] = pattern[i];
    block[i].time += begin;
  }
}

template <class Channel>
void compareWithCopy(benchmark::State& state, Channel& channel) {
  const std::vector<Tag> pattern = busyPattern();
  PassThrough copy;
  std::vector<Tag> block;
  std::vector<Tag> copy_block;
  int64_t begin = 0;
  int64_t copy_begin = 0;
  size_t tags_out = 0;
  for (int i = 0; i < kBlocksPerIteration; ++i, begin += kBlockSpan) {  // warm up
    fill(block, pattern, begin);
    channel.feed(block, begin, begin + kBlockSpan);
  }
  double channel_seconds = 0;
  double copy_seconds = 0;
  for (auto _ : state) {
    const double start = threadSeconds();
    for (int i = 0; i < kBlocksPerIteration; ++i, begin += kBlockSpan) {
      fill(block, pattern, begin);
      channel.feed(block, begin, begin + kBlockSpan);
      tags_out += block.size();
    }
    const double channel_done = threadSeconds();
    for (int i = 0; i < kBlocksPerIteration; ++i, copy_begin += kBlockSpan) {
      fill(copy_block, pattern, copy_begin);
      copy.feed(copy_block, copy_begin, copy_begin + kBlockSpan);
    }
    copy_seconds += threadSeconds() - channel_done;
    channel_seconds += channel_done - start;
    state.SetIterationTime(channel_done - start);
  }
  const auto tags = static_cast<double>(state.iterations() * kBlocksPerIteration * kTagsPerBlock);
  state.SetItemsProcessed(static_cast<int64_t>(tags));
  state.counters["copy_tags_per_s"] = tags / copy_seconds;
  state.counters["vs_copy"] = copy_seconds / channel_seconds;
  state.counters["out_per_in"] = static_cast<double>(tags_out) / tags;
}

// Arguments: the stamp, 0 Last to 3 ListedFirst; 0 for four pairs, 1 for the
// pairs with a four-fold group and one of all eight inputs beside them; 1 to
// force the plain window test, as a processor without AVX2 runs it.
void BM_Coincidences(benchmark::State& state) {
  detail::limitCoincidenceWindows(state.range(2) == 1 ? detail::WindowForm::Plain
                                                      : detail::WindowForm::Avx512);
  BenchTagger tagger({}, kBlockSpan, 1);
  std::vector<std::vector<int>> groups = {{1, 2}, {3, 4}, {5, 6}, {7, 8}};
  if (state.range(1) == 1) {
    groups.push_back({1, 3, 5, 7});
    groups.push_back({1, 2, 3, 4, 5, 6, 7, 8});
  }
  Driven<Coincidences> coincidences(&tagger, groups, 1500,
                                    static_cast<CoincidenceTimestamp>(state.range(0)));
  compareWithCopy(state, coincidences);
  detail::limitCoincidenceWindows(detail::WindowForm::Avx512);
}
BENCHMARK(BM_Coincidences)->ArgsProduct({{0, 1, 2, 3}, {0, 1}, {0, 1}})->UseManualTime();

// Arguments: delay in ps, number of input channels (3 or fewer scan, more hash).
void BM_DelayedChannel(benchmark::State& state) {
  BenchTagger tagger({}, kBlockSpan, 1);
  std::vector<int> inputs;
  for (int c = 1; c <= state.range(1); ++c) inputs.push_back(c);
  Driven<DelayedChannel> delayed(&tagger, inputs, state.range(0));
  compareWithCopy(state, delayed);
}
BENCHMARK(BM_DelayedChannel)
    ->Args({10000, 2})
    ->Args({10000, 5})
    ->Args({-10000, 2})
    ->Args({-10000, 5})
    ->UseManualTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
