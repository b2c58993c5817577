// zeptick-demo: no instrument needed. Generates a recording of two correlated
// detectors, a clock and some background, replays it through Countrate,
// Correlation and Histogram on the replay tagger, and shows what they found
// next to what was put in.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <vector>

#include "files/recording_generator.h"
#include "zeptick/correlation.h"
#include "zeptick/countrate.h"
#include "zeptick/histogram.h"
#include "zeptick/library.h"

namespace {

using namespace zeptick;

constexpr int64_t kCorrelationBin = 10;  // ps
constexpr int kCorrelationBins = 1000;   // +-5 ns
constexpr int64_t kHistogramBin = 20;    // ps
constexpr int kHistogramBins = 250;      // 0 to 5 ns

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
  double position = 0.0;  // ps
  double width = 0.0;     // standard deviation, ps
};

// Centroid and spread of the counts within `radius` bins of the highest bin.
Peak findPeak(const std::vector<int32_t>& counts, const std::vector<int64_t>& index,
              int64_t binwidth, int radius) {
  const auto top = std::max_element(counts.begin(), counts.end()) - counts.begin();
  double weight = 0.0;
  double sum = 0.0;
  double squares = 0.0;
  for (auto i = std::max<std::ptrdiff_t>(0, top - radius);
       i <= std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(counts.size()) - 1, top + radius);
       ++i) {
    const double centre =
        static_cast<double>(index[static_cast<size_t>(i)]) + static_cast<double>(binwidth) / 2.0;
    const double count = counts[static_cast<size_t>(i)];
    weight += count;
    sum += count * centre;
    squares += count * centre * centre;
  }
  if (weight <= 0.0) return {};
  const double mean = sum / weight;
  return {mean, std::sqrt(std::max(0.0, squares / weight - mean * mean))};
}

void plot(const std::vector<int32_t>& counts, const std::vector<int64_t>& index) {
  const auto top = std::max_element(counts.begin(), counts.end()) - counts.begin();
  const int32_t highest = std::max(counts[static_cast<size_t>(top)], 1);
  const auto first = std::max<std::ptrdiff_t>(0, top - 10);
  const auto last = std::min<std::ptrdiff_t>(static_cast<std::ptrdiff_t>(counts.size()), top + 11);
  for (auto i = first; i < last; ++i) {
    const auto bin = static_cast<size_t>(i);
    const int width = static_cast<int>(std::lround(50.0 * counts[bin] / highest));
    std::printf("  %7.3f ns | %-50s %d\n", static_cast<double>(index[bin]) / 1000.0,
                std::string(static_cast<size_t>(width), '#').c_str(), counts[bin]);
  }
}

int run() {
  RecordingSpec spec;
  spec.seed = 2026;
  spec.duration = 2000000000000;  // 2 s
  spec.block_span = 10000000000;  // 10 ms
  spec.pair_rate = 150000.0;
  spec.pair_delay = 2500;
  spec.pair_jitter = 40.0;
  spec.period = 10000000;  // 100 kHz on channel 3
  spec.background_rate = 50000.0;
  spec.overflow_spans = {{500000000000, 500200000000}};  // 0.2 ms of lost events

  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "zeptick-demo";
  std::filesystem::create_directories(dir);
  const std::string base = (dir / "demo").string();
  std::printf("Zeptick demo (library %s), no instrument attached\n\n", getVersion().c_str());
  std::printf("1. Writing a synthetic recording to %s.*.ztbin\n", base.c_str());
  const RecordingSummary summary = writeRecording(base, spec, 8 << 20);
  std::printf("   %u files, %llu blocks, %llu tags over %.1f s\n", summary.files,
              static_cast<unsigned long long>(summary.blocks),
              static_cast<unsigned long long>(summary.tags),
              static_cast<double>(summary.end_time - summary.begin_time) / 1e12);
  std::printf("   channels 1 and 2: %.0f pairs/s, channel 2 later by %lld ps (jitter %.0f ps),\n",
              spec.pair_rate, static_cast<long long>(spec.pair_delay), spec.pair_jitter);
  std::printf("   plus %.0f/s of background each; channel 3: a %.0f kHz clock;\n",
              spec.background_rate, 1e9 / static_cast<double>(spec.period));
  std::printf("   events lost for 0.2 ms at 0.5 s (an overflow)\n\n");

  std::printf("2. Replaying it as fast as possible through three measurements\n");
  ZeptickVirtual* tagger = createZeptickVirtual();
  {
    Countrate rates(tagger, {1, 2, 3});
    Correlation correlation(tagger, 1, 2, kCorrelationBin, kCorrelationBins);
    Histogram histogram(tagger, 2, 1, kHistogramBin, kHistogramBins);
    const auto start = std::chrono::steady_clock::now();
    tagger->setReplaySpeed(-1.0);
    tagger->waitForCompletion(tagger->replay(base));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("   %.2f s of recording in %.3f s of wall time: %.1f million tags/s\n\n",
                static_cast<double>(spec.duration) / 1e12, seconds,
                static_cast<double>(summary.tags) / seconds / 1e6);

    const auto rate = fetch<double>([&](auto out) { rates.getData(out); });
    const auto total = fetch<int64_t>([&](auto out) { rates.getCountsTotal(out); });
    const double expected[] = {spec.pair_rate + spec.background_rate,
                               spec.pair_rate + spec.background_rate,
                               1e12 / static_cast<double>(spec.period)};
    std::printf("3. Count rates\n");
    for (size_t i = 0; i < 3; ++i) {
      std::printf("   channel %zu: %10.0f /s  (generated %.0f /s, %lld events)\n", i + 1, rate[i],
                  expected[i], static_cast<long long>(total[i]));
    }
    std::printf("   overflows and errors seen by the tagger: %lld\n\n",
                static_cast<long long>(tagger->getOverflows()));

    const auto corr = fetch<int32_t>([&](auto out) { correlation.getData(out); });
    const auto corr_index = fetch<int64_t>([&](auto out) { correlation.getIndex(out); });
    const Peak peak = findPeak(corr, corr_index, kCorrelationBin, 15);
    std::printf("4. Correlation of channel 1 against channel 2 (%lld ps bins, +-%.0f ns)\n",
                static_cast<long long>(kCorrelationBin),
                kCorrelationBins * kCorrelationBin / 2000.0);
    std::printf("   peak at %.1f ps (time on 1 minus time on 2): channel 2 lags by %.1f ps\n",
                peak.position, -peak.position);
    std::printf(
        "   generated delay %lld ps: off by %.1f ps; peak width %.1f ps (generated %.0f)\n\n",
        static_cast<long long>(spec.pair_delay),
        -peak.position - static_cast<double>(spec.pair_delay), peak.width, spec.pair_jitter);

    const auto hist = fetch<int32_t>([&](auto out) { histogram.getData(out); });
    const auto hist_index = fetch<int64_t>([&](auto out) { histogram.getIndex(out); });
    std::printf(
        "5. Histogram of channel 2 after channel 1 (%lld ps bins), around its peak at %.1f ps\n",
        static_cast<long long>(kHistogramBin),
        findPeak(hist, hist_index, kHistogramBin, 8).position);
    plot(hist, hist_index);
  }
  freeZeptick(tagger);
  std::filesystem::remove_all(dir);
  return 0;
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
