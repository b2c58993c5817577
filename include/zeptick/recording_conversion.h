#pragma once

#include <cstdint>
#include <string>

#include "zeptick/export.h"

namespace zeptick {

/// Writes the time tags of `recording` as a Photon-HDF5 file (format version 0.5, measurement
/// type "generic") at `path`, replacing any file there. `recording` is one of our .ztbin
/// recordings (its whole split set) or another instrument's PTU, SPC or Photon-HDF5 file, told
/// by its content.
///
/// Channel c is stored as detector c - 1, the inverse of the mapping by which recordings of
/// other instruments are played (detector d -> channel d + 1), so that playing the written file
/// gives back the same time tags: a sync on channel 1000 becomes detector 999, marker n on
/// channel 1000 + n detector 999 + n. Timestamps are picoseconds on the recording's own clock.
/// A recording with micro times (PTU in T3 mode, SPC with its settings file, Photon-HDF5 with
/// nanotimes) keeps them: a photon's timestamp is then the time of the sync before it and its
/// nanotime the picoseconds since that sync, the sync channel is implied by the timestamps, and
/// the detectors that stand for markers are listed in /user/zeptick/marker_detectors.
/// /setup/detectors lists every detector id with its row count and what it stands for.
/// Overflow, missed-event and error tags have no place in the format: they are left out, and
/// a warning says how many.
///
/// Returns the number of rows written. Throws std::runtime_error when the recording cannot be
/// opened or the file cannot be written.
ZEPTICK_API uint64_t exportPhotonHdf5(const std::string& recording, const std::string& path);

/// Converts another instrument's recording (PTU, SPC or Photon-HDF5, told by its content) into
/// our .ztbin format, so that it gains a digest and a signature in every block: `target` names
/// the recording as FileWriter does (target.ztbin with the settings, target.1.ztbin with the
/// tags). Blocks are signed with the key of setFileSigningKey (the built-in one by default).
/// The tags, their times and the recording's settings (as the configuration) are those a replay
/// of `recording` gives. A fault in the source (a file cut short) is logged, as in a replay, and
/// the tags read until then are kept.
///
/// Returns the number of tags written. Throws std::runtime_error when `recording` is not such a
/// file or its header cannot be read, and when `target` cannot be written.
ZEPTICK_API uint64_t convertToZtbin(const std::string& recording, const std::string& target);

}  // namespace zeptick
