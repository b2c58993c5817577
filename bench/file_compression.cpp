// Bytes on disk against write rate: the realistic stream of bench_file_writer, encoded into
// blocks by the library's encoder, compressed with other settings of the same LZ4 block format
// (the fast compressor's acceleration, the high-compression compressor's level) and cut into
// blocks of other sizes. Every figure is a ratio to what the writer does today, measured in the
// same run: LZ4_compress_default on blocks of the default span.
// Each setting's blocks are first written to a real file, read back with verification and
// compared tag for tag with the writer's own file, so a setting whose blocks the library's reader
// could not decode fails the benchmark instead of reporting a size.
// Arguments: mode (0 the writer's default, 1 fast, 2 high compression), level (acceleration or
// level), span_8ths (block span in eighths of the default 5 ms, about 70,000 tags).
// Counters: tags_per_s (items: compression alone, thread CPU time), write_vs_default (default
// compression time over this setting's: below 1 is slower), bytes_per_tag (file bytes of the
// time-tag blocks, headers and padding included), bytes_vs_default; for decoding,
// read_vs_default (default blocks' decompression time over this setting's).

#include <benchmark/benchmark.h>
#include <lz4.h>
#include <lz4hc.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench_recording.h"
#include "files/block_words.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_file_writer.h"
#include "thread_cpu_clock.h"

namespace zeptick::bench {
namespace {

using Clock = ThreadCpuClock;
using ZeptickFile::ShortTag;

// Benchmark argument 0: which compressor; argument 1: its acceleration or level.
enum Mode : int64_t { kDefault = 0, kFast = 1, kHighCompression = 2 };

struct Setting {
  int64_t mode = kDefault;
  int level = 0;
  int64_t span = kRecordingBlockSpan;  // stream time per block
};

// A compressor with its working memory allocated once, as a writer would keep it.
class Compressor {
 public:
  explicit Compressor(const Setting& setting)
      : setting(setting),
        state(static_cast<size_t>(setting.mode == kHighCompression ? LZ4_sizeofStateHC()
                                                                   : LZ4_sizeofState())) {}
  // The compressed length; 0 if it failed.
  int run(const char* in, char* out, int raw, int capacity) {
    switch (setting.mode) {
      case kFast:
        return LZ4_compress_fast_extState(state.data(), in, out, raw, capacity, setting.level);
      case kHighCompression:
        return LZ4_compress_HC_extStateHC(state.data(), in, out, raw, capacity, setting.level);
      default:
        return LZ4_compress_default(in, out, raw, capacity);
    }
  }

