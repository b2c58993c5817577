#include "arrays.h"

#include <cstring>

namespace zeptick::python {

py::dtype tagDtype() {
  static py::dtype* dtype = [] {
    py::dict spec;
    spec["names"] = py::make_tuple("type", "missed_events", "channel", "time");
    spec["formats"] = py::make_tuple("u1", "<u2", "<i4", "<i8");
    spec["offsets"] = py::make_tuple(offsetof(Tag, type), offsetof(Tag, missed_events),
                                     offsetof(Tag, channel), offsetof(Tag, time));
    spec["itemsize"] = sizeof(Tag);
    return new py::dtype(py::dtype::from_args(spec));
  }();
  return *dtype;
}

py::array tagArray(const Tag* tags, size_t count, py::handle base) {
  std::vector<py::ssize_t> shape{static_cast<py::ssize_t>(count)};
  std::vector<py::ssize_t> strides{static_cast<py::ssize_t>(sizeof(Tag))};
  if (base) return py::array(tagDtype(), shape, strides, tags, base);
  py::array copy(tagDtype(), shape, strides);
  if (count > 0) std::memcpy(copy.mutable_data(), tags, count * sizeof(Tag));
  return copy;
}

}  // namespace zeptick::python
