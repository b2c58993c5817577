#pragma once

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zeptick/logging.h"

namespace zeptick::testing {

/// Collects every library message while it lives; restores the default writer after.
class LogCapture {
 public:
  LogCapture() {
    reset();
    setLogger(&LogCapture::receive);
  }
  ~LogCapture() { setLogger(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<std::string> messages() {
    std::lock_guard<std::mutex> guard(state().mutex);
    return state().messages;
  }
  /// True if some message ends with `text` (messages carry a "file:line: " prefix).
  bool contains(const std::string& text) {
    for (const std::string& message : messages()) {
      if (message.size() >= text.size() &&
          message.compare(message.size() - text.size(), text.size(), text) == 0) {
        return true;
      }
    }
    return false;
  }
  /// Waits up to `timeout` for a message ending with `text`; a guard against hangs.
  bool waitFor(const std::string& text,
               std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!contains(text)) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<std::string> messages;
  };
  static State& state() {
    static State instance;
    return instance;
  }
  static void receive(LogLevel, std::string message) {
    std::lock_guard<std::mutex> guard(state().mutex);
    state().messages.push_back(std::move(message));
  }

 public:
  void reset() {
    std::lock_guard<std::mutex> guard(state().mutex);
    state().messages.clear();
  }
};

/// Polls `condition` until it holds; false after `timeout` (a hang guard, not a timing check).
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::microseconds(200));
  }
  return true;
}

}  // namespace zeptick::testing
