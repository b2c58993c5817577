#include "zeptick/logging.h"

#include <cstdarg>
#include <cstdio>
#include <exception>
#include <string>
#include <utility>

namespace zeptick {

namespace {

constexpr size_t kLogBufferSize = 1024;

void defaultWriter(LogLevel /*level*/, std::string message) {
  // One call, so a line is not split by other writers to stderr.
  std::fprintf(stderr, "%s\n", message.c_str());
}

struct LogState {
  std::mutex mutex;                  // log_mutex
  logger_t logger = &defaultWriter;  // guarded by mutex
};

// Built on first use and never destroyed: user code may log from its static
// destructors, after this unit's own statics would be gone.
LogState& logState() {
  static LogState* const state = new LogState();
  return *state;
}

const char* baseName(const char* file) {
  if (file == nullptr) return "";
  const char* base = file;
  for (const char* p = file; *p != '\0'; ++p) {
    if (*p == '/' || *p == '\\') base = p + 1;
  }
  return base;
}

}  // namespace

// Constant-initialised, so usable from any static constructor or destructor.
CustomLogger* CustomLogger::instance = nullptr;
std::mutex CustomLogger::instance_mutex;

void _Log(LogLevel level, const char* file, int line, const char* format, ...) {
  char buffer[kLogBufferSize];
  int prefix = std::snprintf(buffer, sizeof buffer, "%s:%d: ", baseName(file), line);
  size_t used = prefix < 0 ? 0 : static_cast<size_t>(prefix);
  if (used > sizeof buffer - 1) used = sizeof buffer - 1;
  buffer[used] = '\0';

  va_list args;
  va_start(args, format);
  if (std::vsnprintf(buffer + used, sizeof buffer - used, format, args) < 0) buffer[used] = '\0';
  va_end(args);
  buffer[sizeof buffer - 1] = '\0';

  std::string text(buffer);
  LogState& state = logState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.logger(level, std::move(text));
}

logger_t setLogger(logger_t function) {
  LogState& state = logState();
  std::lock_guard<std::mutex> lock(state.mutex);
  logger_t previous = state.logger;
  state.logger = function != nullptr ? function : &defaultWriter;
  return previous;
}

CustomLogger::CustomLogger() = default;

CustomLogger::CustomLogger(const CustomLogger& /*other*/) {}

CustomLogger& CustomLogger::operator=(const CustomLogger& /*other*/) { return *this; }

CustomLogger::~CustomLogger() { disable(); }

// The two locks are taken one after the other, never nested: a message on its
// way through LogCallback holds log_mutex and then takes instance_mutex, so
// nesting them the other way here could deadlock against a worker that logs.
void CustomLogger::enable() {
  {
    std::lock_guard<std::mutex> instance_lock(instance_mutex);
    instance = this;
  }
  LogState& state = logState();
  std::lock_guard<std::mutex> log_lock(state.mutex);
  state.logger = &CustomLogger::LogCallback;
}

// Turns logging back to stderr whichever object is enabled: there is only one
// receiver, so the application keeps one CustomLogger at a time.
void CustomLogger::disable() {
  {
    std::lock_guard<std::mutex> instance_lock(instance_mutex);
    instance = nullptr;
  }
  LogState& state = logState();
  std::lock_guard<std::mutex> log_lock(state.mutex);
  state.logger = &defaultWriter;
}

void CustomLogger::LogCallback(LogLevel level, std::string message) {
  std::lock_guard<std::mutex> instance_lock(instance_mutex);
  if (instance == nullptr) {
    defaultWriter(level, std::move(message));
    return;
  }
  // A faulty receiver must not take down the worker that happened to log.
  try {
    instance->Log(level, message);
  } catch (const std::exception& e) {
    defaultWriter(level, e.what());
  } catch (...) {
    defaultWriter(level, std::move(message));
  }
}

}  // namespace zeptick
