#pragma once

// The one set of tag builders every suite writes its streams with. Free of gtest, so that the
// fuzzers can take it too.

#include <cstdint>

#include "zeptick/tag.h"

namespace zeptick::testing {

inline Tag timeTag(int32_t channel, int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}
/// A tag without a channel: an error or an overflow mark.
inline Tag marker(Tag::Type type, int64_t time) { return Tag{type, 0, 0, CHANNEL_UNUSED, time}; }
inline Tag missedTag(int32_t channel, int64_t time, uint16_t count = 1) {
  return Tag{Tag::Type::MissedEvents, 0, count, channel, time};
}

}  // namespace zeptick::testing
