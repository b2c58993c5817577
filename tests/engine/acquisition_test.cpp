#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>
#include <tuple>
#include <vector>

#include "engine/block_rule.h"
#include "support/log_capture.h"
#include "zeptick/countrate.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using nlohmann::json;

using Acquisition = CollectingTagger;

/// The delay of `second` behind `first` at which coincidences pile up: every
/// pair within 10 ns is binned by brute force into 20 ps bins, and the mean of
/// the differences within 100 ps of the fullest bin is returned.
double coincidencePeak(const std::vector<int64_t>& first, const std::vector<int64_t>& second) {
  constexpr int64_t kWindow = 10000;
  constexpr int64_t kBin = 20;
  std::vector<int64_t> differences;
  size_t low = 0;
  for (int64_t t : second) {
    while (low < first.size() && first[low] < t - kWindow) ++low;
    for (size_t i = low; i < first.size() && first[i] <= t + kWindow; ++i) {
      differences.push_back(t - first[i]);
    }
  }
  std::vector<int> histogram(2 * kWindow / kBin + 1, 0);
  for (int64_t d : differences) ++histogram[static_cast<size_t>((d + kWindow) / kBin)];
  const auto fullest = std::max_element(histogram.begin(), histogram.end()) - histogram.begin();
  const int64_t centre = fullest * kBin - kWindow + kBin / 2;
  double sum = 0;
  int count = 0;
  for (int64_t d : differences) {
    if (std::llabs(d - centre) <= 100) {
      sum += static_cast<double>(d);
      ++count;
    }
  }
  return count == 0 ? NAN : sum / count;
}

TEST_F(Acquisition, CountrateMatchesConfiguredRates) {
  open(ultraBoard("ACQ1", json::array({
                              {{"type", "periodic"}, {"input", 3}, {"period_ps", 1e6}},
                              {{"type", "poisson"}, {"input", 4}, {"rate_hz", 2e5}},
                          })));
  Countrate rate(tagger.get(), {3, 4, 5});
  rate.startFor(2000000000000);  // 2 s of stream time
  ASSERT_TRUE(waitUntil([&] { return !rate.isRunning(); }));
  std::vector<double> rates;
  rate.getData([&rates](size_t n) {
    rates.resize(n);
    return rates.data();
  });
  ASSERT_EQ(rates.size(), 3u);
  EXPECT_NEAR(rates[0], 1e6, 2.0);
  // 400000 expected counts: five standard deviations are sqrt(4e5) * 5 / 2 s.
  EXPECT_NEAR(rates[1], 2e5, std::sqrt(4e5) * 5 / 2);
  EXPECT_EQ(rates[2], 0.0) << "an input without a source stays silent";
}

// Photon pairs 1.5 ns apart, on both models: the peak of their delays, found
// directly from the tags, sits at the source's delay as soon as the tagger is
// open (the calibration pass has taught the fine bins), and moves by exactly
// the input delays set, of either sign.
TEST_F(Acquisition, InputDelaysMoveThePairPeak) {
  const json pairs = json::array({{{"type", "pairs"},
                                   {"inputs", {1, 2}},
                                   {"delays_ps", {0, 1500}},
                                   {"rate_hz", 2e6},
                                   {"jitter_ps", 30}}});
  json zeptick20 = boardEntry("ACQ2B", 4, 2);
  zeptick20["sources"] = pairs;
  // Input paths of 1574 and 1814 ps on the Ultra, 1580 and 1859 ps on the Zeptick 20.
  for (const auto& [entry, path1, path2] :
       {std::tuple{ultraBoard("ACQ2A", pairs), 1574, 1814}, std::tuple{zeptick20, 1580, 1859}}) {
    tagger.reset();
    ZeptickImpl& zt = open(entry);
    SCOPED_TRACE(zt.getModel());
    auto peak = [this] {
      auto collector = collect({1, 2}, 20000000000);  // 20 ms, about 40000 pairs
      const std::vector<Tag> tags = collector->tags();
      return coincidencePeak(timesOf(tags, 1), timesOf(tags, 2));
    };
    const double base = peak();
    EXPECT_NEAR(base, 1500, 5);
    zt.setInputDelay(2, 2000);
    EXPECT_NEAR(peak() - base, 2000, 5);
    zt.setInputDelay(2, -4000);
    EXPECT_NEAR(peak() - base, -4000, 5);
    zt.setInputDelay(2, 0);
    zt.setInputDelay(1, -700);
    EXPECT_NEAR(peak() - base, 700, 5);
    zt.setInputDelay(1, 0);
    // Without compensation the inputs' own path lengths show.
    zt.setConditionalFilter({}, {}, false);
    EXPECT_NEAR(peak() - base, -(path2 - path1), 5);
  }
}

