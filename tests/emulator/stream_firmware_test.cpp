#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"

namespace zeptick::emulator {
namespace {

using nlohmann::json;
using testing::Decoded;
using testing::ReferenceDecoder;

// (cycle, bin, index) of every event, in stream order.
using Stamp = std::tuple<int64_t, int, int>;

std::vector<Stamp> stamps(const json& sources, const FirmwareSetup& setup, int64_t clocks) {
  StreamModel model(testing::ultra(), sources);
  model.configure(setup);
  ReferenceDecoder decoder;
  std::vector<Stamp> out;
  for (const Decoded& d :
       testing::only(testing::readFor(model, decoder, clocks), Decoded::Kind::Event)) {
    out.emplace_back(d.clock, d.bin, d.index);
  }
  return out;
}

// The firmware's settings act on the edges the sources deliver, and the same
// seed gives the same edges, so a run with the plain settings is the reference
// for a run with the setting under test.
TEST(StreamFirmwareTest, DeadTimeAndDividerThinTheSameEdges) {
  const auto p = testing::ultra();
  const json sources = json::parse(R"([{"type": "poisson", "input": 1, "rate_hz": 2e7},
                                       {"type": "poisson", "input": 2, "rate_hz": 1e6}])");
  const int64_t clocks = 2'000'000;
  FirmwareSetup setup = testing::enable(p, {0});
  const auto plain = stamps(sources, setup, clocks);
  ASSERT_GT(plain.size(), 50000u);
  for (size_t i = 0; i < plain.size(); ++i) {
    ASSERT_EQ(std::get<2>(plain[i]), 0) << "only enabled channels send events";
    if (i > 0) {
      ASSERT_LT(std::get<0>(plain[i - 1]), std::get<0>(plain[i])) << "one per cycle";
    }
  }

  // Dead time: an event in cycle c blinds the channel until cycle c + 37.
  setup.channels[0].deadtime_clocks = 37;
  std::vector<Stamp> expected;
  for (const Stamp& s : plain) {
    if (expected.empty() || std::get<0>(s) >= std::get<0>(expected.back()) + 37) {
      expected.push_back(s);
    }
  }
  EXPECT_LT(expected.size(), plain.size() * 2 / 3);
  EXPECT_EQ(stamps(sources, setup, clocks), expected);

  // Divider 7 (field 6): the first event and every seventh after it.
  setup.channels[0].deadtime_clocks = 1;
  setup.channels[0].divider_field = 6;
  expected.clear();
  for (size_t i = 0; i < plain.size(); i += 7) expected.push_back(plain[i]);
  EXPECT_EQ(stamps(sources, setup, clocks), expected);
}

TEST(StreamFirmwareTest, ConditionalFilterPassesOneFilteredEventPerTrigger) {
  const auto p = testing::ultra();
  // Trigger on input 1; filtered input 2; input 3 both trigger and filtered;
  // input 4 filtered. No two edges of two inputs come closer than 10 ns.
  const json sources = json::parse(R"([
    {"type": "periodic", "input": 1, "period_ps": 1000000},
    {"type": "periodic", "input": 2, "period_ps": 300000, "phase_ps": 50000},
    {"type": "periodic", "input": 3, "period_ps": 700000, "phase_ps": 20000},
    {"type": "periodic", "input": 4, "period_ps": 130000, "phase_ps": 10000}
  ])");
  const int64_t clocks = 4'000'000;
  FirmwareSetup setup = testing::enable(p, {0, 1, 2, 3});
  const auto plain = stamps(sources, setup, clocks);
  setup.channels[0].trigger = true;
  setup.channels[1].filtered = true;
  setup.channels[2].trigger = true;
  setup.channels[2].filtered = true;
  setup.channels[3].filtered = true;

  // Reference: the unfiltered events in time order, one armed flag per channel.
  std::vector<Stamp> expected;
  bool armed[4] = {false, false, false, false};
  size_t passed_filtered = 0, plain_filtered = 0;
  for (const Stamp& s : plain) {
    const int index = std::get<2>(s);
    if (index == 0 || index == 2) std::fill(std::begin(armed), std::end(armed), true);
    if (index != 0) {
      plain_filtered += index == 1;
      if (!armed[index]) continue;
      armed[index] = false;
      passed_filtered += index == 1;
    }
    expected.push_back(s);
  }
  EXPECT_GT(passed_filtered, 0u);
  EXPECT_LT(passed_filtered, plain_filtered * 2 / 3);
  EXPECT_EQ(stamps(sources, setup, clocks), expected);

  // Without any trigger channel firing, a filtered channel stays closed.
  setup.channels[0].enabled = false;
  setup.channels[2].enabled = false;
  EXPECT_TRUE(stamps(sources, setup, clocks).empty());
}

}  // namespace
}  // namespace zeptick::emulator
