#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/source_random.h"
#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"

namespace zeptick::emulator {
namespace {

using nlohmann::json;
using testing::Decoded;
using testing::eventTimes;

TEST(StreamSourcesTest, RatesJitterAndBurstsMatchTheDescription) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([
    {"type": "poisson", "input": 1, "rate_hz": 200000},
    {"type": "periodic", "input": 2, "period_ps": 100000, "jitter_ps": 50, "phase_ps": 700},
    {"type": "bursts", "input": 5, "rate_hz": 20000, "events": 5, "spacing_ps": 20000}
  ])"));
  model.configure(testing::enable(p, {0, 1, 4}));
  const auto all = testing::readFor(model, 40'000'000);
  const double seconds = 40e6 * 2500e-12;

  // Poisson: the count within 5 sigma, and a share exp(-2) of the gaps beyond twice the mean.
  const auto poisson = eventTimes(model, all, 0, 2500);
  const double expected = 200000 * seconds;
  EXPECT_NEAR(static_cast<double>(poisson.size()), expected, 5 * std::sqrt(expected));
  int64_t long_gaps = 0;
  for (size_t i = 1; i < poisson.size(); ++i) long_gaps += poisson[i] - poisson[i - 1] > 1e7;
  EXPECT_NEAR(static_cast<double>(long_gaps) / static_cast<double>(poisson.size() - 1),
              std::exp(-2.0), 5 * std::sqrt(0.135 * 0.865 / expected));

  // Periodic: at phase + path latency + k * period, with the jitter's spread
  // (the fine bins add about 3 ps in quadrature).
  const auto periodic = eventTimes(model, all, 1, 2500);
  ASSERT_NEAR(static_cast<double>(periodic.size()), seconds / 100e-9, 2);
  double sum = 0, squares = 0;
  for (size_t k = 0; k < periodic.size(); ++k) {
    const double deviation = periodic[k] - 100000.0 * static_cast<double>(k);
    sum += deviation;
    squares += deviation * deviation;
  }
  const double mean = sum / static_cast<double>(periodic.size());
  EXPECT_NEAR(mean, 700.0 + static_cast<double>(model.inputLatency(1)), 8.0);
  EXPECT_NEAR(std::sqrt(squares / static_cast<double>(periodic.size()) - mean * mean), 50.0, 2.0);

