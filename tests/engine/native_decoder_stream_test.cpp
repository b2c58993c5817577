#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"
#include "engine/native_decoder_fixture.h"

namespace zeptick {
namespace {

using emulator::StreamModel;
using emulator::testing::Decoded;
using emulator::testing::ReferenceDecoder;

// Reads the board block by block into the decoder under test and, word for
// word the same, into the emulator's plain reference decoder.
// What the reference saw of each word, kept small: a busy board sends millions.
struct Seen {
  int64_t clock;
  uint32_t position;
  uint16_t missed;
  Decoded::Kind kind;
  uint8_t index;
  uint8_t bin;
};

struct BoardRun {
  std::vector<Tag> tags;
  std::vector<Seen> reference;
  int64_t end = 0;
};

std::vector<Seen> only(const std::vector<Seen>& all, Decoded::Kind kind, int index = -1) {
  std::vector<Seen> out;
  for (const Seen& d : all) {
    if (d.kind == kind && (index < 0 || d.index == index)) out.push_back(d);
  }
  return out;
}

BoardRun run(StreamModel& model, const emulator::StreamParameters& p,
             const DecoderBlockSettings& settings, int blocks) {
  NativeDecoder decoder;
  decoder.setup(engine_testing::device(p.ps_per_clock, p.bin_count, 2 * p.inputs), 0);
  ReferenceDecoder reference;
  std::vector<NativeTag> native(65536);
  std::vector<Tag> tags;
  DecodedBlock block(tags);
  BoardRun r;
  for (int i = 0; i < blocks; ++i) {
    model.read(reinterpret_cast<unsigned char*>(native.data()), 65536 * 4);
    std::vector<uint32_t> words;
    for (NativeTag w : native) words.push_back(w.word);
    for (const Decoded& d : reference.decode(words)) {
      if (d.kind == Decoded::Kind::Rollover || d.kind == Decoded::Kind::Filler) continue;
      r.reference.push_back({d.clock, static_cast<uint32_t>(d.position),
                             static_cast<uint16_t>(d.missed), d.kind, static_cast<uint8_t>(d.index),
                             static_cast<uint8_t>(d.bin)});
    }
    decoder.decodeBlock(native, 0, settings, block);
    EXPECT_EQ(block.begin, r.end);
    r.end = block.end;
    r.tags.insert(r.tags.end(), tags.begin(), tags.end());
  }
  return r;
}

std::vector<int64_t> timesOf(const std::vector<Tag>& tags, int32_t channel) {
  std::vector<int64_t> t;
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::TimeTag && tag.channel == channel) t.push_back(tag.time);
  }
  return t;
}

