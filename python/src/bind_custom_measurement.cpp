// Measurements written in Python.
//
// The C++ side is a plain IteratorBase that hands every block to a Python object. The object
// is borrowed, not owned (it owns this core, so owning it back would make a cycle): the Python
// base class closes the core in __del__, while the object is still whole, and the core's own
// destructor detaches the object before the measurement stops, so a worker never calls into
// an object that is being torn down.

#include <pybind11/numpy.h>

#include "bindings.h"
#include "measurement_binding.h"

namespace zeptick::python {

namespace {

class PythonMeasurement : public IteratorBase {
 public:
  PythonMeasurement(ZeptickBase* tagger, const std::vector<int>& channels, PyObject* handler)
      : IteratorBase(tagger), handler_(handler) {
    for (int channel : channels) registerChannel(channel);
  }
  ~PythonMeasurement() override { stop(); }

  /// Starts it: called once the Python constructor has set the object up.
  void finish() { finishInitialization(); }
  /// No more calls into the object. REQUIRES: GIL held.
  void detach() { handler_ = nullptr; }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override {
    call("process", [&](py::object method) {
      py::array view = readOnlyView(tags);
      method(view, begin_time, end_time);
      if (view.ref_count() > 1 && !warned_kept_view_) {
        warned_kept_view_ = true;
        if (PyErr_WarnEx(PyExc_RuntimeWarning,
                         "process() kept its tags array, whose memory is reused after the "
                         "call; keep tags.copy() instead.",
                         1) < 0) {
          throw py::error_already_set();
        }
      }
    });
    return false;
  }
  void clear_impl() override {
    call("_clear_hook", [](py::object method) { method(); });
  }
  void on_start() override {
    call("on_start", [](py::object method) { method(); });
  }
  void on_stop() override {
    call("on_stop", [](py::object method) { method(); });
  }

 private:
  static py::array readOnlyView(std::vector<Tag>& tags) {
    // The block's owner is the worker, not Python: the view's base is a placeholder, never
    // destroyed, since C++ statics end after the interpreter.
    static auto* no_owner = new py::capsule(&tags, [](void*) {});
    py::array view = tagArray(tags.data(), tags.size(), *no_owner);
    py::detail::array_proxy(view.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return view;
  }

  // Runs `body(bound method)` under the GIL. A Python exception becomes a C++ one, raised
  // after the GIL is let go, so that the library logs it and stops this measurement.
  template <class Body>
  void call(const char* name, Body&& body) {
    std::string error;
    {
      py::gil_scoped_acquire gil;
      if (handler_ == nullptr) return;
      try {
        py::object method = py::reinterpret_borrow<py::object>(handler_).attr(name);
        body(std::move(method));
      } catch (py::error_already_set& e) {
        error = e.what();
      }
    }
    if (!error.empty()) throw std::runtime_error(error);
  }

  PyObject* handler_;
  bool warned_kept_view_ = false;
};

class PythonMeasurementHandle : public Typed<PythonMeasurement> {
 public:
  using Typed<PythonMeasurement>::Typed;
  ~PythonMeasurementHandle() override {
    if (auto* m = alive()) m->detach();
  }

 private:
  PythonMeasurement* alive() {
    try {
      return static_cast<PythonMeasurement*>(get());
    } catch (const std::runtime_error&) {
      return nullptr;
    }
  }
};

}  // namespace

void bindCustomMeasurement(py::module_& m) {
  py::class_<PythonMeasurementHandle, MeasurementHandle>(
      m, "_CustomMeasurementCore", "The C++ side of zeptick.CustomMeasurement.")
      .def(py::init([](const std::shared_ptr<TaggerHandle>& tagger,
                       const std::vector<int>& channels, py::object handler) {
             auto use = tagger->use();
             ZeptickBase* target = tagger->get();
             std::unique_ptr<PythonMeasurement> measurement;
             {
               py::gil_scoped_release release;
               measurement = std::make_unique<PythonMeasurement>(target, channels, handler.ptr());
             }
             return std::make_unique<PythonMeasurementHandle>(tagger, std::move(measurement));
           }),
           py::arg("tagger"), py::arg("channels"), py::arg("handler"))
      .def("finish", [](PythonMeasurementHandle& h) {
        onMeasurement<PythonMeasurement>(h, [](PythonMeasurement* m) { m->finish(); });
      });
}

}  // namespace zeptick::python
