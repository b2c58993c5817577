// FileWriter, Dump and FileReader.

#include <mutex>

#include "bindings.h"
#include "measurement_binding.h"

namespace zeptick::python {

namespace {

/// FileReader serves one thread at a time; Python threads are serialised here.
class ReaderHandle {
 public:
  explicit ReaderHandle(const std::vector<std::string>& filenames) {
    py::gil_scoped_release release;
    reader_ = std::make_unique<FileReader>(filenames);
  }
  ~ReaderHandle() {
    py::gil_scoped_release release;
    reader_.reset();
  }
  ReaderHandle(const ReaderHandle&) = delete;
  ReaderHandle& operator=(const ReaderHandle&) = delete;

  template <class Call>
  auto run(Call&& call) {
    py::gil_scoped_release release;
    std::lock_guard<std::mutex> lock(mutex_);
    return call(reader_.get());
  }

 private:
  std::mutex mutex_;
  std::unique_ptr<FileReader> reader_;
};

py::object readRaw(ReaderHandle& handle) {
  auto tags = std::make_unique<std::vector<Tag>>();
  bool same_recording = handle.run([&](FileReader* r) { return r->getDataRaw(*tags); });
  if (!same_recording) return py::none();
  auto* owned = tags.release();
  py::capsule free_when_done(owned, [](void* p) { delete static_cast<std::vector<Tag>*>(p); });
  return tagArray(owned->data(), owned->size(), free_when_done);
}

void bindReader(py::module_& m) {
  py::class_<ReaderHandle>(
      m, "FileReader",
      "Reads recordings straight into the caller's hands, with no tagger and no pacing. Given "
      "several names it reads the whole split set of the first, then of the next. Bad data is "
      "logged and ends the file. Raises RuntimeError if the list is empty or a recording's "
      "first file cannot be opened.")
      .def(py::init([](const std::string& name) {
             return std::make_unique<ReaderHandle>(std::vector<std::string>{name});
           }),
           py::arg("filename"))
      .def(py::init<const std::vector<std::string>&>(), py::arg("filenames"))
      .def(
          "hasData",
          [](ReaderHandle& h) { return h.run([](FileReader* r) { return r->hasData(); }); },
          "False once every file has been read.")
      .def(
          "getData",
          [](ReaderHandle& h, uint64_t n) {
            return h.run([&](FileReader* r) { return r->getData(n); });
          },
          py::arg("n"), "Up to `n` further tags, as a TimeTagStreamBuffer.")
      .def("getDataRaw", &readRaw,
           "The next recorded block as a structured array of tags (fields type, missed_events, "
           "channel, time); None when a file of another recording was met and skipped.")
      .def(
          "getConfiguration",
          [](ReaderHandle& h) {
            return h.run([](FileReader* r) { return r->getConfiguration(); });
          },
          "Configuration text of the recording being read.")
      .def(
          "getLastMarker",
          [](ReaderHandle& h) { return h.run([](FileReader* r) { return r->getLastMarker(); }); },
          "The last marker seen so far in the file being read.")
      .def("__enter__", [](py::object self) { return self; })
      .def("__exit__", [](py::object, py::args) {});
}

}  // namespace

void bindFiles(py::module_& m) {
  MeasurementClass<FileWriter>(
      m, "FileWriter",
      "Records the tags of the given channels into .ztbin files that FileReader and the replay "
      "tagger read back: <name>.ztbin holds the configuration, the tags go to <name>.1.ztbin, "
      "<name>.2.ztbin and so on. Raises RuntimeError for no channels or more than 250, and when "
      "the first file cannot be opened.")
      .def(py::init(&make<FileWriter, ZeptickBase, const std::string&, std::vector<int>>),
           py::arg("tagger"), py::arg("filename"), py::arg("channels"))
      .def("split", method(&FileWriter::split), py::arg("new_filename") = "",
           "Closes the current file and begins the next; with a new name the numbering "
           "restarts under that name.")
      .def("setMaxFileSize", method(&FileWriter::setMaxFileSize), py::arg("max_file_size"),
           "Size in bytes after which the next file is begun; negative never rolls over.")
      .def("getMaxFileSize", method(&FileWriter::getMaxFileSize))
      .def("getTotalEvents", method(&FileWriter::getTotalEvents),
           "Events written since construction, in every file.")
      .def("getTotalSize", method(&FileWriter::getTotalSize),
           "Bytes written since construction, in every file.")
      .def("setMarker", method(&FileWriter::setMarker), py::arg("marker"),
           "Stores `marker` in the open file between two blocks. Only while running.");

  MeasurementClass<Dump>(
      m, "Dump",
      "Writes the raw 16-byte tag records of the stream to one file (deprecated: use "
      "FileWriter). After `max_tags` tags (negative: no limit) it writes nothing more.")
      .def(py::init(&make<Dump, ZeptickBase, const std::string&, int64_t, std::vector<int>>),
           py::arg("tagger"), py::arg("filename"), py::arg("max_tags") = -1,
           py::arg("channels") = std::vector<int>{});

  bindReader(m);
}

}  // namespace zeptick::python
