#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace zeptick::reliability {

/// One row of the reliability table that scripts/reliability prints: a
/// Markdown table line, so that it pastes into the README as it stands.
struct Row {
  std::string run;
  int64_t tags = 0;
  std::string faults = "0";
  int64_t losses = 0;
  int64_t crashes = 0;
  int64_t hangs = 0;
  std::string memory_slope = "-";
  bool passed = false;
};

/// The header lines of the table, matching Row.
std::string tableHeader();
/// `row` as one table line, without a newline.
std::string tableLine(const Row& row);
/// Prints `row` as a line of its own; the exit status it stands for, 0 or 1.
int printRow(const Row& row);

/// Runs `run` as a program's main: an exception is reported under `name` with exit status 2,
/// apart from the 1 of a failed check.
int runProgram(const char* name, int (*run)(int, char**), int argc, char** argv);

/// Memory of this process, sampled now and then: the heap in use, which only a leak or a
/// growing structure raises (unlike the resident size, which keeps freed pages), and the
/// resident size beside it. The slope of a least squares line through the heap samples tells a
/// leak from a plateau.
class MemorySampler {
 public:
  /// Takes a sample if `every` has passed since the last one.
  void sample(std::chrono::milliseconds every = std::chrono::milliseconds(500));
  /// Heap KiB per minute over the samples after the first `skip` fraction (the warm-up);
  /// "-" with fewer than four samples.
  std::string slope(double skip = 0.2) const;
  /// Heap in use and resident size at a few points of the run, in MiB.
  std::string trajectory() const;

 private:
  struct Sample {
    double seconds;
    double kib;  // heap in use
    double resident_kib;
  };
  std::vector<Sample> samples;
  std::chrono::steady_clock::time_point start = std::chrono::steady_clock::now();
  std::chrono::steady_clock::time_point last{};
};

/// Resident set size of this process in KiB, from /proc/self/statm.
int64_t residentKib();
/// Bytes of heap in use (mallinfo2: allocated chunks and mapped blocks), in KiB.
int64_t heapKib();

/// Parses "--name value" options: the value of `name`, or `fallback`. Accepts
/// 1e9-style numbers. Throws std::invalid_argument for a malformed value.
double numberOption(int argc, char** argv, const std::string& name, double fallback);
std::string textOption(int argc, char** argv, const std::string& name, const std::string& fallback);

}  // namespace zeptick::reliability
