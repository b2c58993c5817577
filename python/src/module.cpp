#include "bindings.h"

PYBIND11_MODULE(_zeptick, m) {
  m.doc() = "The Zeptick time tagger library: taggers, measurements and virtual channels.";
  using namespace zeptick::python;
  bindLibrary(m);
  bindTaggers(m);
  bindMeasurementBase(m);
  bindCounting(m);
  bindStreamAccess(m);
  bindHistograms(m);
  bindVirtualChannels(m);
  bindFiles(m);
  bindCustomMeasurement(m);
  bindLogging(m);
}
