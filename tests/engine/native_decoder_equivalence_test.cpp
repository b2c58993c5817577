// Long random word streams through the decoder, against a plain model: every word handled on its
// own, every release a sort of what is held. Whatever the decoder batches or merges to be fast,
// its blocks, tables, dither state and overflow counts must come out as the model's.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <tuple>
#include <vector>

#include "engine/native_decoder_fixture.h"
#include "support/measurement_streams.h"

namespace zeptick::engine_testing {
namespace {

constexpr int64_t kPs = 2500;
constexpr int32_t kBins = 16;
constexpr int32_t kIndices = 16;

struct Held {
  Tag tag;
  uint32_t rank;                // at equal time: control tags first, then events by hardware index
  uint64_t seq;                 // then in the order they were held
  uint32_t bin = 0, index = 0;  // of events still in front of the conditional filter
};

// The decoder's behaviour written as directly as possible, for one device
// without a sync board.
class Model {
 public:
  Block decode(const std::vector<uint32_t>& words, uint32_t fence, const DecoderBlockSettings& s) {
    calibrate(s.normalization);
    Block block{{}, until, 0, deviceFence};
    trigger = filtered = overflows = 0;
    maxDelay = 0;
    for (int i = 0; i < kIndices; ++i) {
      const auto& c = s.channels[static_cast<size_t>(i)];
      channel[i] = c.channel;
      delay[i] = c.delay;
      maxDelay = std::max(maxDelay, c.delay);
      if (c.conditionalTrigger) trigger |= uint64_t{1} << i;
      if (c.conditionalFiltered) filtered |= uint64_t{1} << i;
    }
    for (uint32_t w : words) step(w, fence, s.normalization, block);
    block.end = until;
    return block;
  }

  // Uniform bins below 10001 events; above, bin middles, or lower edges with normalization.
  void calibrate(bool normalization) {
    for (int i = 0; i < kIndices; ++i) {
      uint64_t total = 0, below = 0;
      for (int b = 0; b < kBins; ++b) total += count[i][b];
      for (int b = 0; b < kBins; ++b) {
        const uint64_t at = normalization ? below : below + count[i][b] / 2;
        psecs[i][b] = static_cast<uint32_t>(total < 10001 ? kPs * b / kBins : at * kPs / total);
        below += count[i][b];
      }
      psecs[i][kBins] = kPs;
    }
  }

  int64_t overflows = 0;  // of the last block
  uint32_t count[kIndices][kBins] = {};
  uint32_t psecs[kIndices][kBins + 1] = {};
  uint64_t rng = 1;

 private:
  void hold(const Tag& tag, uint32_t rank) { held.push_back({tag, rank, seq++}); }

  void advance(int64_t t, std::vector<Tag>& out) {
    until = t;
    // In front of the delays, the filter sees events in arrival order.
    std::stable_sort(pre.begin(), pre.end(), [](const Held& a, const Held& b) {
      return a.tag.time != b.tag.time ? a.tag.time < b.tag.time : a.index < b.index;
    });
    while (!pre.empty() && pre.front().tag.time < t) {
      Held p = pre.front();
      pre.erase(pre.begin());
      const uint64_t bit = uint64_t{1} << p.index;
      if (trigger & bit) filterState = ~uint64_t{0};
      if (!(filtered & bit) || (filterState & bit)) {
        p.tag.time += delay[p.index];
        ++count[p.index][p.bin];
        hold(p.tag, p.index + 1);
        filterState &= ~bit;
      }
    }
    std::sort(held.begin(), held.end(), [](const Held& a, const Held& b) {
      if (a.tag.time != b.tag.time) return a.tag.time < b.tag.time;
      return a.rank != b.rank ? a.rank < b.rank : a.seq < b.seq;
    });
    size_t n = 0;
    for (; n < held.size() && held[n].tag.time < t; ++n) {
      Tag tag = held[n].tag;
      if (tag.type == Tag::Type::OverflowEnd) overflow = false;
      if (overflow && tag.type == Tag::Type::TimeTag) {
        tag.type = Tag::Type::MissedEvents;
        tag.missed_events = 1;
      }
      out.push_back(tag);
    }
    held.erase(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(n));
  }

