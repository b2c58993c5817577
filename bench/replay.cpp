// Replay at full speed into Countrate, in tags per second, of recordings in small (1 ms) and
// large (50 ms) blocks, against reading the same recording in the same process: with FileReader
// alone (no verification, no tagger) and with a verifying reader alone (the part of replay's work
// that checks digests and signatures). Each replay run is followed by one pass of each baseline, so
// all three see the same load on a shared machine; the counters `vs_reader` and
// `vs_verifying_reader` are replay's throughput over theirs.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_files.h"
#include "files/file_format.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_virtual_impl.h"
#include "recording/recording_generator.h"
#include "zeptick/countrate.h"
#include "zeptick/file_reader.h"

namespace zeptick::bench {
namespace {

using Clock = std::chrono::steady_clock;

// About 4.6 million tags in blocks of `block_ms` (some 4600 tags a millisecond), in 16 MiB files.
struct Recording {
  std::string base;
  uint64_t tags = 0;

  explicit Recording(int64_t block_ms) {
    const auto dir = std::filesystem::temp_directory_path() / "zeptick-bench-replay";
    std::filesystem::create_directories(dir);
    base = (dir / ("recording-" + std::to_string(block_ms) + "ms")).string();
    RecordingPlan plan;
    plan.block_span = block_ms * 1000000000;
    plan.seed = 7;
    plan.duration = 1000000000000;  // 1 s
    plan.pair_rate = 1500000.0;
    plan.period = 1000000;  // 1 MHz
    plan.background_rate = 300000.0;
    tags = writeRecording(base, plan, 16 << 20).tags;
  }
  ~Recording() {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(base).parent_path(), ignored);
  }
};

const Recording& recording(int64_t block_ms = 1) {
  static const Recording small(1);
  static const Recording large(50);
  return block_ms == 1 ? small : large;
}

uint64_t readVerifying(const std::string& base) {
  uint64_t tags = 0;
  uint64_t overflows = 0;
  std::vector<Tag> block;
  for (uint32_t index = 1; std::filesystem::exists(ZeptickFile::makeFileName(base, index));
       ++index) {
    ZeptickFileReader reader(ZeptickFile::makeFileName(base, index), true);
    int64_t begin = 0;
    int64_t end = 0;
    while (reader.getBlockRange(begin, end)) {
      reader.decodeBlock(block, begin, overflows);
      tags += block.size();
    }
  }
  return tags;
}

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

void BM_FileReaderAlone(benchmark::State& state) {
  const Recording& data = recording();
  for (auto _ : state) benchmark::DoNotOptimize(readAlone(data.base));
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * data.tags));
}
BENCHMARK(BM_FileReaderAlone)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ReplayIntoCountrate(benchmark::State& state) {
  const Recording& data = recording(state.range(1));
  ZeptickVirtualImpl tagger(static_cast<unsigned>(state.range(0)));
  Countrate countrate(&tagger, {1, 2, 3});
  Clock::duration replay_time{};
  Clock::duration reader_time{};
  Clock::duration verifying_time{};
  for (auto _ : state) {
    const auto start = Clock::now();
    tagger.waitForCompletion(tagger.replay(data.base));
    const auto replayed = Clock::now();
    state.PauseTiming();
    benchmark::DoNotOptimize(readAlone(data.base));
    const auto read = Clock::now();
    benchmark::DoNotOptimize(readVerifying(data.base));
    verifying_time += Clock::now() - read;
    reader_time += read - replayed;
    replay_time += replayed - start;
    state.ResumeTiming();
  }
  const auto tags = static_cast<double>(state.iterations() * data.tags);
  state.SetItemsProcessed(static_cast<int64_t>(tags));
  state.counters["reader_tags_per_s"] = tags / seconds(reader_time);
  state.counters["vs_reader"] = seconds(reader_time) / seconds(replay_time);
  state.counters["vs_verifying_reader"] = seconds(verifying_time) / seconds(replay_time);
}
// Arguments: worker threads (0 for one per hardware thread), block span in ms.
BENCHMARK(BM_ReplayIntoCountrate)
    ->ArgsProduct({{1, 0}, {1, 50}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
