#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"
#include "engine/native_decoder_fixture.h"

namespace zeptick {
namespace {

using engine_testing::decode;
using engine_testing::event;
using engine_testing::plainSettings;

// Events of index 0 spread over ticks of new rollover periods, `counts[b]` of them in bin b.
std::vector<uint32_t> events(const std::vector<uint32_t>& counts) {
  std::vector<uint32_t> words = {engine_testing::rollover()};
  uint32_t tick = 0;
  for (uint32_t bin = 0; bin < counts.size(); ++bin) {
    for (uint32_t i = 0; i < counts[bin]; ++i) {
      if (++tick == 65536) {
        words.push_back(engine_testing::rollover());
        tick = 1;
      }
      words.push_back(event(0, bin, tick));
    }
  }
  return words;
}

std::vector<uint32_t> psecs(const NativeDecoder& decoder) {
  std::vector<uint32_t> out;
  for (int b = 0; b <= decoder.binCount(); ++b) out.push_back(decoder.distribution(0, b).psecs);
  return out;
}

TEST(NativeDecoderCalibrationTest, TablesSwitchAtTenThousandEventsAndDecayAboveAMillion) {
  // The same with the events passing a conditional filter: counted when
  // they leave the first heap, and the tables follow as well.
  for (const bool filtered : {false, true}) {
    NativeDecoder decoder;
    decoder.setup(engine_testing::device(1000, 4, 2), 0);
    auto settings = plainSettings(2, false);
    settings.channels[0].conditionalTrigger = filtered;
    settings.channels[0].conditionalFiltered = filtered;
    // Two rollovers: a filtered device's last event leaves the heap only with the first.
    const std::vector<uint32_t> next = {engine_testing::rollover(), engine_testing::rollover()};
    decode(decoder, events({2500, 2500, 5000, 0}), settings);
    decode(decoder, next, settings);
    decode(decoder, {}, settings);
    EXPECT_EQ(psecs(decoder), std::vector<uint32_t>({0, 250, 500, 750, 1000}));

    // 10001 events: the middles of bins 2500, 2500, 5001 and 0 events wide,
    // worked out by hand; with normalization, their lower edges.
    decode(decoder, events({0, 0, 1}), settings);
    decode(decoder, next, settings);
    decode(decoder, {}, settings);
    EXPECT_EQ(psecs(decoder), std::vector<uint32_t>({124, 374, 749, 1000, 1000})) << filtered;
    settings.normalization = true;
    decode(decoder, next, settings);
    EXPECT_EQ(psecs(decoder), std::vector<uint32_t>({0, 249, 499, 1000, 1000})) << filtered;
    // Index 1 saw nothing and stays uniform.
    EXPECT_EQ(decoder.distribution(1, 3).psecs, 750u);
  }
  auto settings = plainSettings(2, true);

  NativeDecoder big;
  big.setup(engine_testing::device(1000, 4, 2), 0);
  decode(big, events({600000, 400000}), settings);
  decode(big, {}, settings);
  EXPECT_EQ(big.distribution(0, 0).count, 600000u);
  decode(big, events({0, 0, 0, 1}), settings);
  decode(big, {}, settings);
  EXPECT_EQ(big.distribution(0, 0).count, 540000u);
  EXPECT_EQ(big.distribution(0, 1).count, 360000u);
  EXPECT_EQ(big.distribution(0, 3).count, 0u);
  // The table was made from the counts before they decayed.
  EXPECT_EQ(big.distribution(0, 1).psecs, 599u);
}

// The emulated board has uneven fine bins. Sparse Poisson events fall
// uniformly against the clock (dense ones would lean towards the clock edge
// through the dead time), so the learned edges must converge to the true ones,
// also once the counts have decayed.
TEST(NativeDecoderCalibrationTest, LearnsTheEmulatedBinProfile) {
  const auto p = emulator::testing::ultra(false, 11);
  emulator::StreamModel model(p, nlohmann::json::parse(R"([
    {"type": "poisson", "input": 1, "rate_hz": 1.5e6},
    {"type": "poisson", "input": 2, "rate_hz": 1.5e6}])"));
  model.configure(emulator::testing::enable(p, {0, 1}));
  for (const bool normalization : {true, false}) {
    NativeDecoder decoder;
    decoder.setup(engine_testing::device(p.ps_per_clock, p.bin_count, 2 * p.inputs), 0);
    const auto settings = plainSettings(2 * p.inputs, normalization);
    std::vector<NativeTag> native(131072);
    std::vector<Tag> tags;
    DecodedBlock block(tags);
    uint64_t seen = 0;
    while (seen < 1200000) {
      ASSERT_EQ(model.read(reinterpret_cast<unsigned char*>(native.data()), 131072 * 4),
                131072 * 4);
      decoder.decodeBlock(native, 0, settings, block);
      seen += tags.size() / 2;
    }
    decoder.decodeBlock(native, 0, settings, block);
    for (int index = 0; index < 2; ++index) {
      const auto upper = model.binUpperEdges(index);
      double worst = 0;
      for (int b = 0; b < p.bin_count; ++b) {
        const double lower = b == 0 ? 0.0 : static_cast<double>(upper[static_cast<size_t>(b) - 1]);
        const double want =
            normalization ? lower
                          : 0.5 * (lower + static_cast<double>(upper[static_cast<size_t>(b)]));
        const double got = decoder.distribution(index, b).psecs;
        worst = std::max(worst, std::abs(got - want));
      }
      EXPECT_LT(worst, 5.0) << "index " << index << " normalization " << normalization;
      EXPECT_EQ(decoder.distribution(index, p.bin_count).psecs, 2500u);
    }
  }
}

}  // namespace
}  // namespace zeptick
