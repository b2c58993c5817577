// HistogramLogBins fed block by block, against a bare scan of the same tags in
// the same run. The argument is the number of starts alive within the range;
// it grows 10x and 100x at a fixed ratio of starts to clicks, so a click's cost
// must stay nearly flat (a pairwise method would grow with it).
// Counters: ns_per_click, tags_per_s, scan_tags_per_s and vs_scan, the
// measurement's throughput over the scan's.

#include <benchmark/benchmark.h>

#include <time.h>

#include <cstdint>
#include <random>
#include <vector>

#include "bench_tagger.h"
#include "thread_cpu_clock.h"
#include "zeptick/histogram_log_bins.h"

namespace zeptick::bench {
namespace {

constexpr size_t kTagsPerBlock = 131072;
constexpr int kStartsPerClick = 4;
constexpr int kStartChannel = 1;
constexpr int kClickChannel = 2;
// Edges from 1 ps to 1 us in 60 bins.
constexpr double kExpStart = -12;
constexpr double kExpStop = -6;
constexpr int kBins = 60;
constexpr int64_t kRange = 1000000;

// Four starts and one click in turn, at jittered times, so that `live` starts
// fall within the range at any moment.
std::vector<Tag> makeBlock(int64_t live, int64_t* span) {
  const int64_t start_spacing = kRange / live;
  const int64_t tag_spacing = start_spacing * kStartsPerClick / (kStartsPerClick + 1);
  std::mt19937_64 rng(7);
  std::uniform_int_distribution<int64_t> jitter(0, tag_spacing / 2);
  std::vector<Tag> tags;
  tags.reserve(kTagsPerBlock);
  for (size_t i = 0; i < kTagsPerBlock; ++i) {
    const int channel =
        i % (kStartsPerClick + 1) == kStartsPerClick ? kClickChannel : kStartChannel;
    const int64_t time = static_cast<int64_t>(i) * tag_spacing + jitter(rng);
    tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, time});
  }
  *span = static_cast<int64_t>(kTagsPerBlock) * tag_spacing;
  return tags;
}

// Driven by the benchmark's thread instead of a worker: stopped at once, and
// given each block under its lock as a worker would.
class DirectLogBins : public HistogramLogBins {
 public:
  explicit DirectLogBins(ZeptickBase* tagger)
      : HistogramLogBins(tagger, kClickChannel, kStartChannel, kExpStart, kExpStop, kBins) {
    stop();
  }
  void feed(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
    lock();
    next_impl(tags, begin_time, end_time);
    unlock();
  }
};

// The least a measurement of these channels must do: look at every tag.
__attribute__((noinline)) int64_t scan(const std::vector<Tag>& tags) {
  int64_t sum = 0;
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::TimeTag &&
        (tag.channel == kStartChannel || tag.channel == kClickChannel)) {
      sum += tag.time;
    }
  }
  return sum;
}

void shift(std::vector<Tag>& tags, int64_t by) {
  for (Tag& tag : tags) tag.time += by;
}

void BM_HistogramLogBinsPerClick(benchmark::State& state) {
  int64_t span = 0;
  std::vector<Tag> tags = makeBlock(state.range(0), &span);
  BenchTagger tagger({}, 1, 1);  // no block is ever granted: the benchmark feeds directly
  DirectLogBins histogram(&tagger);
  int64_t begin = 0;
  // Warm up past settling and the ring's growth.
  for (int i = 0; i < 3; ++i, begin += span) {
    histogram.feed(tags, begin, begin + span);
    shift(tags, span);
  }

  double seconds = 0;
  double scan_seconds = 0;
  for (auto _ : state) {
    const double start = threadSeconds();
    histogram.feed(tags, begin, begin + span);
    const double fed = threadSeconds();
    state.PauseTiming();
    benchmark::DoNotOptimize(scan(tags));
    scan_seconds += threadSeconds() - fed;
    seconds += fed - start;
    shift(tags, span);
    begin += span;
    state.ResumeTiming();
  }

  const double n = static_cast<double>(state.iterations());
  const double clicks = n * static_cast<double>(kTagsPerBlock / (kStartsPerClick + 1));
  state.SetItemsProcessed(static_cast<int64_t>(n * kTagsPerBlock));
  state.counters["ns_per_click"] = seconds * 1e9 / clicks;
  state.counters["tags_per_s"] = n * kTagsPerBlock / seconds;
  state.counters["scan_tags_per_s"] = n * kTagsPerBlock / scan_seconds;
  state.counters["vs_scan"] = scan_seconds / seconds;
}
// Argument: starts alive within the range.
BENCHMARK(BM_HistogramLogBinsPerClick)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
