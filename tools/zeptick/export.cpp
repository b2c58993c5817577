// zeptick export FILE --to tags.csv|tags.h5: the recorded tags as text or HDF5 datasets that
// another program reads.

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
#include "zeptick/tag.h"

namespace zeptick::cli {

namespace {

struct ExportOptions {
  std::string file, to, begin = "0ps", duration;
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

void exportTags(const ExportOptions& o) {
  const bool hdf5 = endsWith(o.to, ".h5") || endsWith(o.to, ".hdf5");
  if (!hdf5 && !endsWith(o.to, ".csv"))
    throw std::invalid_argument("--to must name a .csv or an .h5 file");
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
      "Write the tags of a recording as CSV (type,channel,time_ps,missed_events) or as HDF5 "
      "(datasets type, channel, time in ps, missed_events; the configuration as an attribute)");
  auto o = std::make_shared<ExportOptions>();
  cmd->add_option("FILE", o->file, "first file of the recording (.ztbin)")->required();
  cmd->add_option("--to", o->to, "output file: tags.csv or tags.h5")->required();
  cmd->add_option("--channels", o->channels, "only these channels (default all)")->delimiter(',');
  cmd->add_option("--begin", o->begin, "skip tags before this time, e.g. 10ms");
  cmd->add_option("--duration", o->duration, "export only this span after --begin, e.g. 1s");
  cmd->callback([o] { exportTags(*o); });
}

}  // namespace zeptick::cli
