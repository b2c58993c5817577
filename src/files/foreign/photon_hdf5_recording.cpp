#include "files/foreign/photon_hdf5_recording.h"

#include <hdf5.h>

#include <algorithm>
#include <limits>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>

#include "core/log.h"
#include "files/foreign/channel_mapping.h"
#include "files/foreign/hdf5_lock.h"
#include "files/foreign/picosecond_scale.h"

namespace zeptick::foreign {

namespace {

static_assert(std::is_same_v<hid_t, int64_t>, "HDF5 handles are kept as int64_t");

constexpr hsize_t kChunkPhotons = 1 << 16;

// Closes an HDF5 object of any kind when it goes out of scope.
struct Handle {
  hid_t id = -1;
  explicit Handle(hid_t id) : id(id) {}
  ~Handle() {
    if (id >= 0) H5Oclose(id);
  }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;
  explicit operator bool() const { return id >= 0; }
};

bool exists(hid_t location, const std::string& name) {
  // Each part of the path must exist before the next is asked for.
  size_t slash = 0;
  do {
    slash = name.find('/', slash + 1);
    if (H5Lexists(location, name.substr(0, slash).c_str(), H5P_DEFAULT) <= 0) return false;
  } while (slash != std::string::npos);
  return true;
}

// A one-element dataset or attribute as a number or a string; nothing if it is neither.
template <class ReadValue>
std::optional<nlohmann::json> scalar(hid_t type, hid_t space, ReadValue read) {
  if (H5Sget_simple_extent_npoints(space) != 1) return std::nullopt;
  const H5T_class_t kind = H5Tget_class(type);
  if (kind == H5T_INTEGER || kind == H5T_FLOAT) {
    double value = 0;
    if (read(H5T_NATIVE_DOUBLE, &value) < 0) return std::nullopt;
    return nlohmann::json(value);
  }
  if (kind != H5T_STRING) return std::nullopt;
  if (H5Tis_variable_str(type) > 0) {
    const hid_t memory = H5Tcopy(H5T_C_S1);
    H5Tset_size(memory, H5T_VARIABLE);
    char* text = nullptr;
    std::optional<nlohmann::json> value;
    if (read(memory, &text) >= 0 && text != nullptr) value = std::string(text);
    if (text != nullptr) H5free_memory(text);
    H5Tclose(memory);
    return value;
  }
  const size_t size = H5Tget_size(type);
  if (size == 0 || size > (1 << 16)) return std::nullopt;
  std::string text(size, '\0');
  const hid_t memory = H5Tcopy(type);
  const herr_t status = read(memory, text.data());
  H5Tclose(memory);
  if (status < 0) return std::nullopt;
  text.resize(strnlen(text.data(), size));
  return nlohmann::json(text);
}

std::optional<nlohmann::json> readDataset(hid_t location, const std::string& name) {
  if (!exists(location, name)) return std::nullopt;
  Handle set(H5Dopen2(location, name.c_str(), H5P_DEFAULT));
  if (!set) return std::nullopt;
  const hid_t type = H5Dget_type(set.id), space = H5Dget_space(set.id);
  auto value = scalar(type, space, [&](hid_t memory, void* out) {
    return H5Dread(set.id, memory, H5S_ALL, H5S_ALL, H5P_DEFAULT, out);
  });
  H5Tclose(type);
  H5Sclose(space);
  return value;
}

std::optional<nlohmann::json> readAttribute(hid_t location, const char* name) {
  if (H5Aexists(location, name) <= 0) return std::nullopt;
  const hid_t attribute = H5Aopen(location, name, H5P_DEFAULT);
  if (attribute < 0) return std::nullopt;
  const hid_t type = H5Aget_type(attribute), space = H5Aget_space(attribute);
  auto value =
      scalar(type, space, [&](hid_t memory, void* out) { return H5Aread(attribute, memory, out); });
  H5Tclose(type);
  H5Sclose(space);
  H5Aclose(attribute);
  return value;
}

std::optional<double> number(const std::optional<nlohmann::json>& value) {
  if (value && value->is_number()) return value->get<double>();
  return std::nullopt;
}

// The length of a one-dimensional dataset; -1 otherwise.
int64_t length(hid_t set) {
  const hid_t space = H5Dget_space(set);
  hsize_t size = 0;
  const int rank = H5Sget_simple_extent_ndims(space);
  if (rank == 1) H5Sget_simple_extent_dims(space, &size, nullptr);
  H5Sclose(space);
  return rank == 1 ? static_cast<int64_t>(size) : -1;
}

bool readSlab(hid_t set, hsize_t offset, hsize_t count, std::vector<int64_t>& out) {
  out.resize(count);
  const hid_t file_space = H5Dget_space(set);
  const hid_t memory_space = H5Screate_simple(1, &count, nullptr);
  herr_t status =
      H5Sselect_hyperslab(file_space, H5S_SELECT_SET, &offset, nullptr, &count, nullptr);
  if (status >= 0) {
    status = H5Dread(set, H5T_NATIVE_INT64, memory_space, file_space, H5P_DEFAULT, out.data());
  }
  H5Sclose(memory_space);
  H5Sclose(file_space);
  return status >= 0;
}

}  // namespace

std::mutex& hdf5Mutex() {
  static std::mutex mutex;
  return mutex;
}

struct PhotonHdf5Recording::Group {
  std::string name;
  hid_t timestamps = -1, detectors = -1, nanotimes = -1;
  std::optional<PicosecondScale> unit, tcspc_unit;
  hsize_t size = 0, next = 0;
  std::vector<int64_t> times, ids, nanos;
  std::vector<Tag> tags;  // decoded, in time order; those before `taken` are handed out
  size_t taken = 0;
  int64_t frontier = 0;  // the sync time of the last timestamp read: no later tag is earlier
  int64_t last_sync = std::numeric_limits<int64_t>::min();
  bool done() const { return next == size && taken == tags.size(); }
};

PhotonHdf5Recording::PhotonHdf5Recording(const std::string& path) : path(path) {
  std::string settings;
  {
    std::lock_guard<std::mutex> guard(hdf5Mutex());
    settings = openFile();
  }
  // Outside the lock: the first block is read through decodeChunk, which takes it.
  if (!settings.empty()) start(std::move(settings));
}

// REQUIRES: the HDF5 lock.
std::string PhotonHdf5Recording::openFile() {
  // The library's own printing would add a stack of lines to our one-line messages.
  H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr);
  file = H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT);
  std::string error;
  if (file < 0) {
    ZT_LOG_ERROR("File '%s' could not be opened as HDF5.", path.c_str());
    return {};
  }
  if (!openGroups(error)) {
    ZT_LOG_ERROR("File '%s' is not playable Photon-HDF5: %s.", path.c_str(), error.c_str());
    close();
    return {};
  }
  nlohmann::json settings = {{"format", "Photon-HDF5"}, {"channel_mapping", kChannelMappingText}};
  for (const char* name : {"format_name", "format_version"}) {
    if (auto value = readAttribute(file, name)) settings[name] = *value;
  }
  for (const char* name :
       {"acquisition_duration", "description", "identity/format_name", "identity/format_version",
        "identity/software", "provenance/software", "provenance/filename", "setup/num_pixels",
        "setup/num_spots", "setup/lifetime"}) {
    if (auto value = readDataset(file, name)) settings[name] = *value;
  }
  for (const auto& group : groups) {
    nlohmann::json& entry = settings["groups"][group->name];
    entry["photons"] = group->size;
    entry["timestamps_unit_ps"] = group->unit->picoseconds();
    if (group->tcspc_unit) entry["tcspc_unit_ps"] = group->tcspc_unit->picoseconds();
    for (const char* name :
         {"measurement_specs/measurement_type", "measurement_specs/laser_repetition_rate",
          "nanotimes_specs/tcspc_range", "nanotimes_specs/tcspc_num_bins"}) {
      if (auto value = readDataset(file, group->name + "/" + name)) entry[name] = *value;
    }
  }
  return settings.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

