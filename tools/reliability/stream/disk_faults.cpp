// Disk faults while recording. A child process records the free-running
// emulator with FileWriter and reports the live stream, block by block, over
// a pipe; then one of these happens to it:
//   full     the disk fills in the middle of a file (a file size limit, as
//            `ulimit -f` sets, makes the write fail with EFBIG);
//   failing  a write fails when a split file begins (that file is /dev/full,
//            ENOSPC; afterwards it is left empty, as a full disk leaves it);
//   kill     the process is killed with SIGKILL while it records.
// The parent then reads the files back with FileReader and replays them: each
// must deliver exactly the live stream up to a block boundary, the last
// complete block on disk, and the reader must say where the recording ends.
// Everything runs unprivileged: neither a tmpfs nor a loop device is needed.
//
//   disk_faults [--mib M] [--kills K] [--dir PARENT] [--keep 1]

#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
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

const std::vector<int> kChannels{1, 2, 3};
constexpr char kBoard[] = R"({"devices": [{
  "serial": "DISK1", "model": "Zeptick Ultra", "pacing": "free", "seed": 7,
  "sources": [
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 2e6},
    {"type": "poisson", "input": 3, "rate_hz": 1e6}]}]})";

enum class Fault { Full, Failing, Kill };

struct Plan {
  Fault fault;
  int64_t bytes;  // full: the file size limit; failing: the split size; kill: when to kill
};

// --- The child: records and reports ---------------------------------------------------------

int report_fd = -1;

void sendLine(const std::string& line) {
  const std::string text = line + "\n";
  // One write per line, so that a kill never leaves half a line behind.
  [[maybe_unused]] const ssize_t ignored = write(report_fd, text.data(), text.size());
}

void forwardLog(LogLevel level, std::string message) {
  sendLine("M " + std::to_string(static_cast<int>(level)) + " " + message);
}

int record(const Plan& plan, const std::string& base) {
  setLogger(forwardLog);
  if (plan.fault == Fault::Full) {
    // Past the limit a write returns EFBIG instead of raising SIGXFSZ.
    signal(SIGXFSZ, SIG_IGN);
    const auto limit = static_cast<rlim_t>(plan.bytes);
    const rlimit size{limit, limit};
    if (setrlimit(RLIMIT_FSIZE, &size) != 0) return 3;
  }
  attachEmulatedDevices(kBoard);
  Zeptick* tagger = createZeptick("DISK1");
  {
    SynchronizedMeasurements group(tagger);
    // Ahead of the writer in the chain, so that a block is reported before it can reach the
    // disk: a kill between the two must not leave a block on disk that was never reported.
    DigestMeasurement live(group.getTagger(), kChannels, [](const StreamDigest& digest) {
      sendLine("B " + std::to_string(digest.tags()) + " " + std::to_string(digest.hash()));
    });
    FileWriter writer(group.getTagger(), base, kChannels);
    writer.setMaxFileSize(plan.fault == Fault::Failing ? plan.bytes : int64_t{1} << 40);
    group.start();
    // A disk fault stops the writer; a kill ends everything sooner.
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while (writer.isRunning() && Clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // Some live stream after the fault, which the files must not claim to hold.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    group.stop();
  }
  freeZeptick(tagger);
  detachEmulatedDevices();
  return 0;
}

// --- The parent: injects, watches, reads back -----------------------------------------------

struct ChildRun {
  std::map<int64_t, uint64_t> live;  // tags so far -> hash, after every block
  std::vector<std::string> messages;
  bool hung = false;
  bool crashed = false;
  std::string ending;
};

uintmax_t bytesIn(const std::filesystem::path& directory) {
  uintmax_t sum = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (entry.is_regular_file(error)) sum += entry.file_size(error);
  }
  return sum;
}

