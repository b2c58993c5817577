#pragma once

// How the events of other makers' recordings become channels of our stream. One mapping for
// every format, so that a measurement written for one works on the others:
//   detector k (counted from 0, as the format counts it)  -> channel k + 1
//   sync (laser pulse, or the macrotime tick of a photon)  -> channel 1000
//   marker n (counted from 1; bit n-1 of a marker mask)    -> channel 1000 + n

#include <cstdint>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick::foreign {

inline constexpr int32_t kSyncChannel = 1000;
inline constexpr int32_t kMarkerChannelBase = 1000;

constexpr int32_t detectorChannel(int64_t detector) { return static_cast<int32_t>(detector + 1); }

/// One tag per set bit of `mask`, markers 1 to 4 (the low four bits), at `time`.
inline void appendMarkers(std::vector<Tag>& out, uint32_t mask, int64_t time) {
  for (int32_t bit = 0; bit < 4; ++bit) {
    if ((mask >> bit) & 1u) {
      out.push_back(Tag{Tag::Type::TimeTag, 0, 0, kMarkerChannelBase + bit + 1, time});
    }
  }
}

/// The mapping as it is reported in a recording's settings.
inline constexpr const char* kChannelMappingText =
    "detector k (from 0) -> channel k+1; sync -> channel 1000; marker n (from 1) -> channel 1000+n";

}  // namespace zeptick::foreign

namespace zeptick::foreign {

/// Where a Photon-HDF5 file we write lists the detector ids that are markers, so that our
/// reader gives them back as markers rather than as photons after a sync.
inline constexpr const char* kMarkerDetectorsPath = "user/zeptick/marker_detectors";

}  // namespace zeptick::foreign
