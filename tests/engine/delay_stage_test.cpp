#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/stream/stream_model.h"
#include "emulator/stream_decoder.h"
#include "engine/delay_stage.h"

namespace zeptick {
namespace {

struct Raw {
  int64_t time;
  uint32_t index;
  uint32_t bin;
};

// Drives the stage as the decoder does: the stream moves to each event's raw
// time before the event enters a heap.
class Driver {
 public:
  explicit Driver(DelayStage& stage) : stage(stage) {}

  void feed(const Raw& e, bool filtered) {
    if (e.time != stage.decodedUntil()) advance(e.time);
    const Tag tag{Tag::Type::TimeTag, 0, 0, static_cast<int32_t>(e.index), e.time};
    if (filtered) {
      stage.pushPreDelay(PreDelayTag::make(tag, e.bin, e.index));
    } else {
      Tag delayed = tag;
      delayed.time += stage.blockSettings().delays[e.index];
      stage.pushEvent(e.index, delayed);
    }
  }

  void advance(int64_t t) {
    const size_t before = out.size();
    stage.advanceTo(t, out);
    for (size_t i = before; i < out.size(); ++i) {
      ASSERT_LT(out[i].time, t);
      ASSERT_TRUE(i == 0 || out[i - 1].time <= out[i].time);
    }
  }

