// zeptick record OUT.ztbin --duration 10s: records with FileWriter and shows
// progress; Ctrl-C stops cleanly and leaves a complete recording.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "live.h"
#include "units.h"
#include "zeptick/file_signing.h"
#include "zeptick/file_writer.h"
#include "zeptick/library.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli {

namespace {

struct RecordOptions {
  std::string out, serial, channels, duration, signing_key;
  int64_t max_file_size = -1;
  bool test_signal = false;
};

void printProgress(FILE* to, bool terminal, double seconds, FileWriter& writer, Zeptick& tagger) {
  const auto tags = static_cast<double>(writer.getTotalEvents());
  const auto bytes = static_cast<double>(writer.getTotalSize());
  std::fprintf(
      to, "%s%8.1f s  %12.0f tags  %10.3g tags/s  %10.0f bytes  %5.2f bytes/tag  %lld overflows%s",
      terminal ? "\r" : "", seconds, tags, seconds > 0 ? tags / seconds : 0.0, bytes,
      tags > 0 ? bytes / tags : 0.0, static_cast<long long>(tagger.getOverflows()),
      terminal ? "" : "\n");
  std::fflush(to);
}

void runRecord(const RecordOptions& o) {
  const int64_t duration = parseTime(o.duration);
  if (duration <= 0) throw std::invalid_argument("--duration must be positive");
  if (!o.signing_key.empty()) setFileSigningKey(readText(o.signing_key));
  const std::vector<int> chosen =
      o.channels.empty() ? std::vector<int>{} : parseChannels(o.channels, "--channels");
  std::unique_ptr<Zeptick, bool (*)(ZeptickBase*)> tagger(openInstrument(o.serial), freeZeptick);
  const std::vector<int> channels = channelsOrAll(tagger.get(), chosen);
  if (o.test_signal) tagger->setTestSignal(channels, true);
  tagger->clearOverflows();
  catchInterrupts();
  FileWriter writer(tagger.get(), o.out, channels);
  writer.setMaxFileSize(o.max_file_size);
  const auto start = std::chrono::steady_clock::now();
  const bool terminal = isatty(STDERR_FILENO) != 0;
  auto elapsed = [&] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  for (int64_t left = duration; left > 0 && !interrupted(); left -= int64_t{1000000000000}) {
    sleepUnlessInterrupted(std::min<int64_t>(left, 1000000000000));
    printProgress(stderr, terminal, elapsed(), writer, *tagger);
  }
  // Every block fetched so far reaches the file before it closes.
  tagger->sync();
  writer.stop();
  if (terminal) std::fprintf(stderr, "\n");
  std::printf("%s: %lld tags, %lld bytes in %.1f s%s\n", o.out.c_str(),
              static_cast<long long>(writer.getTotalEvents()),
              static_cast<long long>(writer.getTotalSize()), elapsed(),
              interrupted() ? " (stopped by the user)" : "");
}

}  // namespace

void addRecord(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "record", "Record tags to OUT.ztbin (split files OUT.1.ztbin, ...) with a progress line");
  auto o = std::make_shared<RecordOptions>();
  cmd->add_option("OUT", o->out, "name of the recording (.ztbin)")->required();
  cmd->add_option("--duration", o->duration, "how long to record, with unit (e.g. 10s, 10m)")
      ->required();
  addSerialOption(cmd, o->serial);
  cmd->add_option("--channels", o->channels, "channels, e.g. 1,2,3 (default: every input)");
  cmd->add_option("--max-file-size", o->max_file_size,
                  "bytes after which the next split file begins (default: no split)");
  cmd->add_option("--signing-key", o->signing_key, "P-256 private key (PEM) to sign blocks with");
  cmd->add_flag("--test-signal", o->test_signal, "switch the internal test signal on first");
  cmd->callback([o] { runRecord(*o); });
}

}  // namespace zeptick::cli
