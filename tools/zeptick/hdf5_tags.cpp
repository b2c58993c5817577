#include "hdf5_tags.h"

#include <hdf5.h>

#include <stdexcept>
#include <type_traits>

namespace zeptick::cli {

namespace {

static_assert(std::is_same_v<hid_t, int64_t>, "the header keeps HDF5 handles as int64_t");

constexpr const char* kNames[4] = {"type", "channel", "time", "missed_events"};
constexpr hsize_t kChunk = 65536;

hid_t typeOf(int column) {
  switch (column) {
    case 0:
      return H5T_NATIVE_UINT8;
    case 1:
      return H5T_NATIVE_INT32;
    case 2:
      return H5T_NATIVE_INT64;
    default:
      return H5T_NATIVE_UINT16;
  }
}

void writeTextAttribute(hid_t object, const char* name, const std::string& text) {
  // Variable-length UTF-8, which h5py and other readers return as a plain string.
  const hid_t type = H5Tcopy(H5T_C_S1);
  H5Tset_size(type, H5T_VARIABLE);
  H5Tset_cset(type, H5T_CSET_UTF8);
  const hid_t space = H5Screate(H5S_SCALAR);
  const hid_t attribute = H5Acreate2(object, name, type, space, H5P_DEFAULT, H5P_DEFAULT);
  const char* value = text.c_str();
  const herr_t written = attribute < 0 ? -1 : H5Awrite(attribute, type, &value);
  if (attribute >= 0) H5Aclose(attribute);
  H5Sclose(space);
  H5Tclose(type);
  if (written < 0) throw std::runtime_error(std::string("HDF5 refused the attribute ") + name);
}

template <class T, class Field>
std::vector<T> column(const std::vector<Tag>& tags, Field field) {
  std::vector<T> values;
  values.reserve(tags.size());
  for (const Tag& tag : tags) values.push_back(static_cast<T>(field(tag)));
  return values;
}

}  // namespace

Hdf5TagFile::Hdf5TagFile(const std::string& path, const std::string& configuration) : path(path) {
  // The library's own error printing would add a stack of lines to our one-line message.
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  file = H5Fcreate(path.c_str(), H5F_ACC_TRUNC, H5P_DEFAULT, H5P_DEFAULT);
  check(file >= 0, "cannot be created; check the directory");
  const hsize_t empty = 0;
  const hsize_t unlimited = H5S_UNLIMITED;
  const hid_t space = H5Screate_simple(1, &empty, &unlimited);
  const hid_t properties = H5Pcreate(H5P_DATASET_CREATE);
  H5Pset_chunk(properties, 1, &kChunk);
  for (int c = 0; c < 4; ++c) {
    datasets[c] =
        H5Dcreate2(file, kNames[c], typeOf(c), space, H5P_DEFAULT, properties, H5P_DEFAULT);
  }
  H5Pclose(properties);
  H5Sclose(space);
  for (int64_t dataset : datasets) check(dataset >= 0, "refused a dataset");
  writeTextAttribute(file, "configuration", configuration);
  writeTextAttribute(file, "time_unit", "ps");
}

Hdf5TagFile::~Hdf5TagFile() {
  for (int64_t& dataset : datasets) {
    if (dataset >= 0) H5Dclose(dataset);
    dataset = -1;
  }
  if (file >= 0) H5Fclose(file);
}

void Hdf5TagFile::check(bool ok, const char* what) const {
  if (!ok) throw std::runtime_error("HDF5 file '" + path + "' " + what);
}

void Hdf5TagFile::append(const std::vector<Tag>& tags) {
  if (tags.empty()) return;
  const hsize_t start = rows;
  const hsize_t count = tags.size();
  const hsize_t total = rows + count;
  const auto types = column<uint8_t>(tags, [](const Tag& t) { return t.type; });
  const auto channels = column<int32_t>(tags, [](const Tag& t) { return t.channel; });
  const auto times = column<int64_t>(tags, [](const Tag& t) { return t.time; });
  const auto missed = column<uint16_t>(tags, [](const Tag& t) { return t.missed_events; });
  const void* data[4] = {types.data(), channels.data(), times.data(), missed.data()};
  for (int c = 0; c < 4; ++c) {
    check(H5Dset_extent(datasets[c], &total) >= 0, "cannot grow");
    const hid_t space = H5Dget_space(datasets[c]);
    H5Sselect_hyperslab(space, H5S_SELECT_SET, &start, nullptr, &count, nullptr);
    const hid_t memory = H5Screate_simple(1, &count, nullptr);
    const herr_t written = H5Dwrite(datasets[c], typeOf(c), memory, space, H5P_DEFAULT, data[c]);
    H5Sclose(memory);
    H5Sclose(space);
    check(written >= 0, "could not be written");
  }
  rows = total;
}

void Hdf5TagFile::close() {
  for (int64_t& dataset : datasets) {
    if (dataset >= 0) check(H5Dclose(dataset) >= 0, "could not be closed");
    dataset = -1;
  }
  if (file >= 0) {
    const herr_t closed = H5Fclose(file);
    file = -1;
    check(closed >= 0, "could not be closed");
  }
}

}  // namespace zeptick::cli
