#pragma once

#include <pybind11/pybind11.h>

namespace zeptick::python {

namespace py = pybind11;

// Each adds one family of names to the module.
void bindLibrary(py::module_& m);
void bindTaggers(py::module_& m);
void bindMeasurementBase(py::module_& m);
void bindCounting(py::module_& m);
void bindStreamAccess(py::module_& m);
void bindHistograms(py::module_& m);
void bindVirtualChannels(py::module_& m);
void bindFiles(py::module_& m);
void bindCustomMeasurement(py::module_& m);
void bindLogging(py::module_& m);

}  // namespace zeptick::python