  // The word's fields read from the bit layout directly, not through the decoder's accessors.
  void step(uint32_t w, uint32_t fence, bool normalization, Block& block) {
    const uint32_t kind = w >> 30, code = (w >> 24) & 0x3F, bin = (w >> 16) & 0xFF;
    const int64_t tick = w & 0xFFFF;
    const int64_t period = kPs * 65536;
    if (kind == 0) return;
    if (code == 62) {
      if (kind == 1) {
        base += period;
        deviceFence = fence + static_cast<uint32_t>(static_cast<int8_t>(bin - (fence & 0xFF)));
      } else {
        base += (kind == 2 ? 1 : 256) * int64_t{bin} * period;
      }
      if (base > until) advance(base, block.tags);
    } else if (code == 63) {
      if (kind == 1) {  // an error: nothing held can be trusted
        held.clear();
        pre.clear();
        base += period;
      }
      Tag tag{static_cast<Tag::Type>(kind), 0, 0, CHANNEL_UNUSED, base + tick * kPs};
      if (tag.time > until) advance(tag.time, block.tags);
      if (kind == 2) overflow = true;
      if (kind == 3) tag.time += maxDelay;
      if (kind != 3) ++overflows;
      hold(tag, 0);
      filterState = 0;
    } else if (code >= 58) {
      // Sync-board words mean nothing to a lone device.
    } else if (kind != 1) {
      if (code >= kIndices) return;
      const auto missed = static_cast<uint16_t>(kind == 2 ? bin : bin * 256);
      hold(Tag{Tag::Type::MissedEvents, 0, missed, channel[code], until}, 0);
    } else {
      if (code >= kIndices || bin >= kBins) return;
      const int64_t raw = base + tick * kPs;
      int64_t t = raw + psecs[code][bin];
      if (normalization) {  // the generator moves on even for an event dropped below
        rng ^= rng >> 12;
        rng ^= rng << 25;
        rng ^= rng >> 27;
        const uint64_t r = (rng * 0x2545F4914F6CDD1DULL) >> 32;
        const uint64_t width = psecs[code][bin + 1] - psecs[code][bin];
        t += static_cast<int64_t>((width * r) >> 32);
      }
      if (raw < until) return;
      if (raw > until) advance(raw, block.tags);
      if (filtered == 0) {
        ++count[code][bin];
        hold(Tag{Tag::Type::TimeTag, 0, 0, channel[code], t + delay[code]}, code + 1);
      } else {
        pre.push_back({Tag{Tag::Type::TimeTag, 0, 0, channel[code], t}, 0, seq++, bin, code});
      }
    }
  }

