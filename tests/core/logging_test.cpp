#include "zeptick/logging.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace zeptick {
namespace {

// A plain logger_t cannot capture, so the sinks share this state. The library
// calls a sink one message at a time; the sinks deliberately take no lock of
// their own, so a missing lock shows up as overlap (and under TSan as a race).
struct Captured {
  std::vector<std::pair<LogLevel, std::string>> messages;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
};
Captured captured;

void captureSink(LogLevel level, std::string message) {
  if (captured.inside.fetch_add(1) != 0) captured.overlapped = true;
  // Hands the core to another logging thread while inside, so that without the library's
  // lock two threads meet here even on a loaded machine with few cores.
  std::this_thread::yield();
  captured.messages.emplace_back(level, std::move(message));
  captured.inside.fetch_sub(1);
}

// Records each message behind its level; with `throws` 1 or 2 it throws a standard exception or
// an int instead.
class RecordingLogger : public CustomLogger {
 public:
  void Log(int level, const std::string& message) override {
    if (throws == 1) throw std::runtime_error("receiver is broken");
    if (throws == 2) throw 42;
    messages.push_back(std::to_string(level) + " " + message);
  }
  int throws = 0;
  std::vector<std::string> messages;
};

class LoggingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    captured.messages.clear();
    captured.overlapped = false;
  }
  void TearDown() override {
    {
      std::lock_guard<std::mutex> lock(CustomLogger::instance_mutex);
      CustomLogger::instance = nullptr;
    }
    setLogger(nullptr);
  }
};

// What the default writer puts on stderr for one message.
std::string toStderr(const char* file, int line, const char* text) {
  ::testing::internal::CaptureStderr();
  _Log(LOGGER_INFO, file, line, "%s", text);
  return ::testing::internal::GetCapturedStderr();
}

TEST_F(LoggingTest, PrefixesTheBaseNameAndCutsToTheBuffer) {
  setLogger(&captureSink);
  const std::string fits(1023 - 9, 'y');  // "f.cpp:7: " takes 9 of the 1023 characters
  const std::string huge_name(3000, 'n');
  const struct {
    std::string file;
    int line;
    std::string text;
    std::string expected;
  } cases[] = {
      {"src/core/runner.cpp", 12, "hi", "runner.cpp:12: hi"},
      {"C:\\build/src\\core/a.cpp", 1, "x", "a.cpp:1: x"},
      {"/home/u/src\\core\\b.cpp", 2, "x", "b.cpp:2: x"},
      {"dir/", -4, "x", ":-4: x"},
      {"f.cpp", 7, fits, "f.cpp:7: " + fits},
      {"dir/f.cpp", 7, fits + "z", "f.cpp:7: " + fits},
      // A name longer than the buffer leaves no room for the message and must not overrun.
      {huge_name, 1, "lost", std::string(1023, 'n')},
  };
  for (const auto& c : cases) _Log(LOGGER_INFO, c.file.c_str(), c.line, "%s", c.text.c_str());
  _Log(LOGGER_WARNING, "a/f.cpp", 9, "%d channels, %s, %.1f", 3, "ok", 2.5);
  std::vector<std::pair<LogLevel, std::string>> expected;
  for (const auto& c : cases) expected.emplace_back(LOGGER_INFO, c.expected);
  expected.emplace_back(LOGGER_WARNING, "f.cpp:9: 3 channels, ok, 2.5");
  EXPECT_EQ(captured.messages, expected);
}

TEST_F(LoggingTest, SetLoggerReturnsPreviousAndNullRestoresStderr) {
  const logger_t default_writer = setLogger(&captureSink);
  ASSERT_NE(default_writer, nullptr);
  const logger_t other = [](LogLevel, std::string) {};
  EXPECT_EQ(setLogger(other), &captureSink);
  EXPECT_EQ(setLogger(nullptr), other);
  EXPECT_EQ(setLogger(nullptr), default_writer);

  ::testing::internal::CaptureStderr();
  _Log(LOGGER_ERROR, "x/y/z.cpp", 5, "to stderr %d", 1);
  default_writer(LOGGER_INFO, "raw text");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "z.cpp:5: to stderr 1\nraw text\n");
  EXPECT_TRUE(captured.messages.empty());
}

TEST_F(LoggingTest, CustomLoggerReceivesUntilAnyInstanceDisables) {
  const logger_t default_writer = setLogger(&captureSink);
  RecordingLogger first;
  RecordingLogger second;

  first.enable();
  _Log(LOGGER_WARNING, "a/b.cpp", 3, "one");
  ASSERT_EQ(first.messages, std::vector<std::string>{"30 b.cpp:3: one"});
  EXPECT_TRUE(captured.messages.empty()) << "enable replaces a plain logger";

  // Any instance's disable turns the enabled one off, and the default writer returns.
  second.disable();
  EXPECT_EQ(toStderr("b.cpp", 4, "two"), "b.cpp:4: two\n");
  EXPECT_EQ(first.messages.size(), 1u);
  EXPECT_EQ(setLogger(nullptr), default_writer);

  // So does destroying one, including a copy, which is never enabled by copying.
  second.enable();
  {
    RecordingLogger copy(second);
    _Log(LOGGER_INFO, "c.cpp", 5, "three");
    EXPECT_TRUE(copy.messages.empty());
  }
  EXPECT_EQ(second.messages, std::vector<std::string>{"10 c.cpp:5: three"});
  EXPECT_EQ(toStderr("c.cpp", 6, "four"), "c.cpp:6: four\n");
  EXPECT_EQ(second.messages.size(), 1u);
}

TEST_F(LoggingTest, ThrowingReceiverDoesNotEscape) {
  for (const int throws : {1, 2}) {
    RecordingLogger receiver;
    receiver.throws = throws;
    receiver.enable();
    EXPECT_EQ(toStderr("f.cpp", 2, "second"),
              throws == 1 ? "receiver is broken\n" : "f.cpp:2: second\n");
  }
}

TEST_F(LoggingTest, ConcurrentMessagesArriveWholeAndOnce) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 400;
  const std::string tail = " " + std::string(200, '#') + " end";
  setLogger(&captureSink);
  std::vector<std::string> expected;
  {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      for (int m = 0; m < kPerThread; ++m) {
        expected.push_back("w.cpp:" + std::to_string(t) + ": m" + std::to_string(m) + tail);
      }
      threads.emplace_back([t, &tail] {
        for (int m = 0; m < kPerThread; ++m) {
          _Log(LOGGER_INFO, "w.cpp", t, "m%d%s", m, tail.c_str());
        }
      });
    }
    for (auto& thread : threads) thread.join();
  }
  EXPECT_FALSE(captured.overlapped) << "the receiver was entered by two threads at once";
  std::vector<std::string> received;
  for (const auto& [level, line] : captured.messages) received.push_back(line);
  std::ranges::sort(received);
  std::ranges::sort(expected);
  EXPECT_EQ(received, expected);
}

}  // namespace
}  // namespace zeptick
