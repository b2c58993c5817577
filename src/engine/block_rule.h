#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace zeptick {

/// Words to read from a device in one USB transfer: as many whole chunks of
/// `transfer_bytes` as arrive in `max_latency_ms` at the measured rate, at
/// most `max_events` words' worth, and never less than one chunk. A block
/// therefore spans about max_latency of stream time, and a read always
/// returns on a quiet stream because rollover words keep flowing.
inline size_t blockWords(int transfer_bytes, int max_latency_ms, int max_events,
                         double words_per_ms) {
  const int chunk = transfer_bytes / 4;
  const double by_latency = std::floor(max_latency_ms * words_per_ms / chunk);
  const int by_events = max_events / chunk;
  const int chunks =
      std::max(1, static_cast<int>(std::min(by_latency, static_cast<double>(by_events))));
  return static_cast<size_t>(chunk) * static_cast<size_t>(chunks);
}

}  // namespace zeptick
