// The counting measurements and the stream readers, each against a reference worked out on the same
// stream, plus the few behaviours no stream reaches (restarts, clears, empty spans).

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "support/measurement_streams.h"
#include "zeptick/count_between_markers.h"
#include "zeptick/counter.h"
#include "zeptick/countrate.h"
#include "zeptick/iterator.h"
#include "zeptick/scope.h"

namespace zeptick {
namespace {

using namespace testing;
using CountingTest = QuietTaggerTest;

// The counting rules, worked per channel value with maps rather than per entry: totals and rates.
std::pair<std::vector<int64_t>, std::vector<double>> countrateReference(
    const std::vector<int>& entries, const std::vector<Block>& blocks) {
  std::map<int, int64_t> total;
  std::map<int, int64_t> since_error;
  for (int channel : entries) total[channel] = since_error[channel] = 0;
  int64_t first_time = 0;
  for (const Block& block : blocks) {
    if (first_time == 0) first_time = block.begin_time;
    for (const Tag& tag : block.tags) {
      if (tag.type == Tag::Type::Error) {
        first_time = 0;
        for (auto& entry : since_error) entry.second = 0;
        continue;
      }
      if (tag.type != Tag::Type::TimeTag && tag.type != Tag::Type::MissedEvents) continue;
      if (!total.contains(tag.channel)) continue;
      const int64_t n = tag.type == Tag::Type::TimeTag ? 1 : tag.missed_events;
      total[tag.channel] += n;
      since_error[tag.channel] += n;
      if (first_time == 0) first_time = tag.time;
    }
    if (first_time == 0) first_time = block.end_time;
  }
  const int64_t last_time = blocks.back().end_time;
  std::pair<std::vector<int64_t>, std::vector<double>> expected;
  for (int channel : entries) {
    expected.first.push_back(total[channel]);
    const double span = static_cast<double>(last_time - first_time);
    expected.second.push_back(last_time == first_time ? 0.0 : since_error[channel] * 1e12 / span);
  }
  return expected;
}

// A start and a clear both forget everything: the reference begins again at that block.
// Channels far apart (virtual ones beside the inputs) take a hash table instead of a plain one.
TEST_F(CountingTest, CountrateMatchesReferenceOnRandomStreamsCutAnywhere) {
  constexpr int kFar = 1 << 20;
  const std::vector<int> near = {1, 2, 1, -2, 7, 4};  // 4 never occurs, 3, -1, 5 unlisted
  const std::vector<int> far = {1, 2, 1, -2, 7, 4, kFar, -kFar};
  Direct<Countrate> before_any(&tagger, near);
  EXPECT_EQ(tagger.registrations(1), 1);  // a repeated channel registers once
  EXPECT_EQ(collect(before_any, &Countrate::getData),
            std::vector<double>(6, 0.0));  // 0/0 must not leak out as NaN
  for (uint64_t seed = 1; seed <= 16; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 rng(seed);
    const std::vector<int>& entries = seed % 4 < 2 ? near : far;
    // A stream from 0 opens its span late; 0 means "unset".
    TagStream stream =
        makeRandomStream(rng, {.channels = {1, 2, 3, -1, -2, 5, 7, kFar, -kFar, kFar + 1},
                               .tags = 300,
                               .mean_gap = 20000,
                               .begin_time = seed % 2 == 0 ? 0 : 1000000,
                               .error_percent = 1,
                               .overflow_percent = 2,
                               .missed_outside_percent = 2});
    if (seed % 2 == 0) stream.tags.insert(stream.tags.begin(), timeTag(1, 0));
    // An error as the last tag leaves an empty span: zeros, not a stale or infinite rate.
    if (seed % 4 == 3) stream.tags.push_back(marker(Tag::Type::Error, stream.end_time - 1));
    auto blocks = cutStream(stream, randomCuts(rng, stream, 60));
    const size_t restart_at = rng() % blocks.size();
    Direct<Countrate> countrate(&tagger, entries);
    countrate.feed({blocks.begin(), blocks.begin() + restart_at});
    if (seed % 3 == 0) countrate.clear();
    if (seed % 3 == 1) countrate.restart();
    countrate.feed({blocks.begin() + restart_at, blocks.end()});
    if (seed % 3 != 2) blocks.erase(blocks.begin(), blocks.begin() + restart_at);
    const auto [totals, rates] = countrateReference(entries, blocks);
    EXPECT_EQ(collect(countrate, &Countrate::getCountsTotal), totals);
    EXPECT_THAT(collect(countrate, &Countrate::getData),
                ::testing::Pointwise(::testing::DoubleEq(), rates));
  }
}

using Rows = std::vector<std::vector<int32_t>>;

// The counter's rules with each row kept as a plain list of its last n finished bins, oldest first:
// no ring.
struct ReferenceCounter {
  std::vector<int> channels;
  int64_t binwidth;
  int32_t n;
  Rows finished = Rows(channels.size(), std::vector<int32_t>(static_cast<size_t>(n), 0));
  std::vector<int32_t> open = std::vector<int32_t>(channels.size(), 0);  // per channel
  std::optional<int64_t> origin = std::nullopt;

