#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <tuple>
#include <vector>

#include "zeptick/countrate.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using nlohmann::json;

class LiveEmulatedSignals : public CollectingTagger {};

/// For each rising time, the falling time within `tolerance` of `width` after
/// it, if there is one, minus the rising time. Dead time counts whole clock
/// cycles, so the two channels of an input may drop different pulses of a
/// close pair; a search per pulse is not thrown by that.
std::vector<int64_t> widths(const std::vector<int64_t>& rising, const std::vector<int64_t>& falling,
                            int64_t width, int64_t tolerance) {
  std::vector<int64_t> out;
  for (int64_t t : rising) {
    auto it = std::lower_bound(falling.begin(), falling.end(), t + width - tolerance);
    if (it != falling.end() && *it <= t + width + tolerance) out.push_back(*it - t);
  }
  return out;
}

// Pulses of 5 ns on input 5 and of 12.345 ns on input 6, at random times: the
// falling channel of each input lags its rising channel by the pulse width.
TEST_F(LiveEmulatedSignals, FallingChannelLagsByThePulseWidth) {
  ZeptickImpl& zt = open(ultraBoard(
      "LIVE1",
      json::array({{{"type", "pulses"}, {"input", 5}, {"width_ps", 5000}, {"rate_hz", 1e6}},
                   {{"type", "pulses"}, {"input", 6}, {"width_ps", 12345}, {"rate_hz", 1e6}}})));
  const int fall5 = zt.getInvertedChannel(5);
  const int fall6 = zt.getInvertedChannel(6);
  ASSERT_EQ(fall5, -5);
  auto collector = collect({5, fall5, 6, fall6}, 20000000000);  // 20 ms
  const std::vector<Tag> tags = collector->tags();
  for (auto [rise, fall, width] : {std::tuple{5, fall5, 5000.0}, std::tuple{6, fall6, 12345.0}}) {
    const std::vector<int64_t> up = timesOf(tags, rise);
    const std::vector<int64_t> down = timesOf(tags, fall);
    ASSERT_GT(up.size(), 15000u) << "input " << rise;
    // Dead time may drop different pulses of a close pair on the two channels.
    ASSERT_NEAR(static_cast<double>(down.size()), static_cast<double>(up.size()), 20.0);
    // A fine bin or two of error on each edge; nearly every pulse shows both.
    const std::vector<int64_t> found = widths(up, down, static_cast<int64_t>(width), 100);
    ASSERT_GT(found.size(), up.size() * 99 / 100) << "input " << rise;
    double sum = 0;
    for (int64_t w : found) sum += static_cast<double>(w);
    EXPECT_NEAR(sum / static_cast<double>(found.size()), width, 5.0) << "input " << rise;
  }
}

// Multiplexer 3 puts the internal test signal on an input in place of what is
// connected: a period of 2 x 2 x divider cycles of the test oscillator, which
// runs 0.32 % fast against the 2.5 ns clock, changing with the divider, and back
// to the input's own signal with multiplexer 0.
TEST_F(LiveEmulatedSignals, TestSignalReplacesTheInputOnMultiplexerThree) {
  ZeptickImpl& zt = open(
      ultraBoard("LIVE2", json::array({{{"type", "poisson"}, {"input", 7}, {"rate_hz", 2e5}}})));
  ASSERT_EQ(zt.getPsPerClock(), 2500);
  constexpr int64_t kSpan = 10000000000;  // 10 ms
  auto checkPeriod = [&](int64_t clockPeriod) {
    const double period = static_cast<double>(clockPeriod) * (628006.5 / 630000.0);
    const std::vector<int64_t> times = timesOf(collect({7}, kSpan)->tags(), 7);
    ASSERT_NEAR(static_cast<double>(times.size()), static_cast<double>(kSpan) / period, 1.0);
    for (size_t k = 1; k < times.size(); ++k) {
      // A few ps of jitter and the error of two calibrated fine bins.
      ASSERT_NEAR(static_cast<double>(times[k] - times[k - 1]), period, 60.0);
    }
    EXPECT_NEAR(
        static_cast<double>(times.back() - times.front()) / static_cast<double>(times.size() - 1),
        period, 1.0);
  };
  zt.setTestSignal(7, true);
  EXPECT_EQ(zt.getInputMux(7), 3);
  checkPeriod(2 * 2 * int64_t{zt.getTestSignalDivider()} * 2500);
  zt.setTestSignalDivider(10);
  checkPeriod(100000);

  zt.setInputMux(7, 0);
  const std::vector<int64_t> own = timesOf(collect({7}, kSpan)->tags(), 7);
  // The Poisson source again: 2000 expected, five standard deviations.
  EXPECT_NEAR(static_cast<double>(own.size()), 2000.0, 5 * 45.0);
}

