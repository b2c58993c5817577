#include "files/foreign/ptu_records.h"

#include "files/foreign/channel_mapping.h"

namespace zeptick::foreign {

namespace {

// Overflow periods in time units. The PicoHarp T2 period is not a power of two.
constexpr uint64_t kPicoHarpT2Wrap = 210698240;
constexpr uint64_t kPicoHarpT3Wrap = 65536;
constexpr uint64_t kHydraHarpT2WrapV1 = 33552000;
constexpr uint64_t kHydraHarpT2Wrap = uint64_t{1} << 25;
constexpr uint64_t kHydraHarpT3Wrap = 1024;

Tag event(int32_t channel, int64_t time) { return Tag{Tag::Type::TimeTag, 0, 0, channel, time}; }

}  // namespace

std::optional<PtuRecordType> ptuRecordType(int64_t code) {
  switch (code) {
    case 0x00010203:
      return PtuRecordType{PtuLayout::PicoHarpT2, false, "PicoHarp 300 T2"};
    case 0x00010303:
      return PtuRecordType{PtuLayout::PicoHarpT3, false, "PicoHarp 300 T3"};
    case 0x00010204:
      return PtuRecordType{PtuLayout::HydraHarpT2, true, "HydraHarp V1 T2"};
    case 0x00010304:
      return PtuRecordType{PtuLayout::HydraHarpT3, true, "HydraHarp V1 T3"};
    case 0x01010204:
      return PtuRecordType{PtuLayout::HydraHarpT2, false, "HydraHarp V2 T2"};
    case 0x01010304:
      return PtuRecordType{PtuLayout::HydraHarpT3, false, "HydraHarp V2 T3"};
    case 0x00010205:
      return PtuRecordType{PtuLayout::HydraHarpT2, false, "TimeHarp 260 N T2"};
    case 0x00010305:
      return PtuRecordType{PtuLayout::HydraHarpT3, false, "TimeHarp 260 N T3"};
    case 0x00010206:
      return PtuRecordType{PtuLayout::HydraHarpT2, false, "TimeHarp 260 P T2"};
    case 0x00010306:
      return PtuRecordType{PtuLayout::HydraHarpT3, false, "TimeHarp 260 P T3"};
    case 0x00010207:
      return PtuRecordType{PtuLayout::HydraHarpT2, false, "Generic T2"};
    case 0x00010307:
      return PtuRecordType{PtuLayout::HydraHarpT3, false, "Generic T3"};
    default:
      return std::nullopt;
  }
}

void PtuRecordDecoder::decode(const uint32_t* records, size_t count, std::vector<Tag>& out) {
  switch (type.layout) {
    case PtuLayout::PicoHarpT2:
      return decodeAs<PtuLayout::PicoHarpT2>(records, count, out);
    case PtuLayout::PicoHarpT3:
      return decodeAs<PtuLayout::PicoHarpT3>(records, count, out);
    case PtuLayout::HydraHarpT2:
      return decodeAs<PtuLayout::HydraHarpT2>(records, count, out);
    case PtuLayout::HydraHarpT3:
      return decodeAs<PtuLayout::HydraHarpT3>(records, count, out);
  }
}

// One sync tag for each sync period that holds an event, then the event: a histogram started by
// the sync channel then gives every photon its own sync, as the lifetime histogram does.
void PtuRecordDecoder::photonT3(std::vector<Tag>& out, int32_t channel, uint64_t sync,
                                uint32_t dtime) {
  const PicosecondScale::Fixed sync_time = global.exact(sync);
  if (sync != last_sync) {
    last_sync = sync;
    out.push_back(event(kSyncChannel, PicosecondScale::round(sync_time)));
  }
  out.push_back(event(channel, PicosecondScale::round(sync_time + bin.exact(dtime))));
}

template <PtuLayout layout>
void PtuRecordDecoder::decodeAs(const uint32_t* records, size_t count, std::vector<Tag>& out) {
  const bool v1 = type.version1;
  for (size_t i = 0; i < count; ++i) {
    const uint32_t word = records[i];
    if constexpr (layout == PtuLayout::PicoHarpT2) {
      const uint32_t channel = word >> 28;
      const uint32_t time = word & 0x0FFFFFFF;
      if (channel != 15) {
        out.push_back(event(detectorChannel(channel), global(accumulator + time)));
      } else if ((time & 0xF) == 0) {
        accumulator += kPicoHarpT2Wrap;
      } else {
        appendMarkers(out, time & 0xF, global(accumulator + time));
      }
    } else if constexpr (layout == PtuLayout::PicoHarpT3) {
      const uint32_t channel = word >> 28;
      const uint32_t dtime = (word >> 16) & 0xFFF;
      const uint32_t nsync = word & 0xFFFF;
      if (channel != 15) {
        // Router channels count from 1.
        photonT3(out, detectorChannel(static_cast<int64_t>(channel) - 1), accumulator + nsync,
                 dtime);
      } else if (dtime == 0) {
        accumulator += kPicoHarpT3Wrap;
      } else {
        appendMarkers(out, dtime, global(accumulator + nsync));
      }
    } else if constexpr (layout == PtuLayout::HydraHarpT2) {
      const uint32_t channel = (word >> 25) & 63;
      const uint32_t time = word & 0x1FFFFFF;
      if ((word >> 31) == 0) {
        out.push_back(event(detectorChannel(channel), global(accumulator + time)));
      } else if (channel == 63) {
        accumulator += v1 ? kHydraHarpT2WrapV1 : kHydraHarpT2Wrap * (time == 0 ? 1 : time);
      } else if (channel == 0) {
        out.push_back(event(kSyncChannel, global(accumulator + time)));
      } else {
        appendMarkers(out, channel, global(accumulator + time));
      }
    } else {
      const uint32_t channel = (word >> 25) & 63;
      const uint32_t dtime = (word >> 10) & 0x7FFF;
      const uint32_t nsync = word & 0x3FF;
      if ((word >> 31) == 0) {
        photonT3(out, detectorChannel(channel), accumulator + nsync, dtime);
      } else if (channel == 63) {
        accumulator += kHydraHarpT3Wrap * (v1 || nsync == 0 ? 1 : nsync);
      } else {
        appendMarkers(out, channel, global(accumulator + nsync));
      }
    }
  }
}

}  // namespace zeptick::foreign