  void feed(const Block& block) {
    if (!origin) origin = block.begin_time;
    for (const Tag& tag : block.tags) {
      if (tag.type != Tag::Type::TimeTag) {
        restart();
        continue;
      }
      for (size_t row = 0; row < channels.size(); ++row) {
        if (channels[row] != tag.channel) continue;
        if (!origin) origin = tag.time;
        moveTo(tag.time);
        ++open[row];
      }
    }
    if (!origin) origin = block.end_time;
    moveTo(block.end_time);
  }

  // The open bin is dropped and the next block begins a new grid; finished bins stay.
  void restart() {
    origin.reset();
    open.assign(channels.size(), 0);
  }

  // The time at which the whole ring, open bin included, has gone by.
  std::optional<int64_t> ringEnd() const {
    if (!origin) return std::nullopt;
    return *origin + (n + 1) * binwidth;
  }

  void moveTo(int64_t time) {
    if (time - *origin >= (n + 1) * binwidth) {
      // Everything kept is older than the ring: forgotten, and a fresh grid 1 ps before a multiple
      // of the bin width.
      for (auto& row : finished) std::fill(row.begin(), row.end(), 0);
      open.assign(channels.size(), 0);
      origin = -1 + binwidth * ((time + 1) / binwidth);
      return;
    }
    for (; time >= *origin + binwidth; *origin += binwidth) {
      for (size_t row = 0; row < channels.size(); ++row) {
        finished[row].erase(finished[row].begin());
        finished[row].push_back(std::exchange(open[row], 0));
      }
    }
  }
};

// Random blocks, restarts, and empty blocks that end one below, at and one above the moment the
// whole ring has gone by, with a tag just before that end.
TEST(CounterTest, MatchesAPlainListOfBinsOnRandomStreams) {
  std::mt19937_64 rng(2024);
  for (int trial = 0; trial < 24; ++trial) {
    // A tagger per trial: each start takes a fence that a quiet tagger never retires, and a
    // start waits once a hundred are outstanding.
    TestZeptick tagger("TEST-1", 2);
    tagger.setIdleSpan(0);
    const int64_t binwidth = std::vector<int64_t>{1, 997, 5000, 40000}[trial % 4];
    const int32_t n = std::vector<int32_t>{1, 2, 7}[trial % 3];
    const std::vector<int> channels = {1, 2, 1};
    Direct<Counter> counter(&tagger, channels, binwidth, n);
    std::vector<int64_t> index;
    for (int32_t i = 0; i < n; ++i) index.push_back(i * binwidth);
    EXPECT_EQ(collect(counter, &Counter::getIndex), index);
    ReferenceCounter reference{channels, binwidth, n};
    // Far from 0, so that no grid lands on -1, which the counter takes for "no bin".
    int64_t time = 1000000000;
    for (int step = 0; step < 250; ++step) {
      const int roll = static_cast<int>(rng() % 10);
      const TagStream part = makeRandomStream(rng, {.channels = {1, 2, 3},
                                                    .tags = 1 + rng() % 40,
                                                    .mean_gap = 5000,
                                                    .begin_time = time,
                                                    .error_percent = 2,
                                                    .overflow_percent = 2});
      Block block{part.tags, time, part.end_time};
      if (roll == 0) {
        counter.restart();
        reference.restart();
      } else if (roll < 4 && reference.ringEnd() && *reference.ringEnd() > time + 1) {
        block = Block{{}, time, *reference.ringEnd() + static_cast<int64_t>(rng() % 3) - 1};
        if (roll == 1) block.tags.push_back(timeTag(1, block.end_time - 1));
      }
      counter.feed(block.tags, block.begin_time, block.end_time);
      reference.feed(block);
      time = block.end_time;
      std::vector<int32_t> rows;  // flat, a row per channel
      for (const auto& row : reference.finished) rows.insert(rows.end(), row.begin(), row.end());
      std::vector<size_t> sizes;
      ASSERT_EQ(collect(counter, &Counter::getData, &sizes), rows) << trial << ", step " << step;
      ASSERT_EQ(sizes, (std::vector<size_t>{3, static_cast<size_t>(n)}));
    }
  }
}

struct ReferenceBin {
  int64_t begin = 0, end = 0, missed = 0;
  int32_t count = 0;
  uint8_t overflow = 0;
  bool operator==(const ReferenceBin&) const = default;
};

// Bins framed by the markers in stream order; clicks and missed events assigned by time to [begin,
// end); flags from overflow and error tags met while a bin is open.
std::vector<ReferenceBin> referenceBins(const std::vector<Tag>& tags, int click, int begin,
                                        int end) {
  std::vector<ReferenceBin> bins;
  bool open = false, in_overflow = false;
  ReferenceBin current;
  auto close = [&](int64_t time) {
    current.end = time;
    bins.push_back(current);
    open = false;
  };
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::OverflowBegin) in_overflow = true;
    if (tag.type == Tag::Type::OverflowEnd) in_overflow = false;
    if (open &&
        (tag.type == Tag::Type::OverflowBegin || tag.type == Tag::Type::Error ||
         (tag.type == Tag::Type::MissedEvents && (tag.channel == begin || tag.channel == end)))) {
      current.overflow = true;
    }
    if (tag.type != Tag::Type::TimeTag) continue;
    if (tag.channel == end && open) close(tag.time);
    if (tag.channel == begin) {
      if (open) close(tag.time);
      current = ReferenceBin{tag.time, 0, 0, 0, in_overflow};
      open = true;
    }
  }
  for (ReferenceBin& bin : bins) {
    for (const Tag& tag : tags) {
      if (tag.channel != click || tag.time < bin.begin || tag.time >= bin.end) continue;
      if (tag.type == Tag::Type::TimeTag) bin.count += 1;
      if (tag.type == Tag::Type::MissedEvents) bin.missed += tag.missed_events;
    }
  }
  return bins;
}

