// zeptick export FILE --to tags.csv|tags.h5 [--format csv|tags|photon-hdf5]: the recorded tags
// as text, as our own HDF5 datasets, or as Photon-HDF5 that photon-counting programs read.

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "hdf5_tags.h"
#include "units.h"
#include "zeptick/file_reader.h"
#include "zeptick/recording_conversion.h"
#include "zeptick/tag.h"

namespace zeptick::cli {

namespace {

struct ExportOptions {
  std::string file, to, format, begin = "0ps", duration;
  std::vector<int> channels;
};

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// One formatted write per block: a printf per tag would make CSV ten times slower than the
// file can be read. False when the write fails (a full disk).
bool writeCsvRows(FILE* csv, const std::vector<Tag>& tags, std::vector<char>& text) {
  if (tags.empty()) return true;  // fwrite must not see the null data of an empty buffer
  constexpr size_t kMaxRow = 48;  // "4,-2147483648,-9223372036854775808,65535\n" fits
  text.resize(tags.size() * kMaxRow);
  char* at = text.data();
  for (const Tag& tag : tags) {
    char* const end = at + kMaxRow;
    at = std::to_chars(at, end, static_cast<int>(tag.type)).ptr;
    *at++ = ',';
    at = std::to_chars(at, end, tag.channel).ptr;
    *at++ = ',';
    at = std::to_chars(at, end, tag.time).ptr;
    *at++ = ',';
    at = std::to_chars(at, end, tag.missed_events).ptr;
    *at++ = '\n';
  }
  const auto size = static_cast<size_t>(at - text.data());
  return std::fwrite(text.data(), 1, size, csv) == size;
}

// The format asked for, else the one the extension names: .h5 keeps our own tag layout, which
// scripts written before Photon-HDF5 export existed read.
std::string formatOf(const ExportOptions& o) {
  if (!o.format.empty()) return o.format;
  if (endsWith(o.to, ".h5") || endsWith(o.to, ".hdf5")) return "tags";
  if (endsWith(o.to, ".csv")) return "csv";
  throw std::invalid_argument("--to must name a .csv or an .h5 file, or give --format");
}

void exportTags(const ExportOptions& o) {
  const std::string format = formatOf(o);
  if (format == "photon-hdf5") {
    if (!o.channels.empty() || o.begin != "0ps" || !o.duration.empty()) {
      throw std::invalid_argument(
          "--channels, --begin and --duration do not apply to --format photon-hdf5, which "
          "writes the whole recording");
    }
    const uint64_t rows = exportPhotonHdf5(o.file, o.to);
    std::printf("%s: %llu photons and markers as Photon-HDF5\n", o.to.c_str(),
                static_cast<unsigned long long>(rows));
    return;
  }
  const bool hdf5 = format == "tags";
  // Times count from the recording's first tag: "--begin 1s" means one second in.
  const int64_t beginOffset = parseTime(o.begin);
  const int64_t span = o.duration.empty() ? INT64_MAX / 4 : parseTime(o.duration);
  int64_t begin = 0, end = 0;
  bool first = true;
  FileReader reader(o.file);
  std::unique_ptr<FILE, int (*)(FILE*)> csv(nullptr, &std::fclose);
  std::unique_ptr<Hdf5TagFile> h5;
  if (hdf5) {
    h5 = std::make_unique<Hdf5TagFile>(o.to, reader.getConfiguration());
  } else {
    csv.reset(std::fopen(o.to.c_str(), "w"));
    if (!csv) throw std::runtime_error("cannot write '" + o.to + "'; check the directory");
    std::fprintf(csv.get(), "type,channel,time_ps,missed_events\n");
  }
  std::vector<Tag> block;
  std::vector<Tag> kept;
  std::vector<char> text;
  while (reader.hasData()) {
    if (!reader.getDataRaw(block)) continue;
    kept.clear();
    for (const Tag& tag : block) {
      if (first) {
        begin = tag.time + beginOffset;
        end = begin + span;
        first = false;
      }
      if (tag.time < begin || tag.time >= end) continue;
      if (!o.channels.empty() &&
          std::find(o.channels.begin(), o.channels.end(), tag.channel) == o.channels.end())
        continue;
      kept.push_back(tag);
    }
    if (h5) {
      h5->append(kept);
      continue;
    }
    if (!writeCsvRows(csv.get(), kept, text)) {
      throw std::runtime_error("writing '" + o.to + "' failed");
    }
  }
  if (h5) {
    h5->close();
  } else if (std::fflush(csv.get()) != 0) {
    throw std::runtime_error("writing '" + o.to + "' failed");
  }
}

}  // namespace

void addExport(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "export",
      "Write the tags of a recording (ours, or a PTU, SPC or Photon-HDF5 file) as CSV "
      "(type,channel,time_ps,missed_events), as HDF5 tags (datasets type, channel, time in ps, "
      "missed_events; the configuration as an attribute) or as Photon-HDF5 (channel c as "
      "detector c-1, times in ps, micro times of T3 files as nanotimes)");
  auto o = std::make_shared<ExportOptions>();
  cmd->add_option("FILE", o->file,
                  "first file of the recording (.ztbin), or a PTU, SPC or "
                  "Photon-HDF5 file")
      ->required();
  cmd->add_option("--to", o->to, "output file: tags.csv or tags.h5")->required();
  cmd->add_option("--format", o->format,
                  "csv, tags or photon-hdf5 (default: csv for .csv, tags for .h5 and .hdf5)")
      ->check(CLI::IsMember({"csv", "tags", "photon-hdf5"}));
  cmd->add_option("--channels", o->channels, "only these channels (default all)")->delimiter(',');
  cmd->add_option("--begin", o->begin, "skip tags before this time, e.g. 10ms");
  cmd->add_option("--duration", o->duration, "export only this span after --begin, e.g. 1s");
  cmd->callback([o] { exportTags(*o); });
}

}  // namespace zeptick::cli
