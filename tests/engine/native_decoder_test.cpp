// The decoder against known answers: calibration tables worked out by hand, the emulated
// boards' input paths, and a sync board's counter and link.

#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "engine/native_decoder_fixture.h"
#include "support/log_capture.h"
#include "support/measurement_streams.h"

namespace zeptick::engine_testing {
namespace {

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
  decoder.setup(device(1000, 4, 2), 0);
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
  big.setup(device(1000, 4, 2), 0);
  decode(big, events({600000, 400000}), plainSettings(2, true));
  decode(big, events({0, 0, 0, 1}), plainSettings(2, true));
  decode(big, {}, plainSettings(2, true));
  EXPECT_EQ(std::tuple(big.distribution(0, 0).count, big.distribution(0, 1).count,
                       big.distribution(0, 3).count),
            std::tuple(540000u, 360000u, 0u));
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

constexpr int64_t kPs = 2500;
constexpr int64_t kPeriod = kPs * 65536;

int64_t fakeNow = 0;
int64_t fakeClock() { return fakeNow; }

// The four bytes of a Synchronizer counter, least significant first.
std::vector<uint32_t> counter(uint32_t n, uint32_t tick = 0) {
  std::vector<uint32_t> w;
  for (uint32_t b = 0; b < 4; ++b) w.push_back(word(1, 58 + b, (n >> (8 * b)) & 0xFF, tick));
  return w;
}

std::vector<uint32_t> join(std::initializer_list<std::vector<uint32_t>> parts) {
  std::vector<uint32_t> all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

// A decoder of a group member, sharing `shared` with the others and reading the fake host clock.
NativeDecoder syncDecoder(DecoderSyncEpoch& shared) {
  shared.hostClockNs = &fakeClock;
  NativeDecoder d;
  DecoderDevice dev = device(kPs, 8, 4);
  dev.syncMode = true;
  dev.sync = &shared;
  d.setup(dev, 0);
  return d;
}

TEST(NativeDecoderSyncTest, AlignsOnTheCounterWatchesTheLinkAndFollowsTheHostClock) {
  const DecoderBlockSettings settings = plainSettings(4, false);
  testing::LogCapture log;
  fakeNow = 0;
  DecoderSyncEpoch shared;
  NativeDecoder d = syncDecoder(shared);
  // Before alignment input words are dropped and the block can't be trusted.
  Block b = decode(d, {event(0, 0, 5), word(2, 0, 3, 6), rollover()}, settings);
  EXPECT_TRUE(b.tags.empty() && b.invalid);

  const int64_t t = int64_t{0x01020304} * kPeriod;
  b = decode(d, join({{event(0, 0, 5)}, counter(0x01020304), {event(1, 0, 10), rollover()}}),
             settings);
  // Still invalid: the event before the counter was dropped.
  EXPECT_EQ(std::tuple(b.invalid, d.syncValid(), b.begin, d.overflows()),
            std::tuple(true, true, t, 1));
  EXPECT_TRUE(testing::sameTags(
      b.tags, {testing::marker(Tag::Type::Error, t), testing::timeTag(2, t + 10 * kPs)}));

  // The next counter, one period on, agrees; a marker word keeps the link
  // alive across a rollover without a counter.
  b = decode(d, join({counter(0x01020305), {word(2, 58, 0, 0), rollover()}}), settings);
  EXPECT_EQ(std::pair(b.invalid, d.syncValid()), std::pair(false, true));
  EXPECT_TRUE(log.messages().empty());
  decode(d, {rollover()}, settings);
  EXPECT_FALSE(d.syncValid());
  EXPECT_TRUE(log.contains(LOGGER_ERROR,
                           "Nothing received from the sync board between two rollover events. "
                           "Is AUX IN 1 still connected to TEST?"));

  // A counter that disagrees with the periods seen realigns at once.
  b = decode(d, join({counter(0x01020306), {rollover()}, counter(0x01020310), {event(2, 0, 1)}}),
             settings);
  EXPECT_TRUE(d.syncValid());
  EXPECT_TRUE(log.contains(LOGGER_ERROR,
                           "Zeptick vs Sync Board counter mismatch: 1638400000 vs 163840000."));
  EXPECT_EQ(std::pair(b.begin, d.overflows()),
            std::pair(int64_t{0x01020310} * kPeriod, int64_t{3}));

  // A counter byte off the clock edge, and an error word, break the alignment.
  decode(d, counter(0x01020311, 7), settings);
  EXPECT_FALSE(d.syncValid());
  EXPECT_TRUE(log.contains(
      LOGGER_ERROR,
      "Unexpected syncboard word received after 7 clock cycles. Is the clock connected properly?"));
  decode(d, join({counter(0x01020312), {word(1, 63, 0, 0)}}), settings);
  EXPECT_FALSE(d.syncValid());
  EXPECT_TRUE(log.contains(
      LOGGER_ERROR,
      "Error event received from TEST, please make sure that the CLK is connected properly."));

  // Decoders of a new group: one sees the counter just before it wraps, and the next, 32 periods
  // later by the host clock, sees it wrapped to 0x10.
  DecoderSyncEpoch group;
  NativeDecoder first = syncDecoder(group);
  NativeDecoder second = syncDecoder(group);
  decode(first, counter(0xFFFFFFF0), settings);
  EXPECT_EQ(first.baseTime(), int64_t{0xFFFFFFF0} * kPeriod);

  fakeNow = 32 * kPeriod / 1000;
  decode(second, counter(0x10), settings);
  EXPECT_EQ(second.baseTime(), (int64_t{1} << 32) * kPeriod + 16 * kPeriod);
  EXPECT_EQ(second.syncEpoch(), 0);

  // Two minutes unaccounted for: a new epoch.
  NativeDecoder third = syncDecoder(group);
  fakeNow += 120'000'000'000;
  decode(third, counter(0x10), settings);
  EXPECT_EQ(third.syncEpoch(), 1);
  EXPECT_EQ(first.syncEpoch(), 0);
  EXPECT_TRUE(log.contains(LOGGER_ERROR,
                           "Host computer vs Sync Board timer mismatch by 120.000000 seconds"));
}

}  // namespace
}  // namespace zeptick::engine_testing
