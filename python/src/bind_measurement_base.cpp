// IteratorBase, the base of every measurement, and SynchronizedMeasurements.

#include "bindings.h"
#include "measurement_binding.h"

namespace zeptick::python {

namespace {

template <class Result, class... Args>
auto base(Result (IteratorBase::*member)(Args...)) {
  return [member](MeasurementHandle& handle, Args... args) {
    return onMeasurement<IteratorBase>(handle,
                                       [&](IteratorBase* m) { return (m->*member)(args...); });
  };
}

/// A SynchronizedMeasurements group, and the stand-in tagger its members are made on.
class GroupHandle : public Dependent, public std::enable_shared_from_this<GroupHandle> {
 public:
  explicit GroupHandle(std::shared_ptr<TaggerHandle> tagger) : tagger_(std::move(tagger)) {
    auto use = tagger_->use();
    ZeptickBase* target = tagger_->get();
    {
      py::gil_scoped_release release;
      group_ = std::make_unique<SynchronizedMeasurements>(target);
    }
    tagger_->addDependent(this);
  }
  ~GroupHandle() override { close(); }

  void close() override {
    if (!group_) return;
    calls_.checkIdle("The group");
    {
      py::gil_scoped_release release;
      group_.reset();
    }
    tagger_->removeDependent(this);
  }
  bool isGroup() const override { return true; }

  SynchronizedMeasurements* get() const {
    if (!group_) throw std::runtime_error("The group has been closed.");
    tagger_->get();
    return group_.get();
  }
  UseCounter::Use use() {
    get();
    return calls_.use();
  }

  /// The stand-in tagger: measurements made on it join the group. It keeps the group alive.
  std::shared_ptr<TaggerHandle> getTagger() {
    ZeptickBase* proxy = get()->getTagger();
    return std::make_shared<TaggerHandle>(proxy, false, shared_from_this(), tagger_);
  }

  template <class Call>
  auto run(Call&& call) {
    auto counted = use();
    SynchronizedMeasurements* group = get();
    py::gil_scoped_release release;
    return call(group);
  }

 private:
  std::shared_ptr<TaggerHandle> tagger_;
  std::unique_ptr<SynchronizedMeasurements> group_;
  UseCounter calls_;
};

void bindGroup(py::module_& m) {
  py::class_<GroupHandle, std::shared_ptr<GroupHandle>>(
      m, "SynchronizedMeasurements",
      "Starts, stops and clears several measurements at the same stream position. Measurements "
      "made on getTagger() join the group and do not start by themselves.")
      .def(py::init([](std::shared_ptr<TaggerHandle> tagger) {
             return std::make_shared<GroupHandle>(std::move(tagger));
           }),
           py::arg("tagger"))
      .def("getTagger", &GroupHandle::getTagger,
           "A tagger to make measurements on: they join this group.")
      .def(
          "registerMeasurement",
          [](GroupHandle& group, MeasurementHandle& measurement) {
            IteratorBase* target = measurement.get();
            group.run([&](SynchronizedMeasurements* g) { g->registerMeasurement(target); });
          },
          py::arg("measurement"), "Adds a measurement made on the same tagger to the group.")
      .def(
          "unregisterMeasurement",
          [](GroupHandle& group, MeasurementHandle& measurement) {
            IteratorBase* target = measurement.get();
            group.run([&](SynchronizedMeasurements* g) { g->unregisterMeasurement(target); });
          },
          py::arg("measurement"), "Removes a measurement from the group.")
      .def("isRunning",
           [](GroupHandle& g) {
             return g.run([](SynchronizedMeasurements* s) { return s->isRunning(); });
           })
      .def(
          "start", [](GroupHandle& g) { g.run([](SynchronizedMeasurements* s) { s->start(); }); },
          "Starts every member at the same stream position.")
      .def(
          "startFor",
          [](GroupHandle& g, int64_t duration, bool clear) {
            g.run([&](SynchronizedMeasurements* s) { s->startFor(duration, clear); });
          },
          py::arg("capture_duration"), py::arg("clear") = true,
          "Starts every member for `capture_duration` ps of stream time.")
      .def(
          "stop", [](GroupHandle& g) { g.run([](SynchronizedMeasurements* s) { s->stop(); }); },
          "Stops every member at the same stream position.")
      .def(
          "clear", [](GroupHandle& g) { g.run([](SynchronizedMeasurements* s) { s->clear(); }); },
          "Clears every member at the same stream position.")
      .def("close", &GroupHandle::close, "Destroys the group; its members stay.")
      .def("__enter__", [](std::shared_ptr<GroupHandle> self) { return self; })
      .def("__exit__", [](GroupHandle& self, py::args) { self.close(); });
}

}  // namespace

void bindMeasurementBase(py::module_& m) {
  py::class_<MeasurementHandle>(
      m, "IteratorBase",
      "Base of every measurement and virtual channel. A measurement keeps its tagger alive; "
      "use it with `with`, or close() it, to stop and free it at a known point. Every "
      "operation raises RuntimeError once the measurement or its tagger is gone.")
      .def("start", base(&IteratorBase::start),
           "Starts taking data with no time limit; a running measurement only loses its limit.")
      .def("startFor", base(&IteratorBase::startFor), py::arg("capture_duration"),
           py::arg("clear") = true,
           "Takes data for `capture_duration` ps of stream time and then stops by itself. With "
           "`clear` the data are reset first.")
      .def("stop", base(&IteratorBase::stop), "Stops taking data; data stay readable.")
      .def("clear", base(&IteratorBase::clear), "Forgets collected data.")
      .def("isRunning", base(&IteratorBase::isRunning))
      .def("getCaptureDuration", base(&IteratorBase::getCaptureDuration),
           "Stream time in ps taken since the last clear.")
      .def("close", &MeasurementHandle::close, "Stops and destroys the measurement.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](MeasurementHandle& self, py::args) { self.close(); });
  bindGroup(m);
}

}  // namespace zeptick::python
