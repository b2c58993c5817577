#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"

namespace zeptick::emulator {
namespace {

using nlohmann::json;
using testing::Decoded;
using testing::ReferenceDecoder;

std::vector<double> eventTimes(const StreamModel& model, const std::vector<Decoded>& all, int index,
                               int64_t ps) {
  std::vector<double> times;
  const std::vector<int64_t> upper = model.binUpperEdges(index);
  for (const Decoded& d : testing::only(all, Decoded::Kind::Event, index)) {
    times.push_back(testing::timePs(d, upper, ps));
  }
  return times;
}

double rms(const std::vector<double>& values, double mean) {
  double sum = 0;
  for (double v : values) sum += (v - mean) * (v - mean);
  return std::sqrt(sum / static_cast<double>(values.size()));
}

double mean(const std::vector<double>& values) {
  double sum = 0;
  for (double v : values) sum += v;
  return sum / static_cast<double>(values.size());
}

TEST(StreamSourcesTest, PoissonAndPeriodicSourcesKeepTheirRatesAndJitter) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([
    {"type": "poisson", "input": 1, "rate_hz": 200000},
    {"type": "periodic", "input": 2, "period_ps": 100000, "jitter_ps": 50, "phase_ps": 700}
  ])"));
  model.configure(testing::enable(p, {0, 1}));
  ReferenceDecoder decoder;
  const int64_t clocks = 40'000'000;  // 0.1 s
  const auto all = testing::readFor(model, decoder, clocks);
  const double seconds = static_cast<double>(clocks) * 2500e-12;

  // Poisson: the count within 5 sigma, and intervals exponential: a share of
  // exp(-2) of them longer than twice the mean.
  const auto poisson = eventTimes(model, all, 0, 2500);
  const double expected = 200000 * seconds;
  EXPECT_NEAR(static_cast<double>(poisson.size()), expected, 5 * std::sqrt(expected));
  int64_t long_gaps = 0;
  for (size_t i = 1; i < poisson.size(); ++i) long_gaps += poisson[i] - poisson[i - 1] > 1e7;
  const double share = static_cast<double>(long_gaps) / static_cast<double>(poisson.size() - 1);
  EXPECT_NEAR(share, std::exp(-2.0), 5 * std::sqrt(0.135 * 0.865 / expected));

