#pragma once

#include <algorithm>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zeptick/logging.h"

namespace zeptick::testing {

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

/// Collects every library message with its level while it lives; restores the default writer
/// after. Checks name the level they expect, so a message logged at the wrong level fails.
class LogCapture {
 public:
  struct Entry {
    LogLevel level;
    std::string text;
  };

  LogCapture() {
    reset();
    setLogger(&LogCapture::receive);
  }
  ~LogCapture() { setLogger(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<Entry> entries() {
    std::lock_guard<std::mutex> guard(state().mutex);
    return state().entries;
  }
  std::vector<std::string> messages() {
    std::vector<std::string> texts;
    for (Entry& entry : entries()) texts.push_back(std::move(entry.text));
    return texts;
  }
  /// True if some message at `level` ends with `text` (messages carry a "file:line: " prefix).
  bool contains(LogLevel level, const std::string& text) {
    const std::vector<Entry> all = entries();
    return std::ranges::any_of(all, [&](const Entry& entry) {
      return entry.level == level && entry.text.ends_with(text);
    });
  }
  /// Waits up to `timeout` for a message at `level` ending with `text`; a guard against hangs.
  bool waitFor(LogLevel level, const std::string& text,
               std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return eventually([&] { return contains(level, text); }, timeout);
  }
  void reset() {
    std::lock_guard<std::mutex> guard(state().mutex);
    state().entries.clear();
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<Entry> entries;
  };
  static State& state() {
    static State instance;
    return instance;
  }
  static void receive(LogLevel level, std::string message) {
    std::lock_guard<std::mutex> guard(state().mutex);
    state().entries.push_back({level, std::move(message)});
  }
};

}  // namespace zeptick::testing
