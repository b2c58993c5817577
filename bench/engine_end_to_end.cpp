// The hardware tagger end to end: a free-running emulated board read, decoded
// and ordered by the tagger's workers into a Countrate of all four inputs and
// a Correlation of the photon pairs on inputs 1 and 2, as a user would run
// them, against the emulator's own generation of the same words on one
// thread, timed in the same run. The tagger's figure includes the generation
// (the emulated board produces its words inside the pipe read), so
// `vs_generation` can reach 1 only with a second core reading while the
// first decodes; `generation_tags_per_s` is the emulator's rate on its own.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "device/device_words.h"
#include "emulator/control/board_control.h"
#include "emulator/stream/stream_model.h"
#include "emulator/stream/synchronizer.h"
#include "engine/delay_stage.h"
#include "engine/native_decoder.h"
#include "engine/zeptick_impl.h"
#include "thread_cpu_clock.h"
#include "zeptick/coincidences.h"
#include "zeptick/correlation.h"
#include "zeptick/countrate.h"
#include "zeptick/file_writer.h"
#include "zeptick/histogram.h"
#include "zeptick/library.h"

namespace {

using zeptick::bench::cpuSeconds;

using Clock = std::chrono::steady_clock;
using nlohmann::json;

// 100 million events per second of stream time on four inputs, busy enough
// that rollover words hardly count: every read is nearly all events.
json busySources() {
  return json::parse(R"([
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 2.5e7},
    {"type": "poisson", "input": 3, "rate_hz": 2.5e7},
    {"type": "poisson", "input": 4, "rate_hz": 2.5e7}
  ])");
}

// The emulator alone: words of the same sources with the four rising
// channels enabled, read in the tagger's largest block size.
struct Generation {
  double events = 0;
  double seconds = 0;
  double cpu_seconds = 0;
};

// `serial` names a member of a synchronized group, which sends the Synchronizer's counter
// after every rollover; empty for a board on its own.
std::unique_ptr<zeptick::emulator::StreamModel> busyModel(uint64_t seed = 1,
                                                          const std::string& serial = "") {
  zeptick::emulator::StreamParameters p;
  p.model = 36;
  p.inputs = 18;
  p.ps_per_clock = 2500;
  p.bin_count = 256;
  p.seed = seed;
  p.paced = false;
  p.usb_words_per_second = 1e8;
  if (!serial.empty()) {
    zeptick::emulator::SynchronizerWiring wiring;
    wiring.boards = {serial};
    p.synchronizer = std::make_shared<zeptick::emulator::Synchronizer>(wiring);
    p.serial = serial;
  }
  auto model = std::make_unique<zeptick::emulator::StreamModel>(p, busySources());
  zeptick::emulator::FirmwareSetup setup;
  setup.channels.assign(36, {});
  for (size_t i = 0; i < 4; ++i) setup.channels[i].enabled = true;
  setup.trigger_volts.assign(18, 0.5);
  setup.buffer_words = 67108864;
  setup.started = true;
  model->configure(setup);
  return model;
}

Generation generate(double seconds) {
  const auto model_owner = busyModel();
  zeptick::emulator::StreamModel& model = *model_owner;
  std::vector<zeptick::NativeTag> words(131072);
  auto* bytes = reinterpret_cast<unsigned char*>(words.data());
  uint64_t events = 0;
  const auto start = Clock::now();
  const double cpu_start = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
  double elapsed = 0;
  while (elapsed < seconds) {
    model.read(bytes, static_cast<long>(words.size() * 4));
    for (const zeptick::NativeTag word : words) events += word.kind() == 1 && word.code() < 58;
    elapsed = std::chrono::duration<double>(Clock::now() - start).count();
  }
  return {static_cast<double>(events), elapsed, cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu_start};
}

int64_t totalCounts(zeptick::Countrate& rate) {
  std::vector<int64_t> totals;
  rate.getCountsTotal([&totals](size_t n) {
    totals.resize(n);
    return totals.data();
  });
  int64_t sum = 0;
  for (int64_t value : totals) sum += value;
  return sum;
}

// The emulator's firmware files sit in the source tree, which holds the
// build directory (<tree>/<build>/bench/<program>), unless told otherwise.
void findFirmware() {
  if (std::getenv("ZEPTICK_BASE_DIRECTORY") == nullptr) {
    const auto tree = std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path();
    setenv("ZEPTICK_BASE_DIRECTORY", tree.parent_path().c_str(), 1);
    setenv("ZEPTICK_FIRMWARE_SUBDIRECTORY", "firmware", 1);
  }
}

