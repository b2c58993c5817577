// Replays a recording through measurements and writes each result as NAME.bin (a line "dtype
// extent..." and the raw values), for the Python tests to compare the binding's arrays with.
// usage: zeptick-python-reference RECORDING OUTPUT_DIR

#include <zeptick/zeptick.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

/// Collects one result through the allocator callback of `getter` and writes it.
template <class T, class Getter>
void save(const std::string& dir, const std::string& name, const char* dtype, Getter&& getter) {
  std::vector<T> data;
  std::vector<size_t> shape;
  getter([&](auto... extents) {
    shape = {extents...};
    data.assign((extents * ...), T{});
    return data.data();
  });
  std::ofstream out(dir + "/" + name + ".bin", std::ios::binary);
  out << dtype;
  for (size_t extent : shape) out << ' ' << extent;
  out << '\n';
  out.write(reinterpret_cast<const char*>(data.data()),
            static_cast<std::streamsize>(data.size() * sizeof(T)));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: %s RECORDING OUTPUT_DIR\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[2];
  using namespace zeptick;
  ZeptickVirtual* tagger = createZeptickVirtual();
  {
    // The same measurements, with the same arguments, as tests/python/test_results.py.
    Countrate countrate(tagger, {1, 2, 3});
    Counter counter(tagger, {1, 2, 3}, 10'000'000'000, 7);
    Correlation correlation(tagger, 1, 2, 10, 1000);
    TimeDifferences differences(tagger, 2, 1, 3, CHANNEL_UNUSED, 100, 64, 4);
    TimeDifferencesND nd(tagger, 2, 1, {3, 3}, {}, {2, 3}, 100, 64);
    Histogram2D histogram_2d(tagger, 3, 1, 2, 1'000'000, 1'000'000, 5, 4);
    StartStop start_stop(tagger, 2, 1, 1000);
    HistogramLogBins log_bins(tagger, 2, 1, -10, -6, 20);
    tagger->setReplaySpeed(-1);
    tagger->replay(argv[1]);
    tagger->waitForCompletion();
    save<int64_t>(dir, "countrate_totals", "<i8", [&](auto f) { countrate.getCountsTotal(f); });
    save<int32_t>(dir, "counter", "<i4", [&](auto f) { counter.getData(f); });
    save<int32_t>(dir, "correlation", "<i4", [&](auto f) { correlation.getData(f); });
    save<double>(dir, "correlation_normalized", "<f8",
                 [&](auto f) { correlation.getDataNormalized(f); });
    save<int32_t>(dir, "time_differences", "<i4", [&](auto f) { differences.getData(f); });
    save<int32_t>(dir, "time_differences_nd", "<i4", [&](auto f) { nd.getData(f); });
    save<int32_t>(dir, "histogram_2d", "<i4", [&](auto f) { histogram_2d.getData(f); });
    save<int64_t>(dir, "histogram_2d_index", "<i8", [&](auto f) { histogram_2d.getIndex(f); });
    save<int64_t>(dir, "start_stop", "<i8", [&](auto f) { start_stop.getData(f); });
    save<uint64_t>(dir, "log_bins", "<u8", [&](auto f) { log_bins.getData(f); });
  }
  freeZeptick(tagger);
  return 0;
}