// After sync() a setting holds for every tag seen: with a divider of n on a
// 1 MHz source every spacing is n microseconds, from the first tag on.
TEST_F(Acquisition, SettingFollowedBySyncHoldsForEveryLaterTag) {
  ZeptickImpl& zt = open(
      ultraBoard("ACQ3", json::array({{{"type", "periodic"}, {"input", 3}, {"period_ps", 1e6}}})));
  for (uint32_t divider : {4u, 1u, 7u, 2u, 1u}) {
    zt.setEventDivider(3, divider);
    auto collector = collect({3}, 2000000000);  // 2 ms
    const std::vector<int64_t> times = timesOf(collector->tags(), 3);
    ASSERT_GT(times.size(), 2000u / divider - 2) << "divider " << divider;
    int wrong = 0;
    int64_t example = 0;
    for (size_t i = 1; i < times.size(); ++i) {
      // A wrong divider is off by whole microseconds; the fine time, learning
      // its bins from a clock-locked source, wanders within one clock.
      const int64_t spacing = times[i] - times[i - 1];
      if (std::llabs(spacing - divider * 1000000LL) > 3000) {
        ++wrong;
        example = spacing;
      }
    }
    EXPECT_EQ(wrong, 0) << "divider " << divider << ", e.g. a spacing of " << example << " ps";
  }
}

// Filtered events pass only one after each trigger event, whatever the
// filtered input's rate.
TEST_F(Acquisition, ConditionalFilterPassesOneEventPerTrigger) {
  ZeptickImpl& zt =
      open(ultraBoard("ACQ8", json::array({
                                  {{"type", "periodic"}, {"input", 1}, {"period_ps", 1e6}},
                                  {{"type", "poisson"}, {"input", 2}, {"rate_hz", 2e7}},
                              })));
  // Without compensation both inputs keep their arrival order.
  zt.setConditionalFilter({1}, {2}, false);
  auto collector = collect({1, 2}, 5000000000);  // 5 ms
  const std::vector<Tag> tags = collector->tags();
  int previous = 1;  // the first trigger may lie before the collector started
  int passed = 0;
  int triggers = 0;
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) continue;
    if (tag.channel == 2) {
      EXPECT_EQ(previous, 1) << "a filtered event without its own trigger at " << tag.time;
      ++passed;
    } else {
      ++triggers;
    }
    previous = tag.channel;
  }
  EXPECT_GT(triggers, 4900);
  // Nearly every microsecond holds a filtered event at 20 MHz.
  EXPECT_GT(passed, triggers * 9 / 10);
}

