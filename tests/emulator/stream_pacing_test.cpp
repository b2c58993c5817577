#include <gtest/gtest.h>

#include <chrono>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"

namespace zeptick::emulator {
namespace {

using nlohmann::json;
using testing::Decoded;
using testing::ReferenceDecoder;
using Clock = std::chrono::steady_clock;
using Kind = Decoded::Kind;

constexpr size_t kTransferWords = 256;  // 1024-byte USB transfers
constexpr int64_t kPeriod = 65536;

std::vector<uint32_t> readPadded(StreamModel& model, size_t words) {
  std::vector<uint32_t> out(words);
  EXPECT_EQ(model.read(reinterpret_cast<unsigned char*>(out.data()), static_cast<long>(words * 4),
                       kTransferWords * 4),
            static_cast<long>(words * 4));
  return out;
}

TEST(StreamPacingTest, BusyOrFreeRunningStreamsCarryNoFillersAndQuietOnesNeverStall) {
  // Free-running with events: as fast as read, never padded.
  const auto p = testing::ultra(false);
  StreamModel fast(p, json::array({{{"type", "poisson"}, {"input", 1}, {"rate_hz", 1e5}}}));
  fast.configure(testing::enable(p, {0}));
  for (uint32_t word : readPadded(fast, 65536)) ASSERT_NE(word, 0u);

  // Paced at 20 million pulses a second: a transfer fills in about 13 us.
  const auto q = testing::ultra(true);
  StreamModel busy(q, json::array({{{"type", "periodic"}, {"input", 1}, {"period_ps", 50000}}}));
  busy.configure(testing::enable(q, {0}));
  size_t fillers = 0;
  for (uint32_t word : readPadded(busy, 65536)) fillers += word == 0;
  EXPECT_LT(fillers, 65536u / 100);

  // Free-running with nothing to send: every read passes one period, so fences
  // keep coming but the clock cannot race ahead; fillers pad the rest.
  StreamModel quiet(p, json::array());
  quiet.configure(testing::enable(p, {0}));
  ReferenceDecoder decoder;
  for (int read = 1; read <= 3; ++read) {
    int64_t periods = 0;
    for (const Decoded& d : decoder.decode(testing::readWords(quiet, 4096))) {
      ASSERT_TRUE(d.kind == Kind::Rollover || d.kind == Kind::Filler);
      periods += d.periods;
    }
    EXPECT_EQ(periods, 1);
    EXPECT_EQ(decoder.base(), read * kPeriod);
  }

  // Paced and quiet: a kind-1 rollover per period, none before its time.
  const auto start = Clock::now();
  StreamModel paced(q, json::array());
  ReferenceDecoder slow;
  const auto rollovers = slow.decode(testing::readWords(paced, 6));
  EXPECT_GE(Clock::now() - start, std::chrono::nanoseconds(6 * kPeriod * 2500 / 1000));
  for (size_t k = 0; k < rollovers.size(); ++k) {
    EXPECT_EQ(rollovers[k].fence, 0);
    EXPECT_EQ(rollovers[k].clock, static_cast<int64_t>(k + 1) * kPeriod);
  }
}

// A paced read that waits for the stream must not hold configure() up, as the
// host reconfigures while a worker reads: the new fence shows in the words of
// the read that was waiting.
TEST(StreamPacingTest, ConfigureGetsThroughWhileAPacedReadWaits) {
  const auto p = testing::ultra(true);
  StreamModel paced(p, json::array());
  std::vector<uint32_t> words;
  std::thread waiting([&] { words = testing::readWords(paced, 300); });  // about 50 ms
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  FirmwareSetup setup = testing::enable(p, {});
  setup.fence = 9;
  paced.configure(setup);
  waiting.join();
  const auto decoded = ReferenceDecoder().decode(words);
  ASSERT_EQ(decoded.back().kind, Kind::Rollover);
  EXPECT_EQ(decoded.back().fence, 9);
}

}  // namespace
}  // namespace zeptick::emulator
