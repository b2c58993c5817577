// zeptick-demo: the main job on the built-in emulated "Zeptick Ultra", opened
// through createZeptick like real hardware. Shows count rates and the
// correlation of inputs 1 and 2 live for ten seconds, records a few seconds,
// replays the recording as fast as possible and checks that the replayed
// correlation is the live one, bin for bin.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "zeptick/correlation.h"
#include "zeptick/countrate.h"
#include "zeptick/emulator.h"
#include "zeptick/file_writer.h"
#include "zeptick/library.h"
#include "zeptick/synchronized_measurements.h"
#include "zeptick/zeptick_hardware.h"

namespace {

using namespace zeptick;
using SteadyClock = std::chrono::steady_clock;

constexpr int64_t kBin = 20;  // ps
constexpr int kBins = 500;    // +-5 ns
constexpr int kLiveSeconds = 10;
constexpr int64_t kRecordPs = 3000000000000;  // 3 s of stream time
const std::vector<int> kInputs = {1, 2, 3, 4};

template <class T>
std::vector<T> fetch(const std::function<void(std::function<T*(size_t)>)>& getter) {
  std::vector<T> values;
  getter([&values](size_t n) {
    values.assign(n, T{});
    return values.data();
  });
  return values;
}

struct Peak {
  double position = 0.0;  // ps, time on 1 minus time on 2
  int32_t height = 0;     // counts in the highest bin
  int64_t counts = 0;     // counts within the peak's window
};

// Centroid of the bins within `radius` of the highest one.
Peak findPeak(const std::vector<int32_t>& counts, const std::vector<int64_t>& index,
              int radius = 8) {
  const auto top = std::max_element(counts.begin(), counts.end()) - counts.begin();
  Peak peak;
  peak.height = counts[static_cast<size_t>(top)];
  double sum = 0.0;
  const auto last = static_cast<std::ptrdiff_t>(counts.size()) - 1;
  for (auto i = std::max<std::ptrdiff_t>(0, top - radius); i <= std::min(last, top + radius); ++i) {
    const auto bin = static_cast<size_t>(i);
    peak.counts += counts[bin];
    sum += counts[bin] * (static_cast<double>(index[bin]) + kBin / 2.0);
  }
  if (peak.counts > 0) peak.position = sum / static_cast<double>(peak.counts);
  return peak;
}

void plot(const std::vector<int32_t>& counts, const std::vector<int64_t>& index) {
  const auto top = std::max_element(counts.begin(), counts.end()) - counts.begin();
  const int32_t highest = std::max(counts[static_cast<size_t>(top)], 1);
  const auto first = std::max<std::ptrdiff_t>(0, top - 8);
  const auto last = std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(counts.size()), top + 9);
  for (auto i = first; i < last; ++i) {
    const auto bin = static_cast<size_t>(i);
    const int width = static_cast<int>(std::lround(50.0 * counts[bin] / highest));
    std::printf("   %7.3f ns | %-50s %d\n", static_cast<double>(index[bin]) / 1000.0,
                std::string(static_cast<size_t>(width), '#').c_str(), counts[bin]);
  }
}

double secondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

void showLive(Zeptick* tagger) {
  std::printf("2. Live, once a second for %d s: count rates and the correlation of 1 and 2\n",
              kLiveSeconds);
  std::printf("   (%lld ps bins; the peak lies at minus the delay of input 2 after input 1)\n",
              static_cast<long long>(kBin));
  Countrate rates(tagger, kInputs);
  Correlation correlation(tagger, 1, 2, kBin, kBins);
  std::printf("   %4s", "s");
  for (int input : kInputs) std::printf("   input %d /s", input);
  std::printf("   peak ps  height  in peak\n");
  std::vector<int64_t> before(kInputs.size(), 0);
  int64_t before_ps = 0;
  const auto start = SteadyClock::now();
  for (int second = 1; second <= kLiveSeconds; ++second) {
    std::this_thread::sleep_until(start + std::chrono::seconds(second));
    const auto totals = fetch<int64_t>([&](auto out) { rates.getCountsTotal(out); });
    const int64_t now_ps = rates.getCaptureDuration();
    const auto counts = fetch<int32_t>([&](auto out) { correlation.getData(out); });
    const auto index = fetch<int64_t>([&](auto out) { correlation.getIndex(out); });
    const Peak peak = findPeak(counts, index);
    std::printf("   %4d", second);
    const double span = static_cast<double>(std::max<int64_t>(now_ps - before_ps, 1)) * 1e-12;
    for (size_t i = 0; i < kInputs.size(); ++i) {
      std::printf(" %12.0f", static_cast<double>(totals[i] - before[i]) / span);
    }
    std::printf(" %9.1f %7d %8lld\n", peak.position, peak.height,
                static_cast<long long>(peak.counts));
    std::fflush(stdout);
    before = totals;
    before_ps = now_ps;
  }
  const auto counts = fetch<int32_t>([&](auto out) { correlation.getData(out); });
  const auto index = fetch<int64_t>([&](auto out) { correlation.getIndex(out); });
  std::printf("   Correlation after %.1f s of stream, around its peak:\n",
              static_cast<double>(correlation.getCaptureDuration()) * 1e-12);
  plot(counts, index);
  std::printf("\n");
}

