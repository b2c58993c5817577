// Countrate through the runner against a bare loop doing the same counting on
// the same block in this process, the plain way: one compare per listed channel
// per tag. The runner path reports its tags per second and, as `vs_bare`, that
// figure over the bare loop's measured alongside it, so above 1 the per-channel
// table lookup has paid for the runner around it and more.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <iterator>
#include <random>
#include <utility>
#include <vector>

#include "bench_tagger.h"
#include "zeptick/countrate.h"

namespace zeptick::bench {
namespace {

constexpr size_t kTagsPerBlock = 131072;
constexpr int64_t kBlockSpan = 1000000000;  // 1 ms, about 131 million tags per second
constexpr uint64_t kBlocksPerIteration = 8;
const std::vector<int> kChannels = {1, 2, 3, 4};

// Mostly the four counted channels, a fifth of the tags on others, a few
// missed-event tags: what a busy acquisition looks like to Countrate.
std::vector<Tag> busyPattern() {
  std::mt19937_64 rng(42);
  const int channels[] = {1, 2, 3, 4, 1, 2, 3, 4, 5, 6, -1, -2, 1, 2, 3, 4, 1, 2, 3, 4};
  std::uniform_int_distribution<size_t> pick(0, std::size(channels) - 1);
  std::uniform_int_distribution<int64_t> when(0, kBlockSpan - 1);
  std::vector<int64_t> times(kTagsPerBlock);
  for (int64_t& time : times) time = when(rng);
  std::sort(times.begin(), times.end());
  std::vector<Tag> tags;
  tags.reserve(kTagsPerBlock);
  for (size_t i = 0; i < kTagsPerBlock; ++i) {
    const int channel = channels[pick(rng)];
    if (i % 1000 == 999) {
      tags.push_back(Tag{Tag::Type::MissedEvents, 0, 7, channel, times[i]});
    } else {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, times[i]});
    }
  }
  return tags;
}

// The same counts as Countrate::next_impl, by a scan of the listed channels per tag.
class BareCountrate {
 public:
  explicit BareCountrate(std::vector<int> channels)
      : channels(std::move(channels)),
        counts(this->channels.size(), 0),
        totals(this->channels.size(), 0) {}

  __attribute__((noinline)) void run(const std::vector<Tag>& tags, int64_t begin_time,
                                     int64_t end_time) {
    int64_t first = first_time != 0 ? first_time : begin_time;
    const int* const wanted = channels.data();
    const size_t n = channels.size();
    int64_t* const at_error = counts.data();
    int64_t* const total = totals.data();
    for (size_t i = 0; i < n; ++i) at_error[i] = total[i] - at_error[i];
    for (const Tag& tag : tags) {
      if (isCountedEvent(tag)) {
        const int64_t events = tag.type == Tag::Type::TimeTag ? 1 : tag.missed_events;
        bool listed = false;
        for (size_t i = 0; i < n; ++i) {
          const bool match = wanted[i] == tag.channel;
          total[i] += match ? events : 0;
          listed |= match;
        }
        if (listed && first == 0) first = tag.time;
      } else if (tag.type == Tag::Type::Error) {
        first = 0;
        std::copy(total, total + n, at_error);
      }
    }
    for (size_t i = 0; i < n; ++i) at_error[i] = total[i] - at_error[i];
    last_time = end_time;
    first_time = first != 0 ? first : end_time;
    benchmark::DoNotOptimize(total);
  }

 private:
  std::vector<int> channels;
  std::vector<int64_t> counts;
  std::vector<int64_t> totals;
  int64_t first_time = 0;
  int64_t last_time = 0;
};

void BM_CountrateBareLoop(benchmark::State& state) {
  const std::vector<Tag> block = busyPattern();
  BareCountrate bare(kChannels);
  int64_t begin = 0;
  for (auto _ : state) {
    bare.run(block, begin, begin + kBlockSpan);
    begin += kBlockSpan;
  }
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kTagsPerBlock));
}
BENCHMARK(BM_CountrateBareLoop);

void BM_CountrateRunner(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  const std::vector<Tag> block = busyPattern();
  BenchTagger tagger(block, kBlockSpan, static_cast<unsigned>(state.range(0)));
  Countrate countrate(&tagger, kChannels);
  BlockCounter counter(&tagger);
  tagger.grant(kBlocksPerIteration);  // warm up: links the chain, fills the workers' vectors
  counter.waitFor(kBlocksPerIteration);

  // Each batch through the runner is followed by the same number of blocks
  // through the bare loop, so that both see the same load on a shared machine.
  BareCountrate bare(kChannels);
  int64_t bare_begin = 0;
  Clock::duration runner_time{};
  Clock::duration bare_time{};
  for (auto _ : state) {
    const auto start = Clock::now();
    tagger.grant(kBlocksPerIteration);
    counter.waitFor(kBlocksPerIteration);
    const auto runner_done = Clock::now();
    state.PauseTiming();
    for (uint64_t i = 0; i < kBlocksPerIteration; ++i, bare_begin += kBlockSpan) {
      bare.run(block, bare_begin, bare_begin + kBlockSpan);
    }
    bare_time += Clock::now() - runner_done;
    runner_time += runner_done - start;
    state.ResumeTiming();
  }

  const auto tags = static_cast<double>(state.iterations() * kBlocksPerIteration * kTagsPerBlock);
  const double bare_seconds = std::chrono::duration<double>(bare_time).count();
  state.SetItemsProcessed(static_cast<int64_t>(tags));
  state.counters["bare_tags_per_s"] = tags / bare_seconds;
  state.counters["vs_bare"] = bare_seconds / std::chrono::duration<double>(runner_time).count();
}
// Argument: worker threads, 0 for one per hardware thread.
BENCHMARK(BM_CountrateRunner)->Arg(1)->Arg(0)->UseRealTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
