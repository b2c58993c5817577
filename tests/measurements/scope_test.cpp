#include "zeptick/scope.h"

#include <gtest/gtest.h>

#include <array>
#include <random>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;
using DirectScope = testing::Direct<Scope>;
using ScopeTest = QuietTaggerTest;

using Row = std::array<int64_t, 3>;  // trace, time after the trigger, level

// Traces in one pass over the whole stream, edges picked from the window of each trigger.
void referenceScope(const TagStream& stream, const std::vector<int>& inputs, int trigger,
                    int64_t window, size_t n_traces, std::vector<std::vector<Row>>& rows,
                    std::vector<int64_t>& triggers) {
  const std::vector<Tag>& tags = stream.tags;
  rows.assign(inputs.size(), {});
  std::vector<int64_t> level(inputs.size(), -1);  // after the last edge seen
  auto levelOf = [&](const Tag& tag, size_t k) -> int64_t {
    if (tag.type != Tag::Type::TimeTag) return -2;
    return tag.channel == inputs[k] ? 1 : tag.channel == -inputs[k] ? 0 : -2;
  };
  auto track = [&](const Tag& tag) {
    for (size_t k = 0; k < inputs.size(); ++k) {
      if (tag.type != Tag::Type::TimeTag) level[k] = -1;
      if (levelOf(tag, k) >= 0) level[k] = levelOf(tag, k);
    }
  };
  size_t i = 0;
  while (i < tags.size()) {
    track(tags[i]);
    const Tag& tag = tags[i];
    if (triggers.size() == n_traces || tag.type != Tag::Type::TimeTag || tag.channel != trigger) {
      ++i;
      continue;
    }
    const int64_t t0 = tag.time;
    std::vector<int64_t> start = level;  // equal-time edges before the trigger are in already
    std::vector<std::vector<Row>> trace(inputs.size());
    bool broken = false;
    size_t end = i + 1;
    for (; end < tags.size() && tags[end].time - t0 < window; ++end) {
      if (tags[end].type != Tag::Type::TimeTag) {
        broken = true;
        break;
      }
      for (size_t k = 0; k < inputs.size(); ++k) {
        const int64_t lv = levelOf(tags[end], k);
        if (lv < 0) continue;
        if (tags[end].time == t0) {
          start[k] = lv;
        } else {
          trace[k].push_back({static_cast<int64_t>(triggers.size()), tags[end].time - t0, lv});
        }
      }
    }
    for (size_t m = i + 1; m < end; ++m) track(tags[m]);
    i = end;
    if (broken || (end == tags.size() && stream.end_time - t0 < window)) continue;
    for (size_t k = 0; k < inputs.size(); ++k) {
      rows[k].push_back({static_cast<int64_t>(triggers.size()), 0, start[k]});
      rows[k].insert(rows[k].end(), trace[k].begin(), trace[k].end());
    }
    triggers.push_back(t0);
  }
}

TEST_F(ScopeTest, EqualsBruteForceOnRandomStreamsCutEveryWay) {
  std::mt19937_64 rng(3);
  for (int round = 0; round < 30; ++round) {
    StreamShape shape;
    shape.channels = {1, -1, 2, -2, 3};
    shape.tags = 1200;
    shape.grid = 20;
    TagStream stream = makeRandomStream(rng, shape);
    const int64_t window =
        shape.grid * (100 + static_cast<int64_t>(rng() % 1000));  // edges hit its end
    const int32_t n_traces = 3 + static_cast<int32_t>(rng() % 30);
    DirectScope scope(&tagger, std::vector<int>{1, 2}, 3, window, n_traces);
    for (const Block& block : cutStream(stream, randomCuts(rng, stream, 25))) {
      scope.feed(block.tags, block.begin_time, block.end_time);
    }
    std::vector<std::vector<Row>> expected;
    std::vector<int64_t> triggers;
    referenceScope(stream, {1, 2}, 3, window, static_cast<size_t>(n_traces), expected, triggers);
    SCOPED_TRACE(::testing::Message() << "round " << round);
    EXPECT_EQ(collect(scope, &Scope::getTriggerTimes), triggers);
    for (size_t k = 0; k < 2; ++k) {
      std::vector<int64_t> flat;
      scope.getData(k, [&](size_t n_rows, size_t columns) {
        flat.assign(n_rows * columns, -1);
        return flat.data();
      });
      std::vector<Row> rows;
      for (size_t r = 0; r + 2 < flat.size(); r += 3)
        rows.push_back({flat[r], flat[r + 1], flat[r + 2]});
      EXPECT_EQ(rows, expected[k]) << "input " << k;
    }
    EXPECT_EQ(scope.ready(), triggers.size() == static_cast<size_t>(n_traces));
  }
}

TEST_F(ScopeTest, ChecksItsArguments) {
  EXPECT_EQ(invalidArgument([&] { Scope(&tagger, {}, 3, 100); }), "channels must not be empty");
  EXPECT_EQ(invalidArgument([&] { Scope(&tagger, {1}, 3, 0); }), "window must be at least 1 ps");
  EXPECT_EQ(invalidArgument([&] { Scope(&tagger, {1}, 3, 10, 0); }), "n_traces must be at least 1");
  Scope scope(&tagger, {1}, 3, 10);
  EXPECT_THROW(scope.getData(1, [](size_t, size_t) { return nullptr; }), std::invalid_argument);
}

}  // namespace
}  // namespace zeptick
