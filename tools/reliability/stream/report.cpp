#include "reliability/stream/report.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace zeptick::reliability {

std::string tableHeader() {
  return "| run | tags | faults injected | losses | crashes | hangs | memory slope | result |\n"
         "|---|---:|---|---:|---:|---:|---|---|";
}

std::string tableLine(const Row& row) {
  std::ostringstream line;
  line << "| " << row.run << " | " << row.tags << " | " << row.faults << " | " << row.losses
       << " | " << row.crashes << " | " << row.hangs << " | " << row.memory_slope << " | "
       << (row.passed ? "pass" : "FAIL") << " |";
  return line.str();
}

int printRow(const Row& row) {
  std::printf("%s\n", tableLine(row).c_str());
  std::fflush(stdout);
  return row.passed ? 0 : 1;
}

int runProgram(const char* name, int (*run)(int, char**), int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 2;
  }
}

int64_t residentKib() {
  std::ifstream statm("/proc/self/statm");
  int64_t size = 0, resident = 0;
  statm >> size >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

int64_t heapKib() {
  const struct mallinfo2 info = mallinfo2();
  return static_cast<int64_t>((info.uordblks + info.hblkhd) / 1024);
}

void MemorySampler::sample(std::chrono::milliseconds every) {
  const auto now = std::chrono::steady_clock::now();
  if (!samples.empty() && now - last < every) return;
  last = now;
  samples.push_back({std::chrono::duration<double>(now - start).count(),
                     static_cast<double>(heapKib()), static_cast<double>(residentKib())});
}

std::string MemorySampler::slope(double skip) const {
  const size_t first = static_cast<size_t>(static_cast<double>(samples.size()) * skip);
  if (samples.size() - first < 4) return "-";
  double n = 0, sx = 0, sy = 0, sxx = 0, sxy = 0;
  for (size_t i = first; i < samples.size(); ++i) {
    n += 1;
    sx += samples[i].seconds;
    sy += samples[i].kib;
    sxx += samples[i].seconds * samples[i].seconds;
    sxy += samples[i].seconds * samples[i].kib;
  }
  const double per_second = (n * sxy - sx * sy) / (n * sxx - sx * sx);
  char text[64];
  std::snprintf(text, sizeof text, "%+.0f KiB/min heap", per_second * 60.0);
  return text;
}

std::string MemorySampler::trajectory() const {
  std::string out = "heap / RSS";
  if (samples.empty()) return out + " not sampled";
  for (double at : {0.0, 0.25, 0.5, 0.75, 1.0}) {
    const size_t i = std::min(samples.size() - 1, static_cast<size_t>(at * samples.size()));
    char text[80];
    std::snprintf(text, sizeof text, " %.1f / %.1f MiB at %.0f s", samples[i].kib / 1024.0,
                  samples[i].resident_kib / 1024.0, samples[i].seconds);
    out += text;
  }
  return out;
}

namespace {

const char* findOption(int argc, char** argv, const std::string& name) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (argv[i] == "--" + name) return argv[i + 1];
  }
  return nullptr;
}

}  // namespace

double numberOption(int argc, char** argv, const std::string& name, double fallback) {
  const char* text = findOption(argc, argv, name);
  if (text == nullptr) return fallback;
  size_t used = 0;
  double value = 0;
  try {
    value = std::stod(text, &used);
  } catch (const std::exception&) {
    used = 0;
  }
  if (used == 0 || text[used] != '\0') {
    throw std::invalid_argument("--" + name + " must be a number, not '" + text + "'");
  }
  return value;
}

std::string textOption(int argc, char** argv, const std::string& name,
                       const std::string& fallback) {
  const char* text = findOption(argc, argv, name);
  return text == nullptr ? fallback : text;
}

}  // namespace zeptick::reliability
