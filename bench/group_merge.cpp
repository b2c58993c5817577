// Synchronized groups. The merge stage alone: DeviceMerger over 2 and 4 members' blocks of
// interleaved tags, in ns per tag, against std::merge of the same blocks in the same run. End to
// end: emulated groups of 2 and 4 free-running boards into a Countrate of every input, against a
// single board with the same sources per board in the same run (the emulator's generation of
// every board's words is inside the figure, as on one machine it must be).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/control/board_control.h"
#include "engine/device_merger.h"
#include "engine/zeptick_impl.h"
#include "thread_cpu_clock.h"
#include "zeptick/countrate.h"
#include "zeptick/library.h"

namespace zeptick::bench {
namespace {

using nlohmann::json;

constexpr size_t kTagsPerBlock = 8192;
constexpr int kBlocks = 64;

// Blocks of one member: its tags at times ending in its ordinal, touching spans.
std::vector<std::vector<Tag>> memberBlocks(int ordinal, int members, std::mt19937_64& rng) {
  std::vector<std::vector<Tag>> blocks(kBlocks);
  int64_t t = 0;
  for (auto& block : blocks) {
    for (size_t i = 0; i < kTagsPerBlock; ++i) {
      t += static_cast<int64_t>(1 + rng() % 16) * members;
      block.push_back(Tag{Tag::Type::TimeTag, 0, 0, 100 * (ordinal + 1) + 1, t + ordinal});
    }
  }
  return blocks;
}

void BM_MergeStage(benchmark::State& state) {
  const int members = static_cast<int>(state.range(0));
  std::mt19937_64 rng(5);
  std::vector<std::vector<std::vector<Tag>>> group;
  for (int m = 0; m < members; ++m) group.push_back(memberBlocks(m, members, rng));
  double merge_seconds = 0;
  double baseline_seconds = 0;
  uint64_t tags = 0;
  std::vector<Tag> a;
  std::vector<Tag> b;
  for (auto _ : state) {
    DeviceMerger merger(static_cast<size_t>(members));
    ZeptickRunner::Worker worker;
    const double start = threadSeconds();
    for (int block = 0; block < kBlocks; ++block) {
      for (int m = 0; m < members; ++m) {
        worker.tags = group[m][block];  // the copy stands in for the decoder's output
        worker.blockEnd = group[m][block].back().time + 1;
        merger.add(worker, static_cast<size_t>(m), 131072);
        tags += worker.tags.size();
        benchmark::DoNotOptimize(worker.tags.data());
      }
    }
    merge_seconds += threadSeconds() - start;
    // Baseline: the same copies, then pairwise std::merge of every block's members.
    const double base = threadSeconds();
    for (int block = 0; block < kBlocks; ++block) {
      a = group[0][block];
      for (int m = 1; m < members; ++m) {
        b.resize(a.size() + group[m][block].size());
        std::merge(a.begin(), a.end(), group[m][block].begin(), group[m][block].end(), b.begin(),
                   [](const Tag& x, const Tag& y) { return x.time < y.time; });
        a.swap(b);
      }
      benchmark::DoNotOptimize(a.data());
    }
    baseline_seconds += threadSeconds() - base;
  }
  state.counters["ns_per_tag"] = merge_seconds * 1e9 / static_cast<double>(tags);
  state.counters["std_merge_ns_per_tag"] =
      baseline_seconds * 1e9 /
      static_cast<double>(kBlocks * kTagsPerBlock * members * state.iterations());
  state.counters["vs_std_merge"] = baseline_seconds / merge_seconds;
}
BENCHMARK(BM_MergeStage)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond);

// Tags per second through a Countrate on a tagger of `members` boards (1: a single board).
double tagsPerSecond(int members) {
  json devices = json::array();
  json serials = json::array();
  for (int m = 0; m < members; ++m) {
    const std::string serial = "BENCH" + std::to_string(m);
    devices.push_back(
        {{"serial", serial},
         {"pacing", "free"},
         {"inputs", 2},
         {"seed", static_cast<uint64_t>(11 + m)},
         {"sources", json::array({{{"type", "poisson"}, {"input", 1}, {"rate_hz", 2e7}},
                                  {{"type", "poisson"}, {"input", 2}, {"rate_hz", 2e7}}})}});
    serials.push_back(serial);
  }
  json config = {{"devices", devices}};
  if (members > 1) config["synchronizer"] = {{"ring", serials}};
  emulator::attachBoards(config);
  double rate = 0;
  {
    ZeptickImpl tagger("BENCH0");  // a group is found by probing
    std::vector<int> channels;
    for (int channel : tagger.getChannelList(ZT_CHANNEL_RISING)) channels.push_back(channel);
    Countrate countrate(&tagger, channels);
    tagger.sync();
    countrate.clear();
    const auto start = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    std::vector<int64_t> totals;
    countrate.getCountsTotal([&totals](size_t n) {
      totals.resize(n);
      return totals.data();
    });
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    int64_t sum = 0;
    for (int64_t total : totals) sum += total;
    rate = static_cast<double>(sum) / seconds;
  }
  emulator::detachBoards();
  return rate;
}

void BM_GroupIntoCountrate(benchmark::State& state) {
  const int members = static_cast<int>(state.range(0));
  double group = 0;
  double single = 0;
  for (auto _ : state) {
    single += tagsPerSecond(1);
    group += tagsPerSecond(members);
  }
  state.counters["tags_per_s"] = group / static_cast<double>(state.iterations());
  state.counters["single_board_tags_per_s"] = single / static_cast<double>(state.iterations());
  state.counters["vs_single_board"] = group / single;
}
BENCHMARK(BM_GroupIntoCountrate)->Arg(2)->Arg(4)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