void takeLines(std::string& pending, ChildRun& out) {
  size_t end;
  while ((end = pending.find('\n')) != std::string::npos) {
    const std::string line = pending.substr(0, end);
    pending.erase(0, end + 1);
    if (line.rfind("B ", 0) == 0) {
      std::istringstream fields(line.substr(2));
      int64_t tags = 0;
      uint64_t hash = 0;
      fields >> tags >> hash;
      out.live[tags] = hash;
    } else if (line.rfind("M ", 0) == 0) {
      out.messages.push_back(line.substr(2));
    }
  }
}

ChildRun runChild(const Plan& plan, const std::filesystem::path& directory) {
  int channel[2];
  if (pipe(channel) != 0) throw std::runtime_error("pipe failed");
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    close(channel[0]);
    report_fd = channel[1];
    _exit(record(plan, (directory / "recording").string()));
  }
  close(channel[1]);
  ChildRun out;
  std::string pending;
  bool killed = false;
  const auto deadline = Clock::now() + std::chrono::seconds(120);
  for (;;) {
    pollfd watch{channel[0], POLLIN, 0};
    if (poll(&watch, 1, 20) > 0) {
      char buffer[65536];
      const ssize_t got = read(channel[0], buffer, sizeof buffer);
      if (got <= 0) break;  // the child is gone
      pending.append(buffer, static_cast<size_t>(got));
      takeLines(pending, out);
    }
    if (plan.fault == Fault::Kill && !killed &&
        bytesIn(directory) >= static_cast<uintmax_t>(plan.bytes)) {
      kill(child, SIGKILL);
      killed = true;
    }
    if (Clock::now() > deadline && !out.hung) {
      out.hung = true;
      kill(child, SIGKILL);
    }
  }
  close(channel[0]);
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) {
    out.ending = std::string("killed by ") + strsignal(WTERMSIG(status));
    out.crashed = !(killed || out.hung) || WTERMSIG(status) != SIGKILL;
  } else {
    out.ending = "exit " + std::to_string(WEXITSTATUS(status));
    out.crashed = WEXITSTATUS(status) != 0;
  }
  return out;
}

std::vector<std::string> reader_messages;

void collectLog(LogLevel level, std::string message) {
  reader_messages.push_back(std::to_string(static_cast<int>(level)) + " " + message);
}

struct ReadBack {
  StreamDigest digest;
  std::vector<std::string> messages;
};

ReadBack readBack(const std::string& base) {
  ReadBack out;
  reader_messages.clear();
  const logger_t previous = setLogger(collectLog);
  {
    FileReader reader(base);
    std::vector<Tag> block;
    while (reader.hasData()) {
      if (!reader.getDataRaw(block)) break;  // another recording in the numbering
      out.digest.add(block);
    }
  }
  setLogger(previous);
  out.messages = reader_messages;
  return out;
}

ReadBack replayBack(const std::string& base) {
  ReadBack out;
  reader_messages.clear();
  const logger_t previous = setLogger(collectLog);
  ZeptickVirtual* tagger = createZeptickVirtual();
  {
    DigestMeasurement replay(tagger, kChannels);
    tagger->waitForCompletion(tagger->replay(base), 60000);
    tagger->sync();
    out.digest = replay.digest();
  }
  freeZeptick(tagger);
  setLogger(previous);
  out.messages = reader_messages;
  return out;
}

std::string describe(const Plan& plan) {
  const std::string mib = std::to_string(plan.bytes >> 20) + " MiB";
  switch (plan.fault) {
    case Fault::Full:
      return "disk fills (file size limit " + mib + ")";
    case Fault::Failing:
      return "write fails at a split (/dev/full)";
    case Fault::Kill:
      return "SIGKILL mid-recording";
  }
  return "";
}

