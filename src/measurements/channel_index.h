#pragma once

#include <cstdint>
#include <utility>
#include <vector>

namespace zeptick::detail {

/// Maps channel numbers to small dense indices, for the per-tag lookup of
/// virtual channels. Open addressing in a power-of-two table kept at most half
/// full, so a lookup is one multiply and, nearly always, one probe; no
/// allocation after construction.
class ChannelIndex {
 public:
  /// Adds `channel` with `index` (>= 0) unless it is present; returns its index.
  int insert(int channel, int index) {
    if (2 * (size + 1) > slots.size()) grow();
    const int found = place(channel, index);
    if (found == index) ++size;
    return found;
  }

  /// The index of `channel`, or -1.
  int find(int channel) const {
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

  std::vector<Slot> slots;
  size_t size = 0;
  uint32_t mask = 0;
  uint32_t shift = 32;
};

}  // namespace zeptick::detail
