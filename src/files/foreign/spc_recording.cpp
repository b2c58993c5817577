#include "files/foreign/spc_recording.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>

#include "core/log.h"
#include "files/foreign/channel_mapping.h"

namespace zeptick::foreign {

namespace {

constexpr size_t kChunkRecords = 1 << 16;
constexpr uint64_t kMacroWrap = 4096;
constexpr uint32_t kInvalid = 1u << 31, kOverflow = 1u << 30, kGap = 1u << 29, kMark = 1u << 28;
// The settings of a .set file are a few kilobytes; more is not a .set file.
constexpr size_t kMaxSettingsBytes = 1 << 20;

}  // namespace

bool isSpcFirstWord(uint32_t word) {
  return (word & kInvalid) != 0 && (word & 0x78000000u) == 0 && (word & 0xFFFFFFu) != 0;
}

std::optional<std::string> spcSettingsPath(const std::string& spc_path) {
  for (const char* extension : {".set", ".SET"}) {
    std::filesystem::path candidate(spc_path);
    candidate.replace_extension(extension);
    std::error_code ignored;
    if (std::filesystem::is_regular_file(candidate, ignored)) return candidate.string();
  }
  return std::nullopt;
}

SpcRecording::SpcRecording(const std::string& path) : path(path) {
  file = std::fopen(path.c_str(), "rb");
  uint32_t first = 0;
  if (file == nullptr || std::fread(&first, 4, 1, file) != 1 || !isSpcFirstWord(first)) {
    ZT_LOG_ERROR("File '%s' is not an SPC FIFO file (first word).", path.c_str());
    return;
  }
  // The clock is stored in tenths of a nanosecond: a whole number of picoseconds.
  macro_clock = PicosecondScale::wholePicoseconds(uint64_t{first & 0xFFFFFFu} * 100);
  struct stat status {};
  fstat(fileno(file), &status);
  const uint64_t data = static_cast<uint64_t>(status.st_size) - 4;
  records_left = data / 4;
  cut_short = data % 4 != 0;
  records.resize(std::min<uint64_t>(kChunkRecords, std::max<uint64_t>(records_left, 1)));

  nlohmann::json settings = {
      {"format", "SPC FIFO"},
      {"macrotime_clock_ps", macro_clock.picoseconds()},
      {"markers_present", (first >> 25) & 1},
      {"records", records_left},
      {"channel_mapping", kChannelMappingText},
  };
  const std::optional<std::string> set_path = spcSettingsPath(path);
  if (set_path) {
    settings["settings_file"] = *set_path;
    settings["parameters"] = readSettings(*set_path);
  } else {
    ZT_LOG_WARNING(
        "File '%s' has no .set file beside it: the TAC bin is unknown, so photons "
        "carry their macrotime only.",
        path.c_str());
  }
  if (tac_bin) settings["tac_bin_ps"] = tac_bin->picoseconds();
  start(settings.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
}

SpcRecording::~SpcRecording() {
  if (file != nullptr) std::fclose(file);
}

// The "#SP [NAME,type,value]" lines of the .set file's text part; sets the TAC bin.
nlohmann::json SpcRecording::readSettings(const std::string& set_path) {
  std::ifstream in(set_path, std::ios::binary);
  std::error_code unknown;
  const auto size = std::filesystem::file_size(set_path, unknown);
  std::string text(unknown ? 0 : std::min<size_t>(size, kMaxSettingsBytes), '\0');
  in.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<size_t>(in.gcount()));
  nlohmann::json parameters = nlohmann::json::object();
  std::map<std::string, double> numbers;
  for (size_t at = text.find("#SP ["); at != std::string::npos; at = text.find("#SP [", at)) {
    at += 5;
    const size_t close = text.find_first_of("]\r\n", at);
    if (close == std::string::npos) break;
    const std::string entry = text.substr(at, close - at);
    const size_t first = entry.find(','), second = entry.find(',', first + 1);
    if (first == std::string::npos || second == std::string::npos) continue;
    const std::string name = entry.substr(0, first), value = entry.substr(second + 1);
    char* rest = nullptr;
    const double number = std::strtod(value.c_str(), &rest);
    if (entry.compare(first + 1, second - first - 1, "S") != 0 && rest != value.c_str()) {
      numbers[name] = number;
      parameters[name] = number;
    } else {
      parameters[name] = value;
    }
  }
  double bin = numbers.count("SP_TAC_TC") ? numbers["SP_TAC_TC"] : 0.0;
  if (!(bin > 0.0) && numbers.count("SP_TAC_R") && numbers.count("SP_TAC_G")) {
    bin = numbers["SP_TAC_R"] / numbers["SP_TAC_G"] / 4096.0;
  }
  tac_bin = PicosecondScale::fromSeconds(bin);
  if (!tac_bin) {
    ZT_LOG_WARNING("File '%s' gives no TAC bin: photons carry their macrotime only.",
                   set_path.c_str());
  }
  return parameters;
}

bool SpcRecording::decodeChunk(std::vector<Tag>& out) {
  const size_t want = static_cast<size_t>(std::min<uint64_t>(records_left, records.size()));
  const size_t got = want == 0 ? 0 : std::fread(records.data(), 4, want, file);
  out.reserve(out.size() + 2 * got);  // a sync and a photon per record: the block grows once
  for (size_t i = 0; i < got; ++i) {
    const uint32_t word = records[i];
    if ((word & (kInvalid | kOverflow | kMark)) == (kInvalid | kOverflow)) {
      accumulator += kMacroWrap * (word & 0x0FFFFFFFu);  // a count of overflows
      continue;
    }
    if (word & kOverflow) accumulator += kMacroWrap;
    const uint64_t macro = accumulator + (word & 0xFFF);
    const int64_t macro_time = macro_clock(macro);
    if (word & kGap) out.push_back(Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, macro_time});
    if (word & kMark) {
      appendMarkers(out, (word >> 12) & 0xF, macro_time);
      continue;
    }
    if (word & kInvalid) continue;  // a photon out of the TAC range
    const int32_t channel = detectorChannel((word >> 12) & 0xF);
    if (!tac_bin) {
      out.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, macro_time});
      continue;
    }
    if (macro != last_sync) {
      last_sync = macro;
      out.push_back(Tag{Tag::Type::TimeTag, 0, 0, kSyncChannel, macro_time});
    }
    const uint32_t micro = 4095 - ((word >> 16) & 0xFFF);
    out.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel,
                      PicosecondScale::round(macro_clock.exact(macro) + tac_bin->exact(micro))});
  }
  records_left -= got;
  records_read += got;
  if (got < want) {
    ZT_LOG_ERROR("File '%s': SPC record %llu (byte %llu) could not be read.", path.c_str(),
                 static_cast<unsigned long long>(records_read),
                 static_cast<unsigned long long>(4 + records_read * 4));
    return false;
  }
  if (records_left > 0) return true;
  if (cut_short) {
    ZT_LOG_ERROR("File '%s' is cut short: SPC data end inside record %llu (byte %llu).",
                 path.c_str(), static_cast<unsigned long long>(records_read),
                 static_cast<unsigned long long>(4 + records_read * 4));
  }
  return false;
}

}  // namespace zeptick::foreign
