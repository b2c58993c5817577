#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "emulator/stream/stream_channel.h"
#include "emulator/stream/stream_output.h"

namespace zeptick::emulator {
namespace {

constexpr int64_t kPsPerClock = 2500;

// Sorted keys of one channel in cycles [begin, end): at most one per cycle, at random offsets.
std::vector<uint64_t> channelKeys(unsigned index, size_t count, int64_t begin, int64_t end,
                                  std::mt19937_64& random) {
  std::vector<int64_t> cycles(static_cast<size_t>(end - begin));
  for (size_t i = 0; i < cycles.size(); ++i) cycles[i] = begin + static_cast<int64_t>(i);
  std::shuffle(cycles.begin(), cycles.end(), random);
  cycles.resize(count);
  std::sort(cycles.begin(), cycles.end());
  std::uniform_int_distribution<int64_t> offset(0, kPsPerClock - 1);
  std::vector<uint64_t> keys;
  for (int64_t cycle : cycles) {
    const auto tick = static_cast<unsigned>(cycle);
    const auto bin = static_cast<unsigned>(random() & 0xFF);
    keys.push_back(eventKey(tick, offset(random), nativeWord(1, index, bin, tick)));
  }
  return keys;
}

// Every mix of busy and quiet channels the merge treats differently, in two windows, with and
// without a buffer that never fills: the words are every event once, sorted by time, then channel.
TEST(StreamOutputTest, WordsFollowASortOfAllChannelsEvents) {
  // clang-format off
  const std::vector<std::vector<size_t>> mixes = {{1}, {900}, {500, 3}, {300, 300}, {200, 200, 200},
      {3, 400, 10, 10, 10}, {100, 100, 100, 100}, {5, 50, 500, 3000, 50, 7, 300},
      std::vector<size_t>(20, 60)};
  // clang-format on
  std::mt19937_64 random(7);
  for (const uint32_t buffer_words : {0u, 1u << 20}) {
    for (const auto& mix : mixes) {
      SCOPED_TRACE(::testing::Message() << "buffer " << buffer_words << ", " << mix.size()
                                        << " channels, first " << mix[0]);
      StreamOutput out(kPsPerClock, false, 1e8);
      out.setBuffer(buffer_words);
      std::vector<uint32_t> expected;
      for (const auto& [begin, end] : {std::pair<int64_t, int64_t>{0, 32768}, {32768, 65536}}) {
        std::vector<KeyBuffer> buffers(mix.size());
        std::vector<const KeyBuffer*> streams;
        std::vector<uint64_t> all;
        for (size_t c = 0; c < mix.size(); ++c) {
          const auto keys = channelKeys(static_cast<unsigned>(c), mix[c] / 2, begin, end, random);
          std::copy(keys.begin(), keys.end(), buffers[c].prepare(keys.size()));
          buffers[c].resize(keys.size());
          if (!keys.empty()) streams.push_back(&buffers[c]);
          all.insert(all.end(), keys.begin(), keys.end());
        }
        std::sort(all.begin(), all.end());
        for (uint64_t key : all) expected.push_back(static_cast<uint32_t>(key));
        out.advanceTo(begin);
        if (!streams.empty()) out.merge(streams.data(), streams.size());
        out.advanceTo(end - 1);
      }
      std::vector<uint32_t> words(out.available());
      out.take(reinterpret_cast<unsigned char*>(words.data()), words.size());
      EXPECT_EQ(words, expected);
    }
  }
}

// Past 2^39 cycles (short of the rebase at 2^40) an overflow still ends on its own cycle, not at
// the window's end: an overloaded window gives the same words wherever it lies.
TEST(StreamOutputTest, OverflowsEndOnTheirCycleAtAnyStreamPosition) {
  auto window = [](int64_t start) {
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
    std::vector<uint32_t> words(out.available());
    out.take(reinterpret_cast<unsigned char*>(words.data()), words.size());
    return words;
  };
  const auto early = window(3 * StreamOutput::kPeriodClocks);
  EXPECT_GE(std::ranges::count_if(early, [](uint32_t w) { return w >> 24 == 0xFF; }), 10);
  EXPECT_EQ(window((int64_t{1} << 39) + StreamOutput::kPeriodClocks), early);
}

}  // namespace
}  // namespace zeptick::emulator
