// No loss end to end: the free-running emulator's photon pairs and Poisson
// counts are recorded by FileWriter into split files while a Countrate runs
// alongside; the recording is then replayed and read back. Counts, first and
// last times per channel and a hash of every tag must agree across the live
// stream, the replay and the reader. Prints one row of the reliability table;
// exits 1 on any difference.
//
//   no_loss [--tags N] [--split-mib M] [--dir PARENT] [--keep 1]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "reliability/stream/report.h"
#include "reliability/stream/scratch_dir.h"
#include "reliability/stream/stream_digest.h"
#include "zeptick/zeptick.h"

namespace zeptick::reliability {
namespace {

using Clock = std::chrono::steady_clock;

const std::vector<int> kChannels{1, 2, 3, 4};

// Rates decide only the mix of the stream: the board runs free, as fast as it is read.
constexpr char kBoard[] = R"({"devices": [{
  "serial": "NOLOSS1", "model": "Zeptick Ultra", "pacing": "free", "seed": 19,
  "sources": [
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 2e6},
    {"type": "poisson", "input": 3, "rate_hz": 1e6},
    {"type": "poisson", "input": 4, "rate_hz": 5e5}]}]})";

double seconds(Clock::duration span) { return std::chrono::duration<double>(span).count(); }

/// Polls `progress` until `done`; false if it stood still for `patience`.
template <class Progress, class Done>
bool waitWithGuard(Progress progress, Done done, MemorySampler* memory,
                   std::chrono::seconds patience = std::chrono::seconds(120)) {
  int64_t seen = progress();
  auto moved = Clock::now();
  while (!done()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (memory != nullptr) memory->sample();
    const int64_t now = progress();
    if (now != seen) {
      seen = now;
      moved = Clock::now();
    } else if (Clock::now() - moved > patience) {
      return false;
    }
  }
  return true;
}

struct Live {
  StreamDigest digest;
  std::vector<int64_t> countrate;
  int64_t events_written = 0;
  bool hung = false;
};

Live recordLive(const std::string& base, int64_t wanted, int64_t split_bytes,
                MemorySampler& memory) {
  Live out;
  Zeptick* tagger = createZeptick("NOLOSS1");
  {
    SynchronizedMeasurements group(tagger);
    FileWriter writer(group.getTagger(), base, kChannels);
    writer.setMaxFileSize(split_bytes);
    Countrate rate(group.getTagger(), kChannels);
    DigestMeasurement live(group.getTagger(), kChannels);
    group.start();
    out.hung =
        !waitWithGuard([&] { return live.tags(); }, [&] { return live.tags() >= wanted; }, &memory);
    group.stop();
    out.digest = live.digest();
    rate.getCountsTotal([&](size_t n) {
      out.countrate.resize(n);
      return out.countrate.data();
    });
    out.events_written = writer.getTotalEvents();
  }  // the writer closes its last file here
  freeZeptick(tagger);
  return out;
}

StreamDigest replayed(const std::string& base, bool& hung) {
  ZeptickVirtual* tagger = createZeptickVirtual();
  StreamDigest out;
  {
    DigestMeasurement replay(tagger, kChannels);
    tagger->setReplaySpeed(-1.0);
    const uint64_t id = tagger->replay(base);
    hung = !waitWithGuard([&] { return replay.tags(); },
                          [&] { return tagger->waitForCompletion(id, 0); }, nullptr);
    tagger->sync();
    out = replay.digest();
  }
  freeZeptick(tagger);
  return out;
}

StreamDigest readBack(const std::string& base) {
  FileReader reader(base);
  StreamDigest out;
  std::vector<Tag> block;
  while (reader.hasData()) {
    reader.getDataRaw(block);
    out.add(block);
  }
  return out;
}

int run(int argc, char** argv) {
  const auto wanted = static_cast<int64_t>(numberOption(argc, argv, "tags", 2e6));
  const auto split_bytes =
      static_cast<int64_t>(numberOption(argc, argv, "split-mib", 64) * 1024 * 1024);
  const bool keep = numberOption(argc, argv, "keep", 0) != 0;
  ScratchDirectory directory(textOption(argc, argv, "dir", ""), "zeptick-no-loss", keep);
  const std::string base = (directory.path() / "recording").string();

  attachEmulatedDevices(kBoard);
  MemorySampler memory;
  auto start = Clock::now();
  const Live live = recordLive(base, wanted, split_bytes, memory);
  const double live_seconds = seconds(Clock::now() - start);
  detachEmulatedDevices();

  bool replay_hung = false;
  start = Clock::now();
  const StreamDigest replay = replayed(base, replay_hung);
  const double replay_seconds = seconds(Clock::now() - start);
  start = Clock::now();
  const StreamDigest reader = readBack(base);
  const double reader_seconds = seconds(Clock::now() - start);

  std::vector<std::string> problems = live.digest.differences(replay, "live", "replay");
  for (const std::string& line : live.digest.differences(reader, "live", "reader")) {
    problems.push_back(line);
  }
  // The reader keeps the recording's own clock, so its first tag is the live one's.
  if (reader.origin() != live.digest.origin()) problems.push_back("reader's first tag moved");
  for (size_t i = 0; i < kChannels.size(); ++i) {
    const auto found = live.digest.channels().find(kChannels[i]);
    const int64_t seen =
        found == live.digest.channels().end() ? 0 : found->second.tags + found->second.missed;
    if (i >= live.countrate.size() || live.countrate[i] != seen) {
      problems.push_back("Countrate of channel " + std::to_string(kChannels[i]) +
                         " differs from the stream");
    }
  }
  if (live.events_written != live.digest.tags()) {
    problems.push_back("FileWriter wrote " + std::to_string(live.events_written) + " events of " +
                       std::to_string(live.digest.tags()));
  }
  if (live.hung || replay_hung) problems.push_back("no progress for two minutes");

  const double tags = static_cast<double>(live.digest.tags());
  std::fprintf(
      stderr,
      "no_loss: %lld tags (%lld overflows, %lld missed, %lld errors) in %zu files of "
      "%.1f MiB, %.2f bytes per tag\n"
      "  live %.1f s (%.2f M tags/s), replay %.1f s (%.2f M tags/s), reader %.1f s "
      "(%.2f M tags/s)\n",
      static_cast<long long>(live.digest.tags()), static_cast<long long>(live.digest.overflows()),
      static_cast<long long>(live.digest.missedEvents()),
      static_cast<long long>(live.digest.errors()), directory.files(),
      static_cast<double>(directory.bytes()) / 1048576.0,
      static_cast<double>(directory.bytes()) / tags, live_seconds, tags / live_seconds / 1e6,
      replay_seconds, tags / replay_seconds / 1e6, reader_seconds, tags / reader_seconds / 1e6);
  std::fprintf(stderr, "  %s\n", memory.trajectory().c_str());
  for (const std::string& line : problems) std::fprintf(stderr, "  difference: %s\n", line.c_str());

  Row row;
  row.run = "no loss end to end (live, replay, reader)";
  row.tags = live.digest.tags();
  row.faults = "-";
  row.losses = std::max(std::llabs(live.digest.tags() - replay.tags()),
                        std::llabs(live.digest.tags() - reader.tags()));
  row.hangs = (live.hung ? 1 : 0) + (replay_hung ? 1 : 0);
  row.memory_slope = memory.slope() + " (live)";
  row.passed = problems.empty();
  return printRow(row);
}

}  // namespace
}  // namespace zeptick::reliability

int main(int argc, char** argv) {
  return zeptick::reliability::runProgram("no_loss", zeptick::reliability::run, argc, argv);
}
