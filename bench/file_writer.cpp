// ZeptickFileWriter and ZeptickFileReader on a realistic stream, each against the dependency
// work alone on the same words in the same run: LZ4 compression plus SHA-1 for the writer,
// LZ4 decompression (or a copy of raw blocks) for the reader. Each iteration runs the library
// path, then, untimed, the baseline, so both see the same load on a shared machine.
// Counters: tags_per_s (items), baseline_tags_per_s, vs_baseline (baseline time over library
// time: 1.0 means as fast as the dependencies alone), bytes_per_tag (file bytes per tag).

#include <benchmark/benchmark.h>
#include <lz4.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include "bench_recording.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_file_writer.h"

namespace zeptick::bench {
namespace {

using Clock = std::chrono::steady_clock;
using State = ZeptickFileWriter::TimeTagBlockState;

constexpr int64_t kBlockSpan = kRecordingBlockSpan;
const auto& kChannels = kRecordingChannels;

// The calling thread and one helper finish a batch of blocks together.
class FinishingPair {
 public:
  FinishingPair() : sync(2), helper([this] { helperLoop(); }) {}
  ~FinishingPair() {
    stopping = true;
    sync.arrive_and_wait();
    helper.join();
  }
  void finish(std::vector<State*>& states) {
    batch = &states;
    next = 0;
    sync.arrive_and_wait();
    work();
    sync.arrive_and_wait();
  }

 private:
  void work() {
    for (size_t i = next++; i < batch->size(); i = next++)
      ZeptickFileWriter::finishBlock((*batch)[i]);
  }
  void helperLoop() {
    for (;;) {
      sync.arrive_and_wait();
      if (stopping) return;
      work();
      sync.arrive_and_wait();
    }
  }
  std::vector<State*>* batch = nullptr;
  std::atomic<size_t> next{0};
  std::atomic<bool> stopping{false};
  std::barrier<> sync;
  std::thread helper;
};

// What the dependencies alone cost on the same words: compress (as the writer does, from
// 1 KiB on) and digest.
class Lz4Sha1Baseline {
 public:
  explicit Lz4Sha1Baseline(std::vector<std::vector<ZeptickFile::ShortTag>> words)
      : words(std::move(words)) {}
  void run() {
    for (const auto& block : words) {
      const int raw = static_cast<int>(block.size() * sizeof(ZeptickFile::ShortTag));
      const int bound = LZ4_compressBound(raw);
      if (scratch.size() < static_cast<size_t>(bound)) scratch.resize(bound);
      benchmark::DoNotOptimize(LZ4_compress_default(reinterpret_cast<const char*>(block.data()),
                                                    scratch.data(), raw, bound));
      unsigned char digest[EVP_MAX_MD_SIZE];
      unsigned int length = 0;
      EVP_Digest(block.data(), static_cast<size_t>(raw), digest, &length, EVP_sha1(), nullptr);
      benchmark::DoNotOptimize(digest);
    }
  }