TEST(NativeDecoderStreamTest, DecodedBoardStreamMatchesTheBoardsTruth) {
  const auto p = emulator::testing::ultra(false, 5);
  StreamModel model(p, nlohmann::json::parse(R"([
    {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 20, "rate_hz": 2e6},
    {"type": "poisson", "input": 4, "rate_hz": 3e5},
    {"type": "poisson", "input": 5, "rate_hz": 1e5}])"));
  // Input 5 runs on the internal test signal: 126 * 5000 ps apart.
  emulator::FirmwareSetup setup = emulator::testing::enable(p, {0, 1, 3, 4});
  setup.channels[4].mux = 3;
  setup.test_period_word = 126;
  setup.test_half_period_word = 63;
  model.configure(setup);

  DecoderBlockSettings settings = engine_testing::plainSettings(2 * p.inputs, true);
  const auto compensation = hardwareDelayTable("Zeptick Ultra", 2 * p.inputs, false);
  for (size_t i = 0; i < settings.channels.size(); ++i) {
    settings.channels[i].delay = effectiveInputDelay(0, compensation[i], true, 0);
  }
  const BoardRun r = run(model, p, settings, 40);
  ASSERT_TRUE(std::is_sorted(r.tags.begin(), r.tags.end(),
                             [](const Tag& a, const Tag& b) { return a.time < b.time; }));

  // Every event the reference sees before the end, on its channel, in order,
  // inside its true fine bin once the table has learned (after 0.2 s). The
  // test signal keeps one phase, so its table cannot learn: counts only. The
  // margin is the statistical spread of the learned edges at this count.
  const int64_t learned = 80'000'000;
  for (int index : {0, 1, 3, 4}) {
    const auto upper = model.binUpperEdges(index);
    const auto mine = timesOf(r.tags, index + 1);
    std::vector<Seen> truth;
    for (const Seen& d : only(r.reference, Decoded::Kind::Event, index)) {
      if (d.clock * p.ps_per_clock < r.end) truth.push_back(d);
    }
    ASSERT_EQ(mine.size(), truth.size()) << "index " << index;
    ASSERT_GT(truth.size(), 1000u);
    for (size_t k = 0; k < truth.size(); ++k) {
      if (truth[k].clock < learned || index == 4) continue;
      const int64_t at =
          mine[k] - compensation[static_cast<size_t>(index)] - truth[k].clock * p.ps_per_clock;
      const auto bin = static_cast<size_t>(truth[k].bin);
      ASSERT_GE(at, (bin == 0 ? 0 : upper[bin - 1]) - 15) << index << " " << k;
      ASSERT_LE(at, upper[bin] + 15) << index << " " << k;
    }
  }

  // The pair delay, with the input paths compensated, is the source's own.
  const auto first = timesOf(r.tags, 1);
  const auto second = timesOf(r.tags, 2);
  double sum = 0;
  size_t pairs = 0;
  for (int64_t t : first) {
    if (t < learned * p.ps_per_clock) continue;
    const auto at = std::lower_bound(second.begin(), second.end(), t + 1200);
    if (at != second.end() && *at < t + 1800) {
      sum += static_cast<double>(*at - t);
      ++pairs;
    }
  }
  ASSERT_GT(pairs, first.size() / 2);
  EXPECT_NEAR(sum / static_cast<double>(pairs), 1500.0, 2.0);

  // The test signal's period, and the Poisson rate within five sigma.
  const auto test = timesOf(r.tags, 5);
  const double period =
      static_cast<double>(test.back() - test.front()) / static_cast<double>(test.size() - 1);
  EXPECT_NEAR(period, 628006.5, 2.0);
  const double seconds = static_cast<double>(r.end) * 1e-12;
  const double expected = 3e5 * seconds;
  EXPECT_NEAR(static_cast<double>(timesOf(r.tags, 4).size()), expected, 5 * std::sqrt(expected));
}

// A full hardware buffer: every pulse is either delivered or counted as missed,
// and each overflow shows as begin, missed events, end, with no time tag inside.
TEST(NativeDecoderStreamTest, OverflowsFrameMissedEventsInOrder) {
  const auto p = emulator::testing::ultra(false, 3);
  StreamModel model(p, nlohmann::json::parse(R"([{"type": "periodic", "input": 1,
      "period_ps": 5000}])"));
  emulator::FirmwareSetup setup = emulator::testing::enable(p, {0});
  setup.buffer_words = 1000;
  model.configure(setup);
  DecoderBlockSettings settings = engine_testing::plainSettings(2 * p.inputs, true);
  settings.channels[0].delay = 7000;  // the end must still follow the delayed events
  const BoardRun r = run(model, p, settings, 8);

  // Counted up to the last overflow end that left, against what the reference
  // decoder saw before the word of that end.
  size_t ends = 0;
  size_t cut = 0;
  for (size_t i = 0; i < r.tags.size(); ++i) {
    if (r.tags[i].type == Tag::Type::OverflowEnd) {
      ++ends;
      cut = i;
    }
  }
  ASSERT_GT(ends, 3u);
  uint64_t delivered = 0, missed = 0;
  bool inside = false;
  for (size_t i = 0; i <= cut; ++i) {
    const Tag& t = r.tags[i];
    switch (t.type) {
      case Tag::Type::OverflowBegin:
        ASSERT_FALSE(inside);
        inside = true;
        break;
      case Tag::Type::OverflowEnd:
        ASSERT_TRUE(inside);
        inside = false;
        break;
      case Tag::Type::TimeTag:
        ASSERT_FALSE(inside) << t.time;
        ++delivered;
        break;
      case Tag::Type::MissedEvents:
        ASSERT_TRUE(inside);
        missed += t.missed_events;
        break;
      default:
        FAIL();
    }
  }
  const auto endWords = only(r.reference, Decoded::Kind::OverflowEnd);
  ASSERT_GE(endWords.size(), ends);
  const Seen& last = endWords[ends - 1];
  uint64_t pulses = 0;
  for (const Seen& d : r.reference) {
    if (d.kind == Decoded::Kind::Event && d.clock < last.clock) ++pulses;
    if (d.kind == Decoded::Kind::Missed && d.position < last.position) pulses += d.missed;
  }
  EXPECT_EQ(delivered + missed, pulses);
  EXPECT_GT(missed, delivered / 10);
}

}  // namespace
}  // namespace zeptick