TEST_F(CountingTest, CountBetweenMarkersEqualsBruteForceAndOverflowsWhileFullFlagLaterBins) {
  // Once full without wrapping nothing is counted, but an overflow that begins or ends meanwhile
  // must still be known to the bins that a clear() lets in.
  for (const bool ends : {false, true}) {
    Direct<CountBetweenMarkers> measurement(&tagger, 1, 2, CHANNEL_UNUSED, 1, false);
    measurement.feed({timeTag(2, 100), timeTag(2, 200)}, 0, 300);
    std::vector<Tag> overflow = {marker(Tag::Type::OverflowBegin, 310)};
    if (ends) overflow.push_back(marker(Tag::Type::OverflowEnd, 320));
    measurement.feed(overflow, 300, 400);
    measurement.clear();
    measurement.feed({timeTag(2, 500), timeTag(2, 600)}, 400, 700);
    EXPECT_EQ(collect(measurement, &CountBetweenMarkers::getOverflows),
              std::vector<uint8_t>{!ends});
  }

  std::mt19937_64 rng(11);
  for (int round = 0; round < 40; ++round) {
    // On a grid, markers and clicks often share a time.
    const TagStream stream =
        makeRandomStream(rng, {.channels = {1, 2, 3}, .tags = 1500, .grid = 50});
    const bool wrap = round % 2 == 1;
    const int end_channel = round % 4 < 2 ? CHANNEL_UNUSED : 3;
    const int32_t n_values = 5 + static_cast<int32_t>(rng() % 40);

    Direct<CountBetweenMarkers> measurement(&tagger, 1, 2, end_channel, n_values, wrap);
    // A clear drops every bin, the open one too.
    const auto blocks = cutStream(stream, randomCuts(rng, stream, 30));
    const size_t clear_at = rng() % blocks.size();
    measurement.feed({blocks.begin(), blocks.begin() + clear_at});
    measurement.clear();
    measurement.feed({blocks.begin() + clear_at, blocks.end()});
    auto bins = referenceBins(stream.tags, 1, 2, end_channel);
    std::erase_if(bins,
                  [&](const ReferenceBin& bin) { return bin.begin < blocks[clear_at].begin_time; });
    const size_t n = static_cast<size_t>(n_values);
    const size_t first = wrap && bins.size() > n ? bins.size() - n : 0;
    bins.erase(bins.begin(), bins.begin() + static_cast<std::ptrdiff_t>(first));

    const auto counts = collect(measurement, &CountBetweenMarkers::getData);
    const auto widths = collect(measurement, &CountBetweenMarkers::getBinWidths);
    const auto begins = collect(measurement, &CountBetweenMarkers::getIndex);
    const auto missed = collect(measurement, &CountBetweenMarkers::getMissedEvents);
    const auto flags = collect(measurement, &CountBetweenMarkers::getOverflows);
    std::vector<ReferenceBin> got;
    for (size_t i = 0; i < counts.size(); ++i) {
      got.push_back({begins[i], begins[i] + widths[i], missed[i], counts[i], flags[i]});
    }
    EXPECT_EQ(measurement.ready(), bins.size() >= n);
    bins.resize(n);  // bins not yet filled read 0
    EXPECT_EQ(got, bins) << "round " << round;
  }
}

