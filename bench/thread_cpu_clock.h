#pragma once

#include <time.h>

#include <chrono>

namespace zeptick::bench {

/// The calling thread's CPU time, as a std::chrono clock. On a shared machine a
/// wall clock charges a loop for the time it spent preempted; this one does not,
/// so two loops timed with it compare fairly.
struct ThreadCpuClock {
  using duration = std::chrono::nanoseconds;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<ThreadCpuClock>;
  static constexpr bool is_steady = true;

  static time_point now() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return time_point(duration(static_cast<rep>(ts.tv_sec) * 1000000000 + ts.tv_nsec));
  }
};

/// CPU seconds of `clock` (CLOCK_THREAD_CPUTIME_ID, CLOCK_PROCESS_CPUTIME_ID, ...).
inline double cpuSeconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

/// CPU seconds of the calling thread.
inline double threadSeconds() { return cpuSeconds(CLOCK_THREAD_CPUTIME_ID); }

}  // namespace zeptick::bench
