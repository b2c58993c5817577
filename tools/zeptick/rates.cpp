// zeptick rates: live count rates, one line per interval, until Ctrl-C or
// --duration. On a terminal the line is rewritten in place.

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "live.h"
#include "units.h"
#include "zeptick/countrate.h"
#include "zeptick/library.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli {

namespace {

struct RatesOptions {
  std::string serial, channels, interval = "1s", duration;
  bool test_signal = false;
};

void runRates(const RatesOptions& o) {
  const int64_t interval = parseTime(o.interval);
  if (interval < 1000000) throw std::invalid_argument("--interval must be at least 1us");
  const int64_t duration = o.duration.empty() ? -1 : parseTime(o.duration);
  const std::vector<int> chosen =
      o.channels.empty() ? std::vector<int>{} : parseChannels(o.channels, "--channels");
  std::unique_ptr<Zeptick, bool (*)(ZeptickBase*)> tagger(openInstrument(o.serial), freeZeptick);
  const std::vector<int> channels = channelsOrAll(tagger.get(), chosen);
  if (o.test_signal) tagger->setTestSignal(channels, true);
  Countrate rates(tagger.get(), channels);
  const bool terminal = isatty(STDOUT_FILENO) != 0;
  catchInterrupts();
  std::printf("# counts per second on channels");
  for (int channel : channels) std::printf(" %d", channel);
  std::printf("\n");
  for (int64_t elapsed = 0; !interrupted() && (duration < 0 || elapsed < duration);
       elapsed += interval) {
    rates.clear();
    sleepUnlessInterrupted(interval);
    if (interrupted()) break;
    std::vector<double> values;
    rates.getData([&](size_t n) { return values.assign(n, 0.0), values.data(); });
    std::printf("%s%8.3f s", terminal ? "\r" : "", (elapsed + interval) * 1e-12);
    for (double value : values) std::printf(" %12.1f", value);
    std::printf(terminal ? "" : "\n");
    std::fflush(stdout);
  }
  if (terminal) std::printf("\n");
}

}  // namespace

void addRates(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "rates", "Print live count rates (counts per second) until Ctrl-C or --duration");
  auto o = std::make_shared<RatesOptions>();
  addSerialOption(cmd, o->serial);
  cmd->add_option("--channels", o->channels, "channels, e.g. 1,2,3 (default: every input)");
  cmd->add_option("--interval", o->interval, "time per line with unit (default 1s)");
  cmd->add_option("--duration", o->duration, "stop after this time (default: run until Ctrl-C)");
  cmd->add_flag("--test-signal", o->test_signal, "switch the internal test signal on first");
  cmd->callback([o] { runRates(*o); });
}

}  // namespace zeptick::cli
