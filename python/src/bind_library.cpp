// Free functions, constants and the emulator.

#include <pybind11/stl.h>

#include "bindings.h"
#include "handles.h"

namespace zeptick::python {

namespace {

std::shared_ptr<HardwareHandle> openTagger(const std::string& serial) {
  Zeptick* tagger;
  {
    py::gil_scoped_release release;
    tagger = createZeptick(serial);
  }
  auto handle = std::make_shared<HardwareHandle>(tagger);
  registerOwnedHandle(handle);
  return handle;
}

std::shared_ptr<VirtualHandle> openReplayTagger() {
  ZeptickVirtual* tagger;
  {
    py::gil_scoped_release release;
    tagger = createZeptickVirtual();
  }
  auto handle = std::make_shared<VirtualHandle>(tagger);
  registerOwnedHandle(handle);
  return handle;
}

void freeAll() {
  {
    py::gil_scoped_release release;
    freeAllZeptick();
  }
  forgetAllHandles();
}

}  // namespace

void bindLibrary(py::module_& m) {
  m.attr("CHANNEL_UNUSED") = CHANNEL_UNUSED;
  m.attr("ZT_CHANNEL_NUMBER_SCHEME_AUTO") = ZT_CHANNEL_NUMBER_SCHEME_AUTO;
  m.attr("ZT_CHANNEL_NUMBER_SCHEME_ZERO") = ZT_CHANNEL_NUMBER_SCHEME_ZERO;
  m.attr("ZT_CHANNEL_NUMBER_SCHEME_ONE") = ZT_CHANNEL_NUMBER_SCHEME_ONE;
  m.attr("ZT_CHANNEL_ALL") = ZT_CHANNEL_ALL;
  m.attr("ZT_CHANNEL_RISING") = ZT_CHANNEL_RISING;
  m.attr("ZT_CHANNEL_FALLING") = ZT_CHANNEL_FALLING;

  py::enum_<Tag::Type>(m, "TagType", "Kinds of tag in the stream.")
      .value("TimeTag", Tag::Type::TimeTag, "one detected event on `channel` at `time`")
      .value("Error", Tag::Type::Error, "the device reported an error at `time`")
      .value("OverflowBegin", Tag::Type::OverflowBegin, "events are lost from `time` on")
      .value("OverflowEnd", Tag::Type::OverflowEnd, "events are complete again from `time` on")
      .value("MissedEvents", Tag::Type::MissedEvents,
             "`missed_events` events were lost on `channel`");

  m.def("getVersion", &getVersion, "The library's version.");
  m.def("createZeptick", &openTagger, py::arg("serial") = "",
        "Opens the instrument with `serial`, or the first free one for an empty serial, and "
        "returns a Zeptick. Opening the same instrument twice returns a second handle on the "
        "same tagger. Raises RuntimeError when no instrument can be opened.");
  m.def("createZeptickVirtual", &openReplayTagger, "A new replay tagger (ZeptickVirtual).");
  m.def(
      "freeZeptick", [](TaggerHandle& tagger) { return tagger.close(); }, py::arg("tagger"),
      "Drops this handle's reference to the tagger; returns True if that destroyed it. Raises "
      "RuntimeError while measurements made on it are alive (close or delete them first).");
  m.def("_closeAllTaggers", &closeAllHandles,
        "Closes every tagger opened from Python with its measurements (run at exit).");
  m.def("freeAllZeptick", &freeAll,
        "Destroys every live tagger. Measurements left on them raise RuntimeError when used.");
  m.def("scanZeptick", &scanZeptick, py::call_guard<py::gil_scoped_release>(),
        "Serial numbers of the attached instruments.");
  m.def("getZeptickModel", &getZeptickModel, py::arg("serial"),
        py::call_guard<py::gil_scoped_release>(), "Model of the attached instrument `serial`.");
  m.def("setCustomBitFileName", &setCustomBitFileName, py::arg("name"),
        "Firmware file name to use instead of the model's default.");
  m.def("setZeptickChannelNumberScheme", &setZeptickChannelNumberScheme, py::arg("scheme"),
        "Channel numbering for taggers created from now on: ZT_CHANNEL_NUMBER_SCHEME_AUTO, "
        "ZT_CHANNEL_NUMBER_SCHEME_ZERO or ZT_CHANNEL_NUMBER_SCHEME_ONE.");
  m.def("getZeptickChannelNumberScheme", &getZeptickChannelNumberScheme,
        "The channel numbering scheme for new taggers.");
  m.def("hasZeptickVirtualLicense", &hasZeptickVirtualLicense,
        "Whether the replay tagger may be used; always True.");

  m.def("attachEmulatedDevices", &attachEmulatedDevices, py::arg("configuration"),
        py::call_guard<py::gil_scoped_release>(),
        "Attaches the emulated instruments of a JSON configuration text, replacing any attached "
        "before. Raises ValueError naming the offending field. While any are attached, "
        "scanZeptick and createZeptick see only them.");
  m.def("attachEmulatedDevicesFromFile", &attachEmulatedDevicesFromFile, py::arg("path"),
        py::call_guard<py::gil_scoped_release>(),
        "As attachEmulatedDevices with the contents of a file.");
  m.def("attachDefaultEmulatedDevice", &attachDefaultEmulatedDevice,
        py::call_guard<py::gil_scoped_release>(),
        "Attaches the built-in default: one 'Zeptick Ultra' with demo signals (photon pairs on "
        "inputs 1 and 2, a laser on 3, random counts on 4).");
  m.def("defaultEmulatorConfiguration", &defaultEmulatorConfiguration,
        "The built-in default emulator configuration as a JSON text.");
  m.def("detachEmulatedDevices", &detachEmulatedDevices, py::call_guard<py::gil_scoped_release>(),
        "Detaches every emulated instrument. Free their taggers first.");

  m.def("setFileSigningKey", &setFileSigningKey, py::arg("private_key_pem"),
        "Signs the blocks of files written from now on with this PEM private key (P-256); an "
        "empty text returns to the built-in key. Raises ValueError for a key that is not usable.");
  m.def("setFileVerificationKey", &setFileVerificationKey, py::arg("public_key_pem"),
        "Verifies file blocks read from now on with this PEM public key; an empty text returns "
        "to the built-in key. Raises ValueError for a key that is not usable.");

  m.def("exportPhotonHdf5", &exportPhotonHdf5, py::arg("recording"), py::arg("path"),
        py::call_guard<py::gil_scoped_release>(),
        "Writes the time tags of a recording (ours, or a PTU, SPC or Photon-HDF5 file) as "
        "Photon-HDF5 at `path`: channel c as detector c-1, timestamps in ps, the micro times of "
        "T3 recordings as nanotimes. Returns the rows written; raises RuntimeError when the "
        "recording cannot be read or the file written.");
  m.def("convertToZtbin", &convertToZtbin, py::arg("recording"), py::arg("target"),
        py::call_guard<py::gil_scoped_release>(),
        "Converts a PTU, SPC or Photon-HDF5 file into a signed .ztbin recording `target` with "
        "the tags a replay gives. Returns the tags written; raises RuntimeError when the file "
        "is not such a recording or the target cannot be written.");
}

}  // namespace zeptick::python
