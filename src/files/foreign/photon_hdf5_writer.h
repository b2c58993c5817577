#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zeptick::foreign {

/// What a Photon-HDF5 file says besides its photons.
struct PhotonHdf5Description {
  std::string description;                ///< /description
  std::string source_path;                ///< /provenance: the recording it was made from
  std::string source_software;            ///< /provenance/software; empty if unknown
  double acquisition_duration = 0;        ///< seconds
  double tcspc_range = 0;                 ///< seconds; with nanotimes only: the sync period
  std::map<int32_t, uint64_t> detectors;  ///< detector id -> rows, markers included
  std::map<int32_t, std::string> labels;  ///< detector id -> what it is, e.g. "marker 2"
  std::vector<int32_t> marker_detectors;  ///< detector ids that are markers
};

/// Writes one Photon-HDF5 file (format version 0.5, measurement type "generic") with a single
/// /photon_data group: timestamps (int64) and, with `nanotimes`, nanotimes (uint32), both in
/// picoseconds, and detectors (int32). Rows are appended in chunks, so memory stays bounded
/// whatever the recording's size. Every HDF5 call holds the library's HDF5 lock. Throws
/// std::runtime_error naming the file when HDF5 refuses. One thread at a time.
class PhotonHdf5Writer {
 public:
  /// Creates `path`, replacing any file there.
  PhotonHdf5Writer(const std::string& path, bool with_nanotimes);
  /// Closes quietly; a file not finished lacks its metadata.
  ~PhotonHdf5Writer();
  PhotonHdf5Writer(const PhotonHdf5Writer&) = delete;
  PhotonHdf5Writer& operator=(const PhotonHdf5Writer&) = delete;

  /// One row; `nanotime` is ignored without nanotimes.
  void append(int64_t timestamp, int32_t detector, uint32_t nanotime) {
    timestamps.push_back(timestamp);
    detectors.push_back(detector);
    if (with_nanotimes) nanotimes.push_back(nanotime);
    if (timestamps.size() == kChunkRows) flush();
  }
  /// Writes the remaining rows and the metadata, and closes the file.
  void finish(const PhotonHdf5Description& about);

 private:
  static constexpr size_t kChunkRows = 1 << 16;

  void flush();
  void close() noexcept;

  std::string path;
  bool with_nanotimes;
  int64_t file = -1;
  int64_t sets[3] = {-1, -1, -1};  // timestamps, detectors, nanotimes
  uint64_t rows = 0;
  std::vector<int64_t> timestamps;
  std::vector<int32_t> detectors;
  std::vector<uint32_t> nanotimes;
};

}  // namespace zeptick::foreign