/// One case from start to verdict; prints what the user sees on standard error.
bool runCase(const Plan& plan, const std::string& parent, bool keep, int64_t& tags_on_disk,
             bool& hung, bool& crashed) {
  ScratchDirectory directory(parent, "zeptick-disk-faults", keep);
  const std::string base = (directory.path() / "recording").string();
  const std::filesystem::path failing = directory.path() / "recording.3.ztbin";
  if (plan.fault == Fault::Failing) std::filesystem::create_symlink("/dev/full", failing);

  const ChildRun child = runChild(plan, directory.path());
  if (plan.fault == Fault::Failing) {
    std::filesystem::remove(failing);
    std::fclose(std::fopen(failing.c_str(), "wb"));
  }
  const ReadBack read = readBack(base);
  const ReadBack replay = replayBack(base);

  std::fprintf(stderr, "== %s: child %s, %zu live blocks\n", describe(plan).c_str(),
               child.ending.c_str(), child.live.size());
  for (const std::string& line : child.messages)
    std::fprintf(stderr, "  recorder: %s\n", line.c_str());
  for (const auto& entry : std::filesystem::directory_iterator(directory.path())) {
    std::fprintf(stderr, "  on disk: %s, %ju bytes\n", entry.path().filename().c_str(),
                 static_cast<uintmax_t>(entry.file_size()));
  }
  for (const std::string& line : read.messages)
    std::fprintf(stderr, "  reader: %s\n", line.c_str());
  for (const std::string& line : replay.messages)
    std::fprintf(stderr, "  replay: %s\n", line.c_str());

  bool passed = !child.hung && !child.crashed;
  const int64_t live_tags = child.live.empty() ? 0 : child.live.rbegin()->first;
  const auto at = child.live.find(read.digest.tags());
  const bool prefix =
      read.digest.tags() > 0 && at != child.live.end() && at->second == read.digest.hash();
  std::fprintf(
      stderr, "  read back %lld of %lld live tags: %s\n",
      static_cast<long long>(read.digest.tags()), static_cast<long long>(live_tags),
      prefix ? "the live stream up to a block boundary" : "NOT a prefix of the live stream");
  passed &= prefix;
  if (!replay.digest.differences(read.digest, "replay", "reader").empty()) {
    std::fprintf(stderr, "  replay differs from the reader\n");
    passed = false;
  }
  // A recording cut short must say where; it may not end as if complete.
  const std::string where = plan.fault == Fault::Failing ? "has no file header" : "ends early";
  const auto says = [&](const ReadBack& back) {
    return std::any_of(back.messages.begin(), back.messages.end(),
                       [&](const std::string& line) { return line.find(where) != line.npos; });
  };
  if (!says(read) || !says(replay)) {
    std::fprintf(stderr, "  the reader did not say where the recording ends\n");
    passed = false;
  }
  tags_on_disk += read.digest.tags();
  hung |= child.hung;
  crashed |= child.crashed;
  return passed;
}

int run(int argc, char** argv) {
  const auto mib = static_cast<int64_t>(numberOption(argc, argv, "mib", 4));
  const int kills = static_cast<int>(numberOption(argc, argv, "kills", 1));
  const std::string parent = textOption(argc, argv, "dir", "");
  const bool keep = numberOption(argc, argv, "keep", 0) != 0;

  std::vector<std::vector<Plan>> rows{{{Fault::Full, mib << 20}},
                                      {{Fault::Failing, (mib << 20) / 4}}};
  std::vector<Plan> kill_plans;
  std::mt19937_64 random(19);
  std::uniform_int_distribution<int64_t> when(1 << 20, mib << 20);
  for (int i = 0; i < kills; ++i) kill_plans.push_back({Fault::Kill, when(random)});
  rows.push_back(kill_plans);

  bool all = true;
  for (const std::vector<Plan>& plans : rows) {
    Row row;
    row.run = describe(plans.front());
    row.faults = std::to_string(plans.size());
    int64_t failed = 0;
    bool hung = false, crashed = false;
    for (const Plan& plan : plans) {
      failed += runCase(plan, parent, keep, row.tags, hung, crashed) ? 0 : 1;
    }
    row.losses = failed;
    row.hangs = hung ? 1 : 0;
    row.crashes = crashed ? 1 : 0;
    row.passed = failed == 0;
    all &= printRow(row) == 0;
  }
  return all ? 0 : 1;
}

}  // namespace
}  // namespace zeptick::reliability

int main(int argc, char** argv) {
  return zeptick::reliability::runProgram("disk_faults", zeptick::reliability::run, argc, argv);
}