PhotonHdf5Recording::~PhotonHdf5Recording() {
  std::lock_guard<std::mutex> guard(hdf5Mutex());
  close();
}

void PhotonHdf5Recording::close() {
  for (const auto& group : groups) {
    for (hid_t set : {group->timestamps, group->detectors, group->nanotimes}) {
      if (set >= 0) H5Dclose(set);
    }
  }
  groups.clear();
  if (file >= 0) H5Fclose(file);
  file = -1;
}

bool PhotonHdf5Recording::openGroups(std::string& error) {
  std::vector<std::string> names;
  if (exists(file, "photon_data")) names.push_back("photon_data");
  for (int i = 0; exists(file, "photon_data" + std::to_string(i)); ++i) {
    names.push_back("photon_data" + std::to_string(i));
  }
  if (names.empty()) return error = "no photon_data group", false;
  if (exists(file, kMarkerDetectorsPath)) {
    Handle set(H5Dopen2(file, kMarkerDetectorsPath, H5P_DEFAULT));
    const int64_t count = set ? length(set.id) : -1;
    if (count < 0 || !readSlab(set.id, 0, static_cast<hsize_t>(count), marker_detectors)) {
      return error = std::string(kMarkerDetectorsPath) + " is not a list of detectors", false;
    }
    std::sort(marker_detectors.begin(), marker_detectors.end());
  }
  for (const std::string& name : names) {
    auto group = std::make_unique<Group>();
    group->name = name;
    groups.push_back(std::move(group));
    Group& g = *groups.back();
    const auto open = [&](const char* what) {
      const std::string full = name + "/" + what;
      return exists(file, full) ? H5Dopen2(file, full.c_str(), H5P_DEFAULT) : hid_t{-1};
    };
    g.timestamps = open("timestamps");
    if (g.timestamps < 0) return error = name + "/timestamps is missing", false;
    g.detectors = open("detectors");
    g.nanotimes = open("nanotimes");
    g.unit = PicosecondScale::fromSeconds(
        number(readDataset(file, name + "/timestamps_specs/timestamps_unit")).value_or(0.0));
    if (!g.unit) return error = name + "/timestamps_specs/timestamps_unit is missing", false;
    const int64_t size = length(g.timestamps);
    if (size < 0) return error = name + "/timestamps is not one-dimensional", false;
    g.size = static_cast<hsize_t>(size);
    for (hid_t set : {g.detectors, g.nanotimes}) {
      if (set >= 0 && length(set) != size) {
        return error = "the datasets of " + name + " differ in length", false;
      }
    }
    if (g.nanotimes >= 0) {
      g.tcspc_unit = PicosecondScale::fromSeconds(
          number(readDataset(file, name + "/nanotimes_specs/tcspc_unit")).value_or(0.0));
      if (!g.tcspc_unit) {
        ZT_LOG_WARNING("File '%s': %s/nanotimes have no tcspc_unit and are left out.", path.c_str(),
                       name.c_str());
      }
    }
  }
  return true;
}

