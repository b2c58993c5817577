// zeptick histogram FILE --start 1 --stop 2: start-stop time differences of a
// recording, read straight from disk, as CSV (bin start in ps, counts).

#include <cstdint>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "plot.h"
#include "units.h"
#include "zeptick/file_reader.h"
#include "zeptick/tag.h"

namespace zeptick::cli {

namespace {

struct HistogramOptions {
  std::string file, binwidth = "10ps", out, plot;
  int start = 1, stop = 2, bins = 1000;
};

// Each stop counts against the latest start before it, as a start-stop
// measurement does; starts lost in an overflow are forgotten.
std::vector<uint64_t> startStop(const HistogramOptions& o, int64_t width) {
  std::vector<uint64_t> counts(static_cast<size_t>(o.bins), 0);
  FileReader reader(o.file);
  std::vector<Tag> block;
  bool haveStart = false;
  int64_t lastStart = 0;
  while (reader.hasData()) {
    if (!reader.getDataRaw(block)) continue;
    for (const Tag& tag : block) {
      if (tag.type == Tag::Type::OverflowBegin) haveStart = false;
      if (tag.type != Tag::Type::TimeTag) continue;
      if (tag.channel == o.stop && haveStart) {
        const int64_t bin = (tag.time - lastStart) / width;
        if (bin < o.bins) ++counts[static_cast<size_t>(bin)];
        haveStart = false;
      }
      if (tag.channel == o.start) {
        lastStart = tag.time;
        haveStart = true;
      }
    }
  }
  return counts;
}

}  // namespace

void addHistogram(CLI::App& app) {
  auto* cmd =
      app.add_subcommand("histogram",
                         "Histogram the time from a start channel to the next stop in a recording; "
                         "writes CSV (bin_ps,counts) to stdout or --out");
  auto o = std::make_shared<HistogramOptions>();
  cmd->add_option("FILE", o->file, "first file of the recording (.ztbin)")->required();
  cmd->add_option("--start", o->start, "start channel (default 1)");
  cmd->add_option("--stop", o->stop, "stop channel (default 2)");
  cmd->add_option("--binwidth", o->binwidth, "bin width with unit (default 10ps)");
  cmd->add_option("--bins", o->bins, "number of bins (default 1000)")
      ->check(CLI::Range(1, 1 << 26));
  cmd->add_option("--out", o->out, "CSV file to write instead of stdout");
  cmd->add_option("--plot", o->plot, "also draw the histogram into this .svg or .png file");
  cmd->callback([o] {
    const int64_t width = parseTime(o->binwidth);
    if (width <= 0) throw std::invalid_argument("--binwidth must be at least 1ps");
    if (!o->plot.empty()) checkPlotName(o->plot);
    const auto counts = startStop(*o, width);
    std::string csv = "bin_ps,counts\n";
    char line[64];
    for (size_t i = 0; i < counts.size(); ++i) {
      csv.append(line, static_cast<size_t>(std::snprintf(
                           line, sizeof line, "%lld,%llu\n", static_cast<long long>(i) * width,
                           static_cast<unsigned long long>(counts[i]))));
    }
    emitCsv(csv, o->out, o->plot, "start-stop histogram of " + o->file);
  });
}

}  // namespace zeptick::cli
