// What the long reliability runs share: resident memory and its trend, a watchdog that turns a
// stuck run into a reported hang instead of a silent one, a measurement that checks the stream
// it is given, and the table row every run prints.
#pragma once

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "zeptick/iterator_base.h"

namespace zeptick::reliability {

/// Resident set size of this process in KiB, from /proc/self/statm.
inline double residentKiB() {
  std::FILE* file = std::fopen("/proc/self/statm", "r");
  if (file == nullptr) return 0;
  unsigned long size = 0, resident = 0;
  const int read = std::fscanf(file, "%lu %lu", &size, &resident);
  std::fclose(file);
  if (read != 2) return 0;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024.0;
}

/// Bytes the program holds from the allocator, in KiB: what a leak grows,
/// unlike the resident size, which also grows when freed memory is scattered.
/// 0 under a sanitizer, whose allocator does not report here.
inline double heapInUseKiB() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / 1024.0;
}

/// Least-squares slope of memory samples against a progress axis (cycles,
/// hours). The samples of the first `warm_up` fraction are left out: buffers
/// reach their working size, and the allocator's arenas grow, once and early.
class MemoryTrend {
 public:
  void add(double x, double kib) { samples.emplace_back(x, kib); }
  double first() const { return samples.empty() ? 0 : samples.front().second; }
  double last() const { return samples.empty() ? 0 : samples.back().second; }
  size_t size() const { return samples.size(); }

  /// KiB per unit of x; 0 with fewer than three samples left.
  double slope(double warm_up = 0.5) const {
    const auto begin = samples.begin() +
                       static_cast<std::ptrdiff_t>(static_cast<double>(samples.size()) * warm_up);
    const double n = static_cast<double>(samples.end() - begin);
    if (n < 3) return 0;
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    for (auto it = begin; it != samples.end(); ++it) {
      sx += it->first;
      sy += it->second;
      sxx += it->first * it->first;
      sxy += it->first * it->second;
    }
    const double spread = n * sxx - sx * sx;
    return spread == 0 ? 0 : (n * sxy - sx * sy) / spread;
  }

 private:
  std::vector<std::pair<double, double>> samples;
};

/// One row of the reliability table; the script that runs every program
/// collects these lines.
struct TableRow {
  std::string run;
  uint64_t tags = 0;
  uint64_t faults = 0;
  uint64_t losses = 0;
  uint64_t crashes = 0;
  uint64_t hangs = 0;
  std::string slope;
  bool passed = false;

  void print() const {
    std::printf(
        "| %s | %" PRIu64 " | %" PRIu64 " | %" PRIu64 " | %" PRIu64 " | %" PRIu64 " | %s | %s |\n",
        run.c_str(), tags, faults, losses, crashes, hangs, slope.c_str(), passed ? "pass" : "FAIL");
    std::fflush(stdout);
  }
};

/// Ends the process with a hang in the table if nobody calls beat() for
/// `timeout`: a deadlock inside the library never returns control to the run,
/// so only another thread can report it. `row` is printed as it stands then.
class Watchdog {
 public:
  Watchdog(std::chrono::seconds timeout, std::function<TableRow()> row)
      : timeout(timeout), row(std::move(row)), thread([this] { watch(); }) {
    beat("start");
  }
  ~Watchdog() {
    done = true;
    thread.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  /// Progress: the run has reached `step` (a static string).
  void beat(const char* step) {
    current_step = step;
    last_beat = now();
  }

 private:
  static int64_t now() {
    return std::chrono::steady_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
  }
  void watch() {
    while (!done) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      if (now() - last_beat < timeout / std::chrono::milliseconds(1)) continue;
      std::fprintf(stderr, "hang: no progress for %lld s after \"%s\"\n",
                   static_cast<long long>(timeout.count()), current_step.load());
      TableRow stuck = row();
      stuck.hangs += 1;
      stuck.passed = false;
      stuck.print();
      std::_Exit(3);
    }
  }

  std::chrono::seconds timeout;
  std::function<TableRow()> row;
  std::atomic<int64_t> last_beat{0};
  std::atomic<const char*> current_step{""};
  std::atomic<bool> done{false};
  std::thread thread;
};

/// The emulator configuration of one "Zeptick Ultra" with `inputs` inputs and
/// these signal sources, paced in real time as in the lab or free-running (as
/// fast as the host reads). Its firmware is taken from the source tree unless
/// the environment names another place.
inline nlohmann::json emulatedUltra(const char* serial, nlohmann::json sources, int inputs,
                                    bool free_running) {
  setenv("ZEPTICK_BASE_DIRECTORY", ZEPTICK_SOURCE_DIR, 0);
  setenv("ZEPTICK_FIRMWARE_SUBDIRECTORY", "firmware", 0);
  return {{"devices",
           {{{"serial", serial},
             {"model", 36},
             {"inputs", inputs},
             {"pacing", free_running ? "free" : "realtime"},
             {"major_version", 2},
             {"minor_version", 7},
             {"sources", std::move(sources)}}}}};
}

/// Waits until `done()` holds, checking every millisecond; false after `limit`.
template <class Condition>
bool waitFor(Condition done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

/// A measurement that counts what it is given and checks the rules every
/// block must keep: spans touch, and tags lie in their span in time order.
class StreamWatch : public IteratorBase {
 public:
  StreamWatch(ZeptickBase* tagger, const std::vector<int>& channels) : IteratorBase(tagger) {
    for (int channel : channels) registerChannel(channel);
    finishInitialization();
  }
  ~StreamWatch() override { stop(); }

  uint64_t timeTags() {
    auto guard = getLock();
    return time_tags;
  }
  uint64_t errorTags() {
    auto guard = getLock();
    return error_tags;
  }
  /// Blocks that broke a rule.
  uint64_t disorders() {
    auto guard = getLock();
    return broken_blocks;
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override {
    bool broken = (seen_block && begin_time != last_end) || end_time < begin_time;
    int64_t previous = begin_time;
    for (const Tag& tag : tags) {
      broken |= tag.time < previous || tag.time >= end_time;
      previous = tag.time;
      if (tag.type == Tag::Type::TimeTag) ++time_tags;
      if (tag.type == Tag::Type::Error) ++error_tags;
    }
    broken_blocks += broken ? 1 : 0;
    seen_block = true;
    last_end = end_time;
    return false;
  }

 private:
  uint64_t time_tags = 0;
  uint64_t error_tags = 0;
  uint64_t broken_blocks = 0;
  bool seen_block = false;
  int64_t last_end = 0;
};

/// Parses "--name value" pairs of integer options; anything else is an error.
inline bool parseOptions(int argc, char** argv,
                         std::vector<std::pair<const char*, int64_t*>> options) {
  for (int i = 1; i < argc; i += 2) {
    const auto option = std::find_if(options.begin(), options.end(), [&](const auto& o) {
      return std::string(argv[i]) == o.first;
    });
    char* end = nullptr;
    if (option == options.end() || i + 1 >= argc) return false;
    *option->second = std::strtoll(argv[i + 1], &end, 10);
    if (end == argv[i + 1] || *end != '\0' || *option->second < 0) return false;
  }
  return true;
}

}  // namespace zeptick::reliability
