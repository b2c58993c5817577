#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "files/foreign/foreign_recording.h"

namespace zeptick::foreign {

/// A Photon-HDF5 file read through the HDF5 C library: /photon_data, or the multispot groups
/// /photon_data0, /photon_data1, ... merged into one time-ordered stream. Per group: timestamps
/// (x timestamps_specs/timestamps_unit), detectors (detector 0 if absent) and, with their
/// nanotimes_specs/tcspc_unit, nanotimes; with nanotimes each timestamp holding a photon is a
/// sync tag and the photon lies nanotime x tcspc_unit after it. The detectors that
/// /user/zeptick/marker_detectors lists (files we export) are markers: a tag at the timestamp,
/// no sync, no nanotime. A group without a timestamp
/// unit, or with datasets of different lengths, is a fault: logged, nothing is played.
/// Every HDF5 call of the library holds one process-wide lock, as the C library may be built
/// without thread safety.
class PhotonHdf5Recording final : public ForeignRecording {
 public:
  explicit PhotonHdf5Recording(const std::string& path);
  ~PhotonHdf5Recording() override;

 protected:
  bool decodeChunk(std::vector<Tag>& out) override;
  int64_t recordedUntil() const override { return until; }

 private:
  struct Group;

  std::string openFile();  // the settings; empty after a logged fault
  bool openGroups(std::string& error);
  bool fill(Group& group);
  void close();

  std::string path;
  int64_t file = -1;
  std::vector<std::unique_ptr<Group>> groups;
  int64_t until = 0;
  std::vector<int64_t> marker_detectors;  // sorted
};

}  // namespace zeptick::foreign
