// ZeptickBase, Zeptick and ZeptickVirtual.

#include <pybind11/stl.h>

#include "arrays.h"
#include "bindings.h"
#include "handles.h"

namespace zeptick::python {

namespace {

// Binds a member of the common interface as a method that runs without the GIL.
template <class Result, class... Args>
auto common(Result (ZeptickBase::*method)(Args...)) {
  return [method](TaggerHandle& handle, Args... args) {
    return onTagger(handle, [&](ZeptickBase* tagger) { return (tagger->*method)(args...); });
  };
}

template <class Result, class... Args>
auto hardware(Result (Zeptick::*method)(Args...)) {
  return [method](HardwareHandle& handle, Args... args) {
    return onHardware(handle, [&](Zeptick* tagger) { return (tagger->*method)(args...); });
  };
}

template <class Result, class... Args>
auto replay(Result (ZeptickVirtual::*method)(Args...)) {
  return [method](VirtualHandle& handle, Args... args) {
    return onReplay(handle, [&](ZeptickVirtual* tagger) { return (tagger->*method)(args...); });
  };
}

void bindBase(py::module_& m) {
  using Handle = TaggerHandle;
  py::class_<Handle, std::shared_ptr<Handle>>(
      m, "ZeptickBase",
      "The operations every tagger offers, hardware or replay. Obtain taggers with "
      "createZeptick or createZeptickVirtual; free them with freeZeptick, close() or a `with` "
      "block. All operations are thread-safe and run without the GIL.")
      .def("getFence", common(&ZeptickBase::getFence), py::arg("alloc_fence") = true,
           "The current fence; with `alloc_fence` a new one is allocated first unless one is "
           "pending. Blocks while 100 fences are outstanding.")
      .def("waitForFence", common(&ZeptickBase::waitForFence), py::arg("fence"),
           py::arg("timeout") = -1,
           "True once every measurement has seen the first block taken after `fence` was "
           "allocated. `timeout` in ms: negative waits for ever, 0 only polls.")
      .def("sync", common(&ZeptickBase::sync),
           "Returns when every tag that had reached the tagger has passed every measurement.")
      .def("getInvertedChannel", common(&ZeptickBase::getInvertedChannel), py::arg("channel"),
           "The channel of the other edge of the same input.")
      .def("isUnusedChannel", common(&ZeptickBase::isUnusedChannel), py::arg("channel"),
           "True for CHANNEL_UNUSED, and for -1 under the zero-based numbering scheme.")
      .def("getConfiguration", common(&ZeptickBase::getConfiguration),
           "JSON text describing the tagger.")
      .def("setInputDelay", common(&ZeptickBase::setInputDelay), py::arg("channel"),
           py::arg("delay"), "Sets the delay of `channel` in picoseconds.")
      .def("getInputDelay", common(&ZeptickBase::getInputDelay), py::arg("channel"),
           "Delay of `channel` in picoseconds.")
      .def("setDeadtime", common(&ZeptickBase::setDeadtime), py::arg("channel"),
           py::arg("deadtime"),
           "Sets the dead time of `channel` in picoseconds; returns the value in force after "
           "rounding.")
      .def("getDeadtime", common(&ZeptickBase::getDeadtime), py::arg("channel"),
           "Dead time of `channel` in picoseconds.")
      .def(
          "setTestSignal",
          [](Handle& handle, const std::vector<int>& channels, bool enabled) {
            onTagger(handle, [&](ZeptickBase* t) { t->setTestSignal(channels, enabled); });
          },
          py::arg("channels"), py::arg("enabled"),
          "Switches the internal test signal on or off for the listed channels.")
      .def(
          "setTestSignal",
          [](Handle& handle, int channel, bool enabled) {
            onTagger(handle, [&](ZeptickBase* t) { t->setTestSignal(channel, enabled); });
          },
          py::arg("channel"), py::arg("enabled"))
      .def("getTestSignal", common(&ZeptickBase::getTestSignal), py::arg("channel"),
           "Whether `channel` sees the internal test signal.")
      .def("getOverflows", common(&ZeptickBase::getOverflows),
           "Number of overflow spans and error events since the last clear.")
      .def("clearOverflows", common(&ZeptickBase::clearOverflows), "Resets the overflow count.")
      .def("getOverflowsAndClear", common(&ZeptickBase::getOverflowsAndClear),
           "The overflow count, reset in the same step.")
      .def("close", &Handle::closeAll,
           "Closes every measurement made on this tagger, then frees it (as the end of a "
           "`with` block does). Returns True if that destroyed the tagger.")
      .def_property_readonly("closed", &Handle::isClosed, "True once the tagger was freed.")
      .def("__enter__", [](std::shared_ptr<Handle> self) { return self; })
      .def("__exit__", [](Handle& self, py::args) { self.closeAll(); });
}

void bindHardware(py::module_& m) {
  using Handle = HardwareHandle;
  py::class_<Handle, TaggerHandle, std::shared_ptr<Handle>>(
      m, "Zeptick", "A hardware tagger: one instrument, or a synchronized group of them.")
      .def("reset", hardware(&Zeptick::reset),
           "Stops the stream, returns every setting to its default and recalibrates.")
      .def("setTestSignalDivider", hardware(&Zeptick::setTestSignalDivider), py::arg("divider"))
      .def("getTestSignalDivider", hardware(&Zeptick::getTestSignalDivider))
      .def("setTriggerLevel", hardware(&Zeptick::setTriggerLevel), py::arg("channel"),
           py::arg("voltage"), "Trigger level of `channel` in volts, clamped to the DAC range.")
      .def("getTriggerLevel", hardware(&Zeptick::getTriggerLevel), py::arg("channel"))
      .def("getHardwareDelayCompensation", hardware(&Zeptick::getHardwareDelayCompensation),
           py::arg("channel"), "The path delay compensated for `channel`, in ps.")
      .def("setInputMux", hardware(&Zeptick::setInputMux), py::arg("channel"), py::arg("mux_mode"))
      .def("getInputMux", hardware(&Zeptick::getInputMux), py::arg("channel"))
      .def("setConditionalFilter", hardware(&Zeptick::setConditionalFilter), py::arg("trigger"),
           py::arg("filtered"), py::arg("hardwareDelayCompensation") = true,
           "Passes events of `filtered` channels only after an event on a `trigger` channel.")
      .def("clearConditionalFilter", hardware(&Zeptick::clearConditionalFilter))
      .def("getConditionalFilterTrigger", hardware(&Zeptick::getConditionalFilterTrigger))
      .def("getConditionalFilterFiltered", hardware(&Zeptick::getConditionalFilterFiltered))
      .def("setNormalization", hardware(&Zeptick::setNormalization), py::arg("enabled"))
      .def("getNormalization", hardware(&Zeptick::getNormalization))
      .def("setHardwareBufferSize", hardware(&Zeptick::setHardwareBufferSize), py::arg("size"))
      .def("getHardwareBufferSize", hardware(&Zeptick::getHardwareBufferSize))
      .def("setStreamBlockSize", hardware(&Zeptick::setStreamBlockSize), py::arg("max_events"),
           py::arg("max_latency"), "Block limits: events per block and latency in ms.")
      .def("getStreamBlockSizeEvents", hardware(&Zeptick::getStreamBlockSizeEvents))
      .def("getStreamBlockSizeLatency", hardware(&Zeptick::getStreamBlockSizeLatency))
      .def("setEventDivider", hardware(&Zeptick::setEventDivider), py::arg("channel"),
           py::arg("divider"))
      .def("getEventDivider", hardware(&Zeptick::getEventDivider), py::arg("channel"))
      .def(
          "autoCalibration",
          [](Handle& handle) {
            return fetch<double>([&](ArrayOut<double>& out) {
              onHardware(handle, [&](Zeptick* t) { t->autoCalibration(out.oneD()); });
            });
          },
          "Runs the calibration pass on the test signal; returns each channel's RMS error in ps.")
      .def("getSerial", hardware(&Zeptick::getSerial))
      .def("getModel", hardware(&Zeptick::getModel))
      .def("getChannelNumberScheme", hardware(&Zeptick::getChannelNumberScheme))
      .def("getDACRange", hardware(&Zeptick::getDACRange))
      .def(
          "getDistributionCount",
          [](Handle& handle) {
            return fetch<int64_t>([&](ArrayOut<int64_t>& out) {
              onHardware(handle, [&](Zeptick* t) { t->getDistributionCount(out.twoD()); });
            });
          },
          "Counts per fine bin and channel, as a 2-D array.")
      .def(
          "getDistributionPSecs",
          [](Handle& handle) {
            return fetch<int64_t>([&](ArrayOut<int64_t>& out) {
              onHardware(handle, [&](Zeptick* t) { t->getDistributionPSecs(out.twoD()); });
            });
          },
          "Learned fine-bin edges in ps per channel, as a 2-D array.")
      .def("getChannelList", hardware(&Zeptick::getChannelList), py::arg("type") = ZT_CHANNEL_ALL,
           "The channel numbers of the inputs: ZT_CHANNEL_ALL, ZT_CHANNEL_RISING or "
           "ZT_CHANNEL_FALLING edges.")
      .def("getPsPerClock", hardware(&Zeptick::getPsPerClock))
      .def("getPcbVersion", hardware(&Zeptick::getPcbVersion))
      .def("getFirmwareVersion", hardware(&Zeptick::getFirmwareVersion))
      .def("getSensorData", hardware(&Zeptick::getSensorData), "The health report as text.")
      .def("setLED", hardware(&Zeptick::setLED), py::arg("bitmask"))
      .def("factoryAccess", hardware(&Zeptick::factoryAccess), py::arg("pin"), py::arg("address"),
           py::arg("data"), py::arg("mask"));
}

void bindReplay(py::module_& m) {
  using Handle = VirtualHandle;
  py::class_<Handle, TaggerHandle, std::shared_ptr<Handle>>(
      m, "ZeptickVirtual", "The replay tagger: plays recorded files through the measurements.")
      .def("replay", replay(&ZeptickVirtual::replay), py::arg("file"), py::arg("begin") = 0,
           py::arg("duration") = -1, py::arg("queue") = true,
           "Queues (or, without `queue`, replaces) the replay of `file` from `begin` ps for "
           "`duration` ps (negative: to the end); returns its id.")
      .def("stop", replay(&ZeptickVirtual::stop), "Stops the replay and drops the queue.")
      .def("waitForCompletion", replay(&ZeptickVirtual::waitForCompletion), py::arg("id") = 0,
           py::arg("timeout") = -1,
           "Waits until replay `id` (0: the last one) ended; `timeout` in ms, negative waits for "
           "ever. Returns False on timeout.")
      .def("setReplaySpeed", replay(&ZeptickVirtual::setReplaySpeed), py::arg("speed"),
           "Speed relative to real time; negative plays as fast as possible.")
      .def("getReplaySpeed", replay(&ZeptickVirtual::getReplaySpeed));
}

}  // namespace

void bindTaggers(py::module_& m) {
  bindBase(m);
  bindHardware(m);
  bindReplay(m);
}

}  // namespace zeptick::python
