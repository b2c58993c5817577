// Replay of other instruments' recordings at full speed into Countrate, in tags per second,
// against a plain loop in the same run that reads the same records and decodes each into a
// tag of channel and time in a reused buffer (the least a program reading these files does). Each
// replay run is followed by one pass of the loop, so both see the same load on a shared machine;
// the counter `vs_plain_loop` is replay's throughput over the loop's. The files are the shared real
// recordings beside the source tree; they are small, so each iteration queues one file enough
// times for two million tags, and the loop reads it as often. Otherwise replay's fixed cost per
// call (the last sync waits for an idle block, up to 20 ms) would be all that is measured.

#include <benchmark/benchmark.h>
#include <hdf5.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "bench_files.h"
#include "files/zeptick_virtual_impl.h"
#include "zeptick/countrate.h"
#include "zeptick/file_reader.h"

namespace zeptick::bench {
namespace {

using Clock = std::chrono::steady_clock;

std::string realData(const char* name) {
  return std::string(ZEPTICK_SOURCE_DIR "/../shared/realdata/") + name;
}

// The records of a PTU or SPC file from `offset` on, a chunk at a time, each decoded by
// `decode(record)` into a time, or -1 for a record that is no event; returns the tags made.
template <class Decode>
uint64_t plainLoop(const std::string& path, long offset, Decode decode) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  std::fseek(file, offset, SEEK_SET);
  std::vector<uint32_t> records(1 << 16);
  std::vector<Tag> tags;
  uint64_t made = 0;
  size_t got = 0;
  while ((got = std::fread(records.data(), 4, records.size(), file)) > 0) {
    tags.clear();
    for (size_t i = 0; i < got; ++i) {
      const int64_t time = decode(records[i]);
      if (time >= 0) {
        tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, static_cast<int32_t>(records[i] >> 28), time});
      }
    }
    benchmark::DoNotOptimize(tags.data());
    made += tags.size();
  }
  std::fclose(file);
  return made;
}

long ptuDataOffset(const std::string& path) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  std::vector<char> head(1 << 16);
  const size_t size = std::fread(head.data(), 1, head.size(), file);
  std::fclose(file);
  const std::string text(head.data(), size);
  return static_cast<long>(text.find("Header_End") + 48);
}

// HydraHarp T2: 25-bit times, compressed overflows of 2^25.
uint64_t plainHydraHarpT2(const std::string& path) {
  uint64_t overflow = 0;
  return plainLoop(path, ptuDataOffset(path), [&](uint32_t r) -> int64_t {
    const uint32_t channel = (r >> 25) & 63, time = r & 0x1FFFFFF;
    if ((r >> 31) && channel == 63) {
      overflow += (uint64_t{1} << 25) * (time == 0 ? 1 : time);
      return -1;
    }
    return static_cast<int64_t>(overflow + time);
  });
}

// PicoHarp T3: 16-bit sync counts, overflows of 65536, time = sync x period + dtime x bin.
uint64_t plainPicoHarpT3(const std::string& path) {
  uint64_t overflow = 0;
  return plainLoop(path, ptuDataOffset(path), [&](uint32_t r) -> int64_t {
    const uint32_t channel = r >> 28, dtime = (r >> 16) & 0xFFF, sync = r & 0xFFFF;
    if (channel == 15) {
      if (dtime == 0) overflow += 65536;
      return -1;
    }
    return static_cast<int64_t>(static_cast<double>(overflow + sync) * 12817.22635 +
                                dtime * 96.9697);
  });
}

// SPC: overflow counts, single overflows, reversed 12-bit microtime.
uint64_t plainSpc(const std::string& path) {
  uint64_t macro = 0;
  return plainLoop(path, 4, [&](uint32_t r) -> int64_t {
    if ((r & 0xD0000000u) == 0xC0000000u) {
      macro += 4096 * uint64_t{r & 0x0FFFFFFF};
      return -1;
    }
    if (r & 0x40000000u) macro += 4096;
    if (r & 0x90000000u) return -1;
    return static_cast<int64_t>((macro + (r & 0xFFF)) * 9500) +
           static_cast<int64_t>((4095 - ((r >> 16) & 0xFFF)) * 2.4430455);
  });
}

// Photon-HDF5: the whole timestamps and detectors datasets, then a pass over them.
uint64_t plainPhotonHdf5(const std::string& path) {
  const hid_t file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  std::vector<int64_t> stamps, detectors;
  for (const char* name : {"photon_data/timestamps", "photon_data/detectors"}) {
    const hid_t set = H5Dopen2(file, name, H5P_DEFAULT);
    const hid_t space = H5Dget_space(set);
    std::vector<int64_t>& values = stamps.empty() ? stamps : detectors;
    values.resize(static_cast<size_t>(H5Sget_simple_extent_npoints(space)));
    H5Dread(set, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values.data());
    H5Sclose(space);
    H5Dclose(set);
  }
  H5Fclose(file);
  std::vector<Tag> tags;
  tags.reserve(stamps.size());
  for (size_t i = 0; i < stamps.size(); ++i) {
    tags.push_back(
        Tag{Tag::Type::TimeTag, 0, 0, static_cast<int32_t>(detectors[i] + 1), stamps[i] * 12500});
  }
  benchmark::DoNotOptimize(tags.data());
  return tags.size();
}

