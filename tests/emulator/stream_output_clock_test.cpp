#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "emulator/stream/stream_channel.h"
#include "emulator/stream/stream_output.h"

namespace zeptick::emulator {
namespace {

struct Word {
  unsigned kind;
  unsigned code;
  unsigned bin;
  int64_t tick;
  bool operator==(const Word&) const = default;
};

/// The words of one window of pulses every 2 cycles on hardware index 0, a
/// buffer of 16 words draining 1/4 word per cycle, starting `start` cycles
/// into the stream (a period start) and a quiet period later, so the buffer
/// starts the window the same way wherever it lies. Earlier words are dropped.
std::vector<Word> overloadedWindow(int64_t start) {
  StreamOutput out(2500, false, 1e8);
  out.setBuffer(16);
  out.skipQuietTo(start);
  out.advanceTo(start);
  std::vector<unsigned char> sink(4 * out.available());
  out.take(sink.data(), out.available());

  const int64_t begin = start + StreamOutput::kPeriodClocks;
  constexpr int64_t kWindow = 60000;
  KeyBuffer keys;
  uint64_t* key = keys.prepare(kWindow / 2);
  for (int64_t c = 0; c < kWindow; c += 2) {
    const auto tick = static_cast<unsigned>((begin + c) & 0xFFFF);
    *key++ = eventKey(tick, 100, nativeWord(1, 0, 0, tick));
  }
  keys.resize(kWindow / 2);
  const KeyBuffer* streams[] = {&keys};
  out.advanceTo(begin);
  out.merge(streams, 1);
  out.advanceTo(begin + kWindow - 1);

  std::vector<uint32_t> raw(out.available());
  out.take(reinterpret_cast<unsigned char*>(raw.data()), raw.size());
  std::vector<Word> words;
  for (uint32_t w : raw) words.push_back({w >> 30, (w >> 24) & 0x3F, (w >> 16) & 0xFF, w & 0xFFFF});
  return words;
}

// Far into the stream (past 2^39 cycles, short of the rebase at 2^40) an
// overflow must still end on its own cycle, not at the end of the window, and
// the framing must be the same as near the start.
TEST(StreamOutputClockTest, OverflowsEndOnTheirCycleAtAnyStreamPosition) {
  const std::vector<Word> early = overloadedWindow(3 * StreamOutput::kPeriodClocks);
  const std::vector<Word> late = overloadedWindow((int64_t{1} << 39) + StreamOutput::kPeriodClocks);
  EXPECT_EQ(late, early);

  for (const auto* words : {&early, &late}) {
    int ends = 0;
    int64_t delivered = 0;
    int64_t missed = 0;
    int64_t last_end = 0;
    for (size_t i = 0; i < words->size(); ++i) {
      const Word& w = (*words)[i];
      if (w.code == 63 && w.kind == 3) {
        ++ends;
        last_end = w.tick;
        // The next pulse after the end is delivered.
        ASSERT_LT(i + 1, words->size());
        const Word& next = (*words)[i + 1];
        EXPECT_EQ(next.kind, 1u);
        EXPECT_LE(next.tick, w.tick + 2);
      }
    }
    ASSERT_GE(ends, 10);
    // Every pulse before the last end is delivered or counted as missed.
    for (const Word& w : *words) {
      if (w.code != 0) continue;
      if (w.kind == 1 && w.tick < last_end) ++delivered;
      if (w.kind == 2) missed += w.bin;
      if (w.kind == 3) missed += int64_t{w.bin} << 8;
    }
    EXPECT_EQ(delivered + missed, (last_end + 1) / 2);
  }
}

}  // namespace
}  // namespace zeptick::emulator