  // Bursts, 50 us apart on average, keep their inner spacing; now and then two overlap into one.
  const auto bursts = eventTimes(model, all, 4, 2500);
  ASSERT_GT(bursts.size(), 5000u);
  size_t start = 0, groups = 0, regular = 0;
  for (size_t k = 1; k < bursts.size(); ++k) {
    if (bursts[k] - bursts[k - 1] < 100'000) continue;
    ++groups;
    ASSERT_GE(k - start, 5u) << "burst at " << bursts[start];
    for (size_t i = start + 1; i < k && k - start == 5; ++i) {
      ASSERT_NEAR(bursts[i] - bursts[i - 1], 20000, 15);
    }
    regular += k - start == 5;
    start = k;
  }
  EXPECT_GE(regular, groups * 95 / 100);
}

TEST(StreamSourcesTest, TriggerLevelAndPolarityChooseTheEdgesSeen) {
  const auto p = testing::ultra();
  // A positive 1 V pulse on input 1, a negative -0.8 V one on input 2.
  const json sources = json::parse(R"([
    {"type": "pulses", "input": 1, "width_ps": 5000, "period_ps": 1e6},
    {"type": "pulses", "input": 2, "width_ps": 7000, "rate_hz": 2e5, "amplitude_volts": -0.8}
  ])");
  const std::tuple<double, int, bool> cases[] = {
      {0.5, 0, true},  {1.2, 0, false},  {-0.3, 0, false}, {-0.4, 0, false},
      {0.5, 1, false}, {-0.4, 19, true}, {-0.9, 19, false}};
  for (const auto& [level, index, seen] : cases) {
    SCOPED_TRACE(::testing::Message() << "level " << level << " index " << index);
    StreamModel model(p, sources);
    model.configure(testing::enable(p, {0, 1, 18, 19}, level));
    const auto events =
        testing::only(testing::readFor(model, 400'000), Decoded::Kind::Event, index);
    EXPECT_EQ(events.size() > 40, seen) << events.size();
    EXPECT_TRUE(seen || events.empty());
  }

  // A negative pulse starts with its falling edge; the rising one trails by the width.
  StreamModel model(p, sources);
  model.configure(testing::enable(p, {1, 19}, -0.4));
  const auto all = testing::readFor(model, 400'000);
  const auto up2 = eventTimes(model, all, 1, 2500);
  for (double lead : eventTimes(model, all, 19, 2500)) {
    if (lead > 399'000 * 2500.0) break;
    const auto trail = std::lower_bound(up2.begin(), up2.end(), lead + 7000 - 15);
    ASSERT_TRUE(trail != up2.end() && *trail <= lead + 7000 + 15) << lead;
  }
}

TEST(StreamSourcesTest, BadDescriptionsAreRefusedWithClearMessages) {
  const auto p = testing::ultra();
  const std::vector<std::pair<const char*, const char*>> cases = {
      {R"({"type": "poisson"})", "sources must be a JSON array"},
      {R"([{"type": "laser", "input": 1}])", "source 1 (\"laser\"): unknown type"},
      {R"([{"type": "poisson", "input": 19, "rate_hz": 1}])", "inputs 1 to 18, not 19"},
      {R"([{"type": "poisson", "input": 0, "rate_hz": 1}])", "not 0"},
      {R"([{"type": "poisson", "input": 1}])", "needs \"rate_hz\""},
      {R"([{"type": "poisson", "input": 1, "rate_hz": -5}])", "rate_hz must be above 0"},
      {R"([{"type": "poisson", "input": 1, "rate_hz": 5, "rate": 3}])", "unknown key \"rate\""},
      {R"([{"type": "periodic", "input": 1, "period_ps": 1000, "width_ps": 2000}])",
       "width_ps must be shorter than period_ps"},
      {R"([{"type": "pairs", "inputs": [1, 2, 3], "delays_ps": [0, 1, 2], "rate_hz": 1}])",
       "exactly two inputs"},
      {R"([{"type": "cascade", "inputs": [1, 2], "delays_ps": [0], "rate_hz": 1}])",
       "one delay per input"},
      {R"([{"type": "pulses", "input": 1, "width_ps": 10, "rate_hz": 1, "period_ps": 9}])",
       "either period_ps or rate_hz"},
      {R"([{"type": "bursts", "input": 1, "rate_hz": 1, "events": 3}])", "needs \"spacing_ps\""},
      {R"([{"type": "poisson", "input": 1, "rate_hz": 1}, 7])", "source 2: must be a JSON object"},
      {R"([{"type": "pairs", "inputs": [1, null], "delays_ps": [0, 1], "rate_hz": 1}])",
       "null (an input of another board) only in a source with a seed"},
      {R"([{"type": "pairs", "inputs": [null, null], "delays_ps": [0, 1], "rate_hz": 1,
            "seed": 3}])",
       "at least one input of this board"},
      {R"([{"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1], "rate_hz": 1, "seed": -3}])",
       "seed must be a whole number"},
      // More occurrences in flight than the emulator can keep: found stalling a read.
      {R"([{"type": "pairs", "inputs": [1, 3], "delays_ps": [0, 15000], "rate_hz": 1e9,
            "jitter_ps": 30e6}])",
       "jitter_ps is too large for the rate"},
      {R"([{"type": "bursts", "input": 1, "rate_hz": 1e6, "events": 3, "spacing_ps": 1e15}])",
       "the delays span too long for the rate"},
  };
  for (const auto& [text, message] : cases) {
    EXPECT_THAT([&] { StreamModel(p, json::parse(text)); },
                ::testing::ThrowsMessage<std::invalid_argument>(::testing::HasSubstr(message)))
        << text;
  }
  StreamParameters bad = p;
  bad.bin_count = 300;
  EXPECT_THROW(StreamModel(bad, json::array()), std::invalid_argument);
}