// Decodes the group's next slab of photons. REQUIRES: the HDF5 lock.
bool PhotonHdf5Recording::fill(Group& g) {
  const hsize_t count = std::min(kChunkPhotons, g.size - g.next);
  const bool nano = g.nanotimes >= 0 && g.tcspc_unit;
  if (!readSlab(g.timestamps, g.next, count, g.times) ||
      (g.detectors >= 0 && !readSlab(g.detectors, g.next, count, g.ids)) ||
      (nano && !readSlab(g.nanotimes, g.next, count, g.nanos))) {
    ZT_LOG_ERROR("File '%s': %s could not be read at photon %llu.", path.c_str(), g.name.c_str(),
                 static_cast<unsigned long long>(g.next));
    return false;
  }
  // The photons of the last timestamp may still wait, and the new ones may fall among them.
  g.tags.erase(g.tags.begin(), g.tags.begin() + static_cast<std::ptrdiff_t>(g.taken));
  g.taken = 0;
  const size_t waiting = g.tags.size();
  for (hsize_t i = 0; i < count; ++i) {
    // Timestamps before the recording's time 0 are not meaningful; they start it.
    const uint64_t stamp = static_cast<uint64_t>(std::max<int64_t>(g.times[i], 0));
    const int64_t detector = g.detectors >= 0 ? g.ids[i] : 0;
    const int32_t channel = detectorChannel(detector);
    // Without nanotimes a row is a tag at its timestamp; so is a marker, which has no sync.
    if (!nano || std::binary_search(marker_detectors.begin(), marker_detectors.end(), detector)) {
      g.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, (*g.unit)(stamp)});
      continue;
    }
    const PicosecondScale::Fixed sync = g.unit->exact(stamp);
    if (g.times[i] != g.last_sync) {
      g.last_sync = g.times[i];
      g.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, kSyncChannel, PicosecondScale::round(sync)});
    }
    const uint64_t nanotime = static_cast<uint64_t>(std::max<int64_t>(g.nanos[i], 0));
    g.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel,
                         PicosecondScale::round(sync + g.tcspc_unit->exact(nanotime))});
  }
  g.next += count;
  const auto earlier = [](const Tag& a, const Tag& b) { return a.time < b.time; };
  const auto fresh = g.tags.begin() + static_cast<std::ptrdiff_t>(waiting);
  std::stable_sort(fresh, g.tags.end(), earlier);
  std::inplace_merge(g.tags.begin(), fresh, g.tags.end(), earlier);
  g.frontier = (*g.unit)(static_cast<uint64_t>(std::max<int64_t>(g.times[count - 1], 0)));
  if (!g.tags.empty()) until = std::max(until, g.tags.back().time + 1);
  return true;
}

// Hands out every decoded tag up to the earliest frontier among the groups that have more to
// read: no later tag of any group can fall before it. A group is read on once fewer than a
// chunk of its tags wait, so the group that sets the frontier always moves it.
bool PhotonHdf5Recording::decodeChunk(std::vector<Tag>& out) {
  std::lock_guard<std::mutex> guard(hdf5Mutex());
  int64_t horizon = std::numeric_limits<int64_t>::max();
  for (const auto& group : groups) {
    Group& g = *group;
    if (g.next < g.size && g.tags.size() - g.taken < kChunkPhotons && !fill(g)) {
      for (const auto& other : groups) other->next = other->size;  // the file ends here
      return false;
    }
    if (g.next < g.size) horizon = std::min(horizon, g.frontier);
  }
  bool more = false;
  for (const auto& group : groups) {
    Group& g = *group;
    while (g.taken < g.tags.size() && g.tags[g.taken].time <= horizon) {
      out.push_back(g.tags[g.taken++]);
    }
    more |= !g.done();
  }
  return more;
}

}  // namespace zeptick::foreign
