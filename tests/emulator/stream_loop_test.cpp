#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"

namespace zeptick::emulator {
namespace {

// A looped recording comes back word for word, across reads of any length and
// the loop's end, and its rollover words follow the host's fence, set before
// or after the loop began.
TEST(StreamLoopTest, RepeatsTheRecordingWithTheHostsFence) {
  const auto p = testing::ultra();
  StreamModel model(p,
                    nlohmann::json::parse(R"([{"type": "poisson", "input": 1, "rate_hz": 1e7}])"));
  FirmwareSetup setup = testing::enable(p, {0});
  setup.fence = 0x21;
  model.configure(setup);
  constexpr uint32_t kRollover = (1u << 30) | (62u << 24);
  const std::vector<uint32_t> recording = {(1u << 30) | 5, kRollover | (0x07 << 16),
                                           (1u << 30) | (3u << 16) | 9, kRollover};
  model.loopRecording(recording);

  auto expected = [&](size_t at, uint8_t fence) {
    const uint32_t word = recording[at % recording.size()];
    return (word >> 24) == (kRollover >> 24) ? (word & ~0xFF0000u) | (uint32_t{fence} << 16) : word;
  };
  size_t at = 0;
  for (const size_t length : {1, 3, 4, 7, 2}) {
    const std::vector<uint32_t> words = testing::readWords(model, length);
    for (const uint32_t word : words) ASSERT_EQ(word, expected(at++, 0x21)) << "word " << at;
  }
  setup.fence = 0x80;
  model.configure(setup);
  for (const uint32_t word : testing::readWords(model, 9)) ASSERT_EQ(word, expected(at++, 0x80));
}

}  // namespace
}  // namespace zeptick::emulator