struct Recorded {
  std::vector<int32_t> counts;
  std::vector<int64_t> index;
  int64_t events = 0;
};

Recorded record(Zeptick* tagger, const std::string& base) {
  std::printf(
      "3. Recording %.0f s of inputs 1 and 2 with FileWriter, a live Correlation alongside\n",
      static_cast<double>(kRecordPs) * 1e-12);
  // The group starts and stops both on the same blocks, so they see the same tags.
  SynchronizedMeasurements group(tagger);
  FileWriter writer(group.getTagger(), base + ".ztbin", {1, 2});
  Correlation correlation(group.getTagger(), 1, 2, kBin, kBins);
  const auto start = SteadyClock::now();
  group.startFor(kRecordPs);
  while (group.isRunning()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  Recorded live;
  live.counts = fetch<int32_t>([&](auto out) { correlation.getData(out); });
  live.index = fetch<int64_t>([&](auto out) { correlation.getIndex(out); });
  live.events = writer.getTotalEvents();
  std::printf("   %lld events, %.1f MB, in %.1f s of wall time\n",
              static_cast<long long>(live.events), static_cast<double>(writer.getTotalSize()) / 1e6,
              secondsSince(start));
  const Peak peak = findPeak(live.counts, live.index);
  std::printf("   live peak at %.1f ps, %lld counts in the peak\n\n", peak.position,
              static_cast<long long>(peak.counts));
  return live;
}

bool replayAndCompare(const std::string& base, const Recorded& live) {
  std::printf("4. Replaying the recording as fast as possible through the replay tagger\n");
  ZeptickVirtual* replay = createZeptickVirtual();
  bool same = false;
  {
    Correlation correlation(replay, 1, 2, kBin, kBins);
    replay->setReplaySpeed(-1.0);
    const auto start = SteadyClock::now();
    replay->waitForCompletion(replay->replay(base + ".ztbin"));
    const double took = secondsSince(start);
    const auto counts = fetch<int32_t>([&](auto out) { correlation.getData(out); });
    const auto index = fetch<int64_t>([&](auto out) { correlation.getIndex(out); });
    std::printf("   %.1f s of recording replayed in %.2f s (%.1f million tags/s)\n",
                static_cast<double>(correlation.getCaptureDuration()) * 1e-12, took,
                static_cast<double>(live.events) / std::max(took, 1e-9) / 1e6);
    const Peak live_peak = findPeak(live.counts, live.index);
    const Peak peak = findPeak(counts, index);
    size_t equal = 0;
    for (size_t i = 0; i < counts.size() && i < live.counts.size(); ++i) {
      equal += counts[i] == live.counts[i];
    }
    same = index == live.index && counts == live.counts;
    std::printf("   %-9s peak at %8.1f ps, height %6d, %8lld counts in the peak\n",
                "live:", live_peak.position, live_peak.height,
                static_cast<long long>(live_peak.counts));
    std::printf("   %-9s peak at %8.1f ps, height %6d, %8lld counts in the peak\n",
                "replayed:", peak.position, peak.height, static_cast<long long>(peak.counts));
    std::printf("   %zu of %zu bins equal: the replay %s the live correlation\n\n", equal,
                counts.size(), same ? "reproduces" : "DIFFERS FROM");
  }
  freeZeptick(replay);
  return same;
}

int run() {
  const auto start = SteadyClock::now();
  std::printf("Zeptick demo (library %s) on the emulated instrument\n\n", getVersion().c_str());
  // The built-in board has what the demo needs: photon pairs on inputs 1 and
  // 2 (1.5 ns apart, 30 ps jitter), a 10 MHz laser on 3 and random counts on
  // 4, delivered in real time.
  attachDefaultEmulatedDevice();
  std::printf("1. Opening the emulated \"Zeptick Ultra\" with createZeptick()\n");
  Zeptick* tagger = createZeptick();
  if (tagger == nullptr) throw std::runtime_error("createZeptick found no instrument");
  std::printf("   %s, serial %s, opened in %.1f s\n", tagger->getModel().c_str(),
              tagger->getSerial().c_str(), secondsSince(start));
  std::printf(
      "   the built-in default board: 100000 photon pairs per second on 1 and 2\n"
      "   (2 lags by 1.5 ns, 30 ps jitter), a 10 MHz laser on 3, random counts on 4\n\n");

  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "zeptick-demo";
  std::filesystem::remove_all(dir);
  std::filesystem::create_directories(dir);
  const std::string base = (dir / "live").string();

  showLive(tagger);
  const Recorded live = record(tagger, base);
  freeZeptick(tagger);
  detachEmulatedDevices();

  const bool same = replayAndCompare(base, live);
  std::printf("The recording is in %s (live.ztbin and its numbered parts).\n", dir.c_str());
  std::printf("Demo finished in %.1f s.\n", secondsSince(start));
  return same ? 0 : 1;
}

}  // namespace

int main() {
  try {
    return run();
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zeptick-demo: %s\n", e.what());
    return 1;
  }
}
