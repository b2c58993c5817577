#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <tuple>
#include <vector>

#include "engine/block_rule.h"
#include "zeptick/countrate.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using Acquisition = EmulatedTagger;

// Photon pairs 1.5 ns apart, on both models: their delay, read from the tags, is the source's
// from opening on (the calibration pass taught the fine bins) and moves by exactly the input
// delays set, of either sign. Without compensation the inputs' path lengths show: 1574 and 1814
// ps on the Ultra, 1580 and 1859 ps on the Zeptick 20. The few pairs add too little counting noise
// to the bins to matter.
TEST_F(Acquisition, InputDelaysMoveThePairDelay) {
  const json sources = json::array({pairs({1, 2}, 1500, 2e5, 30)});
  json zeptick20 = boardEntry("ACQ2B", 4, 2);
  zeptick20["sources"] = sources;
  for (const auto& [entry, path1, path2] :
       {std::tuple{ultraBoard("ACQ2A", sources), 1574, 1814}, std::tuple{zeptick20, 1580, 1859}}) {
    tagger.reset();
    ZeptickImpl& zt = open(entry);
    SCOPED_TRACE(zt.getModel());
    const std::vector<std::tuple<int, int64_t, int64_t, bool, int64_t>> steps = {
        {2, 0, 0, true, 1500},
        {2, 0, 2000, true, 3500},
        {2, 0, -4000, true, -2500},
        {1, 0, -700, true, 2200},  // the other input, the other way
        {1, 0, 0, false, 1500 - (path2 - path1)}};
    for (const auto& [channel, other, delay, compensated, expected] : steps) {
      zt.setInputDelay(3 - channel, other);
      zt.setInputDelay(channel, delay);
      if (!compensated) zt.setConditionalFilter({}, {}, false);
      const std::vector<Tag> tags = record({1, 2}, 50000000000);  // 50 ms, about 10000 pairs
      const Partners found = partnersOf(timesOf(tags, 1), timesOf(tags, 2), expected, 1000);
      EXPECT_GT(found.found, timesOf(tags, 1).size() / 2) << "delay " << delay << " on " << channel;
      EXPECT_NEAR(found.mean_delay, expected, 5) << "delay " << delay << " on " << channel;
    }
  }
}

