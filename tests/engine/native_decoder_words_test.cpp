#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include "emulator/stream_decoder.h"
#include "engine/native_decoder_fixture.h"

namespace zeptick {
namespace {

using emulator::testing::Decoded;
using emulator::testing::ReferenceDecoder;
using engine_testing::Block;
using engine_testing::decode;
using engine_testing::event;
using engine_testing::plainSettings;
using engine_testing::rollover;
using engine_testing::word;

constexpr int64_t kPs = 1000;
constexpr int32_t kBins = 10;
constexpr int32_t kChannels = 8;
constexpr int64_t kPeriod = kPs * 65536;

auto key(const Tag& t) { return std::tuple(t.time, t.channel, t.type, t.missed_events); }

std::vector<Tag> sorted(std::vector<Tag> tags) {
  std::sort(tags.begin(), tags.end(), [](const Tag& a, const Tag& b) { return key(a) < key(b); });
  return tags;
}

// Events, missed counts and rollovers of every kind in a random mix, with
// ticks rising within each rollover period as on a device.
std::vector<uint32_t> randomStream(std::mt19937_64& rng, size_t n) {
  std::vector<uint32_t> words;
  uint32_t tick = 0;
  for (size_t i = 0; i < n; ++i) {
    const auto pick = rng() % 100;
    if (pick < 3) {
      words.push_back(rollover());
      tick = 0;
    } else if (pick < 5) {
      words.push_back(word(2 + rng() % 2, 62, rng() % 3, 0));
      tick = 0;
    } else if (pick < 8) {
      words.push_back(word(2 + rng() % 2, rng() % kChannels, 1 + rng() % 255, tick));
    } else if (pick < 10) {
      words.push_back(0);
    } else {
      tick = std::min<uint32_t>(65535, tick + rng() % 3000);
      words.push_back(event(rng() % kChannels, rng() % kBins, tick));
    }
  }
  return words;
}

// Delayed streams against a brute-force model built on the emulator's plain
// reference decoder: every tag's time is known up front, and what leaves must
// be exactly the tags before the last position, sorted, in touching blocks.
TEST(NativeDecoderWordsTest, RandomStreamsLeaveSortedAndComplete) {
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    std::mt19937_64 rng(seed);
    const auto words = randomStream(rng, 4000);
    DecoderBlockSettings settings = plainSettings(kChannels);
    for (auto& c : settings.channels) c.delay = static_cast<int64_t>(rng() % 3) * 2000000;

    std::vector<Tag> expected;
    int64_t position = 0;
    ReferenceDecoder reference;
    for (const Decoded& d : reference.decode(words)) {
      if (d.kind == Decoded::Kind::Event) {
        // An event behind what was released is dropped: here after a rollover
        // word of zero periods, which starts the ticks again.
        if (d.clock * kPs < position) continue;
        position = d.clock * kPs;
        expected.push_back({Tag::Type::TimeTag, 0, 0, d.index + 1,
                            d.clock * kPs + kPs * d.bin / kBins +
                                settings.channels[static_cast<size_t>(d.index)].delay});
      } else if (d.kind == Decoded::Kind::Missed) {
        expected.push_back(
            {Tag::Type::MissedEvents, 0, static_cast<uint16_t>(d.missed), d.index + 1, position});
      } else if (d.kind == Decoded::Kind::Rollover) {
        position = std::max(position, d.clock * kPs);
      }
    }
    std::erase_if(expected, [&](const Tag& t) { return t.time >= position; });

    NativeDecoder decoder;
    decoder.setup(engine_testing::device(kPs, kBins, kChannels), 0);
    std::vector<Tag> all;
    int64_t end = 0;
    for (size_t at = 0; at < words.size();) {
      const size_t n = std::min(words.size() - at, 1 + rng() % 700);
      const Block block = decode(decoder, {words.begin() + at, words.begin() + at + n}, settings);
      at += n;
      ASSERT_EQ(block.begin, end);
      end = block.end;
      for (const Tag& t : block.tags) {
        ASSERT_GE(t.time, block.begin);
        ASSERT_LT(t.time, block.end);
        ASSERT_TRUE(all.empty() || all.back().time <= t.time);
        all.push_back(t);
      }
    }
    ASSERT_EQ(end, position);
    ASSERT_EQ(sorted(all).size(), expected.size()) << "seed " << seed;
    EXPECT_TRUE(std::ranges::equal(sorted(all), sorted(expected),
                                   [](auto& a, auto& b) { return key(a) == key(b); }))
        << "seed " << seed;
  }
}

TEST(NativeDecoderWordsTest, RolloversAndFencesMoveTheBlockEdge) {
  NativeDecoder decoder;
  decoder.setup(engine_testing::device(kPs, kBins, kChannels), 0x1F0);
  const auto settings = plainSettings(kChannels);

  const Block fillers = decode(decoder, {0, word(0, 5, 7, 9), 0}, settings);
  EXPECT_TRUE(fillers.tags.empty());
  EXPECT_EQ(fillers.begin, 0);
  EXPECT_EQ(fillers.end, 0);
  EXPECT_EQ(fillers.fence, 0x1F0u);

  // Empty multi-period rollovers change nothing; 3 + 256 + 1 periods pass.
  const Block quiet = decode(
      decoder,
      {word(2, 62, 0, 0), word(3, 62, 0, 0), word(2, 62, 3, 0), word(3, 62, 1, 0), rollover(0x01)},
      settings, 0x1FE);
  EXPECT_TRUE(quiet.tags.empty());
  EXPECT_EQ(quiet.end, 260 * kPeriod);
  // The device's fence byte is widened against the runner's, across a carry
  // both ways, and reaches the block after the rollover that carried it.
  EXPECT_EQ(decoder.deviceFence(), 0x201u);
  decode(decoder, {rollover(0xFE)}, settings, 0x201);
  EXPECT_EQ(decoder.deviceFence(), 0x1FEu);
  EXPECT_EQ(decode(decoder, {}, settings, 0x201).fence, 0x1FEu);
}

TEST(NativeDecoderWordsTest, ErrorsAndOverflowsFrameTheStream) {
  NativeDecoder decoder;
  decoder.setup(engine_testing::device(kPs, kBins, kChannels), 0);
  auto settings = plainSettings(kChannels);
  settings.channels[1].delay = 50000;

  // Held tags, delayed or not, are discarded unseen by an error, which counts
  // as a rollover; its own tag leaves with the next step of the stream.
  Block b = decode(decoder, {event(1, 0, 10), event(0, 0, 20), event(0, 0, 30), word(1, 63, 0, 5)},
                   settings);
  ASSERT_EQ(b.tags.size(), 1u);
  EXPECT_EQ(b.tags[0].channel, 1);
  EXPECT_EQ(b.tags[0].time, 20 * kPs);
  EXPECT_EQ(b.end, kPeriod + 5 * kPs);
  EXPECT_EQ(decoder.delayStage().pendingOutput(), 1u);

  // Overflow: tags released inside it become single missed events; the end
  // leaves behind the events delayed out of it; an event behind the stream
  // position vanishes without a count.
  const int64_t base = kPeriod;
  b = decode(
      decoder,
      {word(2, 63, 0, 100), event(0, 0, 90), event(1, 3, 150), word(2, 1, 7, 150),
       word(3, 1, 2, 150), event(0, 0, 160), word(3, 63, 0, 200), event(0, 0, 300), rollover()},
      settings);
  EXPECT_EQ(decoder.distribution(0, 0).count, 4u);  // 20, 30, 160 and 300; not 90
  std::vector<std::tuple<Tag::Type, int32_t, uint16_t, int64_t>> seen;
  for (const Tag& t : b.tags) seen.emplace_back(t.type, t.channel, t.missed_events, t.time);
  using T = Tag::Type;
  const std::vector<std::tuple<Tag::Type, int32_t, uint16_t, int64_t>> want = {
      {T::Error, CHANNEL_UNUSED, 0, base + 5 * kPs},
      {T::OverflowBegin, CHANNEL_UNUSED, 0, base + 100 * kPs},
      {T::MissedEvents, 2, 7, base + 150 * kPs},
      {T::MissedEvents, 2, 512, base + 150 * kPs},
      {T::MissedEvents, 1, 1, base + 160 * kPs},
      {T::MissedEvents, 2, 1, base + 150 * kPs + 300 + 50000},
      {T::OverflowEnd, CHANNEL_UNUSED, 0, base + 200 * kPs + 50000},
      {T::TimeTag, 1, 0, base + 300 * kPs}};
  EXPECT_EQ(seen, want);
  EXPECT_EQ(decoder.takeOverflows(), 2);
  EXPECT_EQ(decoder.overflows(), 0);
}

TEST(NativeDecoderWordsTest, DitherSpreadsUniformlyOverTheBin) {
  NativeDecoder decoder;
  decoder.setup(engine_testing::device(kPs, kBins, kChannels), 0);
  const auto settings = plainSettings(kChannels, true);
  std::vector<uint32_t> words;
  for (uint32_t i = 0; i < 5000; ++i) words.push_back(event(0, 4, i * 10));
  words.push_back(rollover());
  const Block b = decode(decoder, words, settings);
  ASSERT_EQ(b.tags.size(), 5000u);
  double sum = 0;
  for (size_t i = 0; i < b.tags.size(); ++i) {
    const int64_t offset = b.tags[i].time - static_cast<int64_t>(i) * 10 * kPs;
    ASSERT_GE(offset, 400);
    ASSERT_LT(offset, 500);
    sum += static_cast<double>(offset - 400);
  }
  // Uniform over [0, 100): mean 49.5 with a standard error of about 0.4.
  EXPECT_NEAR(sum / 5000, 49.5, 2.0);

  // The generator moves on even for an event that is dropped as too late.
  const uint64_t before = decoder.rngState();
  decode(decoder, {word(2, 63, 0, 500), event(0, 4, 10)}, settings);
  EXPECT_NE(decoder.rngState(), before);
}

}  // namespace
}  // namespace zeptick
