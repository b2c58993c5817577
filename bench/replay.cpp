// Replay at full speed into Countrate, in tags per second, of recordings in small (1 ms) and
// large (50 ms) blocks, against reading the same recording in the same process: with FileReader
// alone (no verification, no tagger) and with a verifying reader alone (the part of replay's work
// that checks digests and signatures). Each replay run is followed by one pass of each baseline, so
// all three see the same load on a shared machine; the counters `vs_reader` and
// `vs_verifying_reader` are replay's throughput over theirs, in wall time.
//
// On a shared machine wall time says little about work spread over threads, so CPU time is
// counted too: the baselines on their own thread's clock, and replay on each worker's. `cpu_vs_*`
// compares all the CPU replay spends with the baseline's (the cost of the same tags), and
// `busiest_vs_*` the busiest worker's: replay's throughput if each worker had a core of its own.
// Waiting shows in neither, so `best_*` compares the fastest run of each in wall time: load from
// elsewhere only ever slows a run down.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "bench_files.h"
#include "files/file_format.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_virtual_impl.h"
#include "recording/recording_generator.h"
#include "thread_cpu_clock.h"
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

// CPU seconds of every thread of this process but the caller's, by thread id. The clock of a
// thread by its id is the one pthread_getcpuclockid gives (the kernel's per-thread CPU clock);
// the workers' pthread handles are private to the runner.
std::map<pid_t, double> otherThreadsSeconds() {
  std::map<pid_t, double> seconds;
  const pid_t self = gettid();
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const pid_t tid = std::stoi(task.path().filename().string());
    if (tid == self) continue;
    const auto clock = static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6);
    timespec now{};
    if (clock_gettime(clock, &now) == 0) {
      seconds[tid] = static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
    }
  }
  return seconds;
}

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
  Clock::duration best_replay = Clock::duration::max();
  Clock::duration best_reader = Clock::duration::max();
  Clock::duration best_verifying = Clock::duration::max();
  std::map<pid_t, double> worker_cpu;
  double reader_cpu = 0;
  double verifying_cpu = 0;
  for (auto _ : state) {
    const std::map<pid_t, double> cpu_before = otherThreadsSeconds();
    const auto start = Clock::now();
    tagger.waitForCompletion(tagger.replay(data.base));
    const auto replayed = Clock::now();
    state.PauseTiming();
    for (const auto& [tid, cpu] : otherThreadsSeconds()) {
      const auto before = cpu_before.find(tid);
      worker_cpu[tid] += cpu - (before == cpu_before.end() ? 0.0 : before->second);
    }
    const double cpu_start = threadSeconds();
    const auto reading = Clock::now();
    benchmark::DoNotOptimize(readAlone(data.base));
    const auto read = Clock::now();
    const double cpu_read = threadSeconds();
    benchmark::DoNotOptimize(readVerifying(data.base));
    const auto verified = Clock::now();
    best_replay = std::min(best_replay, replayed - start);
    best_reader = std::min(best_reader, read - reading);
    best_verifying = std::min(best_verifying, verified - read);
    verifying_time += verified - read;
    verifying_cpu += threadSeconds() - cpu_read;
    reader_cpu += cpu_read - cpu_start;
    reader_time += read - reading;
    replay_time += replayed - start;
    state.ResumeTiming();
  }
  double total_cpu = 0;
  double busiest_cpu = 0;
  for (const auto& [tid, cpu] : worker_cpu) {
    total_cpu += cpu;
    busiest_cpu = std::max(busiest_cpu, cpu);
  }
  const auto tags = static_cast<double>(state.iterations() * data.tags);
  state.SetItemsProcessed(static_cast<int64_t>(tags));
  state.counters["reader_tags_per_s"] = tags / seconds(reader_time);
  state.counters["vs_reader"] = seconds(reader_time) / seconds(replay_time);
  state.counters["vs_verifying_reader"] = seconds(verifying_time) / seconds(replay_time);
  state.counters["best_tags_per_s"] = static_cast<double>(data.tags) / seconds(best_replay);
  state.counters["best_vs_reader"] = seconds(best_reader) / seconds(best_replay);
  state.counters["best_vs_verifying_reader"] = seconds(best_verifying) / seconds(best_replay);
  state.counters["cpu_vs_reader"] = reader_cpu / total_cpu;
  state.counters["cpu_vs_verifying_reader"] = verifying_cpu / total_cpu;
  state.counters["busiest_vs_reader"] = reader_cpu / busiest_cpu;
  state.counters["busiest_vs_verifying_reader"] = verifying_cpu / busiest_cpu;
  state.counters["busiest_tags_per_s"] = tags / busiest_cpu;
}
// Arguments: worker threads (0 for one per hardware thread), block span in ms.
BENCHMARK(BM_ReplayIntoCountrate)
    ->ArgsProduct({{1, 0}, {1, 50}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
