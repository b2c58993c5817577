#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <set>
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

const json kSources = json::parse(R"([
  {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 2e6},
  {"type": "periodic", "input": 3, "period_ps": 100000},
  {"type": "poisson", "input": 4, "rate_hz": 5e5}
])");

// The host reconfigures from any thread while a worker reads the pipe.
TEST(StreamConcurrencyTest, ConfigureWhileAnotherThreadReads) {
  const auto p = testing::ultra();
  StreamModel model(p, kSources);
  std::atomic<bool> done{false};
  std::set<int> fences;
  int64_t events = 0;
  std::thread reader([&] {
    ReferenceDecoder decoder;
    for (int i = 0; i < 200; ++i) {
      for (const Decoded& d : decoder.decode(testing::readWords(model, 4096))) {
        if (d.kind == Decoded::Kind::Rollover && d.fence >= 0) fences.insert(d.fence);
        events += d.kind == Decoded::Kind::Event;
      }
    }
    done = true;
  });
  int round = 0;
  while (!done) {
    FirmwareSetup setup = testing::enable(
        p, round % 2 ? std::initializer_list<int>{0, 1, 2} : std::initializer_list<int>{2, 3, 20});
    setup.fence = static_cast<uint8_t>(round % 50);
    setup.channels[2].deadtime_clocks = static_cast<uint16_t>(1 + round % 7);
    setup.buffer_words = round % 3 ? 0 : 5000;
    setup.test_period_word = round % 4 ? 0 : 126;
    setup.test_half_period_word = 63;
    setup.channels[3].mux = round % 4 ? 0 : 3;
    model.configure(setup);
    ++round;
    std::this_thread::yield();
  }
  reader.join();
  EXPECT_GT(events, 0);
  for (int fence : fences) EXPECT_LT(fence, 50);
}

// A paced read that waits for the stream must not hold up configure(): the
// new fence shows up in the words of the read that was waiting.
TEST(StreamConcurrencyTest, PacedReadWaitsWithoutBlockingConfigure) {
  const auto p = testing::ultra(true);
  StreamModel model(p, json::array());
  std::vector<uint32_t> words;
  std::thread reader([&] { words = testing::readWords(model, 300); });  // about 50 ms
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  FirmwareSetup setup = testing::enable(p, {});
  setup.fence = 9;
  model.configure(setup);
  reader.join();
  ReferenceDecoder decoder;
  const auto decoded = decoder.decode(words);
  ASSERT_EQ(decoded.back().kind, Decoded::Kind::Rollover);
  EXPECT_EQ(decoded.back().fence, 9);
}

}  // namespace
}  // namespace zeptick::emulator
