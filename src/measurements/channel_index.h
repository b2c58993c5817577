#pragma once

#include <algorithm>
#include <cstdint>
#include <utility>
#include <vector>

namespace zeptick::detail {

/// Maps channel numbers to small dense indices, for the per-tag lookup of
/// virtual channels. Channels within a narrow range (inputs, and virtual
/// channels of one tagger) are looked up in a plain array; others in an
/// open-addressing table kept at most half full, so a lookup is one multiply
/// and, nearly always, one probe. No allocation after construction.
class ChannelIndex {
 public:
  /// Adds `channel` with `index` (>= 0) unless it is present; returns its index.
  int insert(int channel, int index) {
    if (2 * (size + 1) > slots.size()) grow();
    const int found = place(channel, index);
    if (found == index) {
      ++size;
      lowest = size == 1 ? channel : std::min(lowest, channel);
      highest = size == 1 ? channel : std::max(highest, channel);
      rebuildDirect();
    }
    return found;
  }

  /// The index of `channel`, or -1.
  int find(int channel) const {
    if (!direct.empty()) {
      const uint32_t offset = static_cast<uint32_t>(channel) - static_cast<uint32_t>(lowest);
      return offset < direct.size() ? direct[offset] : -1;
    }
    if (slots.empty()) return -1;
    for (uint32_t at = hash(channel);; at = (at + 1) & mask) {
      const Slot& slot = slots[at];
      if (slot.index < 0) return -1;
      if (slot.channel == channel) return slot.index;
    }
  }

 private:
  struct Slot {
    int channel = 0;
    int index = -1;  // -1 marks an empty slot, so every channel number is a valid key
  };

  uint32_t hash(int channel) const {
    return static_cast<uint32_t>(static_cast<uint32_t>(channel) * 0x9E3779B9u) >> shift;
  }

  int place(int channel, int index) {
    for (uint32_t at = hash(channel);; at = (at + 1) & mask) {
      Slot& slot = slots[at];
      if (slot.index < 0) {
        slot = Slot{channel, index};
        return index;
      }
      if (slot.channel == channel) return slot.index;
    }
  }

  void grow() {
    std::vector<Slot> old = std::move(slots);
    const size_t capacity = old.empty() ? 8 : 2 * old.size();
    slots.assign(capacity, Slot{});
    mask = static_cast<uint32_t>(capacity - 1);
    shift = 32;
    for (size_t c = capacity; c > 1; c >>= 1) --shift;
    for (const Slot& slot : old) {
      if (slot.index >= 0) place(slot.channel, slot.index);
    }
  }

  void rebuildDirect() {
    direct.clear();
    const int64_t span = int64_t{highest} - int64_t{lowest} + 1;
    if (span > kDirectLimit) return;
    direct.assign(static_cast<size_t>(span), -1);
    for (const Slot& slot : slots) {
      if (slot.index >= 0) direct[static_cast<uint32_t>(slot.channel - lowest)] = slot.index;
    }
  }

  static constexpr int64_t kDirectLimit = 4096;

  std::vector<Slot> slots;
  std::vector<int> direct;  // by channel - lowest, when the channels span little
  int lowest = 0;
  int highest = 0;
  size_t size = 0;
  uint32_t mask = 0;
  uint32_t shift = 32;
};

}  // namespace zeptick::detail
