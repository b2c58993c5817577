#pragma once

#include <cstdint>
#include <vector>

#include "zeptick/coincidences.h"
#include "zeptick/export.h"

namespace zeptick {

/// Coincidences of a single group of channels, on one virtual channel.
class ZEPTICK_API Coincidence : public Coincidences {
 public:
  /// See Coincidences; throws std::invalid_argument for an empty `channels`
  /// or more than 64 distinct channels.
  Coincidence(ZeptickBase* tagger, const std::vector<int>& channels, int64_t window = 1000,
              CoincidenceTimestamp timestamp = CoincidenceTimestamp::Last);
  ~Coincidence() override;

  /// The virtual channel of the group. Thread-safe.
  int getChannel();
};

}  // namespace zeptick