// Traces in one pass over the whole stream, edges picked from the window of each trigger. Rows per
// input, flat: trace, time after the trigger, level.
void referenceScope(const TagStream& stream, const std::vector<int>& inputs, int trigger,
                    int64_t window, size_t n_traces, std::vector<std::vector<int64_t>>& rows,
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
    std::vector<std::vector<int64_t>> trace(inputs.size());
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
          trace[k].insert(trace[k].end(),
                          {static_cast<int64_t>(triggers.size()), tags[end].time - t0, lv});
        }
      }
    }
    for (size_t m = i + 1; m < end; ++m) track(tags[m]);
    i = end;
    if (broken || (end == tags.size() && stream.end_time - t0 < window)) continue;
    for (size_t k = 0; k < inputs.size(); ++k) {
      rows[k].insert(rows[k].end(), {static_cast<int64_t>(triggers.size()), 0, start[k]});
      rows[k].insert(rows[k].end(), trace[k].begin(), trace[k].end());
    }
    triggers.push_back(t0);
  }
}

TEST_F(CountingTest, ScopeEqualsBruteForceOnRandomStreamsCutEveryWay) {
  std::mt19937_64 rng(3);
  for (int round = 0; round < 30; ++round) {
    const TagStream stream =
        makeRandomStream(rng, {.channels = {1, -1, 2, -2, 3}, .tags = 1200, .grid = 20});
    const int64_t window = 20 * (100 + static_cast<int64_t>(rng() % 1000));  // edges hit its end
    const int32_t n_traces = 3 + static_cast<int32_t>(rng() % 30);
    Direct<Scope> scope(&tagger, std::vector<int>{1, 2}, 3, window, n_traces);
    scope.feed(cutStream(stream, randomCuts(rng, stream, 25)));
    std::vector<std::vector<int64_t>> expected;
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
      EXPECT_EQ(flat, expected[k]) << "input " << k;
    }
    EXPECT_EQ(scope.ready(), triggers.size() == static_cast<size_t>(n_traces));
  }
}