// Shares of a million draws beyond thresholds, within five standard errors of the exact ones;
// the far thresholds reach the ziggurat's tail and wedge paths, which the fast path never takes.
TEST(StreamSourcesTest, VariatesFollowTheirDistributionsIntoTheTails) {
  constexpr int kDraws = 1'000'000;
  Random random(mixSeed(3, 1));
  const std::vector<double> cuts = {0, 0.01, 0.5, 1, 2, 3, 3.44, 4, 5, 7.7, 10};
  std::vector<double> exponential(cuts.size()), normal(cuts.size());
  double sum = 0, squares = 0, negative = 0;
  for (int i = 0; i < kDraws; ++i) {
    const double e = random.exponential(), n = random.normal();
    ASSERT_GE(e, 0);
    sum += e;
    squares += n * n;
    negative += n < 0;
    for (size_t c = 0; c < cuts.size(); ++c) {
      exponential[c] += e > cuts[c];
      normal[c] += std::fabs(n) > cuts[c];
    }
  }
  auto near = [](double count, double p) {
    return std::fabs(count - p * kDraws) <= 5 * std::sqrt(p * kDraws) + 1;
  };
  for (size_t c = 0; c < cuts.size(); ++c) {
    EXPECT_TRUE(near(exponential[c], std::exp(-cuts[c]))) << "P(X > " << cuts[c] << ")";
    EXPECT_TRUE(near(normal[c], std::erfc(cuts[c] / std::sqrt(2.0))))
        << "P(|X| > " << cuts[c] << ")";
  }
  EXPECT_TRUE(near(negative, 0.5));
  EXPECT_NEAR(sum / kDraws, 1.0, 0.005);
  EXPECT_NEAR(squares / kDraws, 1.0, 0.01);
}

// (cycle, bin, index) of every event in a fresh Ultra's first 10 ms, in stream order.
using Stamp = std::tuple<int64_t, int, int>;

std::vector<Stamp> stamps(const json& sources, const FirmwareSetup& setup) {
  StreamModel model(testing::ultra(), sources);
  model.configure(setup);
  std::vector<Stamp> out;
  for (const Decoded& d : testing::only(testing::readFor(model, 4'000'000), Decoded::Kind::Event)) {
    out.emplace_back(d.clock, d.bin, d.index);
  }
  return out;
}

// The same seed gives the same edges, so a run with plain settings is the reference for a run
// with the setting under test.
TEST(StreamSourcesTest, DeadTimeAndDividerThinTheSameEdges) {
  const auto p = testing::ultra();
  const json sources = json::parse(R"([{"type": "poisson", "input": 1, "rate_hz": 2e7},
                                       {"type": "poisson", "input": 2, "rate_hz": 1e6}])");
  FirmwareSetup setup = testing::enable(p, {0});
  const auto plain = stamps(sources, setup);
  ASSERT_GT(plain.size(), 50000u);
  for (size_t i = 0; i < plain.size(); ++i) {
    ASSERT_EQ(std::get<2>(plain[i]), 0) << "only enabled channels send events";
    ASSERT_TRUE(i == 0 || std::get<0>(plain[i - 1]) < std::get<0>(plain[i])) << "one per cycle";
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
  EXPECT_EQ(stamps(sources, setup), expected);

  // Divider 7 (field 6): the first event and every seventh after it.
  setup.channels[0].deadtime_clocks = 1;
  setup.channels[0].divider_field = 6;
  expected.clear();
  for (size_t i = 0; i < plain.size(); i += 7) expected.push_back(plain[i]);
  EXPECT_EQ(stamps(sources, setup), expected);
}

TEST(StreamSourcesTest, ConditionalFilterPassesOneFilteredEventPerTrigger) {
  const auto p = testing::ultra();
  // Trigger on input 1; filtered input 2; input 3 both trigger and filtered;
  // input 4 filtered. No two edges of two inputs come closer than 10 ns.
  const json sources = json::parse(R"([
    {"type": "periodic", "input": 1, "period_ps": 1000000},
    {"type": "periodic", "input": 2, "period_ps": 300000, "phase_ps": 50000},
    {"type": "periodic", "input": 3, "period_ps": 700000, "phase_ps": 20000},
    {"type": "periodic", "input": 4, "period_ps": 130000, "phase_ps": 10000}
  ])");
  FirmwareSetup setup = testing::enable(p, {0, 1, 2, 3});
  const auto plain = stamps(sources, setup);
  for (int i : {0, 2}) setup.channels[i].trigger = true;
  for (int i : {1, 2, 3}) setup.channels[i].filtered = true;

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
  EXPECT_EQ(stamps(sources, setup), expected);

  // Without any trigger channel firing, a filtered channel stays closed.
  setup.channels[0].enabled = false;
  setup.channels[2].enabled = false;
  EXPECT_TRUE(stamps(sources, setup).empty());
}

}  // namespace
}  // namespace zeptick::emulator
