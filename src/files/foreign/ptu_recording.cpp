#include "files/foreign/ptu_recording.h"

#include <sys/stat.h>

#include <algorithm>

#include "core/log.h"
#include "files/foreign/channel_mapping.h"
#include "files/foreign/ptu_header.h"

namespace zeptick::foreign {

namespace {

constexpr size_t kChunkRecords = 1 << 16;

std::string settingsOf(const PtuHeader& header, const PtuRecordType& type, uint64_t records,
                       const PicosecondScale& global, const PicosecondScale& bin) {
  const bool t3 = type.layout == PtuLayout::PicoHarpT3 || type.layout == PtuLayout::HydraHarpT3;
  nlohmann::json settings = {
      {"format", "PTU"},
      {"tag_version", header.tag_version},
      {"record_type", type.name},
      {"mode", t3 ? "T3" : "T2"},
      {"records", records},
      {"global_resolution_ps", global.picoseconds()},
      {"channel_mapping", kChannelMappingText},
      {"header", header.tags},
  };
  if (t3) settings["resolution_ps"] = bin.picoseconds();
  // Garbled names are kept verbatim; invalid UTF-8 in them becomes U+FFFD.
  return settings.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

PtuRecording::PtuRecording(const std::string& path) : path(path) {
  file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    ZT_LOG_ERROR("File '%s' could not be opened.", path.c_str());
    return;
  }
  PtuHeader header;
  std::string error;
  if (!parsePtuHeader(file, header, error)) {
    ZT_LOG_ERROR("File '%s': %s.", path.c_str(), error.c_str());
    return;
  }
  const std::optional<PtuRecordType> type = ptuRecordType(header.record_type);
  if (!type) {
    ZT_LOG_ERROR("File '%s': PTU record type 0x%08llx is not supported.", path.c_str(),
                 static_cast<unsigned long long>(header.record_type));
    return;
  }
  if (header.bits_per_record != 32) {
    ZT_LOG_ERROR("File '%s': PTU records of %lld bits are not supported.", path.c_str(),
                 static_cast<long long>(header.bits_per_record));
    return;
  }
  const bool t3 = type->layout == PtuLayout::PicoHarpT3 || type->layout == PtuLayout::HydraHarpT3;
  const auto global = PicosecondScale::fromSeconds(header.global_resolution);
  const auto bin = t3 ? PicosecondScale::fromSeconds(header.resolution) : global;
  if (!global || !bin) {
    ZT_LOG_ERROR("File '%s': PTU header gives no usable %s (%g s).", path.c_str(),
                 global ? "MeasDesc_Resolution" : "MeasDesc_GlobalResolution",
                 global ? header.resolution : header.global_resolution);
    return;
  }

  struct stat status {};
  fstat(fileno(file), &status);
  data_offset = header.data_offset;
  const uint64_t size = static_cast<uint64_t>(status.st_size);
  const uint64_t present = size > data_offset ? (size - data_offset) / 4 : 0;
  records_left = present;
  if (!header.has_record_count || header.record_count <= 0) {
    ZT_LOG_WARNING("File '%s': PTU header gives %lld records; reading the %llu the file holds.",
                   path.c_str(), static_cast<long long>(header.record_count),
                   static_cast<unsigned long long>(present));
  } else if (static_cast<uint64_t>(header.record_count) > present) {
    cut_short = true;  // reported where the data stop
  } else if (static_cast<uint64_t>(header.record_count) < present) {
    ZT_LOG_WARNING("File '%s': PTU header gives %lld records, the file holds %llu; reading all.",
                   path.c_str(), static_cast<long long>(header.record_count),
                   static_cast<unsigned long long>(present));
  }
  // A partial record at the end also means the writing stopped early.
  if ((size - std::min(size, data_offset)) % 4 != 0) cut_short = true;
  announced = header.has_record_count ? header.record_count : -1;
  decoder.emplace(*type, *global, *bin);
  records.resize(std::min<uint64_t>(kChunkRecords, std::max<uint64_t>(present, 1)));
  start(settingsOf(header, *type, present, *global, *bin));
}

PtuRecording::~PtuRecording() {
  if (file != nullptr) std::fclose(file);
}

bool PtuRecording::decodeChunk(std::vector<Tag>& out) {
  const size_t want = static_cast<size_t>(std::min<uint64_t>(records_left, records.size()));
  const size_t got = want == 0 ? 0 : std::fread(records.data(), 4, want, file);
  // Room for a sync and a photon per record, so that the block grows once.
  out.reserve(out.size() + 2 * got);
  decoder->decode(records.data(), got, out);
  records_left -= got;
  records_read += got;
  if (got < want) {
    ZT_LOG_ERROR("File '%s': PTU record %llu (byte %llu) could not be read.", path.c_str(),
                 static_cast<unsigned long long>(records_read),
                 static_cast<unsigned long long>(data_offset + records_read * 4));
    return false;
  }
  if (records_left > 0) return true;
  if (cut_short) {
    ZT_LOG_ERROR(
        "File '%s' is cut short: the PTU header announces %lld records, the data end after "
        "record %llu (byte %llu).",
        path.c_str(), static_cast<long long>(announced),
        static_cast<unsigned long long>(records_read),
        static_cast<unsigned long long>(data_offset + records_read * 4));
  }
  return false;
}

int64_t PtuRecording::recordedUntil() const { return decoder ? decoder->overflowTime() : 0; }

}  // namespace zeptick::foreign