double seconds(Clock::duration duration) { return std::chrono::duration<double>(duration).count(); }

void replayAgainst(benchmark::State& state, const std::string& path,
                   uint64_t (*plain)(const std::string&)) {
  if (!std::filesystem::exists(path)) {
    state.SkipWithError(("no recording at " + path).c_str());
    return;
  }
  const uint64_t per_file = readAlone(path);
  const uint64_t repeats = std::max<uint64_t>(1, 2000000 / std::max<uint64_t>(per_file, 1));
  const uint64_t tags = per_file * repeats;
  ZeptickVirtualImpl tagger(static_cast<unsigned>(state.range(0)));
  Countrate countrate(&tagger, {1, 2, 3, 1000, 1001});
  Clock::duration replay_time{}, plain_time{};
  for (auto _ : state) {
    const auto start = Clock::now();
    uint64_t last = 0;
    for (uint64_t i = 0; i < repeats; ++i) last = tagger.replay(path);
    tagger.waitForCompletion(last);
    const auto replayed = Clock::now();
    state.PauseTiming();
    for (uint64_t i = 0; i < repeats; ++i) benchmark::DoNotOptimize(plain(path));
    plain_time += Clock::now() - replayed;
    replay_time += replayed - start;
    state.ResumeTiming();
  }
  const auto total = static_cast<double>(state.iterations() * tags);
  state.SetItemsProcessed(static_cast<int64_t>(total));
  state.counters["plain_loop_tags_per_s"] = total / seconds(plain_time);
  state.counters["vs_plain_loop"] = seconds(plain_time) / seconds(replay_time);
}

void BM_ReplayPtuT2(benchmark::State& state) {
  replayAgainst(state, realData("02_hydraharp2_T2/v20_t2.ptu"), plainHydraHarpT2);
}
void BM_ReplayPtuT3(benchmark::State& state) {
  replayAgainst(state, realData("05_picoharp300_T3_flim_image/ptu_stack_FLIM_z1.ptu"),
                plainPicoHarpT3);
}
void BM_ReplaySpc(benchmark::State& state) {
  replayAgainst(state, realData("06_bh_spc150_fifo/test_noise.spc"), plainSpc);
}

// A Photon-HDF5 file of a million photons written once, as no shared file of that size exists.
const std::string& photonHdf5File() {
  static const std::string path = [] {
    const std::string name =
        (std::filesystem::temp_directory_path() / "zeptick-bench-photon.h5").string();
    const hid_t file = H5Fcreate(name.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
    const hsize_t count = 1000000;
    std::vector<int64_t> stamps(count), detectors(count);
    for (hsize_t i = 0; i < count; ++i) {
      stamps[i] = static_cast<int64_t>(i * 37 + (i * 7919) % 29);
      detectors[i] = static_cast<int64_t>(i % 2);
    }
    const hid_t space = H5Screate_simple(1, &count, nullptr);
    const hid_t links = H5Pcreate(H5P_LINK_CREATE);
    H5Pset_create_intermediate_group(links, 1);
    for (const auto& [set_name, values] : {std::pair{"photon_data/timestamps", &stamps},
                                           std::pair{"photon_data/detectors", &detectors}}) {
      const hid_t set =
          H5Dcreate2(file, set_name, H5T_STD_I64LE, space, links, H5P_DEFAULT, H5P_DEFAULT);
      H5Dwrite(set, H5T_NATIVE_INT64, H5S_ALL, H5S_ALL, H5P_DEFAULT, values->data());
      H5Dclose(set);
    }
    const hid_t scalar = H5Screate(H5S_SCALAR);
    const double unit = 12.5e-9;
    const hid_t set = H5Dcreate2(file, "photon_data/timestamps_specs/timestamps_unit",
                                 H5T_IEEE_F64LE, scalar, links, H5P_DEFAULT, H5P_DEFAULT);
    H5Dwrite(set, H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, &unit);
    H5Dclose(set);
    H5Sclose(scalar);
    H5Pclose(links);
    H5Sclose(space);
    H5Fclose(file);
    return name;
  }();
  return path;
}

void BM_ReplayPhotonHdf5(benchmark::State& state) {
  replayAgainst(state, photonHdf5File(), plainPhotonHdf5);
}

// Argument: worker threads, 0 for one per hardware thread.
BENCHMARK(BM_ReplayPtuT2)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReplayPtuT3)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReplaySpc)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReplayPhotonHdf5)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
