// The time-difference histograms.

#include "bindings.h"
#include "measurement_binding.h"

namespace zeptick::python {

namespace {

void bindSequenceControls(MeasurementClass<TimeDifferences>& cls) {
  using T = TimeDifferences;
  cls.def("setMaxCounts", method<T>(&T::setMaxCounts), py::arg("max_counts"),
          "Stops taking new starts once this many sequences completed; 0 means no limit.")
      .def("getCounts", method<T>(&T::getCounts), "Completed sequences since the last clear.")
      .def("ready", method<T>(&T::ready),
           "True once max_counts sequences completed and no start can count any more.");
}

void bindTimeDifferencesFamily(py::module_& m) {
  MeasurementClass<TimeDifferences> time_differences(
      m, "TimeDifferences",
      "Start-click histograms: each click counts the time since every start within the last "
      "n_bins * binwidth ps, into one of n_histograms histograms stepped by `next_channel` and "
      "restarted by `sync_channel`. Raises ValueError if binwidth < 1, n_bins < 1 or "
      "n_histograms < 1.");
  time_differences
      .def(py::init(&make<TimeDifferences, ZeptickBase, int, int, int, int, int64_t, int, int>),
           py::arg("tagger"), py::arg("click_channel"), py::arg("start_channel") = CHANNEL_UNUSED,
           py::arg("next_channel") = CHANNEL_UNUSED, py::arg("sync_channel") = CHANNEL_UNUSED,
           py::arg("binwidth") = 1000, py::arg("n_bins") = 1000, py::arg("n_histograms") = 1)
      .def("getData", array2<int32_t>(&TimeDifferences::getData),
           "int32 (n_histograms, n_bins) counters.");
  bindSequenceControls(time_differences);
  time_differences.def("getIndex", array1<int64_t>(&TimeDifferences::getIndex),
                       "int64 lower edge of each bin in ps.");

  MeasurementClass<Histogram> histogram(
      m, "Histogram",
      "One start-click histogram: the time from each start tag to every click tag up to "
      "n_bins * binwidth ps later. Raises ValueError if binwidth < 1 or n_bins < 1.");
  histogram
      .def(py::init(&make<Histogram, ZeptickBase, int, int, int64_t, int>), py::arg("tagger"),
           py::arg("click_channel"), py::arg("start_channel") = CHANNEL_UNUSED,
           py::arg("binwidth") = 1000, py::arg("n_bins") = 1000)
      .def("getData", array1<int32_t>(&Histogram::getData), "int32 (n_bins) counters.")
      .def("getIndex", array1<int64_t, Histogram>(&Histogram::getIndex),
           "int64 lower edge of each bin in ps.");

  MeasurementClass<Flim> flim(
      m, "Flim",
      "Start-click histograms stepped by a next channel, as for a scanned image. Raises "
      "ValueError if binwidth < 1, n_bins < 1 or n_histograms < 1.");
  flim.def(py::init(&make<Flim, ZeptickBase, int, int, int, int64_t, int, int>), py::arg("tagger"),
           py::arg("click_channel"), py::arg("start_channel") = CHANNEL_UNUSED,
           py::arg("next_channel") = CHANNEL_UNUSED, py::arg("binwidth") = 1000,
           py::arg("n_bins") = 1000, py::arg("n_histograms") = 1)
      .def("getData", array2<int32_t, Flim>(&Flim::getData),
           "int32 (n_histograms, n_bins) counters.")
      .def("getIndex", array1<int64_t, Flim>(&Flim::getIndex),
           "int64 lower edge of each bin in ps.");
}

void bindPairHistograms(py::module_& m) {
  MeasurementClass<Correlation>(
      m, "Correlation",
      "Cross-correlation of two channels: a histogram of time on channel 1 minus time on "
      "channel 2 in n_bins bins centred on zero. Raises ValueError if binwidth < 1 or n_bins < 1.")
      .def(py::init(&make<Correlation, ZeptickBase, int, int, int64_t, int>), py::arg("tagger"),
           py::arg("channel_1"), py::arg("channel_2") = CHANNEL_UNUSED, py::arg("binwidth") = 1000,
           py::arg("n_bins") = 1000)
      .def("getData", array1<int32_t>(&Correlation::getData), "int32 (n_bins) counters.")
      .def("getDataNormalized", array1<double>(&Correlation::getDataNormalized),
           "float64 counters scaled so that uncorrelated streams give 1.")
      .def("getIndex", array1<int64_t>(&Correlation::getIndex),
           "int64 lower edge of each bin in ps.");

  MeasurementClass<StartStop>(
      m, "StartStop",
      "The time from each start tag to the first click tag after it, as a sparse histogram. "
      "Raises ValueError for a binwidth of 0.")
      .def(py::init(&make<StartStop, ZeptickBase, int, int, int64_t>), py::arg("tagger"),
           py::arg("click_channel"), py::arg("start_channel") = CHANNEL_UNUSED,
           py::arg("binwidth") = 1000)
      .def("getData", array2<int64_t>(&StartStop::getData),
           "int64 rows of (bin start in ps, count) in rising time; empty bins left out.");

  MeasurementClass<TimeDifferencesND>(
      m, "TimeDifferencesND",
      "Start-click histograms addressed by several step-through sequences at once. Raises "
      "ValueError on mismatched list sizes, binwidth < 1, n_bins 0 or n_histograms below 1.")
      .def(py::init(&make<TimeDifferencesND, ZeptickBase, int, int, std::vector<int>,
                          std::vector<int>, std::vector<int>, int64_t, uint64_t>),
           py::arg("tagger"), py::arg("click_channel"), py::arg("start_channel"),
           py::arg("next_channels"), py::arg("sync_channels"), py::arg("n_histograms"),
           py::arg("binwidth"), py::arg("n_bins"))
      .def("_getData2D", array2<int32_t>(&TimeDifferencesND::getData))
      .def("getIndex", array1<int64_t>(&TimeDifferencesND::getIndex),
           "int64 lower bin edges in ps.");

  MeasurementClass<Histogram2D>(
      m, "Histogram2D",
      "Two-dimensional start-stop histogram: the differences from a start to one tag on each "
      "stop channel select a cell.")
      .def(py::init(&make<Histogram2D, ZeptickBase, int, int, int, int64_t, int64_t, int, int>),
           py::arg("tagger"), py::arg("start_channel"), py::arg("stop_channel_1"),
           py::arg("stop_channel_2"), py::arg("binwidth_1"), py::arg("binwidth_2"),
           py::arg("n_bins_1"), py::arg("n_bins_2"))
      .def("getData", array2<int32_t>(&Histogram2D::getData), "int32 (n_bins_1, n_bins_2) counts.")
      .def(
          "getIndex",
          [](Typed<Histogram2D>& handle) {
            return fetch<int64_t>([&](ArrayOut<int64_t>& out) {
              onMeasurement<Histogram2D>(handle,
                                         [&](Histogram2D* h) { h->getIndex(out.threeD()); });
            });
          },
          "int64 (n_bins_1, n_bins_2, 2): for each cell its two lower edges in ps.")
      .def("getIndex_1", array1<int64_t>(&Histogram2D::getIndex_1),
           "int64 lower edges of the first dimension in ps.")
      .def("getIndex_2", array1<int64_t>(&Histogram2D::getIndex_2),
           "int64 lower edges of the second dimension in ps.");

  MeasurementClass<HistogramLogBins>(
      m, "HistogramLogBins",
      "Start-click histogram with logarithmic bins: edge i of n_bins + 1 is "
      "10^(exp_start + 12 + i (exp_stop - exp_start) / n_bins) ps.")
      .def(py::init(&make<HistogramLogBins, ZeptickBase, int, int, double, double, int>),
           py::arg("tagger"), py::arg("click_channel"), py::arg("start_channel"),
           py::arg("exp_start"), py::arg("exp_stop"), py::arg("n_bins"))
      .def("getData", array1<uint64_t>(&HistogramLogBins::getData), "uint64 counts per bin.")
      .def("getBinEdges", array1<int64_t>(&HistogramLogBins::getBinEdges),
           "int64 the n_bins + 1 edges in ps.")
      .def("getDataNormalizedCountsPerPs",
           array1<double>(&HistogramLogBins::getDataNormalizedCountsPerPs),
           "float64 counts divided by each bin's width in ps.")
      .def("getDataNormalizedG2", array1<double>(&HistogramLogBins::getDataNormalizedG2),
           "float64 counts scaled so that uncorrelated starts and clicks give 1.");
}

}  // namespace

void bindHistograms(py::module_& m) {
  bindTimeDifferencesFamily(m);
  bindPairHistograms(m);
}

}  // namespace zeptick::python
