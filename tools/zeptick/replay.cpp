// zeptick replay FILE: plays a recording through the replay tagger into count
// rates, a start-stop histogram or a correlation, and writes the result as CSV.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "files/foreign/foreign_format.h"
#include "files/zeptick_file_reader.h"
#include "live.h"
#include "plot.h"
#include "units.h"
#include "zeptick/correlation.h"
#include "zeptick/countrate.h"
#include "zeptick/histogram.h"
#include "zeptick/library.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli {

namespace {

struct ReplayOptions {
  std::string file, measure = "rates", channels, begin = "0ps", duration, binwidth = "10ps", out,
                    plot;
  double speed = -1.0;
  int start = 1, stop = 2, bins = 1000;
};

// The channels the recording's channel map names, in rising order. Other instruments' files
// have no channel map: their channels are those their events use.
std::vector<int> recordedChannels(const std::string& file) {
  const foreign::ForeignFormat format = foreign::detectForeignFormat(file);
  if (format != foreign::ForeignFormat::None) {
    std::unique_ptr<RecordingSource> reader = foreign::openForeignRecording(file, format);
    std::set<int> used;
    std::vector<Tag> tags;
    uint64_t errors = 0;
    int64_t begin = 0, end = 0;
    while (reader->getBlockRange(begin, end)) {
      reader->decodeBlock(tags, begin, errors);
      for (const Tag& tag : tags) {
        if (tag.type == Tag::Type::TimeTag) used.insert(tag.channel);
      }
    }
    return std::vector<int>(used.begin(), used.end());
  }
  ZeptickFileReader reader(file, false);
  if (!reader.isOpen()) throw std::runtime_error("could not open '" + file + "'");
  std::vector<int> channels = reader.getRecordedChannels();
  std::sort(channels.begin(), channels.end());
  return channels;
}

template <class Measurement, class Value>
std::vector<Value> dataOf(Measurement& m) {
  std::vector<Value> values;
  m.getData([&](size_t n) { return values.assign(n, Value{}), values.data(); });
  return values;
}

void runReplay(const ReplayOptions& o) {
  const int64_t begin = parseTime(o.begin);
  const int64_t duration = o.duration.empty() ? -1 : parseTime(o.duration);
  const int64_t binwidth = parseTime(o.binwidth);
  if (binwidth <= 0) throw std::invalid_argument("--binwidth must be at least 1ps");
  if (o.speed == 0.0) throw std::invalid_argument("--speed must not be 0");
  if (!o.plot.empty()) checkPlotName(o.plot);
  std::unique_ptr<ZeptickVirtual, bool (*)(ZeptickBase*)> tagger(createZeptickVirtual(),
                                                                 freeZeptick);
  tagger->setReplaySpeed(o.speed);
  std::unique_ptr<Countrate> rates;
  std::unique_ptr<Histogram> histogram;
  std::unique_ptr<Correlation> correlation;
  std::vector<int> channels;
  if (o.measure == "rates") {
    channels =
        o.channels.empty() ? recordedChannels(o.file) : parseChannels(o.channels, "--channels");
    rates = std::make_unique<Countrate>(tagger.get(), channels);
  } else if (o.measure == "histogram") {
    histogram = std::make_unique<Histogram>(tagger.get(), o.stop, o.start, binwidth, o.bins);
  } else {
    correlation = std::make_unique<Correlation>(tagger.get(), o.start, o.stop, binwidth, o.bins);
  }
  catchInterrupts();
  const uint64_t id = tagger->replay(o.file, begin, duration);
  while (!tagger->waitForCompletion(id, 100)) {
    if (interrupted()) tagger->stop();
  }
  std::string csv;
  char line[96];
  auto row = [&](int length) { csv.append(line, static_cast<size_t>(length)); };
  if (rates) {
    const auto values = dataOf<Countrate, double>(*rates);
    std::vector<int64_t> totals;
    rates->getCountsTotal([&](size_t n) { return totals.assign(n, 0), totals.data(); });
    csv = "channel,counts,rate_per_s\n";
    for (size_t i = 0; i < channels.size(); ++i) {
      row(std::snprintf(line, sizeof line, "%d,%lld,%.6g\n", channels[i],
                        static_cast<long long>(totals[i]), values[i]));
    }
  } else {
    std::vector<int64_t> index;
    auto indexOut = [&](size_t n) { return index.assign(n, 0), index.data(); };
    std::vector<int32_t> counts;
    if (histogram) {
      histogram->getIndex(indexOut);
      counts = dataOf<Histogram, int32_t>(*histogram);
    } else {
      correlation->getIndex(indexOut);
      counts = dataOf<Correlation, int32_t>(*correlation);
    }
    csv = "bin_ps,counts\n";
    for (size_t i = 0; i < counts.size(); ++i) {
      row(std::snprintf(line, sizeof line, "%lld,%d\n", static_cast<long long>(index[i]),
                        counts[i]));
    }
  }
  emitCsv(csv, o.out, o.plot, o.measure + " of " + o.file);
}

}  // namespace

void addReplay(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "replay",
      "Play a recording through a measurement (rates, histogram or correlation); CSV out");
  auto o = std::make_shared<ReplayOptions>();
  cmd->add_option("FILE", o->file, "first file of the recording (.ztbin)")->required();
  cmd->add_option("--measure", o->measure, "rates (default), histogram or correlation")
      ->check(CLI::IsMember({"rates", "histogram", "correlation"}));
  cmd->add_option("--channels", o->channels, "channels for rates (default: every recorded one)");
  cmd->add_option("--start", o->start, "start channel / first channel (default 1)");
  cmd->add_option("--stop", o->stop, "stop channel / second channel (default 2)");
  cmd->add_option("--binwidth", o->binwidth, "bin width with unit (default 10ps)");
  cmd->add_option("--bins", o->bins, "number of bins (default 1000)")
      ->check(CLI::Range(1, 1 << 26));
  cmd->add_option("--speed", o->speed, "times real time; negative: as fast as possible (default)");
  cmd->add_option("--begin", o->begin, "skip this much of the recording, with unit");
  cmd->add_option("--duration", o->duration, "play only this much, with unit");
  cmd->add_option("--out", o->out, "CSV file to write instead of stdout");
  cmd->add_option("--plot", o->plot, "also draw the result into this .svg or .png file");
  cmd->callback([o] { runReplay(*o); });
}

}  // namespace zeptick::cli