 private:
  Setting setting;
  std::vector<char> state;
};

// One block as it lies in the file.
struct StoredBlock {
  ZeptickFile::TimeTagBlockHeader header{};
  std::vector<ShortTag> words;  // uncompressed
  std::vector<char> stored;     // what the file holds after the header
};

struct StoredRecording {
  std::vector<StoredBlock> blocks;
  double bytes_per_tag = 0;
};

// The stream cut every `span` from time 0, each block encoded by the library as it would be
// written. With a setting other than the default, the writer's compressed bytes are replaced by
// the setting's before the block is written; the digest and signature cover the uncompressed
// words and so stay valid.
StoredRecording writeRecording(const Setting& setting, const std::string& base) {
  const Recording& recording = realisticStream();
  std::vector<Tag> all;
  for (const std::vector<Tag>& block : recording.blocks)
    all.insert(all.end(), block.begin(), block.end());
  const int64_t stream_end = kRecordingBlockSpan * static_cast<int64_t>(kRecordingBlocks);

  StoredRecording out;
  Compressor compressor(setting);
  ZeptickFileWriter writer(base, 0, {1, 2, 3, 4});
  writer.writeChannelMap(kRecordingChannels);
  const uint64_t bytes_before = writer.getBytesWritten();
  auto next = all.begin();
  for (int64_t begin = 0; begin < stream_end; begin += setting.span) {
    const auto end = std::find_if(next, all.end(),
                                  [&](const Tag& tag) { return tag.time >= begin + setting.span; });
    const std::vector<Tag> tags(next, end);
    next = end;
    ZeptickFileWriter::TimeTagBlockState* state =
        writer.encodeBlock(tags, begin, begin + setting.span);
    ZeptickFileWriter::finishBlock(state);
    const int raw = static_cast<int>(state->data.size() * sizeof(ShortTag));
    if (setting.mode != kDefault && raw >= 1024) {  // the writer's threshold for trying
      std::vector<char> compressed(static_cast<size_t>(LZ4_compressBound(raw)));
      const int length =
          compressor.run(reinterpret_cast<const char*>(state->data.data()), compressed.data(), raw,
                         static_cast<int>(compressed.size()));
      if (length <= 0) throw std::runtime_error("compression failed");
      state->is_compressed = length < raw;
      if (state->is_compressed)
        state->compressed.assign(compressed.begin(), compressed.begin() + length);
      state->header.stored_size = static_cast<uint32_t>(state->is_compressed ? length : raw);
      state->header.compression =
          state->is_compressed ? ZeptickFile::COMPRESSION_LZ4 : ZeptickFile::COMPRESSION_NONE;
    }
    StoredBlock block{state->header, state->data, {}};
    const char* from = state->is_compressed ? state->compressed.data()
                                            : reinterpret_cast<const char*>(state->data.data());
    block.stored.assign(from, from + state->header.stored_size);
    out.blocks.push_back(std::move(block));
    writer.writeBlock(state);
    writer.recycleBlock(state);
  }
  out.bytes_per_tag = static_cast<double>(writer.getBytesWritten() - bytes_before) /
                      static_cast<double>(recording.tags);
  return out;
}

// Every tag of a file, read with digests and signatures checked.
std::vector<Tag> readVerified(const std::string& base) {
  ZeptickFileReader reader(ZeptickFile::makeFileName(base, 0), true);
  std::vector<Tag> all;
  std::vector<Tag> tags;
  uint64_t overflows = 0;
  int64_t begin = 0;
  int64_t end = 0;
  while (reader.getBlockRange(begin, end)) {
    if (!reader.decodeBlock(tags, begin, overflows)) break;
    all.insert(all.end(), tags.begin(), tags.end());
  }
  return all;
}

bool sameTags(const std::vector<Tag>& a, const std::vector<Tag>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(Tag)) == 0;
}

// A setting's blocks, and the default's, both after the round trip check.
struct Pair {
  StoredRecording setting;
  StoredRecording reference;
};

Pair writeAndCheck(const Setting& setting) {
  std::string pattern = std::filesystem::temp_directory_path() / "zeptick-bench-XXXXXX";
  const std::filesystem::path directory = mkdtemp(pattern.data());
  Pair out;
  out.reference = writeRecording(Setting{}, (directory / "default").string());
  out.setting = writeRecording(setting, (directory / "setting").string());
  const std::vector<Tag> expected = readVerified((directory / "default").string());
  const bool same = expected.size() > realisticStream().tags / 2 &&
                    sameTags(expected, readVerified((directory / "setting").string()));
  std::filesystem::remove_all(directory);
  if (!same) throw std::runtime_error("the setting's file does not read back to the same tags");
  return out;
}

// Compresses every block into `scratch` and returns the thread CPU time it took.
double compressAll(Compressor& compressor, const StoredRecording& recording,
                   std::vector<char>& scratch) {
  const auto start = Clock::now();
  for (const StoredBlock& block : recording.blocks) {
    const int raw = static_cast<int>(block.words.size() * sizeof(ShortTag));
    const int bound = LZ4_compressBound(raw);
    if (scratch.size() < static_cast<size_t>(bound)) scratch.resize(static_cast<size_t>(bound));
    benchmark::DoNotOptimize(compressor.run(reinterpret_cast<const char*>(block.words.data()),
                                            scratch.data(), raw, bound));
    benchmark::ClobberMemory();
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Decompresses every stored block as the reader does and returns the thread CPU time it took.
double decompressAll(const StoredRecording& recording, std::vector<ShortTag>& words) {
  const auto start = Clock::now();
  for (const StoredBlock& block : recording.blocks) {
    if (block.header.compression == ZeptickFile::COMPRESSION_LZ4) {
      if (!detail::decompressWords(block.header, block.stored, words))
        throw std::runtime_error("decompression failed");
    } else {
      words.resize(block.words.size());
      std::memcpy(words.data(), block.stored.data(), block.stored.size());
    }
    benchmark::DoNotOptimize(words.data());
    benchmark::ClobberMemory();
  }
  return std::chrono::duration<double>(Clock::now() - start).count();
}

Setting settingOf(const benchmark::State& state) {
  Setting setting{state.range(0), static_cast<int>(state.range(1)), kRecordingBlockSpan};
  // Argument 2: block span in eighths of the default.
  setting.span = kRecordingBlockSpan * state.range(2) / 8;
  return setting;
}

// Checks the setting of `state` by a round trip, then times `timed(blocks, is_setting)` on the
// setting's blocks and, after it in each iteration, on the default's. Reports the ratio of the
// default's time to the setting's as `ratio_name`; false (and the benchmark skipped) if the
// setting does not read back.
template <typename Timed>
bool runAgainstDefault(benchmark::State& state, const char* ratio_name, Pair& recordings,
                       Timed timed) {
  try {
    recordings = writeAndCheck(settingOf(state));
  } catch (const std::exception& error) {
    state.SkipWithError(error.what());
    return false;
  }
  double setting_seconds = 0;
  double default_seconds = 0;
  for (auto _ : state) {
    const double seconds = timed(recordings.setting, true);
    default_seconds += timed(recordings.reference, false);
    setting_seconds += seconds;
    state.SetIterationTime(seconds);
  }
  const double tags = static_cast<double>(state.iterations() * realisticStream().tags);
  state.SetItemsProcessed(static_cast<int64_t>(tags));
  state.counters["default_tags_per_s"] = tags / default_seconds;
  state.counters[ratio_name] = default_seconds / setting_seconds;
  return true;
}

void BM_Compress(benchmark::State& state) {
  Compressor compressor(settingOf(state));
  Compressor reference(Setting{});
  std::vector<char> scratch;
  Pair recordings;
  const bool ran = runAgainstDefault(
      state, "write_vs_default", recordings, [&](const StoredRecording& blocks, bool setting) {
        return compressAll(setting ? compressor : reference, blocks, scratch);
      });
  if (!ran) return;
  state.counters["bytes_per_tag"] = recordings.setting.bytes_per_tag;
  state.counters["default_bytes_per_tag"] = recordings.reference.bytes_per_tag;
  state.counters["bytes_vs_default"] =
      recordings.setting.bytes_per_tag / recordings.reference.bytes_per_tag;
}
BENCHMARK(BM_Compress)
    ->ArgNames({"mode", "level", "span_8ths"})
    ->Args({kDefault, 0, 8})
    ->Args({kFast, 1, 8})
    ->Args({kFast, 2, 8})
    ->Args({kFast, 4, 8})
    ->Args({kFast, 8, 8})
    ->Args({kFast, 16, 8})
    ->Args({kHighCompression, 3, 8})
    ->Args({kHighCompression, 6, 8})
    ->Args({kHighCompression, 9, 8})
    ->Args({kHighCompression, 12, 8})
    ->Args({kDefault, 0, 4})
    ->Args({kDefault, 0, 16})
    ->Args({kDefault, 0, 32})
    ->Args({kHighCompression, 9, 32})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

void BM_Decompress(benchmark::State& state) {
  std::vector<ShortTag> words;
  Pair recordings;
  runAgainstDefault(state, "read_vs_default", recordings, [&](const StoredRecording& blocks, bool) {
    return decompressAll(blocks, words);
  });
}
BENCHMARK(BM_Decompress)
    ->ArgNames({"mode", "level", "span_8ths"})
    ->Args({kDefault, 0, 8})
    ->Args({kFast, 4, 8})
    ->Args({kHighCompression, 3, 8})
    ->Args({kHighCompression, 6, 8})
    ->Args({kHighCompression, 9, 8})
    ->Args({kHighCompression, 12, 8})
    ->Args({kDefault, 0, 32})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
