#include "files/foreign/photon_hdf5_writer.h"

#include <hdf5.h>
#include <sys/stat.h>

#include <cmath>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <stdexcept>

#include "files/foreign/channel_mapping.h"
#include "files/foreign/hdf5_lock.h"
#include "zeptick/library.h"

namespace zeptick::foreign {

namespace {

constexpr const char* kSetNames[3] = {"photon_data/timestamps", "photon_data/detectors",
                                      "photon_data/nanotimes"};

hid_t rowType(int set) {
  return set == 0 ? H5T_NATIVE_INT64 : set == 1 ? H5T_NATIVE_INT32 : H5T_NATIVE_UINT32;
}

// Writes values under names like "setup/num_pixels", creating the groups on the way. Each
// throws with the name when HDF5 refuses.
class Fields {
 public:
  Fields(hid_t file, const std::string& path) : file(file), path(path) {
    links = H5Pcreate(H5P_LINK_CREATE);
    H5Pset_create_intermediate_group(links, 1);
    text = H5Tcopy(H5T_C_S1);
    H5Tset_size(text, H5T_VARIABLE);
    H5Tset_cset(text, H5T_CSET_UTF8);
    // The boolean type h5py and PyTables read as bool.
    boolean = H5Tenum_create(H5T_NATIVE_INT8);
    for (int8_t value : {0, 1}) H5Tenum_insert(boolean, value ? "TRUE" : "FALSE", &value);
  }
  ~Fields() {
    H5Tclose(boolean);
    H5Tclose(text);
    H5Pclose(links);
  }
  Fields(const Fields&) = delete;
  Fields& operator=(const Fields&) = delete;

  void number(const char* name, double value) { scalar(name, H5T_NATIVE_DOUBLE, &value); }
  void integer(const char* name, int64_t value) { scalar(name, H5T_NATIVE_INT64, &value); }
  void flag(const char* name, bool value) {
    const int8_t stored = value ? 1 : 0;
    scalar(name, boolean, &stored);
  }
  void string(const char* name, const std::string& value) {
    const char* pointer = value.c_str();
    scalar(name, text, &pointer);
  }
  template <class T>
  void array(const char* name, const std::vector<T>& values, hid_t type) {
    write(name, type, values.size(), values.data());
  }
  void strings(const char* name, const std::vector<std::string>& values) {
    std::vector<const char*> pointers;
    for (const std::string& value : values) pointers.push_back(value.c_str());
    write(name, text, pointers.size(), pointers.data());
  }
  void flags(const char* name, const std::vector<int8_t>& values) {
    write(name, boolean, values.size(), values.data());
  }
  void attribute(const char* name, const std::string& value) {
    const hid_t space = H5Screate(H5S_SCALAR);
    const hid_t made = H5Acreate2(file, name, text, space, H5P_DEFAULT, H5P_DEFAULT);
    const char* pointer = value.c_str();
    const herr_t written = made < 0 ? -1 : H5Awrite(made, text, &pointer);
    if (made >= 0) H5Aclose(made);
    H5Sclose(space);
    check(written >= 0, name);
  }

 private:
  void scalar(const char* name, hid_t type, const void* value) {
    const hid_t space = H5Screate(H5S_SCALAR);
    store(name, type, space, value);
  }
  void write(const char* name, hid_t type, size_t count, const void* values) {
    const hsize_t size = count;
    const hid_t space = H5Screate_simple(1, &size, nullptr);
    store(name, type, space, values);
  }
  // Takes over `space`.
  void store(const char* name, hid_t type, hid_t space, const void* value) {
    const hid_t set = H5Dcreate2(file, name, type, space, links, H5P_DEFAULT, H5P_DEFAULT);
    const herr_t written = set < 0 ? -1 : H5Dwrite(set, type, H5S_ALL, H5S_ALL, H5P_DEFAULT, value);
    if (set >= 0) H5Dclose(set);
    H5Sclose(space);
    check(written >= 0, name);
  }
  void check(bool ok, const char* name) const {
    if (!ok) throw std::runtime_error("HDF5 file '" + path + "' refused " + name);
  }

