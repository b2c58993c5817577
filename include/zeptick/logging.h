#pragma once

#include <mutex>
#include <string>

#include "zeptick/export.h"

namespace zeptick {

/// Severity of a library message. Only the numbers are fixed.
enum LogLevel : int {
  LOGGER_INFO = 10,     ///< notices such as reconnections
  LOGGER_WARNING = 30,  ///< bad arguments that are ignored
  LOGGER_ERROR = 40,    ///< anything that stops something
};

/// Receiver of every library message. Called under a process-wide lock, one
/// message at a time, from any thread; it must not log itself.
using logger_t = void (*)(LogLevel level, std::string message);

/// Installs `function` as the receiver and returns the previous one. A null
/// argument restores the default writer (standard error, one line each).
ZEPTICK_API logger_t setLogger(logger_t function);

/// Formats "<file base name>:<line>: <message>" into at most 1023 characters
/// and hands it to the receiver. Thread-safe.
ZEPTICK_API void _Log(LogLevel level, const char* file, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

/// Derive and call enable() to receive the library's messages in an object.
/// One enabled object at a time: disabling or destroying any instance turns
/// logging back to standard error. Call enable/disable while no tagger runs.
class ZEPTICK_API CustomLogger {
 public:
  CustomLogger();
  virtual ~CustomLogger();
  CustomLogger(const CustomLogger&);
  CustomLogger& operator=(const CustomLogger&);

  /// Receives one message. Exceptions are caught and written to standard error.
  virtual void Log(int level, const std::string& message) = 0;

  void enable();
  void disable();

  static CustomLogger* instance;
  static std::mutex instance_mutex;

 private:
  static void LogCallback(LogLevel level, std::string message);
};

}  // namespace zeptick