// What the tagger delivered while the benchmark watched.
struct Delivered {
  double tags = 0;
  double seconds = 0;
  double cpu_seconds = 0;
  double correlated = 0;
};

// One 500 ms look at what `rate` counted, added to `out`; returns the seconds it took.
double watch(zeptick::Countrate& rate, Delivered& out) {
  const int64_t before = totalCounts(rate);
  const auto t0 = Clock::now();
  const double cpu0 = cpuSeconds(CLOCK_PROCESS_CPUTIME_ID);
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const int64_t after = totalCounts(rate);
  const auto t1 = Clock::now();
  out.cpu_seconds += cpuSeconds(CLOCK_PROCESS_CPUTIME_ID) - cpu0;
  const double seconds = std::chrono::duration<double>(t1 - t0).count();
  out.seconds += seconds;
  out.tags += static_cast<double>(after - before);
  return seconds;
}

// Countrate on all four inputs (of every member of a group) and a Correlation of the photon
// pairs, as a user would run them, for every iteration of `state`: 500 ms each.
Delivered measure(benchmark::State& state, zeptick::ZeptickImpl& tagger) {
  Delivered out;
  std::vector<int> inputs;
  const std::vector<int> rising = tagger.getChannelList(zeptick::ZT_CHANNEL_RISING);
  for (size_t i = 0; i < rising.size(); ++i) {
    if (i % 18 < 4) inputs.push_back(rising[i]);
  }
  zeptick::Countrate rate(&tagger, inputs);
  // 10 ps bins over +-5 ns: the pairs' 1.5 ns peak and its accidental floor.
  zeptick::Correlation correlation(&tagger, inputs[0], inputs[1], 10, 1000);
  tagger.sync();
  for (auto _ : state) state.SetIterationTime(watch(rate, out));
  // The correlation must have had its pairs, or the figure would flatter.
  std::vector<int32_t> bins;
  correlation.getData([&bins](size_t n) {
    bins.resize(n);
    return bins.data();
  });
  for (int32_t count : bins) out.correlated += count;
  return out;
}

void BM_EmulatedBoardIntoCountrateAndCorrelation(benchmark::State& state) {
  findFirmware();
  zeptick::emulator::attachBoards(
      {{"devices", {{{"serial", "BENCH1"}, {"pacing", "free"}, {"sources", busySources()}}}}});
  Delivered delivered;
  Generation generation;
  {
    zeptick::ZeptickImpl tagger("BENCH1");
    delivered = measure(state, tagger);
  }
  zeptick::emulator::detachBoards();
  for (int i = 0; i < static_cast<int>(state.iterations()); ++i) {
    const Generation part = generate(0.5);
    generation.events += part.events;
    generation.seconds += part.seconds;
    generation.cpu_seconds += part.cpu_seconds;
  }
  const double tags = delivered.tags;
  const double tagger_rate = tags / delivered.seconds;
  const double generation_rate = generation.events / generation.seconds;
  state.counters["tags_per_s"] = tagger_rate;
  state.counters["generation_tags_per_s"] = generation_rate;
  state.counters["vs_generation"] = tagger_rate / generation_rate;
  // The same per CPU second: the tagger's worker threads together against
  // the one thread that only generates.
  const double tagger_cpu_rate = tags / delivered.cpu_seconds;
  const double generation_cpu_rate = generation.events / generation.cpu_seconds;
  state.counters["tags_per_cpu_s"] = tagger_cpu_rate;
  state.counters["generation_tags_per_cpu_s"] = generation_cpu_rate;
  state.counters["vs_generation_cpu"] = tagger_cpu_rate / generation_cpu_rate;
  state.counters["correlated_pairs"] = delivered.correlated;
  state.SetItemsProcessed(static_cast<int64_t>(tags));
}
BENCHMARK(BM_EmulatedBoardIntoCountrateAndCorrelation)
    ->UseManualTime()
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);

// The tagger alone: the emulated board plays a recording of the same stream
// over and over at the cost of a copy, so the two cores are left to reading,
// decoding and the measurements, as with a real instrument whose words cost
// the host nothing to make. The baseline is one thread decoding the same
// words with the same path compensation, in the same run: decoding is the one
// stage that cannot spread over the workers, so `vs_decoder` near 1 means the
// rest of the pipeline keeps up with it.
std::vector<uint32_t> recordBusyStream(size_t words) {
  const auto model = busyModel();
  std::vector<uint32_t> out(words);
  model->read(reinterpret_cast<unsigned char*>(out.data()), static_cast<long>(words * 4));
  size_t end = words;
  while (end > 0 && !(zeptick::NativeTag{out[end - 1]}.code() == 62 &&
                      zeptick::NativeTag{out[end - 1]}.kind() == 1)) {
    --end;
  }
  out.resize(end);
  return out;
}

