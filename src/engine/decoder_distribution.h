#pragma once

#include <cstdint>

namespace zeptick {

/// Online calibration of one fine bin of one hardware index. A device keeps
/// `channelCount * (binCount + 1)` of them; record `index * (binCount + 1) + bin`
/// belongs to `index` and `bin`, and each index's last record is a guard whose
/// `psecs` is the clock period, so record `bin + 1` always holds the upper edge of `bin`.
struct Distribution {
  uint32_t count;  ///< events in this bin since the counts were last decayed
  uint32_t psecs;  ///< offset of the bin from the clock edge, picoseconds
};

static_assert(sizeof(Distribution) == 8);

}  // namespace zeptick
