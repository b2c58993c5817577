#pragma once

#include <cstdint>

namespace zeptick {

/// Channel id meaning "no channel", in arguments and in tags (bit pattern 0xF8000000).
inline constexpr int32_t CHANNEL_UNUSED = -134217728;

/// One event of the stream. The 16-byte layout is shared by the measurements,
/// the file format and every public buffer, so it must never change.
struct Tag {
  enum class Type : uint8_t {
    TimeTag = 0,        ///< one detected event on `channel` at `time`
    Error = 1,          ///< the device reported an error at `time`
    OverflowBegin = 2,  ///< events are lost from `time` on
    OverflowEnd = 3,    ///< events are complete again from `time` on
    MissedEvents = 4,   ///< `missed_events` events were lost on `channel`
  };

  Type type;
  uint8_t reserved;        ///< always written 0
  uint16_t missed_events;  ///< lost events for MissedEvents tags, 0 otherwise
  int32_t channel;         ///< channel number, or CHANNEL_UNUSED
  int64_t time;            ///< picoseconds on the tagger's stream clock
};

static_assert(sizeof(Tag) == 16, "Tag is a 16-byte wire and file record");

/// A counted event is a TimeTag or a MissedEvents tag (types 0 and 4).
constexpr bool isCountedEvent(const Tag& tag) {
  return (static_cast<uint8_t>(tag.type) & 0xFB) == 0;
}

/// Anything but a plain TimeTag.
constexpr bool isSpecialTag(const Tag& tag) { return tag.type != Tag::Type::TimeTag; }

/// Channel numbering schemes, process-wide; see setZeptickChannelNumberScheme.
inline constexpr int ZT_CHANNEL_NUMBER_SCHEME_AUTO = 0;
inline constexpr int ZT_CHANNEL_NUMBER_SCHEME_ZERO = 1;
inline constexpr int ZT_CHANNEL_NUMBER_SCHEME_ONE = 2;

}  // namespace zeptick
