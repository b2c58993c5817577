// Every message a measurement raises on bad constructor arguments, and the exception type it comes
// in: callers match on both.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "zeptick/coincidence.h"
#include "zeptick/coincidences.h"
#include "zeptick/constant_fraction_discriminator.h"
#include "zeptick/correlation.h"
#include "zeptick/count_between_markers.h"
#include "zeptick/counter.h"
#include "zeptick/delayed_channel.h"
#include "zeptick/event_generator.h"
#include "zeptick/flim.h"
#include "zeptick/gated_channel.h"
#include "zeptick/histogram.h"
#include "zeptick/scope.h"
#include "zeptick/start_stop.h"
#include "zeptick/time_differences.h"
#include "zeptick/time_differences_nd.h"

namespace zeptick {
namespace {

using testing::invalidArgument;
using testing::TestZeptick;
using Stamp = CoincidenceTimestamp;

// One case per line: the message, then the statement that raises it.
#define CASE(message, ...)        \
  {                               \
    [&] { __VA_ARGS__; }, message \
  }

TEST(ArgumentMessagesTest, EachBadArgumentThrowsItsMessageAndRegistersNothing) {
  testing::LogCapture quiet;  // channels 100 and up are unknown to the test tagger
  TestZeptick tagger("TEST-1", 2);
  tagger.setIdleSpan(0);
  TestZeptick* t = &tagger;
  // 64 distinct channels over four groups, 100 in each of them; one more is too many.
  std::vector<std::vector<int>> sixty_four(4, std::vector<int>{100});
  for (int c = 0; c < 64; ++c) sixty_four[c / 16].push_back(100 + c);
  auto too_many = sixty_four;
  too_many.back().push_back(164);
  const std::string binwidth = "binwidth must be at least 1 ps";
  const std::string n_bins = "n_bins must be at least 1";
  const std::string dimensions = "dimension mismatch of input arguments";
  const std::string divider = "runtime_error: negative or zero trigger dividers are not supported";
  const std::string offset = "runtime_error: divider_offset must be smaller than trigger_divider";
  const std::string stamp = "invalid coincidence timestamp type";
  const std::string empty_group = "one of the groups is empty";
  const std::string cfd = "Channel number ";
  const uint64_t half = uint64_t{1} << 63;
  const struct {
    std::function<void()> make;
    std::string message;
  } cases[] = {
      CASE(binwidth, TimeDifferences(t, 1, 2, 3, 4, 0, 0, 0)),
      CASE(n_bins, TimeDifferences(t, 1, 2, 3, 4, 1, 0, 0)),
      CASE("n_histograms must be at least 1", TimeDifferences(t, 1, 2, 3, 4, 1, 1, 0)),
      CASE(n_bins, Histogram(t, 1, 2, 1, 0)),
      CASE(binwidth, Flim(t, 1, 2, 3, -5, 1, 1)),
      CASE(binwidth, Correlation(t, 1, 2, 0, 0)),
      CASE(n_bins, Correlation(t, 1, 2, 1, 0)),
      CASE(binwidth, StartStop(t, 1, 2, 0)),
      CASE(dimensions, TimeDifferencesND(t, 1, 2, {3, 4}, {5}, {2, 2}, 0, 0)),
      CASE(dimensions, TimeDifferencesND(t, 1, 2, {3, 4}, {}, {2}, 10, 4)),
      CASE(binwidth, TimeDifferencesND(t, 1, 2, {3}, {}, {0}, 0, 0)),
      CASE(n_bins, TimeDifferencesND(t, 1, 2, {3}, {}, {0}, 1, 0)),
      CASE("all elements of n_histograms must be at least 1",
           TimeDifferencesND(t, 1, 2, {3, 4}, {}, {2, 0}, 1, 1)),
      CASE(binwidth, Counter(t, {1}, -3, 5)),
      CASE("n_values must be at least 1", Counter(t, {1}, 10, 0)),
      CASE(stamp, Coincidences(t, {{1, 2}}, 100, static_cast<Stamp>(4))),
      CASE(stamp, Coincidences(t, {{1, 2}}, 100, static_cast<Stamp>(-1))),
      CASE("coincidences groups are empty", Coincidences(t, {}, 100, Stamp::Last)),
      CASE(empty_group, Coincidences(t, {{1, 2}, {}}, 100, Stamp::Last)),
      CASE(empty_group, Coincidence(t, {}, 100, Stamp::Last)),
      CASE("no exception", Coincidences(t, sixty_four, 100, Stamp::Last)),
      CASE("no more than 64 different channels can be used at once on a single "
           "Coincidences measurement. Split the groups into multiple measurements",
           Coincidences(t, too_many, 100, Stamp::Last)),
      CASE("redundant channels are not permitted", DelayedChannel(t, {1, 2, 1}, 10)),
      CASE("search_window must be at least 1 ps", ConstantFractionDiscriminator(t, {1}, 0)),
      CASE(cfd + "42 has no inverted edge required for the CFD",
           ConstantFractionDiscriminator(t, {1, 42}, 100)),
      CASE(cfd + "-134217728 has no inverted edge required for the CFD",
           ConstantFractionDiscriminator(t, {CHANNEL_UNUSED}, 100)),
      CASE(divider, EventGenerator(t, 1, {0}, 0, 0, CHANNEL_UNUSED)),
      CASE(divider, EventGenerator(t, 1, {0}, half + 1, 0, CHANNEL_UNUSED)),
      CASE(offset, EventGenerator(t, 1, {0}, 3, 3, CHANNEL_UNUSED)),
      CASE(offset, EventGenerator(t, 1, {0}, 1, 5, CHANNEL_UNUSED)),
      CASE("no exception", EventGenerator(t, 1, {0}, half, 7, 2)),
      CASE("runtime_error: Gate start and stop channel must not be the same.",
           GatedChannel(t, 1, 2, 2)),
      CASE("channels must not be empty", Scope(t, {}, 3, 100)),
      CASE("trigger_channel must be used", Scope(t, {1}, CHANNEL_UNUSED, 100)),
      CASE("window must be at least 1 ps", Scope(t, {1}, 3, 0)),
      CASE("n_traces must be at least 1", Scope(t, {1}, 3, 10, 0)),
      CASE("index is out of range",
           Scope(t, {1}, 3, 10).getData(1, [](size_t, size_t) { return nullptr; })),
      CASE("n_values must be at least 1", CountBetweenMarkers(t, 1, 2, 3, 0)),
      CASE("begin_channel must be used", CountBetweenMarkers(t, 1, CHANNEL_UNUSED)),
  };
  for (const auto& c : cases) {
    EXPECT_EQ(invalidArgument(c.make), c.message);
    for (int channel : {1, 2, 3, 4, 5, -1, 100}) {
      EXPECT_EQ(tagger.registrations(channel), 0) << c.message << ", channel " << channel;
    }
  }
}

}  // namespace
}  // namespace zeptick
