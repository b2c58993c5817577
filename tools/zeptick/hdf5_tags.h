// Tags into an HDF5 file: one extensible dataset per tag field, the configuration as an
// attribute, written through the HDF5 C library.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick::cli {

/// Creates `path` (replacing it) with the datasets "type" (uint8), "channel" (int32),
/// "time" (int64, picoseconds) and "missed_events" (uint16), empty and growing by append(),
/// and the root attributes "configuration" (the recording's JSON text) and "time_unit" ("ps").
/// Throws std::runtime_error naming the file when HDF5 refuses. One thread at a time.
class Hdf5TagFile {
 public:
  Hdf5TagFile(const std::string& path, const std::string& configuration);
  ~Hdf5TagFile();
  Hdf5TagFile(const Hdf5TagFile&) = delete;
  Hdf5TagFile& operator=(const Hdf5TagFile&) = delete;

  /// Appends `tags` to the four datasets.
  void append(const std::vector<Tag>& tags);
  /// Flushes and closes; throws on failure. The destructor closes quietly.
  void close();

 private:
  void check(bool ok, const char* what) const;

  std::string path;
  int64_t file = -1;
  int64_t datasets[4] = {-1, -1, -1, -1};
  uint64_t rows = 0;
};

}  // namespace zeptick::cli
