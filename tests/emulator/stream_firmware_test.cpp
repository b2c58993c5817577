#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <utility>
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
  const auto p = testing::ultra();
  StreamModel model(p, sources);
  model.configure(setup);
  ReferenceDecoder decoder;
  std::vector<Stamp> out;
  for (const Decoded& d : testing::readFor(model, decoder, clocks)) {
    if (d.kind == Decoded::Kind::Event && d.clock < clocks)
      out.emplace_back(d.clock, d.bin, d.index);
  }
  return out;
}

std::vector<Stamp> ofIndex(const std::vector<Stamp>& all, int index) {
  std::vector<Stamp> out;
  for (const Stamp& s : all) {
    if (std::get<2>(s) == index) out.push_back(s);
  }
  return out;
}

// The firmware's settings act on the edges the sources deliver, and the
// sources do not depend on them: the same seed gives the same edges, so a run
// with the plain settings is the reference for a run with the setting under test.
TEST(StreamFirmwareTest, DeadTimeAndDividerThinTheSameEdges) {
  const auto p = testing::ultra();
  const json sources = json::parse(R"([{"type": "poisson", "input": 1, "rate_hz": 2e7}])");
  const int64_t clocks = 2'000'000;
  FirmwareSetup setup = testing::enable(p, {0});
  const auto plain = stamps(sources, setup, clocks);
  ASSERT_GT(plain.size(), 50000u);
  for (size_t i = 1; i < plain.size(); ++i) {
    ASSERT_LT(std::get<0>(plain[i - 1]), std::get<0>(plain[i])) << "one event per cycle at most";
  }

  // Dead time: an event in cycle c blinds the channel until cycle c + 37.
  setup.channels[0].deadtime_clocks = 37;
  std::vector<Stamp> expected;
  for (const Stamp& s : plain) {
    if (expected.empty() || std::get<0>(s) >= std::get<0>(expected.back()) + 37) {
      expected.push_back(s);
    }
  }
  const auto blinded = stamps(sources, setup, clocks);
  EXPECT_EQ(blinded, expected);
  EXPECT_LT(blinded.size(), plain.size() * 2 / 3);

  // Divider 7 (field 6): the first event and every seventh after it.
  setup.channels[0].deadtime_clocks = 1;
  setup.channels[0].divider_field = 6;
  expected.clear();
  for (size_t i = 0; i < plain.size(); i += 7) expected.push_back(plain[i]);
  EXPECT_EQ(stamps(sources, setup, clocks), expected);
}

TEST(StreamFirmwareTest, ConditionalFilterPassesOneFilteredEventPerTrigger) {
  const auto p = testing::ultra();
  // Trigger on input 1 every 1000 ns; filtered input 2 every 300 ns, offset so
  // that no two edges of the two inputs come closer than 50 ns; input 3 is
  // both trigger and filtered; input 4 is filtered and sees a trigger too.
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
  const auto filtered = stamps(sources, setup, clocks);

  // Reference: walk the unfiltered events in time order with one armed flag
  // per filtered channel.
  std::vector<Stamp> expected;
  bool armed[4] = {false, false, false, false};
  for (const Stamp& s : plain) {
    const int index = std::get<2>(s);
    if (index == 0 || index == 2) std::fill(std::begin(armed), std::end(armed), true);
    if (index == 1 || index == 2 || index == 3) {
      if (!armed[index]) continue;
      armed[index] = false;
    }
    expected.push_back(s);
  }
  EXPECT_EQ(filtered, expected);
  EXPECT_EQ(ofIndex(filtered, 0), ofIndex(plain, 0));
  EXPECT_EQ(ofIndex(filtered, 2), ofIndex(plain, 2));
  EXPECT_FALSE(ofIndex(filtered, 1).empty());
  EXPECT_LT(ofIndex(filtered, 1).size(), ofIndex(plain, 1).size() * 2 / 3);

  // Without any trigger channel firing, a filtered channel stays closed.
  setup.channels[0].enabled = false;
  setup.channels[2].enabled = false;
  EXPECT_TRUE(stamps(sources, setup, clocks).empty());
}

TEST(StreamFirmwareTest, OnlyEnabledChannelsSendEvents) {
  const auto p = testing::ultra();
  const json sources = json::parse(R"([
    {"type": "pulses", "input": 1, "width_ps": 3000, "period_ps": 50000},
    {"type": "poisson", "input": 2, "rate_hz": 1e6}
  ])");
  const auto events = stamps(sources, testing::enable(p, {18, 1}), 1'000'000);
  ASSERT_FALSE(events.empty());
  for (const Stamp& s : events) {
    EXPECT_TRUE(std::get<2>(s) == 18 || std::get<2>(s) == 1) << std::get<2>(s);
  }
  EXPECT_FALSE(ofIndex(events, 18).empty());
  EXPECT_FALSE(ofIndex(events, 1).empty());
}

}  // namespace
}  // namespace zeptick::emulator
