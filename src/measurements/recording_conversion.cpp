// Recordings into other forms: Photon-HDF5 for other programs, and other instruments' files
// into our signed .ztbin format.

#include "zeptick/recording_conversion.h"

#include <algorithm>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

#include "core/log.h"
#include "files/file_format.h"
#include "files/foreign/channel_mapping.h"
#include "files/foreign/foreign_format.h"
#include "files/foreign/photon_hdf5_writer.h"
#include "files/zeptick_file_writer.h"
#include "zeptick/file_reader.h"

namespace zeptick {

namespace {

using foreign::kSyncChannel;

nlohmann::json parsed(const std::string& configuration) {
  auto json = nlohmann::json::parse(configuration, nullptr, false);
  return json.is_object() ? json : nlohmann::json::object();
}

// The sync period in seconds of a foreign recording whose photons carry micro times; 0 for a
// recording without them. Our own recordings have none.
double microTimePeriod(const nlohmann::json& settings) {
  const std::string format = settings.value("format", "");
  if (format == "PTU" && settings.value("mode", "") == "T3") {
    return settings.value("global_resolution_ps", 0.0) * 1e-12;
  }
  if (format == "SPC FIFO" && settings.contains("tac_bin_ps")) {
    return settings.value("macrotime_clock_ps", 0.0) * 1e-12;
  }
  if (format == "Photon-HDF5" && settings.contains("groups")) {
    for (const auto& group : settings["groups"]) {
      if (!group.contains("tcspc_unit_ps")) continue;
      const auto range = group.find("nanotimes_specs/tcspc_range");
      // A file without a range still has micro times; the longest one found stands in.
      return range != group.end() && range->is_number() ? range->get<double>()
                                                        : std::numeric_limits<double>::min();
    }
  }
  return 0.0;
}

std::string sourceSoftware(const nlohmann::json& settings, bool foreign) {
  if (!foreign) return "zeptick";
  const auto text = [](const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>() : std::string();
  };
  if (settings.contains("header")) return text(settings["header"].value("CreatorSW_Name", ""));
  if (settings.contains("provenance/software")) return text(settings["provenance/software"]);
  return {};
}

std::string label(int32_t channel, bool micro_times) {
  if (channel == kSyncChannel) return micro_times ? "sync" : "sync (channel 1000)";
  if (channel > foreign::kMarkerChannelBase) {
    return "marker " + std::to_string(channel - foreign::kMarkerChannelBase) + " (channel " +
           std::to_string(channel) + ")";
  }
  return "channel " + std::to_string(channel);
}

}  // namespace

uint64_t exportPhotonHdf5(const std::string& recording, const std::string& path) {
  const bool foreign = foreign::detectForeignFormat(recording) != foreign::ForeignFormat::None;
  FileReader reader(recording);
  const std::string configuration = reader.getConfiguration();
  if (foreign && configuration.empty()) {
    throw std::runtime_error("'" + recording + "' could not be read; the log says why");
  }
  const nlohmann::json settings = parsed(configuration);
  const double period = foreign ? microTimePeriod(settings) : 0.0;
  const bool micro_times = period > 0;

  foreign::PhotonHdf5Writer out(path, micro_times);
  foreign::PhotonHdf5Description about;
  std::set<int32_t> markers;
  int64_t first = 0, last = 0, sync = std::numeric_limits<int64_t>::min();
  uint64_t rows = 0, dropped = 0, longest = 0;
  bool any = false;
  std::vector<Tag> block;
  while (reader.hasData()) {
    if (!reader.getDataRaw(block)) continue;
    for (const Tag& tag : block) {
      if (tag.type != Tag::Type::TimeTag) {
        ++dropped;
        continue;
      }
      if (!any) first = tag.time;
      any = true;
      last = tag.time;
      const int32_t detector = tag.channel - 1;
      if (!micro_times) {
        out.append(tag.time, detector, 0);
      } else if (tag.channel == kSyncChannel) {
        sync = tag.time;  // implied by the timestamps of its photons
        continue;
      } else if (tag.channel > foreign::kMarkerChannelBase) {
        markers.insert(detector);
        out.append(tag.time, detector, 0);
      } else {
        // Each photon of these formats follows its sync; one that did not would be its own.
        // Unsigned: the difference to "no sync yet" does not fit a signed one.
        if (sync > tag.time || static_cast<uint64_t>(tag.time) - static_cast<uint64_t>(sync) >
                                   std::numeric_limits<uint32_t>::max()) {
          sync = tag.time;
        }
        longest = std::max<uint64_t>(longest, static_cast<uint64_t>(tag.time - sync));
        out.append(sync, detector, static_cast<uint32_t>(tag.time - sync));
      }
      ++about.detectors[detector];
      ++rows;
    }
  }
  if (dropped > 0) {
    ZT_LOG_WARNING(
        "Photon-HDF5 export of '%s': %llu overflow, missed-event or error tags have no place in "
        "the format and were left out.",
        recording.c_str(), static_cast<unsigned long long>(dropped));
  }
  for (const auto& [detector, count] : about.detectors) {
    about.labels[detector] = label(detector + 1, micro_times);
  }
  about.marker_detectors.assign(markers.begin(), markers.end());
  about.source_path = recording;
  about.source_software = sourceSoftware(settings, foreign);
  about.description = "Time tags of " + recording + ", exported by zeptick";
  // Other instruments' recordings start at time 0; ours on the tagger's running clock.
  about.acquisition_duration = static_cast<double>(last - (foreign ? 0 : first)) * 1e-12;
  about.tcspc_range = std::max(period, static_cast<double>(longest + 1) * 1e-12);
  if (!micro_times) about.tcspc_range = 0;
  out.finish(about);
  return rows;
}

uint64_t convertToZtbin(const std::string& recording, const std::string& target) {
  const foreign::ForeignFormat format = foreign::detectForeignFormat(recording);
  if (format == foreign::ForeignFormat::None) {
    throw std::runtime_error("'" + recording +
                             "' is not a PTU, SPC or Photon-HDF5 file that could be converted");
  }
  // The channel map comes before the tags, so a first pass finds the channels.
  std::vector<std::pair<int32_t, int32_t>> channels;
  {
    std::unique_ptr<RecordingSource> scan = foreign::openForeignRecording(recording, format);
    if (!scan->isOpen()) {
      throw std::runtime_error("'" + recording + "' could not be read; the log says why");
    }
    std::set<int32_t> seen;
    std::vector<Tag> tags;
    int64_t begin = 0, end = 0;
    uint64_t lost = 0;
    while (scan->getBlockRange(begin, end) && scan->decodeBlock(tags, begin, lost)) {
      for (const Tag& tag : tags) {
        if (tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents) {
          seen.insert(tag.channel);
        }
      }
    }
    for (int32_t channel : seen) channels.emplace_back(channel, CHANNEL_UNUSED);
  }
  if (channels.size() > static_cast<size_t>(ZeptickFile::MAX_CHANNELS)) {
    throw std::runtime_error("'" + recording + "' has more channels than a .ztbin file holds");
  }

  std::unique_ptr<RecordingSource> source = foreign::openForeignRecording(recording, format);
  ZeptickFile::FileId file_id{};
  std::random_device random;
  for (uint32_t& word : file_id) word = random();
  const std::string settings = source->getConfiguration();
  // File 0 holds the settings and the channel map only, as FileWriter writes it.
  {
    ZeptickFileWriter head(target, 0, file_id);
    head.writeConfiguration(settings);
    head.writeChannelMap(channels);
  }
  ZeptickFileWriter body(target, 1, file_id);
  body.writeConfiguration(settings);
  body.writeChannelMap(channels);
  std::vector<Tag> tags;
  int64_t begin = 0, end = 0;
  uint64_t lost = 0, written = 0;
  while (source->getBlockRange(begin, end) && source->decodeBlock(tags, begin, lost)) {
    ZeptickFileWriter::TimeTagBlockState* state = body.encodeBlock(tags, begin, end);
    ZeptickFileWriter::finishBlock(state);
    body.writeBlock(state);
    body.recycleBlock(state);
    written += tags.size();
  }
  return written;
}

}  // namespace zeptick