// A board whose USB side drains 1 million words a second, fed 10 million
// pulses a second: the stream shows overflow begin, missed events and end, in
// that order, with no time tag inside, every pulse either delivered or
// counted, and the measurements run on through it.
TEST_F(LiveEmulatedSignals, OverloadedBufferFramesMissedEventsAndMeasurementsGoOn) {
  constexpr int64_t kPeriod = 100000;  // ps
  json entry = ultraBoard(
      "LIVE3", json::array({{{"type", "periodic"}, {"input", 1}, {"period_ps", kPeriod}}}));
  entry["usb_words_per_second"] = 1e6;
  ZeptickImpl& zt = open(entry);
  zt.setHardwareBufferSize(32768);
  Countrate rates(&zt, {1});
  constexpr int64_t kSpan = 200000000000;  // 200 ms: about 6 overflows
  auto collector = collect({1}, kSpan);
  const std::vector<Tag> tags = collector->tags();

  // Between the first overflow begin and the last end every pulse is either
  // delivered or counted as missed.
  size_t first = tags.size();
  size_t last = 0;
  for (size_t i = 0; i < tags.size(); ++i) {
    if (tags[i].type == Tag::Type::OverflowBegin && first == tags.size()) first = i;
    if (tags[i].type == Tag::Type::OverflowEnd) last = i;
  }
  ASSERT_LT(first, last);
  int begins = 0;
  int ends = 0;
  bool inside = false;
  int64_t delivered = 0;
  int64_t missed = 0;
  for (size_t i = first; i <= last; ++i) {
    const Tag& tag = tags[i];
    switch (tag.type) {
      case Tag::Type::OverflowBegin:
        ASSERT_FALSE(inside);
        inside = true;
        ++begins;
        break;
      case Tag::Type::OverflowEnd:
        ASSERT_TRUE(inside);
        inside = false;
        ++ends;
        break;
      case Tag::Type::MissedEvents:
        ASSERT_TRUE(inside);
        ASSERT_EQ(tag.channel, 1);
        missed += tag.missed_events;
        break;
      case Tag::Type::TimeTag:
        ASSERT_FALSE(inside) << tag.time;
        ++delivered;
        break;
      case Tag::Type::Error:
        FAIL() << "error tag at " << tag.time;
    }
  }
  EXPECT_GE(begins, 3);
  EXPECT_EQ(ends, begins);
  // The pulses are periodic, so the span from the first begin to the last
  // end holds a known number of them: one more or less at its edges.
  const double pulses =
      static_cast<double>(tags[last].time - tags[first].time) / static_cast<double>(kPeriod);
  EXPECT_NEAR(static_cast<double>(delivered + missed), pulses, 1.0);
  // Most pulses are lost: the drain is a tenth of the pulse rate.
  EXPECT_GT(missed, 5 * delivered);
  EXPECT_GT(zt.getOverflows(), 0);

  // The count rate keeps counting across the overflows.
  const int64_t before = rates.getCaptureDuration();
  ASSERT_TRUE(waitUntil([&] { return rates.getCaptureDuration() > before + kSpan; }, 30));
  EXPECT_TRUE(rates.isRunning());
}

}  // namespace
}  // namespace zeptick::testing