double decoderTagsPerCpuSecond(const std::vector<uint32_t>& words, int rounds) {
  zeptick::DecoderDevice device;
  device.psPerClock = 2500;
  device.binCount = 256;
  device.channelCount = 36;
  zeptick::NativeDecoder decoder;
  decoder.setup(device, 0);
  zeptick::DecoderBlockSettings settings;
  for (int i = 0; i < 36; ++i) {
    settings.channels.push_back({i < 18 ? i + 1 : 17 - i,
                                 zeptick::hardwareDelayCompensation("Zeptick Ultra", i % 18, false),
                                 false, false});
  }
  std::vector<zeptick::NativeTag> native;
  std::vector<zeptick::Tag> out;
  zeptick::DecodedBlock block(out);
  constexpr size_t kBlock = 131072;
  double tags = 0;
  double cpu = 0;
  for (int round = 0; round <= rounds; ++round) {
    const double cpu0 = cpuSeconds(CLOCK_THREAD_CPUTIME_ID);
    double round_tags = 0;
    for (size_t at = 0; at < words.size(); at += kBlock) {
      const size_t n = std::min(kBlock, words.size() - at);
      native.resize(n);
      std::memcpy(native.data(), words.data() + at, 4 * n);
      decoder.decodeBlock(native, 0, settings, block);
      round_tags += static_cast<double>(out.size());
    }
    // The first round only warms up the calibration tables and the buffers.
    if (round > 0) {
      tags += round_tags;
      cpu += cpuSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu0;
    }
  }
  return tags / cpu;
}

// The tagger's rates and its ratio to the same run's `baseline`; the decoder's baseline counts
// tags per CPU second of its one thread.
void reportAgainst(benchmark::State& state, const Delivered& delivered, const std::string& baseline,
                   double baseline_rate) {
  const double tagger_rate = delivered.tags / delivered.seconds;
  state.counters["tags_per_s"] = tagger_rate;
  state.counters["tags_per_cpu_s"] = delivered.tags / delivered.cpu_seconds;
  state.counters[baseline + "_tags_per_s"] = baseline_rate;
  state.counters["vs_" + baseline] = tagger_rate / baseline_rate;
  state.counters["correlated_pairs"] = delivered.correlated;
  state.SetItemsProcessed(static_cast<int64_t>(delivered.tags));
}

void BM_LoopedRecordingIntoCountrateAndCorrelation(benchmark::State& state) {
  findFirmware();
  // 16 Mi words: about 170 ms of the stream, long enough that the measurements
  // never see one pattern repeat within their bins.
  const std::vector<uint32_t> words = recordBusyStream(size_t{1} << 24);
  zeptick::emulator::attachBoards(
      {{"devices", {{{"serial", "BENCH2"}, {"pacing", "free"}, {"sources", busySources()}}}}});
  Delivered delivered;
  {
    zeptick::ZeptickImpl tagger("BENCH2");
    zeptick::emulator::findBoard("BENCH2")->loopRecording(words);
    delivered = measure(state, tagger);
  }
  zeptick::emulator::detachBoards();
  const double decoder_rate = decoderTagsPerCpuSecond(words, 3);
  reportAgainst(state, delivered, "decoder", decoder_rate);
}
BENCHMARK(BM_LoopedRecordingIntoCountrateAndCorrelation)
    ->UseManualTime()
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);

