// CountBetweenMarkers, Iterator and Scope.

#include "bindings.h"
#include "measurement_binding.h"

namespace zeptick::python {

namespace {

/// The next block as (tags, begin_time, end_time), its tag vector handed to NumPy without a
/// copy; None on timeout or once the measurement is stopped and drained.
py::object nextBlock(Typed<Iterator>& handle, int timeout_ms) {
  auto block = std::make_unique<Iterator::Block>();
  const bool got = onMeasurement<Iterator>(
      handle, [&](Iterator* iterator) { return iterator->next(*block, timeout_ms); });
  if (!got) return py::none();
  auto* owned = block.release();
  py::capsule free_when_done(owned, [](void* p) { delete static_cast<Iterator::Block*>(p); });
  return py::make_tuple(tagArray(owned->tags.data(), owned->tags.size(), free_when_done),
                        owned->begin_time, owned->end_time);
}

void bindCountBetweenMarkers(py::module_& m) {
  MeasurementClass<CountBetweenMarkers>(
      m, "CountBetweenMarkers",
      "Counts the clicks of `click_channel` in bins framed by marker tags: `begin_channel` "
      "opens a bin, `end_channel` closes it (unused: the next begin does). After n_values bins "
      "it is ready(); without `wrap` it then stops counting, with `wrap` it overwrites the "
      "oldest bin. Lost events are reported per bin, never mixed into the counts. Raises "
      "ValueError if n_values < 1 or click_channel or begin_channel is unused.")
      .def(py::init(&make<CountBetweenMarkers, ZeptickBase, int, int, int, int32_t, bool>),
           py::arg("tagger"), py::arg("click_channel"), py::arg("begin_channel"),
           py::arg("end_channel") = CHANNEL_UNUSED, py::arg("n_values") = 1000,
           py::arg("wrap") = false)
      .def("getData", array1<int32_t>(&CountBetweenMarkers::getData),
           "int32 clicks per bin, oldest first; 0 for bins not yet complete.")
      .def("getBinWidths", array1<int64_t>(&CountBetweenMarkers::getBinWidths),
           "int64 width of each bin in ps.")
      .def("getIndex", array1<int64_t>(&CountBetweenMarkers::getIndex),
           "int64 stream time of each bin's begin marker in ps.")
      .def("getMissedEvents", array1<int64_t>(&CountBetweenMarkers::getMissedEvents),
           "int64 events lost on the click channel inside each bin.")
      .def("getOverflows", array1<uint8_t>(&CountBetweenMarkers::getOverflows),
           "uint8 1 for each bin whose count is incomplete (an overflow or error touched it).")
      .def("ready", method(&CountBetweenMarkers::ready),
           "True once n_values bins are complete since the last clear.");
}

void bindIterator(py::module_& m) {
  MeasurementClass<Iterator>(
      m, "Iterator",
      "Pull-style access to the stream: blocks (the tags of `channels`, all with an empty list) "
      "wait in a queue of at most `max_tags` tags for next(). When the caller falls behind, "
      "new blocks are dropped (the queue keeps the oldest data), the gap is marked by an "
      "OverflowBegin/OverflowEnd pair and counted by getDroppedTags(). Iterating over it yields "
      "(tags, begin_time, end_time) blocks until it is stopped.")
      .def(py::init(&make<Iterator, ZeptickBase, std::vector<int>, uint64_t>), py::arg("tagger"),
           py::arg("channels") = std::vector<int>{}, py::arg("max_tags") = uint64_t{1} << 24)
      .def("next", &nextBlock, py::arg("timeout") = -1,
           "The oldest queued block as (tags, begin_time, end_time), waiting up to `timeout` ms "
           "(negative: for ever, 0: poll); None on timeout or once stopped and drained.")
      .def("size", method(&Iterator::size), "Tags queued now.")
      .def("getDroppedTags", method(&Iterator::getDroppedTags),
           "Tags dropped since the last clear because the queue was full.")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", [](Typed<Iterator>& handle) {
        py::object block = nextBlock(handle, -1);
        if (block.is_none()) throw py::stop_iteration();
        return block;
      });
}

void bindScope(py::module_& m) {
  MeasurementClass<Scope>(
      m, "Scope",
      "An oscilloscope view of edges: on each `trigger_channel` tag a trace of `window` ps "
      "records the rising (level 1) and falling (level 0) edges of each input in `channels` "
      "(rising-edge numbers), for `n_traces` traces. Raises ValueError if window < 1, "
      "n_traces < 1, trigger_channel is unused or channels is empty.")
      .def(py::init(&make<Scope, ZeptickBase, std::vector<int>, int, int64_t, int32_t>),
           py::arg("tagger"), py::arg("channels"), py::arg("trigger_channel"), py::arg("window"),
           py::arg("n_traces") = 1)
      .def(
          "getData",
          [](Typed<Scope>& handle, size_t index) {
            return fetch<int64_t>([&](ArrayOut<int64_t>& out) {
              onMeasurement<Scope>(handle, [&](Scope* s) { s->getData(index, out.twoD()); });
            });
          },
          py::arg("index"),
          "int64 rows of (trace, time after the trigger in ps, level) for input "
          "channels[index]; each trace starts with its level at time 0 (-1: unknown).")
      .def("getTriggerTimes", array1<int64_t>(&Scope::getTriggerTimes),
           "int64 stream time of each complete trace's trigger in ps.")
      .def("ready", method(&Scope::ready), "True once n_traces traces are complete.");
}

}  // namespace

void bindStreamAccess(py::module_& m) {
  bindCountBetweenMarkers(m);
  bindIterator(m);
  bindScope(m);
}

}  // namespace zeptick::python
