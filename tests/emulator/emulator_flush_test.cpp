#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <vector>

#include <nlohmann/json.hpp>

#include "board_fixture.h"
#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"

namespace zeptick::emulator {
namespace {

using nlohmann::json;
using testing::Decoded;
using testing::ReferenceDecoder;
using Clock = std::chrono::steady_clock;

constexpr size_t kTransferWords = 256;  // 1024-byte USB transfers

std::vector<uint32_t> readPadded(StreamModel& model, size_t words) {
  std::vector<uint32_t> out(words);
  const long got = model.read(reinterpret_cast<unsigned char*>(out.data()),
                              static_cast<long>(words * 4), kTransferWords * 4);
  EXPECT_EQ(got, static_cast<long>(words * 4));
  return out;
}

// A quiet paced board with a 10 kHz pulse on input 1: large reads come back
// after about a millisecond per transfer, padded at the end of each transfer
// only, and the real words between the fillers still tell the exact times.
TEST(EmulatorFlushTest, QuietPacedReadsArePaddedPerTransferAndKeepTimes) {
  const auto p = testing::ultra(true);
  constexpr int64_t kPulseClocks = 40000;  // 100 us at 2500 ps per cycle
  const auto created = Clock::now();
  StreamModel model(
      p, json::array(
             {{{"type", "periodic"}, {"input", 1}, {"period_ps", kPulseClocks * p.ps_per_clock}}}));
  model.configure(testing::enable(p, {0}));

  ReferenceDecoder decoder;
  std::vector<Decoded> events;
  size_t fillers = 0;
  constexpr size_t kReadWords = 32768;  // 128 transfers
  for (int read = 0; read < 3; ++read) {
    const auto start = Clock::now();
    const std::vector<uint32_t> words = readPadded(model, kReadWords);
    const auto took = Clock::now() - start;
    // Every transfer holds far fewer real words than its size, so each one
    // waits its millisecond; none waits for the whole transfer to fill.
    EXPECT_GE(took, std::chrono::milliseconds(100));
    EXPECT_LT(took, std::chrono::seconds(3));

    for (size_t begin = 0; begin < words.size(); begin += kTransferWords) {
      bool padding = false;
      for (size_t i = begin; i < begin + kTransferWords; ++i) {
        if (words[i] == 0) {
          padding = true;
          ++fillers;
        } else {
          ASSERT_FALSE(padding) << "a real word after fillers within transfer at " << begin;
        }
      }
    }
    for (const Decoded& d : decoder.decode(words)) {
      if (d.kind == Decoded::Kind::Event) events.push_back(d);
    }
  }
  const double stream_seconds = static_cast<double>(decoder.base() * p.ps_per_clock) * 1e-12;
  const double wall_seconds = std::chrono::duration<double>(Clock::now() - created).count();
  // Fillers never let the stream run ahead of real time.
  EXPECT_LE(stream_seconds, wall_seconds);
  EXPECT_GT(fillers, 3 * kReadWords / 2);

  ASSERT_GT(events.size(), 1000u);
  const std::vector<int64_t>& upper = model.binUpperEdges(0);
  const double first = testing::timePs(events[0], upper, p.ps_per_clock);
  for (size_t k = 0; k < events.size(); ++k) {
    ASSERT_EQ(events[k].index, 0);
    ASSERT_EQ(events[k].clock - events[0].clock, static_cast<int64_t>(k) * kPulseClocks) << k;
    ASSERT_DOUBLE_EQ(testing::timePs(events[k], upper, p.ps_per_clock) - first,
                     static_cast<double>(k) * kPulseClocks * p.ps_per_clock);
  }
}

// Free-running boards deliver as fast as they are read and never pad, and a
// busy paced board fills its transfers before the wait runs out.
TEST(EmulatorFlushTest, FreeRunningAndBusyStreamsCarryNoFillers) {
  const auto p = testing::ultra(false);
  StreamModel fast(p, json::array({{{"type", "poisson"}, {"input", 1}, {"rate_hz", 1e5}}}));
  fast.configure(testing::enable(p, {0}));
  for (uint32_t word : readPadded(fast, 65536)) ASSERT_NE(word, 0u);

  // 20 million pulses a second: a transfer fills in about 13 us.
  const auto q = testing::ultra(true);
  StreamModel busy(q, json::array({{{"type", "periodic"}, {"input", 1}, {"period_ps", 50000}}}));
  busy.configure(testing::enable(q, {0}));
  size_t fillers = 0;
  for (uint32_t word : readPadded(busy, 65536)) fillers += word == 0;
  EXPECT_LT(fillers, 65536u / 100);
}

using EmulatorFlushBoardTest = testing::BoardTest;

// Through the pipe, as the host reads after its calibration burst: 131072
// words of a quiet default-paced board used to take some 21 s.
TEST_F(EmulatorFlushBoardTest, LargeReadOfAQuietPacedBoardReturnsPromptly) {
  loadedBoard();
  setWire(0x0D, 1);
  update();
  std::vector<unsigned char> buffer(4 * 131072);
  const auto start = Clock::now();
  EXPECT_EQ(fp.okFrontPanel_ReadFromBlockPipeOut(handle, 0xA0, 1024,
                                                 static_cast<long>(buffer.size()), buffer.data()),
            static_cast<long>(buffer.size()));
  const auto took = Clock::now() - start;
  EXPECT_LT(took, std::chrono::seconds(5));
  // The stream is rollovers and fillers only, and the rollovers are the
  // periods that passed: nothing lost, nothing early.
  std::vector<uint32_t> words(buffer.size() / 4);
  std::memcpy(words.data(), buffer.data(), buffer.size());
  ReferenceDecoder decoder;
  int64_t previous = 0;
  for (const Decoded& d : decoder.decode(words)) {
    if (d.kind == Decoded::Kind::Filler) continue;
    ASSERT_EQ(d.kind, Decoded::Kind::Rollover);
    ASSERT_EQ(d.clock, previous + 65536);
    previous = d.clock;
  }
  EXPECT_GT(previous, 0);
}

}  // namespace
}  // namespace zeptick::emulator
