#include "zeptick/count_between_markers.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "support/measurement_streams.h"

namespace zeptick {
namespace {

using namespace testing;
using DirectCbm = testing::Direct<CountBetweenMarkers>;
using CountBetweenMarkersTest = QuietTaggerTest;

struct ReferenceBin {
  int64_t begin = 0, end = 0, missed = 0;
  int32_t count = 0;
  bool overflow = false;
};

// Bins framed by the markers in stream order; clicks and missed events assigned by time to
// [begin, end); flags from overflow and error tags met while a bin is open.
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

TEST_F(CountBetweenMarkersTest, EqualsBruteForceOnRandomStreamsCutEveryWay) {
  std::mt19937_64 rng(11);
  for (int round = 0; round < 40; ++round) {
    StreamShape shape;
    shape.channels = {1, 2, 3};
    shape.tags = 1500;
    shape.grid = 50;  // markers and clicks often share a time
    const TagStream stream = makeRandomStream(rng, shape);
    const bool wrap = round % 2 == 1;
    const int end_channel = round % 4 < 2 ? CHANNEL_UNUSED : 3;
    const int32_t n_values = 5 + static_cast<int32_t>(rng() % 40);

    DirectCbm measurement(&tagger, 1, 2, end_channel, n_values, wrap);
    for (const Block& block : cutStream(stream, randomCuts(rng, stream, 30))) {
      measurement.feed(block.tags, block.begin_time, block.end_time);
    }
    auto bins = referenceBins(stream.tags, 1, 2, end_channel);
    const size_t n = static_cast<size_t>(n_values);
    const size_t first = wrap && bins.size() > n ? bins.size() - n : 0;
    bins.erase(bins.begin(), bins.begin() + static_cast<std::ptrdiff_t>(first));
    bins.resize(std::min(bins.size(), n));

    const auto counts = collect(measurement, &CountBetweenMarkers::getData);
    const auto widths = collect(measurement, &CountBetweenMarkers::getBinWidths);
    const auto begins = collect(measurement, &CountBetweenMarkers::getIndex);
    const auto missed = collect(measurement, &CountBetweenMarkers::getMissedEvents);
    const auto flags = collect(measurement, &CountBetweenMarkers::getOverflows);
    ASSERT_EQ(counts.size(), n);
    for (size_t i = 0; i < n; ++i) {
      SCOPED_TRACE(::testing::Message() << "round " << round << " bin " << i);
      const ReferenceBin expected = i < bins.size() ? bins[i] : ReferenceBin{};
      EXPECT_EQ(counts[i], expected.count);
      EXPECT_EQ(widths[i], expected.end - expected.begin);
      EXPECT_EQ(begins[i], expected.begin);
      EXPECT_EQ(missed[i], expected.missed);
      EXPECT_EQ(flags[i], expected.overflow ? 1 : 0);
    }
    EXPECT_EQ(measurement.ready(), bins.size() == n);
  }
}

TEST_F(CountBetweenMarkersTest, StopsAtNValuesUntilClearedAndChecksArguments) {
  DirectCbm measurement(&tagger, 1, 2, CHANNEL_UNUSED, 2);
  measurement.feed({timeTag(2, 100), timeTag(1, 150), timeTag(2, 200), timeTag(1, 200),
                    timeTag(2, 300), timeTag(2, 400), timeTag(1, 450)},
                   0, 1000);
  EXPECT_TRUE(measurement.ready());
  EXPECT_EQ(collect(measurement, &CountBetweenMarkers::getData), (std::vector<int32_t>{1, 1}));
  measurement.clear();
  EXPECT_FALSE(measurement.ready());
  EXPECT_EQ(collect(measurement, &CountBetweenMarkers::getData), (std::vector<int32_t>{0, 0}));

  EXPECT_EQ(invalidArgument([&] { CountBetweenMarkers(&tagger, 1, 2, 3, 0); }),
            "n_values must be at least 1");
  EXPECT_EQ(invalidArgument([&] { CountBetweenMarkers(&tagger, 1, CHANNEL_UNUSED); }),
            "begin_channel must be used");
}

}  // namespace
}  // namespace zeptick