  int32_t channel[kIndices] = {};
  int64_t delay[kIndices] = {};
  int64_t maxDelay = 0;
  uint64_t trigger = 0, filtered = 0, filterState = 0;
  int64_t base = 0, until = 0;
  uint32_t deviceFence = 0;
  bool overflow = false;
  uint64_t seq = 0;
  std::vector<Held> held, pre;
};

struct StreamShape {
  bool normalization;
  bool filter;
  bool largeDelays;   // one channel held back by a microsecond or more
  bool delaysChange;  // new delays now and then, so held tags meet differently delayed ones
};

// A busy device: mostly events on a few inputs (enough for the tables to leave their uniform
// start), every kind of control word, some damaged words, and ties on purpose.
std::vector<uint32_t> randomWords(std::mt19937_64& rng, size_t n) {
  std::vector<uint32_t> words;
  uint32_t tick = 0;
  auto pick = [&](uint32_t bound) { return static_cast<uint32_t>(rng() % bound); };
  while (words.size() < n) {
    const uint32_t roll = pick(1000);
    if (roll < 900) {
      tick += pick(4) == 0 ? 0 : pick(40);  // same tick now and then: ties, reordering
      if (tick > 0xFFFF) {
        tick &= 0xFFFF;
        words.push_back(word(1, 62, pick(256), 0));
      }
      const uint32_t index = pick(50) == 0 ? pick(20) : pick(5);  // 16..19 do not exist
      const uint32_t bin = pick(100) == 0 ? kBins + pick(8) : pick(kBins);
      // A word from behind the stream now and then: it must vanish.
      const uint32_t at = pick(200) == 0 && tick > 50 ? tick - 50 : tick;
      words.push_back(word(1, index, bin, at));
    } else if (roll < 930) {  // rollovers carrying any fence byte
      words.push_back(word(1, 62, pick(256), 0));
      tick = 0;
    } else if (roll < 936) {  // multi-period rollovers, empty ones included
      words.push_back(word(2 + pick(2), 62, pick(3), 0));
      tick = 0;
    } else if (roll < 960) {  // missed-event counts, some for indices that do not exist
      words.push_back(word(2 + pick(2), pick(18), pick(256), 0));
    } else if (roll < 975) {
      words.push_back(word(2, 63, 0, tick));
      tick += pick(500);
      if (tick > 0xFFFF) tick = 0xFFFF;
      words.push_back(word(3, 63, 0, tick));
    } else if (roll < 978) {
      words.push_back(word(1, 63, 0, pick(0x10000)));
      tick = 0xFFFF;  // later events of this period would lie behind the error
    } else if (roll < 985) {
      words.push_back(word(1 + pick(3), 58 + pick(4), pick(256), pick(0x10000)));
    } else {
      words.push_back(word(0, pick(64), pick(256), pick(0x10000)));
    }
  }
  return words;
}

DecoderBlockSettings randomSettings(std::mt19937_64& rng, const StreamShape& shape) {
  DecoderBlockSettings s;
  s.normalization = shape.normalization;
  for (int i = 0; i < kIndices; ++i) {
    const uint64_t r = rng() % 4;
    const int64_t delay = r == 0 ? 0 : static_cast<int64_t>(rng() % (r == 1 ? 3000 : 20000));
    s.channels.push_back({i == 4 ? CHANNEL_UNUSED : i + 1, delay, false, false});
  }
  // A whole number of clock periods now and then, for ties with the others.
  if (shape.largeDelays) s.channels[2].delay = 1000000 + static_cast<int64_t>(rng() % 2 * 2500);
  if (shape.filter) {
    s.channels[0].conditionalTrigger = true;
    s.channels[1].conditionalFiltered = true;
    s.channels[3].conditionalFiltered = true;
    s.channels[3].conditionalTrigger = true;  // passes all its own events
  }
  return s;
}

void expectSameStream(const StreamShape& shape, uint64_t seed) {
  std::mt19937_64 rng(seed);
  const std::vector<uint32_t> words = randomWords(rng, 70000);
  NativeDecoder decoder;
  decoder.setup(device(kPs, kBins, kIndices), 0);
  Model model;
  DecoderBlockSettings settings = randomSettings(rng, shape);
  uint32_t fence = 0;
  for (size_t at = 0, block = 0; at < words.size(); ++block) {
    // Cuts anywhere, empty blocks included.
    const size_t n = std::min(words.size() - at, rng() % 3 == 0 ? rng() % 4 : rng() % 3000);
    const std::vector<uint32_t> part(words.begin() + static_cast<std::ptrdiff_t>(at),
                                     words.begin() + static_cast<std::ptrdiff_t>(at + n));
    at += n;
    if (shape.delaysChange && rng() % 8 == 0) settings = randomSettings(rng, shape);
    fence += static_cast<uint32_t>(rng() % 3);
    const Block got = decode(decoder, part, settings, fence);
    const Block want = model.decode(part, fence, settings);
    ASSERT_EQ(std::tuple(got.begin, got.end, got.fence, decoder.takeOverflows()),
              std::tuple(want.begin, want.end, want.fence, model.overflows))
        << "block " << block;
    ASSERT_TRUE(testing::sameTags(got.tags, want.tags)) << "block " << block;
  }
  EXPECT_EQ(decoder.rngState(), model.rng);
  decoder.updateDistributions(shape.normalization);
  model.calibrate(shape.normalization);
  uint32_t total = 0;
  for (int i = 0; i < kIndices; ++i) {
    for (int b = 0; b <= kBins; ++b) {
      const uint32_t want = b < kBins ? model.count[i][b] : 0;
      ASSERT_EQ(std::pair(decoder.distribution(i, b).count, decoder.distribution(i, b).psecs),
                std::pair(want, model.psecs[i][b]))
          << i << "/" << b;
      if (i == 0) total += want;
    }
  }
  ASSERT_GT(total, 10001u) << "the tables must have left their uniform start";
}

TEST(NativeDecoderEquivalenceTest, RandomStreamsMatchAPlainModel) {
  // Every combination of the four shapes, normalization first.
  for (int bits = 0; bits < 16; ++bits) {
    const StreamShape shape{(bits & 8) == 0, (bits & 4) != 0, (bits & 2) != 0, (bits & 1) != 0};
    SCOPED_TRACE(::testing::Message()
                 << "normalization " << shape.normalization << " filter " << shape.filter
                 << " large " << shape.largeDelays << " change " << shape.delaysChange);
    expectSameStream(shape, static_cast<uint64_t>(bits) + 1);
    if (::testing::Test::HasFatalFailure()) return;
  }
}

}  // namespace
}  // namespace zeptick::engine_testing
