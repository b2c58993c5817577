// The library's log, handed to Python's logging module.
//
// Log lines come from any thread, often a worker that holds a measurement's lock. Taking the
// GIL there could deadlock against a Python thread that waits for that measurement, so the
// receiver only queues the line; a Python thread (see zeptick/__init__.py) takes them off the
// queue and logs them.

#include <pybind11/stl.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "bindings.h"
#include "zeptick/logging.h"

namespace zeptick::python {

namespace {

// Enough for any burst a user would read; beyond it lines are counted, not kept.
constexpr size_t kMaxQueuedLines = 10000;

struct LogQueue {
  std::mutex mutex;
  std::condition_variable ready;
  std::deque<std::pair<int, std::string>> lines;
  size_t dropped = 0;
  bool closing = false;  // at interpreter exit: waits return at once
};

LogQueue& queue() {
  static auto* q = new LogQueue();  // outlives every thread that may still log at exit
  return *q;
}

void receive(LogLevel level, std::string message) {
  LogQueue& q = queue();
  {
    std::lock_guard<std::mutex> lock(q.mutex);
    if (q.lines.size() >= kMaxQueuedLines) {
      q.dropped += 1;
      return;
    }
    q.lines.emplace_back(static_cast<int>(level), std::move(message));
  }
  q.ready.notify_one();
}

/// Waits up to `timeout_ms` for lines and takes all that are queued, with a note of lines
/// dropped on a full queue.
std::vector<std::pair<int, std::string>> takeLines(int timeout_ms) {
  LogQueue& q = queue();
  std::vector<std::pair<int, std::string>> taken;
  py::gil_scoped_release release;
  std::unique_lock<std::mutex> lock(q.mutex);
  q.ready.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                   [&] { return !q.lines.empty() || q.dropped > 0 || q.closing; });
  if (q.dropped > 0) {
    taken.emplace_back(LOGGER_WARNING, std::to_string(q.dropped) +
                                           " log lines were dropped: the log queue was full.");
    q.dropped = 0;
  }
  taken.insert(taken.end(), std::make_move_iterator(q.lines.begin()),
               std::make_move_iterator(q.lines.end()));
  q.lines.clear();
  return taken;
}

}  // namespace

void bindLogging(py::module_& m) {
  m.def(
      "_installLogReceiver", [] { setLogger(&receive); },
      "Routes the library's log into the queue that _takeLogLines drains.");
  m.def("_takeLogLines", &takeLines, py::arg("timeout_ms"),
        "Waits up to timeout_ms for log lines; returns [(level, message), ...].");
  m.def(
      "_closeLogQueue",
      [] {
        {
          std::lock_guard<std::mutex> lock(queue().mutex);
          queue().closing = true;
        }
        queue().ready.notify_all();
      },
      "Makes waiting _takeLogLines calls return at once, so the log thread can end.");
  m.def(
      "_log",
      [](int level, const std::string& message) {
        _Log(static_cast<LogLevel>(level), "python", 0, "%s", message.c_str());
      },
      py::arg("level"), py::arg("message"), "Writes one line to the library's log (for tests).");
}

}  // namespace zeptick::python