// One board with a source per check: a 1 MHz trigger on 1 and 20 MHz of Poisson events on 2,
// 10 MHz pulses on 3, and 200 kHz of Poisson events on 7.
TEST_F(Acquisition, FilterBlockSizesAndTestSignalOnOneBoard) {
  ZeptickImpl& zt = open(ultraBoard(
      "ACQ8", json::array({periodic(1, 1e6), poisson(2, 2e7), periodic(3, 1e5), poisson(7, 2e5)})));
  // Filtered events pass only one after each trigger event, whatever the filtered input's rate;
  // without compensation both keep their arrival order.
  zt.setConditionalFilter({1}, {2}, false);
  int previous = 1;  // the first trigger may lie before the collection started
  int passed = 0, triggers = 0;
  for (const Tag& tag : record({1, 2}, 5000000000)) {  // 5 ms
    EXPECT_FALSE(tag.channel == 2 && previous == 2) << "a filtered event without a trigger";
    (tag.channel == 2 ? passed : triggers) += 1;
    previous = tag.channel;
  }
  EXPECT_GT(triggers, 4900);
  EXPECT_GT(passed, triggers * 9 / 10) << "nearly every microsecond holds a filtered event";

  // Blocks never exceed maxEvents.
  auto largest = [this] {
    std::vector<Block> blocks;
    record({3}, 20000000000, &blocks);  // 20 ms, 200000 events
    size_t most = 0;
    for (const Block& block : blocks) most = std::max(most, block.tags.size());
    return most;
  };
  EXPECT_GT(largest(), 4096u) << "a fast stream forms large blocks";
  zt.setStreamBlockSize(1024, 20);
  EXPECT_LE(largest(), 1024u);
  zt.setStreamBlockSize(300, 20);
  EXPECT_LE(largest(), 256u) << "reads are whole 256-word chunks";

  // Multiplexer 3 puts the internal test signal on an input in place of what is connected: a
  // period of 2 x 2 x divider cycles of the test oscillator, which runs 0.32 % fast against the
  // 2.5 ns clock, changing with the divider, and back to the input's own signal with
  // multiplexer 0.
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

// An unplugged device is retried every 100 ms, each an empty block, and comes
// back with its whole configuration; the outage is one error tag, as is a failed read.
TEST_F(Acquisition, UnpluggedDeviceGivesOneErrorThenReconnects) {
  // A low rate: the free-running board outruns real time, and the recorder keeps every tag.
  ZeptickImpl& zt = open(ultraBoard("ACQ4", json::array({poisson(4, 1e3)})));
  RecordingMeasurement recorder(&zt, {4});
  auto tags = [&recorder] { return concatenate(recorder.blocks()); };
  auto errorTags = [&] { return std::ranges::count(tags(), Tag::Type::Error, &Tag::type); };
  ASSERT_TRUE(waitUntil([&] { return !timesOf(tags(), 4).empty(); }));
  ASSERT_EQ(errorTags(), 0);

  LogCapture log;
  board->unplug();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const size_t before = recorder.blocks().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const std::vector<Block> down = recorder.blocks();
  EXPECT_TRUE(down.size() - before >= 2 && down.size() - before <= 7) << down.size() - before;
  for (size_t i = before; i < down.size(); ++i) {
    EXPECT_TRUE(down[i].tags.empty() && down[i].begin_time == down[i].end_time) << i;
  }

  board->clearTraffic();
  board->replug();
  ASSERT_TRUE(log.waitFor(LOGGER_INFO, "Zeptick ACQ4 reconnected"));
  zt.sync();
  EXPECT_EQ(board->wireIn(0x12), 67108864u);
  EXPECT_TRUE(std::ranges::any_of(board->events(), [](const emulator::BoardEvent& e) {
    return e.call == "WriteToPipeIn" && e.a == 0x80;
  })) << "the reloaded board gets its channel table again";
  const size_t count = timesOf(tags(), 4).size();
  EXPECT_TRUE(waitUntil([&] { return timesOf(tags(), 4).size() > count + 100; }));
  // The error tag leaves once the stream moves on again.
  EXPECT_EQ(errorTags(), 1) << "one error tag for the whole outage";
  expectOrderedStream(recorder.blocks());

  // A failed read is an outage too.
  log.reset();
  board->failReads(1);
  ASSERT_TRUE(log.waitFor(LOGGER_INFO, "Zeptick ACQ4 reconnected"));
  zt.sync();
  EXPECT_EQ(errorTags(), 2);
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

// Workers decode while other threads change settings, read the tagger's state and create and drop
// measurements; a measurement living through it all still sees one ordered, gap-free stream.
TEST_F(Acquisition, SettingsAndMeasurementsChangeWhileBlocksFlow) {
  ZeptickImpl& zt = open(ultraBoard(
      "CON1", json::array({poisson(1, 3e5), periodic(2, 2e6), pairs({3, 4}, 800, 1e5)}), 4));
  RecordingMeasurement witness(&zt, {1, 2, 3, 4});
  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i) {
      zt.setInputDelay(1 + i % 4, (i % 7 - 3) * 1000);
      zt.setDeadtime(-(1 + i % 4), 2500 * (1 + i % 5));
      zt.setTriggerLevel(1 + i % 4, 0.2 + 0.1 * (i % 5));
      zt.setEventDivider(2, 1 + i % 3);
      zt.setTestSignal(4, i % 9 == 0);
      if (i % 5 == 0) zt.setConditionalFilter({3}, {4});
      if (i % 5 == 2) zt.clearConditionalFilter();
      zt.setNormalization(i % 2 == 0);
      zt.setStreamBlockSize(i % 2 == 0 ? 1024 : 131072, 1 + i % 20);
      if (i % 10 == 0) zt.sync();
    }
  });
  threads.emplace_back([&] {
    while (!stop) {
      Countrate rate(&zt, {1, 2});
      RecordingMeasurement short_lived(&zt, {3});
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
      zeptick::testing::collect(rate, &Countrate::getData);
      expectOrderedStream(short_lived.blocks());
    }
  });
  threads.emplace_back([&] {
    while (!stop) {
      zt.getConfiguration();
      zt.getOverflowsAndClear();
      zeptick::testing::collect(zt, &ZeptickImpl::getDistributionCount);
      zt.getSensorData();
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  zt.sync();
  expectOrderedStream(witness.blocks());
  EXPECT_FALSE(timesOf(concatenate(witness.blocks()), 1).empty());
}

// A board draining 1 million words a second, fed 10 million pulses a second: the stream shows
// overflow begin, missed events and end, no time tag inside, every pulse delivered or counted,
// and the measurements run on through it.
TEST_F(Acquisition, OverloadedBufferFramesMissedEventsAndMeasurementsGoOn) {
  constexpr int64_t kPeriod = 100000;  // ps
  json entry = ultraBoard("LIVE3", json::array({periodic(1, kPeriod)}));
  entry["usb_words_per_second"] = 1e6;
  ZeptickImpl& zt = open(entry);
  zt.setHardwareBufferSize(32768);
  Countrate rates(&zt, {1});
  constexpr int64_t kSpan = 200000000000;  // 200 ms: about 6 overflows
  const std::vector<Tag> tags = record({1}, kSpan);

  // From the first overflow begin to the last end.
  const auto begin = std::ranges::find(tags, Tag::Type::OverflowBegin, &Tag::type);
  const auto end =
      std::ranges::find(tags.rbegin(), tags.rend(), Tag::Type::OverflowEnd, &Tag::type).base();
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
