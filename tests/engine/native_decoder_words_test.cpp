// The decoder against references of its own: the emulator's plain decoder of
// board words (it reads the bit layout on its own, unlike the plain model of
// the equivalence test), calibration tables worked out by hand, and the
// emulated boards' input paths.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <tuple>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"
#include "engine/native_decoder_fixture.h"

namespace zeptick {
namespace {

using emulator::testing::Decoded;
using emulator::testing::ReferenceDecoder;
using engine_testing::decode;
using engine_testing::event;
using engine_testing::plainSettings;
using engine_testing::rollover;
using engine_testing::word;

auto key(const Tag& t) { return std::tuple(t.time, t.channel, t.type, t.missed_events); }

std::vector<Tag> sorted(std::vector<Tag> tags) {
  std::sort(tags.begin(), tags.end(), [](const Tag& a, const Tag& b) { return key(a) < key(b); });
  return tags;
}

// Events, missed counts and rollovers of every kind in a random mix, with
// ticks rising within each rollover period as on a device, through channels
// delayed by up to 4 us: what leaves must be exactly the tags before the last
// position, sorted, in touching blocks.
TEST(NativeDecoderWordsTest, RandomStreamsMatchTheEmulatorsReferenceDecoder) {
  constexpr int64_t kPs = 1000;
  constexpr uint32_t kBins = 10, kChannels = 8;
  for (uint64_t seed = 1; seed <= 20; ++seed) {
    std::mt19937_64 rng(seed);
    std::vector<uint32_t> words;
    for (uint32_t i = 0, tick = 0; i < 4000; ++i) {
      const auto pick = rng() % 100;
      if (pick < 5) {
        words.push_back(pick < 3 ? rollover() : word(2 + rng() % 2, 62, rng() % 3, 0));
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
    DecoderBlockSettings settings = plainSettings(kChannels);
    for (auto& c : settings.channels) c.delay = static_cast<int64_t>(rng() % 3) * 2000000;

    std::vector<Tag> expected;
    int64_t position = 0;
    for (const Decoded& d : ReferenceDecoder().decode(words)) {
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
      const auto block = decode(decoder, {words.begin() + at, words.begin() + at + n}, settings);
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
    EXPECT_TRUE(std::ranges::equal(sorted(all), sorted(expected),
                                   [](auto& a, auto& b) { return key(a) == key(b); }))
        << "seed " << seed << ": " << all.size() << " tags, expected " << expected.size();
  }
}

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
  decoder.setup(engine_testing::device(1000, 4, 2), 0);
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
  big.setup(engine_testing::device(1000, 4, 2), 0);
  decode(big, events({600000, 400000}), plainSettings(2, true));
  decode(big, events({0, 0, 0, 1}), plainSettings(2, true));
  decode(big, {}, plainSettings(2, true));
  EXPECT_EQ(big.distribution(0, 0).count, 540000u);
  EXPECT_EQ(big.distribution(0, 1).count, 360000u);
  EXPECT_EQ(big.distribution(0, 3).count, 0u);
  EXPECT_EQ(big.distribution(0, 1).psecs, 599u) << "made from the counts before they decayed";
}

// A negative input delay moves every other channel forward instead; with
// compensation, every input of the emulated boards lines up with the first.
TEST(NativeDecoderWordsTest, DelaysCompensateTheEmulatedInputPaths) {
  EXPECT_EQ(effectiveInputDelay(-500, 0, true, -500), 0);
  EXPECT_EQ(effectiveInputDelay(0, 0, true, -500), 500);
  EXPECT_EQ(effectiveInputDelay(0, 1574, true, -500), 2074);
  EXPECT_EQ(effectiveInputDelay(300, 1574, false, 0), 300);
  for (const auto& [p, name] : {std::pair{emulator::testing::ultra(), "Zeptick Ultra"},
                                std::pair{emulator::testing::model20(), "Zeptick 20"}}) {
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

}  // namespace
}  // namespace zeptick