// A lab's full set at once on the looped board: beside the Countrate and the Correlation of
// the pairs, a Correlation of the two Poisson inputs, a Histogram of the pairs, a Coincidences
// of the pair inputs and a FileWriter of all four inputs (to a temporary file). The baseline is
// the same tagger with the Countrate alone, in the same run.
void BM_LoopedRecordingIntoLabSet(benchmark::State& state) {
  findFirmware();
  const std::vector<uint32_t> words = recordBusyStream(size_t{1} << 24);
  zeptick::emulator::attachBoards(
      {{"devices", {{{"serial", "BENCH3"}, {"pacing", "free"}, {"sources", busySources()}}}}});
  const auto file = std::filesystem::temp_directory_path() /
                    ("zeptick-bench-lab-" + std::to_string(getpid()) + ".ztbin");
  Delivered alone;
  Delivered lab;
  {
    zeptick::ZeptickImpl tagger("BENCH3");
    zeptick::emulator::findBoard("BENCH3")->loopRecording(words);
    {
      zeptick::Countrate rate(&tagger, {1, 2, 3, 4});
      tagger.sync();
      for (int round = 0; round < 4; ++round) watch(rate, alone);
    }
    zeptick::Correlation poisson(&tagger, 3, 4, 10, 1000);
    zeptick::Histogram histogram(&tagger, 2, 1, 10, 1000);
    zeptick::Coincidences coincidences(&tagger, {{1, 2}}, 2000);
    zeptick::FileWriter writer(&tagger, file.string(), {1, 2, 3, 4});
    lab = measure(state, tagger);
    writer.stop();
  }
  zeptick::emulator::detachBoards();
  for (const auto& entry : std::filesystem::directory_iterator(file.parent_path())) {
    if (entry.path().filename().string().rfind(file.stem().string(), 0) == 0) {
      std::filesystem::remove(entry.path());
    }
  }
  reportAgainst(state, lab, "countrate_alone", alone.tags / alone.seconds);
  // The same per CPU second of the whole process, which a busy machine distorts less than the
  // wall clock: it charges neither run for the time it was preempted.
  const double alone_cpu_rate = alone.tags / alone.cpu_seconds;
  state.counters["countrate_alone_tags_per_cpu_s"] = alone_cpu_rate;
  state.counters["vs_countrate_alone_cpu"] = lab.tags / lab.cpu_seconds / alone_cpu_rate;
}
BENCHMARK(BM_LoopedRecordingIntoLabSet)
    ->UseManualTime()
    ->Iterations(4)
    ->Unit(benchmark::kMillisecond);

// Synchronized groups: every member plays a recording of its own busy stream (the same sources,
// its own seed), cut after the same number of rollover periods with the Synchronizer's counter,
// which goes on counting from pass to pass. The figure is the group's merged tags per second
// into the same Countrate and Correlation; the baseline, as above, one thread decoding a single
// board's stream, so `vs_decoder` is the group against what one board could ever deliver.
std::vector<std::vector<uint32_t>> recordGroupStreams(int members, size_t words) {
  std::vector<std::vector<uint32_t>> streams;
  std::vector<std::vector<size_t>> group_ends;  // per member: after each rollover's sync words
  for (int m = 0; m < members; ++m) {
    const auto model = busyModel(static_cast<uint64_t>(11 + m), "BENCH" + std::to_string(m));
    std::vector<uint32_t> out(words);
    model->read(reinterpret_cast<unsigned char*>(out.data()), static_cast<long>(words * 4));
    std::vector<size_t> ends;
    int sync_words = -1;
    for (size_t at = 0; at < out.size(); ++at) {
      const zeptick::NativeTag word{out[at]};
      if (word.kind() != 1) continue;
      if (word.code() == 62) sync_words = 0;
      if (word.code() >= 58 && word.code() <= 61 && sync_words >= 0 && ++sync_words == 4) {
        ends.push_back(at + 1);
      }
    }
    streams.push_back(std::move(out));
    group_ends.push_back(std::move(ends));
  }
  size_t periods = SIZE_MAX;
  for (const auto& ends : group_ends) periods = std::min(periods, ends.size());
  for (int m = 0; m < members; ++m) streams[m].resize(group_ends[m][periods - 1]);
  return streams;
}

void BM_LoopedGroupIntoCountrateAndCorrelation(benchmark::State& state) {
  findFirmware();
  const int members = static_cast<int>(state.range(0));
  const std::vector<std::vector<uint32_t>> streams =
      recordGroupStreams(members, (size_t{1} << 24) / static_cast<size_t>(members));
  json devices = json::array();
  json serials = json::array();
  for (int m = 0; m < members; ++m) {
    const std::string serial = "BENCH" + std::to_string(m);
    devices.push_back({{"serial", serial},
                       {"pacing", "free"},
                       {"seed", static_cast<uint64_t>(11 + m)},
                       {"sources", busySources()}});
    serials.push_back(serial);
  }
  zeptick::emulator::attachBoards({{"devices", devices}, {"synchronizer", {{"ring", serials}}}});
  Delivered delivered;
  {
    zeptick::ZeptickImpl tagger("BENCH0");
    for (int m = 0; m < members; ++m) {
      zeptick::emulator::findBoard("BENCH" + std::to_string(m))->loopRecording(streams[m]);
    }
    // The switch to the recordings looks like a Synchronizer restart: let the group realign.
    tagger.sync();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    delivered = measure(state, tagger);
  }
  zeptick::emulator::detachBoards();
  const double decoder_rate = decoderTagsPerCpuSecond(recordBusyStream(size_t{1} << 23), 3);
  reportAgainst(state, delivered, "decoder", decoder_rate);
}
BENCHMARK(BM_LoopedGroupIntoCountrateAndCorrelation)
    ->Arg(2)
    ->Arg(4)
    ->UseManualTime()
    ->Iterations(6)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
