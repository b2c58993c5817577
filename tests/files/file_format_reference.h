#pragma once

// A plain model of what a time-tag file keeps of a stream, written from the rules of the
// encoding rather than from the writer's code. Shared by the tests and the round-trip fuzzer.

#include <cstdint>
#include <set>
#include <vector>

#include "support/tags.h"
#include "zeptick/tag.h"

namespace zeptick::testing {

/// The tags a reader gives back for one block written from `tags`: unmapped channels, earlier
/// times, missed events outside overflows and time tags inside them vanish; an unknown type
/// becomes an error; a missed-event tag takes the time of the last word that moved the clock
/// (a dropped tag's high-bit words move it too). `overflow` carries from block to block.
inline std::vector<Tag> expectedAfterFile(const std::vector<Tag>& tags, int64_t begin,
                                          const std::set<int32_t>& mapped, bool& overflow) {
  constexpr uint64_t k24 = uint64_t{1} << 24;
  constexpr uint64_t k48 = uint64_t{1} << 48;
  std::vector<Tag> kept;
  int64_t clock = begin;
  for (const Tag& tag : tags) {
    const bool on_channel = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
    if (on_channel && !mapped.count(tag.channel)) continue;
    if (tag.type == Tag::Type::MissedEvents) {
      if (overflow) kept.push_back(missedTag(tag.channel, clock, tag.missed_events));
      continue;
    }
    if (tag.time < clock) continue;
    uint64_t delta = static_cast<uint64_t>(tag.time) - static_cast<uint64_t>(clock);
    if (delta >= k48) clock += static_cast<int64_t>(delta / k48 * k48);
    delta = static_cast<uint64_t>(tag.time) - static_cast<uint64_t>(clock);
    if (delta >= k24) clock += static_cast<int64_t>(delta / k24 * k24);
    if (tag.type == Tag::Type::TimeTag) {
      if (overflow) continue;
      kept.push_back(timeTag(tag.channel, tag.time));
    } else if (tag.type == Tag::Type::OverflowBegin || tag.type == Tag::Type::OverflowEnd) {
      overflow = tag.type == Tag::Type::OverflowBegin;
      kept.push_back(marker(tag.type, tag.time));
    } else {
      kept.push_back(marker(Tag::Type::Error, tag.time));
    }
    clock = tag.time;
  }
  return kept;
}

}  // namespace zeptick::testing