  hid_t file;
  const std::string& path;
  hid_t links, text, boolean;
};

std::string localTime(std::time_t when) {
  std::tm parts{};
  localtime_r(&when, &parts);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
  return text;
}

}  // namespace

PhotonHdf5Writer::PhotonHdf5Writer(const std::string& path, bool with_nanotimes)
    : path(path), with_nanotimes(with_nanotimes) {
  std::lock_guard<std::mutex> guard(hdf5Mutex());
  // The library's own printing would add a stack of lines to our one-line messages.
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  if (file < 0) throw std::runtime_error("HDF5 file '" + path + "' cannot be created");
  const hsize_t empty = 0, unlimited = H5S_UNLIMITED, chunk = kChunkRows;
  const hid_t space = H5Screate_simple(1, &empty, &unlimited);
  const hid_t properties = H5Pcreate(H5P_DATASET_CREATE);
  H5Pset_chunk(properties, 1, &chunk);
  // Byte shuffling then light zlib: rising timestamps and few detector ids shrink to about a
  // third, every HDF5 reader decodes it, and it costs little time.
  H5Pset_shuffle(properties);
  H5Pset_deflate(properties, 1);
  const hid_t links = H5Pcreate(H5P_LINK_CREATE);
  H5Pset_create_intermediate_group(links, 1);
  bool made = true;
  for (int set = 0; set < (with_nanotimes ? 3 : 2); ++set) {
    sets[set] =
        H5Dcreate2(file, kSetNames[set], rowType(set), space, links, properties, H5P_DEFAULT);
    made &= sets[set] >= 0;
  }
  H5Pclose(links);
  H5Pclose(properties);
  H5Sclose(space);
  if (!made) {
    close();
    throw std::runtime_error("HDF5 file '" + path + "' refused the photon datasets");
  }
  timestamps.reserve(kChunkRows);
  detectors.reserve(kChunkRows);
  if (with_nanotimes) nanotimes.reserve(kChunkRows);
}

PhotonHdf5Writer::~PhotonHdf5Writer() {
  std::lock_guard<std::mutex> guard(hdf5Mutex());
  close();
}

void PhotonHdf5Writer::close() noexcept {
  for (int64_t& set : sets) {
    if (set >= 0) H5Dclose(set);
    set = -1;
  }
  if (file >= 0) H5Fclose(file);
  file = -1;
}

void PhotonHdf5Writer::flush() {
  if (timestamps.empty()) return;
  std::lock_guard<std::mutex> guard(hdf5Mutex());
  const hsize_t start = rows, count = timestamps.size(), total = rows + count;
  const void* data[3] = {timestamps.data(), detectors.data(), nanotimes.data()};
  for (int set = 0; set < (with_nanotimes ? 3 : 2); ++set) {
    herr_t status = H5Dset_extent(sets[set], &total);
    const hid_t space = H5Dget_space(sets[set]);
    const hid_t memory = H5Screate_simple(1, &count, nullptr);
    if (status >= 0) {
      status = H5Sselect_hyperslab(space, H5S_SELECT_SET, &start, nullptr, &count, nullptr);
    }
    if (status >= 0) {
      status = H5Dwrite(sets[set], rowType(set), memory, space, H5P_DEFAULT, data[set]);
    }
    H5Sclose(memory);
    H5Sclose(space);
    if (status < 0) {
      throw std::runtime_error("HDF5 file '" + path + "' could not be written at row " +
                               std::to_string(rows));
    }
  }
  rows = total;
  timestamps.clear();
  detectors.clear();
  nanotimes.clear();
}

void PhotonHdf5Writer::finish(const PhotonHdf5Description& about) {
  flush();
  std::lock_guard<std::mutex> guard(hdf5Mutex());
  Fields fields(file, path);
  const std::string version = "0.5";
  fields.attribute("format_name", "Photon-HDF5");
  fields.attribute("format_version", version);
  fields.attribute("format_title", "HDF5-based format for time-series of photon data.");
  fields.attribute("format_url", "http://photon-hdf5.org/");
  fields.string("description", about.description);
  fields.number("acquisition_duration", about.acquisition_duration);

  fields.number("photon_data/timestamps_specs/timestamps_unit", 1e-12);
  fields.string("photon_data/measurement_specs/measurement_type", "generic");
  if (with_nanotimes) {
    fields.number("photon_data/nanotimes_specs/tcspc_unit", 1e-12);
    fields.number("photon_data/nanotimes_specs/tcspc_range", about.tcspc_range);
    fields.integer("photon_data/nanotimes_specs/tcspc_num_bins",
                   static_cast<int64_t>(std::ceil(about.tcspc_range * 1e12)));
    fields.number("photon_data/measurement_specs/laser_repetition_rate",
                  about.tcspc_range > 0 ? 1.0 / about.tcspc_range : 0.0);
  }

  // Every detector that is not a marker counts as a pixel of one spot.
  std::vector<int32_t> ids;
  std::vector<int64_t> counts;
  std::vector<std::string> labels;
  for (const auto& [id, rows_of_id] : about.detectors) {
    ids.push_back(id);
    counts.push_back(static_cast<int64_t>(rows_of_id));
    const auto label = about.labels.find(id);
    labels.push_back(label == about.labels.end() ? std::string() : label->second);
  }
  const auto pixels = static_cast<int64_t>(ids.size() - about.marker_detectors.size());
  fields.integer("setup/num_pixels", pixels);
  fields.integer("setup/num_spots", 1);
  fields.integer("setup/num_spectral_ch", 1);
  fields.integer("setup/num_polarization_ch", 1);
  fields.integer("setup/num_split_ch", 1);
  fields.flag("setup/modulated_excitation", false);
  fields.flags("setup/excitation_alternated", {0});
  fields.flag("setup/lifetime", with_nanotimes);
  fields.array("setup/detectors/id", ids, H5T_NATIVE_INT32);
  fields.array("setup/detectors/counts", counts, H5T_NATIVE_INT64);
  fields.strings("setup/detectors/label", labels);

  const std::string software = "zeptick";
  const std::string now = localTime(std::time(nullptr));
  fields.string("identity/filename", std::filesystem::path(path).filename().string());
  fields.string("identity/filename_full", std::filesystem::absolute(path).string());
  fields.string("identity/creation_time", now);
  fields.string("identity/software", software);
  fields.string("identity/software_version", getVersion());
  fields.string("identity/format_name", "Photon-HDF5");
  fields.string("identity/format_version", version);
  fields.string("identity/format_url", "http://photon-hdf5.org/");

  const std::filesystem::path source(about.source_path);
  fields.string("provenance/filename", source.filename().string());
  fields.string("provenance/filename_full", std::filesystem::absolute(source).string());
  struct stat status {};
  if (stat(about.source_path.c_str(), &status) == 0) {
    fields.string("provenance/modification_time", localTime(status.st_mtime));
  }
  if (!about.source_software.empty()) fields.string("provenance/software", about.source_software);

  fields.string("user/zeptick/channel_mapping",
                "detector d is zeptick channel d+1: channel 1000 is the sync (with nanotimes, "
                "the timestamp of each photon), channel 1000+n marker n");
  fields.array("user/zeptick/marker_detectors", about.marker_detectors, H5T_NATIVE_INT32);

  bool closed = true;
  for (int64_t& set : sets) {
    if (set >= 0) closed &= H5Dclose(set) >= 0;
    set = -1;
  }
  closed &= H5Fclose(file) >= 0;
  file = -1;
  if (!closed) throw std::runtime_error("HDF5 file '" + path + "' could not be closed");
}

}  // namespace zeptick::foreign