TEST_F(CountingTest, IteratorDeliversTheChannelsTagsInOrderMarksDropsAndFeedsAConsumer) {
  std::mt19937_64 rng(5);
  // No overflows of its own, so every overflow mark read is one the iterator made.
  const TagStream stream =
      makeRandomStream(rng, StreamShape{.error_percent = 0, .overflow_percent = 0});
  const auto blocks = cutStream(stream, randomCuts(rng, stream, 40));
  // Room for about a third of the stream: the caller reads only after everything arrived.
  Direct<Iterator> iterator(&tagger, std::vector<int>{1, 3}, stream.tags.size() / 3);
  iterator.feed(blocks);

  std::vector<Tag> kept;
  for (const Tag& tag : stream.tags) {
    const bool channel_tag = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
    if (!channel_tag || tag.channel == 1 || tag.channel == 3) kept.push_back(tag);
  }
  Iterator::Block block;
  std::vector<Tag> read;
  int64_t expected_begin = stream.begin_time;
  while (iterator.next(block, 0)) {
    EXPECT_EQ(block.begin_time, expected_begin);  // spans touch, even across merged empties
    expected_begin = block.end_time;
    read.insert(read.end(), block.tags.begin(), block.tags.end());
  }
  // What was read is the stream with whole blocks left out, each gap marked by one overflow pair,
  // and every tag left out counted.
  const uint64_t dropped = iterator.getDroppedTags();
  ASSERT_GT(dropped, 0u);
  std::vector<Tag> unmarked;
  size_t gaps = 0;
  for (size_t i = 0; i < read.size(); ++i) {
    if (read[i].type == Tag::Type::OverflowBegin) {
      ASSERT_EQ(read.at(i + 1).type, Tag::Type::OverflowEnd);
      gaps += 1;
      i += 1;
    } else {
      unmarked.push_back(read[i]);
    }
  }
  EXPECT_GT(gaps, 0u);
  EXPECT_EQ(unmarked.size() + dropped, kept.size());
  size_t k = 0;
  for (const Tag& tag : unmarked) {
    while (k < kept.size() && !sameTags({kept[k]}, {tag})) ++k;
    ASSERT_LT(k++, kept.size()) << "read a tag out of order: " << describe(tag);
  }

  // With room again, the next block begins with the marks of the gap.
  iterator.feed({timeTag(1, stream.end_time + 10)}, stream.end_time, stream.end_time + 100);
  ASSERT_TRUE(iterator.next(block, 0));
  EXPECT_EQ(block.begin_time, expected_begin);  // where the last block read ended
  EXPECT_TRUE(sameTags(block.tags, {marker(Tag::Type::OverflowBegin, expected_begin),
                                    marker(Tag::Type::OverflowEnd, stream.end_time),
                                    timeTag(1, stream.end_time + 10)}));

  TestZeptick live{"TEST-2", 2};
  live.setIdleSpan(0);
  const TagStream many = makeRandomStream(rng, StreamShape{.tags = 20000});
  Iterator consumed(&live, {}, 1u << 20);
  std::vector<Tag> all;
  std::thread consumer([&] {
    for (const Tag& tag : consumed) all.push_back(tag);
  });
  deliver(live, cutStream(many, randomCuts(rng, many, 200)));
  consumed.stop();  // ends the range-for once drained
  consumer.join();
  EXPECT_EQ(consumed.getDroppedTags(), 0u);
  EXPECT_EQ(all.size(), many.tags.size());
}

}  // namespace
}  // namespace zeptick
