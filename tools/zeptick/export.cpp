// zeptick export FILE --to tags.csv: the recorded tags as text another program reads.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "units.h"
#include "zeptick/file_reader.h"
#include "zeptick/tag.h"

namespace zeptick::cli {

namespace {

struct ExportOptions {
  std::string file, to, begin = "0ps", duration;
  std::vector<int> channels;
};

void exportCsv(const ExportOptions& o) {
  if (o.to.size() < 4 || o.to.substr(o.to.size() - 4) != ".csv")
    throw std::invalid_argument("--to must name a .csv file");
  // Times count from the recording's first tag: "--begin 1s" means one second in.
  const int64_t beginOffset = parseTime(o.begin);
  const int64_t span = o.duration.empty() ? INT64_MAX / 4 : parseTime(o.duration);
  int64_t begin = 0, end = 0;
  bool first = true;
  FileReader reader(o.file);
  std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(o.to.c_str(), "w"), &std::fclose);
  if (!out) throw std::runtime_error("cannot write '" + o.to + "'; check the directory");
  std::fprintf(out.get(), "type,channel,time_ps,missed_events\n");
  std::vector<Tag> block;
  while (reader.hasData()) {
    if (!reader.getDataRaw(block)) continue;
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
      std::fprintf(out.get(), "%d,%d,%lld,%u\n", static_cast<int>(tag.type), tag.channel,
                   static_cast<long long>(tag.time), static_cast<unsigned>(tag.missed_events));
    }
  }
  if (std::fflush(out.get()) != 0) throw std::runtime_error("writing '" + o.to + "' failed");
}

}  // namespace

void addExport(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "export", "Write the tags of a recording as CSV: type,channel,time_ps,missed_events");
  auto o = std::make_shared<ExportOptions>();
  cmd->add_option("FILE", o->file, "first file of the recording (.ztbin)")->required();
  cmd->add_option("--to", o->to, "output file, e.g. tags.csv")->required();
  cmd->add_option("--channels", o->channels, "only these channels (default all)")->delimiter(',');
  cmd->add_option("--begin", o->begin, "skip tags before this time, e.g. 10ms");
  cmd->add_option("--duration", o->duration, "export only this span after --begin, e.g. 1s");
  cmd->callback([o] { exportCsv(*o); });
}

}  // namespace zeptick::cli
