#include "zeptick/logging.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <set>
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

void otherSink(LogLevel, std::string) {}

class RecordingLogger : public CustomLogger {
 public:
  void Log(int level, const std::string& message) override {
    levels.push_back(level);
    messages.push_back(message);
  }
  std::vector<int> levels;
  std::vector<std::string> messages;
};

class ThrowingLogger : public CustomLogger {
 public:
  explicit ThrowingLogger(bool standard) : standard(standard) {}
  void Log(int, const std::string&) override {
    if (standard) throw std::runtime_error("receiver is broken");
    throw 42;
  }
  bool standard;
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

std::string logOnce(const char* file, int line, const char* text) {
  captured.messages.clear();
  _Log(LOGGER_INFO, file, line, "%s", text);
  return captured.messages.empty() ? std::string("<nothing>") : captured.messages.back().second;
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
  for (const auto& c : cases) {
    EXPECT_EQ(logOnce(c.file.c_str(), c.line, c.text.c_str()), c.expected) << c.file;
  }
  captured.messages.clear();
  _Log(LOGGER_WARNING, "a/f.cpp", 9, "%d channels, %s, %.1f", 3, "ok", 2.5);
  EXPECT_EQ(captured.messages, (std::vector<std::pair<LogLevel, std::string>>{
                                   {LOGGER_WARNING, "f.cpp:9: 3 channels, ok, 2.5"}}));
}

TEST_F(LoggingTest, SetLoggerReturnsPreviousAndNullRestoresStderr) {
  const logger_t default_writer = setLogger(&captureSink);
  ASSERT_NE(default_writer, nullptr);
  EXPECT_EQ(setLogger(&otherSink), &captureSink);
  EXPECT_EQ(setLogger(nullptr), &otherSink);
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
  ASSERT_EQ(first.messages, std::vector<std::string>{"b.cpp:3: one"});
  EXPECT_EQ(first.levels, std::vector<int>{30});
  EXPECT_TRUE(captured.messages.empty()) << "enable replaces a plain logger";

  // Any instance's disable turns the enabled one off, and the default writer returns.
  second.disable();
  ::testing::internal::CaptureStderr();
  _Log(LOGGER_INFO, "b.cpp", 4, "two");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "b.cpp:4: two\n");
  EXPECT_EQ(first.messages.size(), 1u);
  EXPECT_EQ(setLogger(nullptr), default_writer);

  // So does destroying one, including a copy, which is never enabled by copying.
  second.enable();
  {
    RecordingLogger copy(second);
    _Log(LOGGER_INFO, "c.cpp", 5, "three");
    EXPECT_TRUE(copy.messages.empty());
  }
  EXPECT_EQ(second.messages, std::vector<std::string>{"c.cpp:5: three"});
  {
    std::lock_guard<std::mutex> lock(CustomLogger::instance_mutex);
    EXPECT_EQ(CustomLogger::instance, nullptr);
  }
  ::testing::internal::CaptureStderr();
  _Log(LOGGER_INFO, "c.cpp", 6, "four");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "c.cpp:6: four\n");
  EXPECT_EQ(second.messages.size(), 1u);
}

TEST_F(LoggingTest, ThrowingReceiverDoesNotEscape) {
  for (const bool standard : {true, false}) {
    ThrowingLogger receiver(standard);
    receiver.enable();
    ::testing::internal::CaptureStderr();
    EXPECT_NO_THROW(_Log(LOGGER_ERROR, "f.cpp", 2, "second"));
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              standard ? "receiver is broken\n" : "f.cpp:2: second\n");
  }
}

TEST_F(LoggingTest, ConcurrentMessagesArriveWholeAndOnce) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 400;
  const std::string padding(200, '#');
  setLogger(&captureSink);
  {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t, &padding] {
        for (int m = 0; m < kPerThread; ++m) {
          _Log(LOGGER_INFO, "src/w.cpp", t, "t%d m%d %s end", t, m, padding.c_str());
        }
      });
    }
    for (auto& thread : threads) thread.join();
  }
  EXPECT_FALSE(captured.overlapped) << "the receiver was entered by two threads at once";
  std::set<std::pair<int, int>> seen;
  for (const auto& [level, line] : captured.messages) {
    int t = -1, m = -1, line_no = -1;
    char tail[512] = {};
    ASSERT_EQ(std::sscanf(line.c_str(), "w.cpp:%d: t%d m%d %511s", &line_no, &t, &m, tail), 4)
        << line;
    EXPECT_EQ(line_no, t);
    EXPECT_EQ(std::string(tail), padding) << line;
    EXPECT_TRUE(line.ends_with(padding + " end")) << line;
    EXPECT_TRUE(seen.emplace(t, m).second) << "duplicate " << line;
  }
  EXPECT_EQ(seen.size(), static_cast<size_t>(kThreads * kPerThread));
}

}  // namespace
}  // namespace zeptick
