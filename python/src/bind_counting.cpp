// Countrate, Counter, TimeTagStream and the buffers of raw events.

#include "bindings.h"
#include "measurement_binding.h"

namespace zeptick::python {

namespace {

template <class E>
auto bufferArray(void (TimeTagStreamBuffer::*method)(std::function<E*(size_t)>) const) {
  return [method](const TimeTagStreamBuffer& buffer) {
    return fetch<E>([&](ArrayOut<E>& out) {
      py::gil_scoped_release release;
      (buffer.*method)(out.oneD());
    });
  };
}

}  // namespace

void bindCounting(py::module_& m) {
  py::class_<TimeTagStreamBuffer>(
      m, "TimeTagStreamBuffer",
      "A batch of raw events from TimeTagStream.getData or FileReader.getData; it belongs to "
      "the caller. Each accessor returns a new NumPy array.")
      .def("getOverflows", bufferArray(&TimeTagStreamBuffer::getOverflows),
           "uint8: 1 for every event that is not a plain TimeTag, else 0.")
      .def("getChannels", bufferArray(&TimeTagStreamBuffer::getChannels), "int32 channels.")
      .def("getTimestamps", bufferArray(&TimeTagStreamBuffer::getTimestamps),
           "int64 event times in picoseconds.")
      .def("getMissedEvents", bufferArray(&TimeTagStreamBuffer::getMissedEvents),
           "uint16 lost events of MissedEvents tags, 0 for the others.")
      .def("getEventTypes", bufferArray(&TimeTagStreamBuffer::getEventTypes),
           "uint8 raw TagType values.")
      .def_readonly("size", &TimeTagStreamBuffer::size, "Number of events held.")
      .def_readonly("hasOverflows", &TimeTagStreamBuffer::hasOverflows,
                    "Some event of the span was not a plain TimeTag.")
      .def_readonly("tStart", &TimeTagStreamBuffer::tStart,
                    "Start of the span in ps; -1 while no block opened it.")
      .def_readonly("tGetData", &TimeTagStreamBuffer::tGetData,
                    "End of the span: end of the last block seen.");

  MeasurementClass<Countrate>(
      m, "Countrate",
      "Average event rate per channel since the last clear, and total counts. Missed events "
      "inside overflows count as events; an Error tag restarts the rate but not the totals.")
      .def(py::init(&make<Countrate, ZeptickBase, std::vector<int>>), py::arg("tagger"),
           py::arg("channels"))
      .def("getData", array1<double>(&Countrate::getData), "float64 events per second per channel.")
      .def("getCountsTotal", array1<int64_t>(&Countrate::getCountsTotal),
           "int64 events per channel since the last clear.");

  MeasurementClass<Counter>(
      m, "Counter",
      "Time tags per channel in consecutive bins of `binwidth` ps, keeping the last `n_values` "
      "finished bins of each channel. Raises ValueError if binwidth < 1 or n_values < 1.")
      .def(py::init(&make<Counter, ZeptickBase, std::vector<int>, int64_t, int32_t>),
           py::arg("tagger"), py::arg("channels"), py::arg("binwidth"), py::arg("n_values"))
      .def("getData", array2<int32_t>(&Counter::getData),
           "int32 (channels, n_values): finished bins, oldest first; unfinished bins read 0.")
      .def("getIndex", array1<int64_t>(&Counter::getIndex),
           "int64 start of each bin relative to the oldest: i * binwidth.");

  MeasurementClass<TimeTagStream>(
      m, "TimeTagStream",
      "Collects the raw tags of some channels (all with an empty list) up to `n_max_events`; "
      "drain them with getData. Tags past the limit are dropped until the next getData.")
      .def(py::init(&make<TimeTagStream, ZeptickBase, uint64_t, std::vector<int>>),
           py::arg("tagger"), py::arg("n_max_events"), py::arg("channels") = std::vector<int>{})
      .def("getCounts", method(&TimeTagStream::getCounts), "Number of events held now.")
      .def("getData", method(&TimeTagStream::getData),
           "Hands over everything held as a TimeTagStreamBuffer and starts a new span.");
}

}  // namespace zeptick::python
