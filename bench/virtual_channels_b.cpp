// EventGenerator and ConstantFractionDiscriminator against a pass-through copy
// of the same blocks, measured alternately in the same run: each block is
// rebuilt once by the channel and once by a bare copy into a second vector
// and a swap, the least a channel that rebuilds its block can do. Reported:
// input tags per second of the channel, of the copy, and their ratio
// `vs_copy` (channel throughput over copy throughput, 1 = as fast as copying).
// Times are the thread's CPU time.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <random>
#include <utility>
#include <vector>

#include "bench_lap.h"
#include "bench_tagger.h"
#include "thread_cpu_clock.h"
#include "zeptick/constant_fraction_discriminator.h"
#include "zeptick/event_generator.h"

namespace zeptick::bench {
namespace {

constexpr size_t kTagsPerBlock = 131072;
constexpr int64_t kBlockSpan = 1000000000;  // 1 ms: about 131 million tags per second

// Pulses on inputs 1 and 2: a rising edge and, 100 to 900 ps later, the
// falling one, with a few unrelated tags between; one overflow per block.
std::vector<Tag> pulsePattern() {
  std::mt19937_64 rng(7);
  std::uniform_int_distribution<int64_t> start(0, kBlockSpan - 2000);
  std::uniform_int_distribution<int64_t> width(100, 900);
  std::uniform_int_distribution<int> input(1, 2);
  std::vector<Tag> tags;
  while (tags.size() + 3 <= kTagsPerBlock) {
    const int64_t t = start(rng);
    const int channel = input(rng);
    tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, t});
    tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, -channel, t + width(rng)});
    tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, 3, t + 50});
  }
  std::stable_sort(tags.begin(), tags.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  const int64_t middle = tags[tags.size() / 2].time;
  tags.insert(tags.begin() + static_cast<ptrdiff_t>(tags.size() / 2),
              {Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, middle},
               Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, middle}});
  return tags;
}

// Alternates channel and copy over the same blocks and reports both rates.
template <class Channel>
void runAgainstCopy(benchmark::State& state, Channel& channel) {
  using Clock = ThreadCpuClock;
  const std::vector<Tag> pattern = pulsePattern();
  std::vector<Tag> block;
  std::vector<Tag> copy_block;
  std::vector<Tag> copy_output;
  int64_t begin = 0;
  Clock::duration channel_time{};
  Clock::duration copy_time{};
  auto fill = [&](std::vector<Tag>& target) {
    target.assign(pattern.begin(), pattern.end());
    for (Tag& tag : target) tag.time += begin;
  };
  for (auto _ : state) {
    fill(block);
    fill(copy_block);
    const auto start = Clock::now();
    channel.feed(block, begin, begin + kBlockSpan);
    const auto channel_done = Clock::now();
    copy_output.clear();
    copy_output.insert(copy_output.end(), copy_block.begin(), copy_block.end());
    copy_block.swap(copy_output);
    benchmark::DoNotOptimize(copy_block.data());
    const auto copy_done = Clock::now();
    channel_time += channel_done - start;
    copy_time += copy_done - channel_done;
    state.SetIterationTime(std::chrono::duration<double>(channel_done - start).count());
    begin += kBlockSpan;
  }
  const auto tags = static_cast<double>(state.iterations() * pattern.size());
  const double channel_seconds = std::chrono::duration<double>(channel_time).count();
  const double copy_seconds = std::chrono::duration<double>(copy_time).count();
  state.SetItemsProcessed(static_cast<int64_t>(tags));
  state.counters["tags_per_s"] = tags / channel_seconds;
  state.counters["copy_tags_per_s"] = tags / copy_seconds;
  state.counters["vs_copy"] = copy_seconds / channel_seconds;
}

void BM_ConstantFractionDiscriminator(benchmark::State& state) {
  BenchTagger tagger({}, kBlockSpan, 1);
  Driven<ConstantFractionDiscriminator> cfd(&tagger, std::vector<int>{1, 2}, state.range(0));
  runAgainstCopy(state, cfd);
}
// Argument: search window in ps.
BENCHMARK(BM_ConstantFractionDiscriminator)->Arg(1000)->Arg(100000)->UseManualTime();

void BM_EventGenerator(benchmark::State& state) {
  BenchTagger tagger({}, kBlockSpan, 1);
  // One trigger in six tags, four offsets each: the block grows by two thirds.
  std::vector<int64_t> pattern = {0, 1000, 20000, 300000};
  if (state.range(0) != 0) pattern.front() = -state.range(0);  // holds the stream back
  Driven<EventGenerator> generator(&tagger, 1, pattern, 1, 0, CHANNEL_UNUSED);
  runAgainstCopy(state, generator);
}
// Argument: 0 for a pattern without negative offsets, else the lag in ps.
BENCHMARK(BM_EventGenerator)->Arg(0)->Arg(5000)->UseManualTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
