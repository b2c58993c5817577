#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"

namespace zeptick::emulator {
namespace {

using nlohmann::json;
using testing::Decoded;
using testing::ReferenceDecoder;
using Kind = Decoded::Kind;

constexpr int64_t kPeriod = 65536;

using Overflow = std::array<int64_t, 3>;  // begin, end, missed events

// A pulse every 2 cycles against a drain of 1/4 word per cycle: the buffer
// fills by half a word per pulse, overflows, drains to half, and so on.
TEST(StreamFramingTest, OverflowWordsAppearExactlyWhenTheBufferFills) {
  const auto p = testing::ultra();  // 1e8 words/s drain exactly 0.25 words per 2500 ps cycle
  StreamModel model(p, json::parse(R"([{"type": "periodic", "input": 1, "period_ps": 5000}])"));
  FirmwareSetup setup = testing::enable(p, {0});
  setup.buffer_words = 1000;
  model.configure(setup);
  const int64_t horizon = 150'000;
  const auto all = testing::readFor(model, horizon + 10'000);

  // Brute force, cycle by cycle: drain, rollover word, due overflow end (not
  // in the cycle of a word that re-planned it), then the pulse of the cycle.
  const int64_t latency = model.inputLatency(0);
  auto fires = [latency](int64_t c) {  // does pulse k at latency + 5000 k ps fall into cycle c?
    const int64_t low = c * 2500 - latency;
    const int64_t k = low <= 0 ? 0 : (low + 4999) / 5000;
    return 5000 * k >= low && 5000 * k < low + 2500;
  };
  std::vector<Overflow> expected;
  double level = 0;
  bool overflow = false;
  int64_t missed = 0;
  for (int64_t c = 0; c < horizon; ++c) {
    level = std::max(0.0, level - 0.25);
    bool replanned = false;
    if (c > 0 && c % kPeriod == 0) {
      level += 1;
      replanned = overflow;
    }
    if (overflow && !replanned && level <= setup.buffer_words / 2.0) {
      overflow = false;
      level += 1 + (missed >> 8 ? 1 : 0) + (missed & 0xFF ? 1 : 0);  // counts, then the end word
      expected.back()[1] = c;
      expected.back()[2] = missed;
    }
    if (!fires(c)) continue;
    if (overflow) {
      ++missed;
    } else if (level > setup.buffer_words - 1) {
      overflow = true;
      missed = 1;
      level += 1;
      expected.push_back({c, 0, 0});
    } else {
      level += 1;
    }
  }
  if (overflow) expected.pop_back();
  ASSERT_GE(expected.size(), 10u);

  std::vector<Overflow> seen;
  for (const Decoded& d : all) {
    if (d.kind == Kind::OverflowBegin) seen.push_back({d.clock, 0, 0});
    if (d.kind == Kind::Missed) seen.back()[2] += d.missed;
    if (d.kind == Kind::OverflowEnd) seen.back()[1] = d.clock;
  }
  seen.resize(expected.size());
  EXPECT_EQ(seen, expected);
}

// A new fence returns in the first kind-1 rollover after the words already produced, at the end
// of the last read word's period, moved on by multi-rollover words still waiting.
TEST(StreamFramingTest, FenceReturnsAtTheNextBoundaryAfterConfigure) {
  const auto p = testing::ultra();
  for (const char* sources : {"[]", R"([{"type": "poisson", "input": 1, "rate_hz": 3e6}])"}) {
    SCOPED_TRACE(sources);
    StreamModel model(p, json::parse(sources));
    FirmwareSetup setup = testing::enable(p, {0});
    setup.fence = 5;
    model.configure(setup);
    ReferenceDecoder decoder;
    const auto before = decoder.decode(testing::readWords(model, 10'000));
    ASSERT_FALSE(testing::only(before, Kind::Rollover).empty());
    int64_t last = 0;  // the clock of the last word produced; fillers carry none
    for (const Decoded& d : before) {
      ASSERT_TRUE(d.fence == -1 || d.fence == 5);
      if (d.kind != Kind::Filler) last = d.clock;
    }
    setup.fence = 6;
    model.configure(setup);
    const auto after =
        testing::only(decoder.decode(testing::readWords(model, 10'000)), Kind::Rollover);
    auto first = std::ranges::find_if(after, [](const Decoded& d) { return d.fence >= 0; });
    ASSERT_NE(first, after.end());
    int64_t runs = 0;  // periods of multi-rollover words still waiting
    for (auto d = after.begin(); d != first; ++d) runs += d->periods;
    EXPECT_EQ(first->clock, (last / kPeriod + 1 + runs) * kPeriod);
    for (; first != after.end(); ++first) EXPECT_TRUE(first->fence == -1 || first->fence == 6);
  }
}

// A lost clock shows as one error word in place of the next rollover; the
// host counts it as that period's rollover, so times stay continuous.
TEST(StreamFramingTest, AnInjectedErrorTakesThePlaceOfOneRollover) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([{"type": "periodic", "input": 1, "period_ps": 1000000}])"));
  model.configure(testing::enable(p, {0}));
  ReferenceDecoder decoder;
  std::vector<Decoded> all = decoder.decode(testing::readWords(model, 3000));
  const int64_t next = (all.back().clock / kPeriod + 1) * kPeriod;
  model.injectError();
  const auto after = decoder.decode(testing::readWords(model, 6000));
  all.insert(all.end(), after.begin(), after.end());
  int64_t boundary = kPeriod, previous_event = -1;
  for (const Decoded& d : all) {
    // The pulses keep their spacing of 400 cycles across the error: no period lost or added.
    if (d.kind == Kind::Event) {
      ASSERT_TRUE(previous_event < 0 || d.clock - previous_event == 400) << d.clock;
      previous_event = d.clock;
    }
    if (d.kind != Kind::Rollover && d.kind != Kind::Error) continue;
    ASSERT_EQ(d.clock, boundary);
    EXPECT_EQ(d.kind == Kind::Error, boundary == next) << boundary;
    boundary += kPeriod;
  }
  EXPECT_GT(boundary, next + 2 * kPeriod);
}

// A 1 Hz source leaves over 2^40 cycles between first and last pulse; the spacing stays exact.
TEST(StreamFramingTest, SparseEventsKeepExactTimesOverLongStretches) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([{"type": "periodic", "input": 1, "period_ps": 1e12}])"));
  model.configure(testing::enable(p, {0}));
  ReferenceDecoder decoder;
  std::vector<Decoded> events;
  while (events.size() < 4000) {
    const auto part = testing::only(decoder.decode(testing::readWords(model, 1024)), Kind::Event);
    events.insert(events.end(), part.begin(), part.end());
  }
  ASSERT_GT(events.back().clock, int64_t{1} << 40);
  for (size_t k = 1; k < events.size(); ++k) {
    ASSERT_EQ(events[k].clock - events[k - 1].clock, 400'000'000) << k;
    ASSERT_EQ(events[k].bin, events[0].bin);
  }
}

// A looped recording repeats word for word over any read lengths; rollovers carry the host's fence.
TEST(StreamFramingTest, LoopedRecordingRepeatsWithTheHostsFence) {
  const auto p = testing::ultra();
  StreamModel model(p, json::parse(R"([{"type": "poisson", "input": 1, "rate_hz": 1e7}])"));
  FirmwareSetup setup = testing::enable(p, {0});
  setup.fence = 0x21;
  model.configure(setup);
  constexpr uint32_t kRollover = (1u << 30) | (62u << 24);
  const std::vector<uint32_t> recording = {(1u << 30) | 5, kRollover | (0x07 << 16),
                                           (1u << 30) | (3u << 16) | 9, kRollover};
  model.loopRecording(recording);
  size_t at = 0;
  auto expect = [&](size_t length, uint32_t fence) {
    for (const uint32_t word : testing::readWords(model, length)) {
      const uint32_t looped = recording[at++ % recording.size()];
      ASSERT_EQ(word,
                looped >> 24 == kRollover >> 24 ? (looped & ~0xFF0000u) | fence << 16 : looped)
          << "word " << at;
    }
  };
  for (const size_t length : {1, 3, 4, 7, 2}) expect(length, 0x21);
  setup.fence = 0x80;
  model.configure(setup);
  expect(9, 0x80);
}

// A quiet free-running board passes one period per read: fences keep coming, and its clock
// cannot race ahead of real time towards an overflow.
TEST(StreamFramingTest, AQuietFreeRunningBoardPassesOnePeriodPerRead) {
  const auto p = testing::ultra();
  StreamModel quiet(p, json::array());
  quiet.configure(testing::enable(p, {0}));
  ReferenceDecoder decoder;
  for (int read = 1; read <= 3; ++read) {
    for (const Decoded& d : decoder.decode(testing::readWords(quiet, 4096))) {
      ASSERT_TRUE(d.kind == Kind::Rollover || d.kind == Kind::Filler);
    }
    EXPECT_EQ(decoder.base(), read * kPeriod);  // one period per read
  }
}

// A quiet paced board sends one kind-1 rollover per period, none early, and a read waiting for
// them lets configure() through: the new fence shows in that read's words.
TEST(StreamFramingTest, PacedRolloversKeepTimeAndConfigureGetsThroughMeanwhile) {
  const auto p = testing::ultra(true);
  const auto start = std::chrono::steady_clock::now();
  StreamModel paced(p, json::array());
  std::vector<uint32_t> words;
  std::thread waiting([&] { words = testing::readWords(paced, 300); });  // about 50 ms
  std::this_thread::sleep_for(std::chrono::milliseconds(2));
  FirmwareSetup setup = testing::enable(p, {});
  setup.fence = 9;
  paced.configure(setup);
  waiting.join();
  EXPECT_GE(std::chrono::steady_clock::now() - start,
            std::chrono::nanoseconds(300 * kPeriod * 2500 / 1000));
  const auto rollovers = ReferenceDecoder().decode(words);
  for (size_t k = 0; k < rollovers.size(); ++k) {
    ASSERT_EQ(rollovers[k].kind, Kind::Rollover);
    EXPECT_EQ(rollovers[k].clock, static_cast<int64_t>(k + 1) * kPeriod);
    EXPECT_TRUE(rollovers[k].fence == 0 || rollovers[k].fence == 9);
  }
  EXPECT_EQ(rollovers.back().fence, 9);
}

}  // namespace
}  // namespace zeptick::emulator
