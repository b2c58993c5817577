// Replays a recording through a set of measurements in C++ and writes each result as a .npy
// file, so that the Python tests can compare the binding's arrays with the library's own.
// usage: zeptick-python-reference RECORDING OUTPUT_DIR

#include <zeptick/zeptick.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

template <class T>
const char* npyType();
template <>
const char* npyType<int32_t>() {
  return "<i4";
}
template <>
const char* npyType<int64_t>() {
  return "<i8";
}
template <>
const char* npyType<uint64_t>() {
  return "<u8";
}
template <>
const char* npyType<double>() {
  return "<f8";
}

/// Collects one result through the allocator callback and writes it as NumPy's .npy.
template <class T>
class Result {
 public:
  T* operator()(size_t n) { return allocate({n}); }
  T* operator()(size_t a, size_t b) { return allocate({a, b}); }
  T* operator()(size_t a, size_t b, size_t c) { return allocate({a, b, c}); }

  void save(const std::string& path) const {
    std::string shape;
    for (size_t extent : shape_) shape += std::to_string(extent) + ",";
    std::string header = "{'descr': '" + std::string(npyType<T>()) +
                         "', 'fortran_order': False, 'shape': (" + shape + "), }";
    header.append(63 - (10 + header.size()) % 64, ' ');
    header += '\n';
    std::ofstream out(path, std::ios::binary);
    out.write("\x93NUMPY\x01\x00", 8);
    const uint16_t length = static_cast<uint16_t>(header.size());
    out.write(reinterpret_cast<const char*>(&length), 2);
    out << header;
    out.write(reinterpret_cast<const char*>(data_.data()), data_.size() * sizeof(T));
  }

 private:
  T* allocate(std::vector<size_t> shape) {
    size_t total = 1;
    for (size_t extent : shape) total *= extent;
    data_.assign(total, T{});
    shape_ = std::move(shape);
    return data_.data();
  }
  std::vector<T> data_;
  std::vector<size_t> shape_;
};

template <class T, class Getter>
void save(const std::string& dir, const std::string& name, Getter&& getter) {
  Result<T> result;
  getter([&](auto... extents) { return result(extents...); });
  result.save(dir + "/" + name + ".npy");
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
    save<int64_t>(dir, "countrate_totals", [&](auto f) { countrate.getCountsTotal(f); });
    save<int32_t>(dir, "counter", [&](auto f) { counter.getData(f); });
    save<int32_t>(dir, "correlation", [&](auto f) { correlation.getData(f); });
    save<double>(dir, "correlation_normalized", [&](auto f) { correlation.getDataNormalized(f); });
    save<int32_t>(dir, "time_differences", [&](auto f) { differences.getData(f); });
    save<int32_t>(dir, "time_differences_nd", [&](auto f) { nd.getData(f); });
    save<int32_t>(dir, "histogram_2d", [&](auto f) { histogram_2d.getData(f); });
    save<int64_t>(dir, "histogram_2d_index", [&](auto f) { histogram_2d.getIndex(f); });
    save<int64_t>(dir, "start_stop", [&](auto f) { start_stop.getData(f); });
    save<uint64_t>(dir, "log_bins", [&](auto f) { log_bins.getData(f); });
  }
  freeZeptick(tagger);
  return 0;
}