  // Periodic: one pulse per period, at phase + path latency + k * period, with
  // the jitter's spread (the fine bins add about 3 ps in quadrature).
  const auto periodic = eventTimes(model, all, 1, 2500);
  ASSERT_NEAR(static_cast<double>(periodic.size()), seconds / 100e-9, 2);
  std::vector<double> deviation;
  for (size_t k = 0; k < periodic.size(); ++k) {
    deviation.push_back(periodic[k] - 100000.0 * static_cast<double>(k));
  }
  EXPECT_NEAR(mean(deviation), 700.0 + static_cast<double>(model.inputLatency(1)), 8.0);
  EXPECT_NEAR(rms(deviation, mean(deviation)), 50.0, 2.0);
}

TEST(StreamSourcesTest, PairsKeepTheirDelayWithinTheJitter) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([{"type": "pairs", "inputs": [1, 2],
      "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 500000}])"));
  model.configure(testing::enable(p, {0, 1}));
  ReferenceDecoder decoder;
  const auto all = testing::readFor(model, decoder, 20'000'000);
  const auto first = eventTimes(model, all, 0, 2500);
  const auto second = eventTimes(model, all, 1, 2500);
  ASSERT_GT(first.size(), 20000u);
  // Pairs are microseconds apart, so each first member's partner is the next
  // event of the second input.
  // A pair that starts just before another can put its partner first; a
  // window of ten times the jitter around the delay leaves such strays out.
  const double path = static_cast<double>(model.inputLatency(1) - model.inputLatency(0));
  std::vector<double> delays;
  size_t j = 0;
  for (double t : first) {
    while (j < second.size() && second[j] < t + 1500 + path - 300) ++j;
    if (j < second.size() && second[j] < t + 1500 + path + 300) delays.push_back(second[j] - t);
  }
  EXPECT_GT(delays.size(), first.size() * 99 / 100);
  EXPECT_NEAR(mean(delays), 1500.0 + path, 2.0);
  EXPECT_NEAR(rms(delays, mean(delays)), 30.0, 2.0);
}

// What the host adds back per input; the board's paths must differ by exactly this.
const std::vector<int64_t> kCompensationModel4 = {1580, 1859, 1490, 829, 1820, 1757, 1316, 0};
const std::vector<int64_t> kCompensationUltra = {1574, 1814, 1742, 1083, 822,  658,
                                                 614,  470,  0,    2895, 2722, 2964,
                                                 2893, 3130, 3145, 2849, 3000, 2947};

TEST(StreamSourcesTest, SimultaneousPulsesAlignOnceTheHostCompensates) {
  for (const auto& [p, compensation] : {std::pair{testing::ultra(), kCompensationUltra},
                                        std::pair{testing::model20(), kCompensationModel4}}) {
    json inputs = json::array();
    json delays = json::array();
    std::initializer_list<int> none = {};
    FirmwareSetup setup = testing::enable(p, none);
    for (int i = 0; i < p.inputs; ++i) {
      inputs.push_back(i + 1);
      delays.push_back(0);
      setup.channels[static_cast<size_t>(i)].enabled = true;
    }
    StreamModel model(p, json::array({{{"type", "cascade"},
                                       {"inputs", inputs},
                                       {"delays_ps", delays},
                                       {"rate_hz", 100000}}}));
    model.configure(setup);
    ReferenceDecoder decoder;
    const auto all = testing::readFor(model, decoder, 4'000'000);
    std::vector<std::vector<double>> times;
    double widest = 0;
    for (int i = 0; i < p.inputs; ++i) {
      times.push_back(eventTimes(model, all, i, p.ps_per_clock));
      const auto upper = model.binUpperEdges(i);
      for (size_t b = 0; b < upper.size(); ++b) {
        widest = std::max(widest, static_cast<double>(upper[b] - (b ? upper[b - 1] : 0)));
      }
    }
    ASSERT_GT(times[0].size(), 50u);
    // Each pulse of input 0, moved by its compensation, must meet a pulse of
    // every other input moved by that one's. (Two occurrences in one clock
    // cycle lose one to the dead time on some inputs, hence the nearest match.)
    for (int i = 1; i < p.inputs; ++i) {
      const auto& other = times[static_cast<size_t>(i)];
      const double shift = static_cast<double>(compensation[static_cast<size_t>(i)]);
      size_t matched = 0;
      for (double t : times[0]) {
        const double target = t + static_cast<double>(compensation[0]) - shift;
        const auto at = std::lower_bound(other.begin(), other.end(), target - widest);
        matched += at != other.end() && *at <= target + widest;
      }
      EXPECT_GE(matched + 2, times[0].size()) << "model " << p.model << " input " << i;
    }
  }
}

TEST(StreamSourcesTest, TestSignalReplacesTheInputWithThePeriodOfItsWires) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([{"type": "poisson", "input": 5, "rate_hz": 1e6}])"));
  // Input 5 is hardware input 4: rising index 4, falling index 22. The test
  // signal is digital, so even a trigger level above every pulse passes it.
  FirmwareSetup setup = testing::enable(p, {4, 22}, 2.4);
  setup.channels[4].mux = 3;
  setup.test_period_word = 126;
  setup.test_half_period_word = 63;
  model.configure(setup);
  ReferenceDecoder decoder;
  const auto all = testing::readFor(model, decoder, 400'000);
  const auto rising = testing::only(all, Decoded::Kind::Event, 4);
  const auto falling = testing::only(all, Decoded::Kind::Event, 22);
  // Its own oscillator: 628006.5 ps instead of the 630 ns of 252 clocks, so an
  // edge lands 251 or 252 clocks after the last one and its fine bin moves on.
  ASSERT_NEAR(static_cast<double>(rising.size()), 400'000 * 2500 / 628'006.5, 2);
  std::set<uint32_t> bins;
  for (size_t k = 1; k < rising.size(); ++k) {
    const int64_t clocks = rising[k].clock - rising[k - 1].clock;
    ASSERT_TRUE(clocks == 251 || clocks == 252) << clocks;
    bins.insert(rising[k].bin);
  }
  EXPECT_GT(bins.size(), 250u) << "the edges drift through the fine bins";
  const auto up = eventTimes(model, all, 4, 2500);
  const auto down = eventTimes(model, all, 22, 2500);
  ASSERT_NEAR(static_cast<double>(up.size()), static_cast<double>(down.size()), 1);
  for (size_t k = 0; k < std::min(up.size(), down.size()); ++k) {
    ASSERT_NEAR(down[k] - up[k], 314'003.25, 15.0);
  }
}

TEST(StreamSourcesTest, TriggerLevelAndPolarityChooseTheEdgesSeen) {
  const auto p = testing::ultra();
  const json sources = json::parse(R"([
    {"type": "pulses", "input": 1, "width_ps": 5000, "period_ps": 1e6},
    {"type": "pulses", "input": 2, "width_ps": 7000, "rate_hz": 2e5, "amplitude_volts": -0.8}
  ])");
  auto count = [&](double level, int index) {
    StreamModel model(p, sources);
    model.configure(testing::enable(p, {0, 1, 18, 19}, level));
    ReferenceDecoder decoder;
    return testing::only(testing::readFor(model, decoder, 400'000), Decoded::Kind::Event, index)
        .size();
  };
  // The positive pulse needs a level between 0 V and its 1 V peak.
  EXPECT_GT(count(0.5, 0), 300u);
  EXPECT_EQ(count(1.2, 0), 0u);
  EXPECT_EQ(count(-0.3, 0), 0u);
  EXPECT_EQ(count(-0.4, 0), 0u);
  // The negative pulse needs a level between its -0.8 V trough and 0 V.
  EXPECT_EQ(count(0.5, 1), 0u);
  EXPECT_GT(count(-0.4, 19), 40u);
  EXPECT_EQ(count(-0.9, 19), 0u);

  // Positive: rising edge first, falling width later; negative: the reverse.
  StreamModel model(p, sources);
  FirmwareSetup setup = testing::enable(p, {0, 1, 18, 19}, 0.5);
  setup.trigger_volts[1] = -0.4;
  model.configure(setup);
  ReferenceDecoder decoder;
  const auto all = testing::readFor(model, decoder, 400'000);
  const auto up1 = eventTimes(model, all, 0, 2500);
  const auto down1 = eventTimes(model, all, 18, 2500);
  const auto down2 = eventTimes(model, all, 19, 2500);
  const auto up2 = eventTimes(model, all, 1, 2500);
  ASSERT_NEAR(static_cast<double>(up1.size()), static_cast<double>(down1.size()), 1);
  for (size_t k = 0; k < std::min(up1.size(), down1.size()); ++k) {
    ASSERT_NEAR(down1[k] - up1[k], 5000, 15);
  }
  // Random pulses may overlap, so look for each trailing edge near its place.
  for (double lead : down2) {
    if (lead > 399'000 * 2500.0) break;
    const auto trail = std::lower_bound(up2.begin(), up2.end(), lead + 7000 - 15);
    ASSERT_TRUE(trail != up2.end() && *trail <= lead + 7000 + 15) << lead;
  }
}

TEST(StreamSourcesTest, BurstsComeAsGroupsWithTheirSpacing) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([{"type": "bursts", "input": 3, "rate_hz": 20000,
      "events": 5, "spacing_ps": 20000}])"));
  model.configure(testing::enable(p, {2}));
  ReferenceDecoder decoder;
  const auto times = eventTimes(model, testing::readFor(model, decoder, 8'000'000), 2, 2500);
  ASSERT_GT(times.size(), 1000u);
  // Bursts are 50 us apart on average; within a burst every gap is the
  // spacing. Now and then two bursts overlap and make one larger group.
  size_t start = 0;
  size_t groups = 0;
  size_t regular = 0;
  for (size_t k = 1; k < times.size(); ++k) {
    if (times[k] - times[k - 1] < 100'000) continue;
    ++groups;
    if (k - start == 5) {
      ++regular;
      for (size_t i = start + 1; i < k; ++i) ASSERT_NEAR(times[i] - times[i - 1], 20000, 15);
    } else {
      ASSERT_GT(k - start, 5u) << "burst at " << times[start];
    }
    start = k;
  }
  EXPECT_GE(regular, groups * 95 / 100);
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
  };
  for (const auto& [text, message] : cases) {
    try {
      StreamModel model(p, json::parse(text));
      ADD_FAILURE() << "accepted " << text;
    } catch (const std::invalid_argument& error) {
      EXPECT_NE(std::string(error.what()).find(message), std::string::npos)
          << text << " gave: " << error.what();
    }
  }
  StreamParameters bad = p;
  bad.bin_count = 300;
  EXPECT_THROW(StreamModel(bad, json::array()), std::invalid_argument);
}

TEST(StreamSourcesTest, TheSeedFixesTheWholeStream) {
  const auto sources = json::parse(R"([
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30, "rate_hz": 3e6},
    {"type": "poisson", "input": 4, "rate_hz": 1e6}
  ])");
  auto run = [&](uint64_t seed) {
    const auto p = testing::ultra(false, seed);
    StreamModel model(p, sources);
    model.configure(testing::enable(p, {0, 1, 3}));
    auto words = testing::readWords(model, 100'000);
    model.configure(testing::enable(p, {0, 3}));
    const auto more = testing::readWords(model, 100'000);
    words.insert(words.end(), more.begin(), more.end());
    return std::pair{words, model.binUpperEdges(5)};
  };
  EXPECT_EQ(run(11), run(11));
  EXPECT_NE(run(11).first, run(12).first);
  EXPECT_NE(run(11).second, run(12).second);
}

}  // namespace
}  // namespace zeptick::emulator
