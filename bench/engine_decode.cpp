// Decoding of one device's words on one core: calibration, dither, the delay
// heaps and, in the last case, the conditional filter. Each iteration also
// times a plain pass over the same words (widen the tick, write a Tag), so the
// ratio `vs_plain` holds on a shared, noisy machine. Both are timed in the
// thread's CPU time, which other processes on the machine disturb far less
// than the wall clock.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <ctime>
#include <vector>

#include <nlohmann/json.hpp>

#include "core/zeptick_runner.h"
#include "emulator/stream/stream_model.h"
#include "engine/native_decoder.h"
#include "thread_cpu_clock.h"

namespace zeptick::bench {
namespace {

constexpr size_t kBlockWords = 131072;
constexpr size_t kBlocks = 8;
constexpr int kInputs = 18;

emulator::StreamParameters ultra() {
  emulator::StreamParameters p;
  p.model = 36;
  p.inputs = kInputs;
  p.ps_per_clock = 2500;
  p.bin_count = 256;
  p.seed = 1;
  p.paced = false;
  p.usb_words_per_second = 1e10;
  return p;
}

// A busy board: pairs and Poisson light on four inputs, about 40 million
// events per second, so nearly every word is an event. The recording starts
// at stream time 0 and is cut right after a rollover word, so that replaying
// it again and again continues the stream seamlessly.
std::vector<NativeTag> record() {
  const auto p = ultra();
  emulator::StreamModel model(p, nlohmann::json::parse(R"([
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 1.5e7},
    {"type": "poisson", "input": 3, "rate_hz": 5e6},
    {"type": "poisson", "input": 4, "rate_hz": 5e6}])"));
  emulator::FirmwareSetup setup;
  setup.channels.assign(2 * kInputs, {});
  for (size_t i = 0; i < 4; ++i) setup.channels[i].enabled = true;
  setup.trigger_volts.assign(kInputs, 0.5);
  setup.started = true;
  model.configure(setup);
  std::vector<NativeTag> words(kBlockWords * kBlocks + kBlockWords);
  model.read(reinterpret_cast<unsigned char*>(words.data()), static_cast<long>(words.size() * 4));
  size_t end = kBlockWords * kBlocks;
  while (!(words[end - 1].code() == 62 && words[end - 1].kind() == 1)) ++end;
  words.resize(end);
  return words;
}

const std::vector<NativeTag>& recording() {
  static const std::vector<NativeTag> words = record();
  return words;
}

// The least any decoder does per word: classify it, widen the tick, write a Tag.
__attribute__((noinline)) void plainPass(const std::vector<NativeTag>& words, std::vector<Tag>& out,
                                         int64_t& base) {
  out.clear();
  for (const NativeTag w : words) {
    if (w.kind() == 1 && w.code() < 58) {
      out.push_back(Tag{Tag::Type::TimeTag, 0, 0, w.code(), base + w.tick() * 2500});
    } else if (w.code() == 62) {
      base += 2500 * 65536;
    }
  }
}

enum class Setup { NoDelays, TwoDelayed, Filtered };

void run(benchmark::State& state, Setup kind) {
  const auto& words = recording();
  DecoderDevice device;
  device.psPerClock = 2500;
  device.binCount = 256;
  device.channelCount = 2 * kInputs;
  NativeDecoder decoder;
  decoder.setup(device, 0);
  DecoderBlockSettings settings;
  for (int i = 0; i < 2 * kInputs; ++i) settings.channels.push_back({i + 1, 0, false, false});
  if (kind == Setup::TwoDelayed) {
    settings.channels[0].delay = 1574;
    settings.channels[1].delay = 250000;
  }
  if (kind == Setup::Filtered) {
    settings.channels[0].conditionalTrigger = true;
    settings.channels[1].conditionalFiltered = true;
  }

  // Blocks as the acquisition hands them over, in a worker that keeps its capacity.
  std::vector<NativeTag> native;
  native.reserve(kBlockWords);
  std::vector<Tag> out;
  DecodedBlock block(out);
  std::vector<Tag> plain;
  plain.reserve(kBlockWords);
  int64_t plainBase = 0;
  auto decodeAll = [&] {
    size_t tags = 0;
    for (size_t at = 0; at < words.size(); at += kBlockWords) {
      const size_t n = std::min(kBlockWords, words.size() - at);
      native.assign(words.begin() + static_cast<std::ptrdiff_t>(at),
                    words.begin() + static_cast<std::ptrdiff_t>(at + n));
      decoder.decodeBlock(native, 0, settings, block);
      tags += out.size();
    }
    return tags;
  };
  decodeAll();  // warm up: calibration tables learned, vectors at size

  double decodeSeconds = 0;
  double plainSeconds = 0;
  size_t tags = 0;
  for (auto _ : state) {
    const double t0 = threadSeconds();
    tags += decodeAll();
    benchmark::ClobberMemory();
    const double t1 = threadSeconds();
    for (size_t at = 0; at < words.size(); at += kBlockWords) {
      const size_t n = std::min(kBlockWords, words.size() - at);
      native.assign(words.begin() + static_cast<std::ptrdiff_t>(at),
                    words.begin() + static_cast<std::ptrdiff_t>(at + n));
      plainPass(native, plain, plainBase);
      benchmark::DoNotOptimize(plain.data());
    }
    benchmark::ClobberMemory();
    const double t2 = threadSeconds();
    decodeSeconds += t1 - t0;
    plainSeconds += t2 - t1;
    state.SetIterationTime(t1 - t0);
  }
  const double n = static_cast<double>(state.iterations()) * static_cast<double>(words.size());
  state.counters["words_per_s"] = n / decodeSeconds;
  state.counters["tags_per_s"] = static_cast<double>(tags) / decodeSeconds;
  state.counters["plain_words_per_s"] = n / plainSeconds;
  state.counters["vs_plain"] = plainSeconds / decodeSeconds;
  state.SetItemsProcessed(static_cast<int64_t>(n));
}

void BM_DecodeNoDelays(benchmark::State& state) { run(state, Setup::NoDelays); }
void BM_DecodeTwoDelayedChannels(benchmark::State& state) { run(state, Setup::TwoDelayed); }
void BM_DecodeConditionalFilter(benchmark::State& state) { run(state, Setup::Filtered); }

BENCHMARK(BM_DecodeNoDelays)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeTwoDelayedChannels)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeConditionalFilter)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