  DelayStage& stage;
  std::vector<Tag> out;
};

std::vector<int64_t> times(std::vector<Tag> tags) {
  std::vector<int64_t> t;
  for (const Tag& tag : tags) t.push_back(tag.time);
  return t;
}

TEST(DelayStageTest, DelayedTagsLeaveAsABruteForceSortWould) {
  // Hand-checked cases first: delays 0 and 1000 put the event at 500 first;
  // a negative input delay moves every other channel forward instead.
  EXPECT_EQ(effectiveInputDelay(-500, 0, true, -500), 0);
  EXPECT_EQ(effectiveInputDelay(0, 0, true, -500), 500);
  EXPECT_EQ(effectiveInputDelay(0, 1574, true, -500), 2074);
  EXPECT_EQ(effectiveInputDelay(300, 1574, false, 0), 300);
  {
    DelayStage stage;
    const std::vector<int64_t> delays = {0, 1000};
    stage.setBlockSettings({0, 0, delays.data(), 1000, nullptr, 0});
    Driver d(stage);
    d.feed({0, 1, 0}, false);
    d.feed({500, 0, 0}, false);
    d.advance(1000);  // exactly the held tag's time: nothing more leaves
    EXPECT_EQ(times(d.out), std::vector<int64_t>({500}));
    d.advance(1001);
    EXPECT_EQ(times(d.out), std::vector<int64_t>({500, 1000}));
  }

  // Delays change at block borders, so a channel's tags can arrive out of
  // order and must still leave sorted.
  for (uint64_t seed = 1; seed <= 30; ++seed) {
    std::mt19937_64 rng(seed);
    std::vector<int64_t> delays(6);
    auto newDelays = [&] {
      std::vector<int64_t> input(6);
      for (auto& v : input) v = static_cast<int64_t>(rng() % 20001) - 10000;
      const int64_t minimum = *std::min_element(input.begin(), input.end());
      for (size_t i = 0; i < input.size(); ++i) {
        delays[i] = effectiveInputDelay(input[i], 100 * static_cast<int64_t>(i), true, minimum);
        ASSERT_GE(delays[i], 0);
      }
    };
    DelayStage stage;
    stage.reset(0);
    Driver d(stage);
    std::vector<int64_t> expected;
    int64_t t = 0;
    for (int i = 0; i < 3000; ++i) {
      if (i % 500 == 0) {
        newDelays();
        stage.setBlockSettings({0, 0, delays.data(), 0, nullptr, 0});
      }
      t +=
          static_cast<int64_t>(rng() % 4) * static_cast<int64_t>(rng() % 3000);  // many equal times
      const Raw e{t, static_cast<uint32_t>(rng() % 6), 0};
      d.feed(e, false);
      expected.push_back(e.time + delays[e.index]);
    }
    const int64_t end = t + 5000;
    d.advance(end);
    std::erase_if(expected, [end](int64_t v) { return v >= end; });
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(times(d.out), expected) << "seed " << seed;
    EXPECT_EQ(d.out.size() + stage.pendingOutput(), 3000u);
  }
}

TEST(DelayStageTest, ConditionalFilterFollowsArrivalOrderAndCountsOnlyWhatPasses) {
  constexpr uint32_t kTrigger = 0, kFiltered = 1, kBoth = 2, kPlain = 3, kBins = 4;
  const uint64_t triggerMask = (1u << kTrigger) | (1u << kBoth);
  const uint64_t filteredMask = (1u << kFiltered) | (1u << kBoth);
  // The filter acts on raw arrival, before delays that reverse channel order.
  const std::vector<int64_t> delays = {9000, 0, 4000, 100};

  for (uint64_t seed = 1; seed <= 30; ++seed) {
    std::mt19937_64 rng(seed);
    std::vector<Distribution> records(4 * (kBins + 1), Distribution{0, 0});
    DelayStage stage;
    stage.reset(0);
    stage.setBlockSettings(
        {triggerMask, filteredMask, delays.data(), 9000, records.data(), kBins + 1});
    Driver d(stage);
    std::vector<Raw> events;
    int64_t t = 0;
    for (int i = 0; i < 2000; ++i) {
      t += 1 + static_cast<int64_t>(rng() % 2000);
      // Filtered events are common and triggers rarer, so arming matters.
      const auto pick = rng() % 10;
      const uint32_t index = pick < 5 ? kFiltered : pick < 7 ? kPlain : pick < 8 ? kBoth : kTrigger;
      events.push_back({t, index, static_cast<uint32_t>(rng() % kBins)});
      d.feed(events.back(), true);
    }
    d.advance(t + 20000);

    // Brute force: walk the arrivals with one armed flag per index.
    std::map<uint32_t, bool> armed;
    std::vector<int64_t> expected;
    std::vector<uint32_t> counts(records.size(), 0);
    for (const Raw& e : events) {
      if (e.index == kTrigger || e.index == kBoth) {
        armed[kFiltered] = true;
        armed[kBoth] = true;
      }
      const bool filtered = e.index == kFiltered || e.index == kBoth;
      if (filtered && !armed[e.index]) continue;
      armed[e.index] = false;
      expected.push_back(e.time + delays[e.index]);
      ++counts[e.index * (kBins + 1) + e.bin];
    }
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(times(d.out), expected) << "seed " << seed;
    for (size_t r = 0; r < records.size(); ++r) EXPECT_EQ(records[r].count, counts[r]) << r;
  }

  // B A B B: only A and the B right after it pass. Then an arming that an
  // overflow word closes again lets nothing through.
  std::vector<Distribution> records(4 * (kBins + 1), Distribution{0, 0});
  DelayStage stage;
  stage.setBlockSettings(
      {1u << kTrigger, 1u << kFiltered, delays.data(), 9000, records.data(), kBins + 1});
  Driver d(stage);
  for (const Raw& e : {Raw{10, kFiltered, 0}, Raw{20, kTrigger, 0}, Raw{30, kFiltered, 1},
                       Raw{40, kFiltered, 2}, Raw{50, kTrigger, 0}}) {
    d.feed(e, true);
  }
  d.advance(55);
  stage.closeFilter();
  d.feed({60, kFiltered, 3}, true);
  d.advance(100000);
  EXPECT_EQ(times(d.out), std::vector<int64_t>({30, 9020, 9050}));
  EXPECT_EQ(records[kFiltered * (kBins + 1) + 1].count, 1u);
  for (uint32_t bin : {0u, 2u, 3u}) EXPECT_EQ(records[kFiltered * (kBins + 1) + bin].count, 0u);
}

TEST(DelayStageTest, CompensationCancelsTheEmulatedInputPaths) {
  using emulator::StreamModel;
  for (const auto& [p, name] : {std::pair{emulator::testing::ultra(), "Zeptick Ultra"},
                                std::pair{emulator::testing::model20(), "Zeptick 20"}}) {
    const StreamModel model(p, nlohmann::json::array());
    const auto table = hardwareDelayTable(name, 2 * p.inputs, false);
    const auto group = hardwareDelayTable(name, 2 * p.inputs, true);
    ASSERT_EQ(table.size(), static_cast<size_t>(2 * p.inputs));
    const int64_t aligned = model.inputLatency(0) + table[0];
    for (int i = 0; i < p.inputs; ++i) {
      const auto rising = static_cast<size_t>(i);
      const auto falling = static_cast<size_t>(i + p.inputs);
      EXPECT_EQ(model.inputLatency(i) + table[rising], aligned) << name << " input " << i;
      EXPECT_EQ(table[falling], table[rising]);
      EXPECT_EQ(group[rising], table[rising] + 780);
    }
  }
}

}  // namespace
}  // namespace zeptick