 private:
  std::vector<std::vector<ZeptickFile::ShortTag>> words;
  std::vector<char> scratch;
};

// Items processed, the baseline's rate, and the ratio of the two times (above 1: faster than
// the baseline).
void reportAgainstBaseline(benchmark::State& state, double tags, Clock::duration library_time,
                           Clock::duration baseline_time) {
  state.SetItemsProcessed(static_cast<int64_t>(tags));
  const double baseline_seconds = std::chrono::duration<double>(baseline_time).count();
  state.counters["baseline_tags_per_s"] = tags / baseline_seconds;
  state.counters["vs_baseline"] =
      baseline_seconds / std::chrono::duration<double>(library_time).count();
}

void BM_FileWriter(benchmark::State& state) {
  const Recording& recording = realisticStream();
  const int threads = static_cast<int>(state.range(0));
  NullFile output;
  ZeptickFileWriter writer(output.base.string(), 0, {1, 2, 3, 4});
  writer.writeChannelMap(kChannels);

  std::vector<std::vector<ZeptickFile::ShortTag>> words;
  for (const std::vector<Tag>& tags : recording.blocks) {
    State* block = writer.encodeBlock(tags, 0, kBlockSpan);
    words.push_back(block->data);
    writer.recycleBlock(block);
  }
  Lz4Sha1Baseline baseline(std::move(words));
  std::unique_ptr<FinishingPair> pair;
  if (threads == 2) pair = std::make_unique<FinishingPair>();

  std::vector<State*> states;
  Clock::duration writer_time{};
  Clock::duration baseline_time{};
  const uint64_t bytes_before = writer.getBytesWritten();
  int64_t begin = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    states.clear();
    for (const std::vector<Tag>& tags : recording.blocks) {
      states.push_back(writer.encodeBlock(tags, begin, begin + kBlockSpan));
    }
    if (pair) {
      pair->finish(states);
    } else {
      for (State* block : states) ZeptickFileWriter::finishBlock(block);
    }
    for (State* block : states) writer.writeBlock(block);
    for (State* block : states) writer.recycleBlock(block);
    const auto written = Clock::now();
    state.PauseTiming();
    baseline.run();
    baseline_time += Clock::now() - written;
    writer_time += written - start;
    state.ResumeTiming();
  }
  const double tags = static_cast<double>(state.iterations() * recording.tags);
  reportAgainstBaseline(state, tags, writer_time, baseline_time);
  state.counters["bytes_per_tag"] =
      static_cast<double>(writer.getBytesWritten() - bytes_before) / tags;
}
// Argument: threads finishing blocks.
BENCHMARK(BM_FileWriter)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

// The serial stage alone, which runs under the measurement's lock and so bounds how far
// finishing on more threads can scale, against copying the same tags.
void BM_EncodeBlock(benchmark::State& state) {
  const Recording& recording = realisticStream();
  NullFile output;
  ZeptickFileWriter writer(output.base.string(), 0, {1, 2, 3, 4});
  writer.writeChannelMap(kChannels);
  std::vector<Tag> copy;
  Clock::duration encode_time{};
  Clock::duration baseline_time{};
  for (auto _ : state) {
    const auto start = Clock::now();
    for (const std::vector<Tag>& tags : recording.blocks) {
      State* block = writer.encodeBlock(tags, 0, kBlockSpan);
      benchmark::DoNotOptimize(block->data.data());
      writer.recycleBlock(block);
    }
    const auto encoded = Clock::now();
    state.PauseTiming();
    for (const std::vector<Tag>& tags : recording.blocks) {
      copy.assign(tags.begin(), tags.end());
      benchmark::DoNotOptimize(copy.data());
    }
    baseline_time += Clock::now() - encoded;
    encode_time += encoded - start;
    state.ResumeTiming();
  }
  reportAgainstBaseline(state, static_cast<double>(state.iterations() * recording.tags),
                        encode_time, baseline_time);
}
BENCHMARK(BM_EncodeBlock)->UseRealTime()->Unit(benchmark::kMillisecond);

// What reading costs beyond the dependency: the same stored bytes decompressed (or copied,
// for raw blocks) in memory.
void BM_FileReader(benchmark::State& state) {
  const Recording& recording = realisticStream();
  const bool verify = state.range(0) != 0;
  std::string pattern = std::filesystem::temp_directory_path() / "zeptick-bench-XXXXXX";
  const std::filesystem::path directory = mkdtemp(pattern.data());
  const std::string path = (directory / "recording").string();
  std::vector<std::vector<char>> stored;
  std::vector<size_t> raw_sizes;
  {
    ZeptickFileWriter writer(path, 0, {1, 2, 3, 4});
    writer.writeChannelMap(kChannels);
    int64_t begin = 0;
    for (const std::vector<Tag>& tags : recording.blocks) {
      State* block = writer.encodeBlock(tags, begin, begin + kBlockSpan);
      ZeptickFileWriter::finishBlock(block);
      const char* from = block->is_compressed ? block->compressed.data()
                                              : reinterpret_cast<const char*>(block->data.data());
      stored.emplace_back(from, from + block->header.stored_size);
      raw_sizes.push_back(block->data.size() * sizeof(ZeptickFile::ShortTag));
      writer.writeBlock(block);
      writer.recycleBlock(block);
      begin += kBlockSpan;
    }
  }
  const std::string file = ZeptickFile::makeFileName(path, 0);
  std::vector<char> out(*std::max_element(raw_sizes.begin(), raw_sizes.end()));
  std::vector<Tag> tags;
  size_t compressed_blocks = 0;
  Clock::duration reader_time{};
  Clock::duration baseline_time{};
  for (auto _ : state) {
    const auto start = Clock::now();
    ZeptickFileReader reader(file, verify);
    uint64_t overflows = 0;
    int64_t block_begin = 0;
    int64_t block_end = 0;
    while (reader.getBlockRange(block_begin, block_end)) {
      reader.decodeBlock(tags, block_begin, overflows);
      benchmark::DoNotOptimize(tags.data());
    }
    const auto read = Clock::now();
    state.PauseTiming();
    compressed_blocks = 0;
    for (size_t b = 0; b < stored.size(); ++b) {
      if (stored[b].size() < raw_sizes[b]) {
        ++compressed_blocks;
        benchmark::DoNotOptimize(LZ4_decompress_safe(stored[b].data(), out.data(),
                                                     static_cast<int>(stored[b].size()),
                                                     static_cast<int>(raw_sizes[b])));
      } else {
        std::memcpy(out.data(), stored[b].data(), stored[b].size());
      }
      benchmark::ClobberMemory();
    }
    baseline_time += Clock::now() - read;
    reader_time += read - start;
    state.ResumeTiming();
  }
  std::filesystem::remove_all(directory);
  reportAgainstBaseline(state, static_cast<double>(state.iterations() * recording.tags),
                        reader_time, baseline_time);
  state.counters["compressed_blocks"] = static_cast<double>(compressed_blocks);
}
// Argument: 1 verifies digests and signatures, as replay does.
BENCHMARK(BM_FileReader)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
