// The decoder against known answers: calibration tables worked out by hand, and the emulated
// boards' input paths.

#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "engine/native_decoder_fixture.h"

namespace zeptick {
namespace {

using engine_testing::decode;
using engine_testing::event;
using engine_testing::plainSettings;
using engine_testing::rollover;

// Events of index 0 spread over ticks of new rollover periods, `counts[b]` of them in bin b.
std::vector<uint32_t> events(const std::vector<uint32_t>& counts) {
  std::vector<uint32_t> words = {rollover()};
  uint32_t tick = 0;
  for (uint32_t bin = 0; bin < counts.size(); ++bin) {
    for (uint32_t i = 0; i < counts[bin]; ++i) {
      if (++tick == 65536) {
        words.push_back(rollover());
        tick = 1;
      }
      words.push_back(event(0, bin, tick));
    }
  }
  words.push_back(rollover());
  return words;
}

TEST(NativeDecoderWordsTest, TablesSwitchAtTenThousandEventsAndDecayAboveAMillion) {
  NativeDecoder decoder;
  decoder.setup(engine_testing::device(1000, 4, 2), 0);
  auto psecs = [&](bool normalization) {
    decoder.updateDistributions(normalization);
    std::vector<uint32_t> out;
    for (int b = 0; b <= 4; ++b) out.push_back(decoder.distribution(0, b).psecs);
    return out;
  };
  decode(decoder, events({2500, 2500, 5000, 0}), plainSettings(2));
  EXPECT_EQ(psecs(false), std::vector<uint32_t>({0, 250, 500, 750, 1000}));
  // 10001 events: the middles of bins 2500, 2500, 5001 and 0 events wide,
  // worked out by hand; with normalization, their lower edges.
  decode(decoder, events({0, 0, 1}), plainSettings(2));
  EXPECT_EQ(psecs(false), std::vector<uint32_t>({124, 374, 749, 1000, 1000}));
  EXPECT_EQ(psecs(true), std::vector<uint32_t>({0, 249, 499, 1000, 1000}));
  EXPECT_EQ(decoder.distribution(1, 3).psecs, 750u) << "index 1 saw nothing";

  NativeDecoder big;
  big.setup(engine_testing::device(1000, 4, 2), 0);
  decode(big, events({600000, 400000}), plainSettings(2, true));
  decode(big, events({0, 0, 0, 1}), plainSettings(2, true));
  decode(big, {}, plainSettings(2, true));
  EXPECT_EQ(big.distribution(0, 0).count, 540000u);
  EXPECT_EQ(big.distribution(0, 1).count, 360000u);
  EXPECT_EQ(big.distribution(0, 3).count, 0u);
  EXPECT_EQ(big.distribution(0, 1).psecs, 599u) << "made from the counts before they decayed";
}

// A negative input delay moves every other channel forward instead; with
// compensation, every input of the emulated boards lines up with the first.
TEST(NativeDecoderWordsTest, DelaysCompensateTheEmulatedInputPaths) {
  EXPECT_EQ(effectiveInputDelay(-500, 0, true, -500), 0);
  EXPECT_EQ(effectiveInputDelay(0, 0, true, -500), 500);
  EXPECT_EQ(effectiveInputDelay(0, 1574, true, -500), 2074);
  EXPECT_EQ(effectiveInputDelay(300, 1574, false, 0), 300);
  for (const auto& [model_id, name] :
       {std::pair{36, "Zeptick Ultra"}, std::pair{4, "Zeptick 20"}}) {
    emulator::StreamParameters p;
    p.model = model_id, p.inputs = model_id == 36 ? 18 : 8;
    p.ps_per_clock = model_id == 36 ? 2500 : 6000, p.bin_count = model_id == 36 ? 256 : 180;
    const emulator::StreamModel model(p, nlohmann::json::array());
    const auto table = hardwareDelayTable(name, 2 * p.inputs, false);
    const auto group = hardwareDelayTable(name, 2 * p.inputs, true);
    ASSERT_EQ(table.size(), static_cast<size_t>(2 * p.inputs));
    for (size_t i = 0; i < static_cast<size_t>(p.inputs); ++i) {
      EXPECT_EQ(model.inputLatency(static_cast<int>(i)) + table[i],
                model.inputLatency(0) + table[0])
          << name << " input " << i;
      EXPECT_EQ(table[i + static_cast<size_t>(p.inputs)], table[i]) << "falling edge";
      EXPECT_EQ(group[i], table[i] + 780) << "group member";
    }
  }
}

}  // namespace
}  // namespace zeptick
