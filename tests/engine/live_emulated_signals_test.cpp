#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <tuple>
#include <vector>

#include "zeptick/countrate.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using LiveEmulatedSignals = EmulatedTagger;

// Pulses of 5 ns on input 5 and of 12.345 ns on input 6, at random times: the
// falling channel of each input lags its rising channel by the pulse width.
TEST_F(LiveEmulatedSignals, FallingChannelLagsByThePulseWidth) {
  ZeptickImpl& zt = open(ultraBoard(
      "LIVE1",
      json::array({{{"type", "pulses"}, {"input", 5}, {"width_ps", 5000}, {"rate_hz", 1e6}},
                   {{"type", "pulses"}, {"input", 6}, {"width_ps", 12345}, {"rate_hz", 1e6}}})));
  ASSERT_EQ(zt.getInvertedChannel(5), -5);
  const std::vector<Tag> tags = record({5, -5, 6, -6}, 20000000000);  // 20 ms
  for (auto [input, width] : {std::tuple{5, 5000}, std::tuple{6, 12345}}) {
    const std::vector<int64_t> up = timesOf(tags, input), down = timesOf(tags, -input);
    ASSERT_GT(up.size(), 15000u) << "input " << input;
    // Dead time counts whole clock cycles, so the two edges may drop different
    // pulses of a close pair: a search per pulse is not thrown by that.
    ASSERT_NEAR(static_cast<double>(down.size()), static_cast<double>(up.size()), 20.0);
    // A fine bin or two of error on each edge.
    const Partners edges = partnersOf(up, down, width, 100);
    ASSERT_GT(edges.found, up.size() * 99 / 100) << "input " << input;
    EXPECT_NEAR(edges.mean_delay, width, 5.0) << "input " << input;
  }
}

// Multiplexer 3 puts the internal test signal on an input in place of what is
// connected: a period of 2 x 2 x divider cycles of the test oscillator, which
// runs 0.32 % fast against the 2.5 ns clock, changing with the divider, and back
// to the input's own signal with multiplexer 0.
TEST_F(LiveEmulatedSignals, TestSignalReplacesTheInputOnMultiplexerThree) {
  ZeptickImpl& zt = open(ultraBoard("LIVE2", json::array({poisson(7, 2e5)})));
  constexpr int64_t kSpan = 10000000000;  // 10 ms
  zt.setTestSignal(7, true);
  for (int divider : {63, 10}) {
    zt.setTestSignalDivider(divider);
    const double period = 4.0 * divider * 2500 * (628006.5 / 630000.0);
    const std::vector<int64_t> times = timesOf(record({7}, kSpan), 7);
    ASSERT_NEAR(static_cast<double>(times.size()), static_cast<double>(kSpan) / period, 1.0);
    for (size_t k = 1; k < times.size(); ++k) {
      // A few ps of jitter and the error of two calibrated fine bins.
      ASSERT_NEAR(static_cast<double>(times[k] - times[k - 1]), period, 60.0);
    }
    EXPECT_NEAR(
        static_cast<double>(times.back() - times.front()) / static_cast<double>(times.size() - 1),
        period, 1.0);
  }
  zt.setInputMux(7, 0);
  // The Poisson source again: 2000 expected, five standard deviations.
  EXPECT_NEAR(static_cast<double>(timesOf(record({7}, kSpan), 7).size()), 2000.0, 5 * 45.0);
}

// A board whose USB side drains 1 million words a second, fed 10 million
// pulses a second: the stream shows overflow begin, missed events and end, in
// that order, with no time tag inside, every pulse either delivered or
// counted, and the measurements run on through it.
TEST_F(LiveEmulatedSignals, OverloadedBufferFramesMissedEventsAndMeasurementsGoOn) {
  constexpr int64_t kPeriod = 100000;  // ps
  json entry = ultraBoard("LIVE3", json::array({periodic(1, kPeriod)}));
  entry["usb_words_per_second"] = 1e6;
  ZeptickImpl& zt = open(entry);
  zt.setHardwareBufferSize(32768);
  Countrate rates(&zt, {1});
  constexpr int64_t kSpan = 200000000000;  // 200 ms: about 6 overflows
  const std::vector<Tag> tags = record({1}, kSpan);

  // From the first overflow begin to the last end.
  const auto begin = std::find_if(tags.begin(), tags.end(),
                                  [](const Tag& t) { return t.type == Tag::Type::OverflowBegin; });
  const auto end = std::find_if(tags.rbegin(), tags.rend(), [](const Tag& t) {
                     return t.type == Tag::Type::OverflowEnd;
                   }).base();
  ASSERT_LT(begin, end);
  int begins = 0, ends = 0;
  int64_t delivered = 0, missed = 0;
  for (auto tag = begin; tag != end; ++tag) {
    const bool inside = begins > ends;
    SCOPED_TRACE(describe(*tag));
    ASSERT_NE(tag->type, Tag::Type::Error);
    ASSERT_EQ(inside, tag->type == Tag::Type::MissedEvents || tag->type == Tag::Type::OverflowEnd);
    begins += tag->type == Tag::Type::OverflowBegin;
    ends += tag->type == Tag::Type::OverflowEnd;
    delivered += tag->type == Tag::Type::TimeTag;
    if (tag->type == Tag::Type::MissedEvents) {
      ASSERT_EQ(tag->channel, 1);
      missed += tag->missed_events;
    }
  }
  EXPECT_GE(begins, 3);
  EXPECT_EQ(ends, begins);
  // The pulses are periodic, so the span from the first begin to the last
  // end holds a known number of them: one more or less at its edges.
  const double pulses = static_cast<double>((end - 1)->time - begin->time) / kPeriod;
  EXPECT_NEAR(static_cast<double>(delivered + missed), pulses, 1.0);
  EXPECT_GT(missed, 5 * delivered) << "the drain is a tenth of the pulse rate";
  EXPECT_GT(zt.getOverflows(), 0);

  // The count rate keeps counting across the overflows.
  const int64_t before = rates.getCaptureDuration();
  ASSERT_TRUE(waitUntil([&] { return rates.getCaptureDuration() > before + kSpan; }, 30));
  EXPECT_TRUE(rates.isRunning());
}

}  // namespace
}  // namespace zeptick::testing