TEST_F(Acquisition, UnpluggedDeviceGivesOneErrorThenReconnects) {
  ZeptickImpl& zt = open(
      ultraBoard("ACQ4", json::array({{{"type", "poisson"}, {"input", 4}, {"rate_hz", 1e5}}})));
  TagCollector collector(&zt, {4});
  zt.sync();
  ASSERT_TRUE(waitUntil([&] { return !timesOf(collector.tags(), 4).empty(); }));
  auto errors = [&collector] {
    const std::vector<Tag> tags = collector.tags();
    return std::count_if(tags.begin(), tags.end(),
                         [](const Tag& tag) { return tag.type == Tag::Type::Error; });
  };
  ASSERT_EQ(errors(), 0);

  LogCapture log;
  board->unplug();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const size_t blocks_before = collector.spans().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const std::vector<TagCollector::Span> down = collector.spans();
  // Retries every 100 ms, each an empty block.
  EXPECT_GE(down.size() - blocks_before, 2u);
  EXPECT_LE(down.size() - blocks_before, 7u);
  for (size_t i = blocks_before; i < down.size(); ++i) {
    EXPECT_EQ(down[i].tags, 0u);
    EXPECT_EQ(down[i].begin, down[i].end);
  }

  board->clearTraffic();
  board->replug();
  ASSERT_TRUE(log.waitFor("Zeptick ACQ4 reconnected"));
  zt.sync();
  // The reloaded board got the whole configuration again.
  EXPECT_EQ(board->wireIn(0x12), 67108864u);
  const auto events = board->events();
  EXPECT_TRUE(std::any_of(events.begin(), events.end(), [](const emulator::BoardEvent& e) {
    return e.call == "WriteToPipeIn" && e.a == 0x80;
  }));
  const size_t before = timesOf(collector.tags(), 4).size();
  EXPECT_TRUE(waitUntil([&] { return timesOf(collector.tags(), 4).size() > before + 100; }));
  // The error tag leaves once the stream moves on again.
  EXPECT_EQ(errors(), 1) << "one error tag for the whole outage";
  expectOrderedStream(collector);
}

// A failed read is an outage of its own: one error tag, and the device is
// opened again.
TEST_F(Acquisition, FailedReadBecomesAnErrorTagAndReconnects) {
  ZeptickImpl& zt = open(ultraBoard("ACQ5"));
  TagCollector collector(&zt, {});
  zt.sync();
  LogCapture log;
  board->failReads(1);
  ASSERT_TRUE(log.waitFor("Zeptick ACQ5 reconnected"));
  zt.sync();
  const std::vector<Tag> tags = collector.tags();
  EXPECT_EQ(std::count_if(tags.begin(), tags.end(),
                          [](const Tag& tag) { return tag.type == Tag::Type::Error; }),
            1);
}

TEST_F(Acquisition, BlocksNeverExceedMaxEvents) {
  ZeptickImpl& zt = open(
      ultraBoard("ACQ6", json::array({{{"type", "periodic"}, {"input", 3}, {"period_ps", 1e5}}})));
  auto largest = [this] {
    auto collector = collect({3}, 20000000000);  // 20 ms, 200000 events
    size_t most = 0;
    for (const auto& span : collector->spans()) most = std::max(most, span.tags);
    return most;
  };
  EXPECT_GT(largest(), 4096u) << "a fast stream forms large blocks";
  zt.setStreamBlockSize(1024, 20);
  EXPECT_LE(largest(), 1024u);
  zt.setStreamBlockSize(300, 20);
  EXPECT_LE(largest(), 256u) << "reads are whole 256-word chunks";
}

// Read lengths worked out by hand: chunks of 256 words, as many as arrive in
// the latency target, capped by maxEvents, at least one.
TEST(BlockRule, ReadLengthFollowsRateLatencyAndCap) {
  EXPECT_EQ(blockWords(1024, 1, 131072, 0.0), 256u) << "first read, rate unknown";
  EXPECT_EQ(blockWords(1024, 20, 131072, 1000000.0), 131072u) << "min(78125, 512) chunks";
  EXPECT_EQ(blockWords(1024, 20, 300, 1000000.0), 256u) << "300 events hold one chunk";
  EXPECT_EQ(blockWords(1024, 20, 131072, 1006.0), 78u * 256) << "20 * 1006 / 256 = 78.6";
  EXPECT_EQ(blockWords(1024, 5, 131072, 1006.0), 19u * 256);
  EXPECT_EQ(blockWords(1024, 20, 131072, 12.7), 256u) << "below one chunk per latency";
  EXPECT_EQ(blockWords(1024, 20, 131072, 1e300), 131072u) << "a read that took no time";
}

}  // namespace
}  // namespace zeptick::testing
