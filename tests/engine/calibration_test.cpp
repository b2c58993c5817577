#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

#include "emulator/control/board.h"
#include "zeptick/countrate.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using Calibration = EmulatedTagger;

// The test signal has its own oscillator, so its edges sweep every fine bin evenly: the pass at
// opening teaches the tables the board's true, uneven bins, and reports their true RMS error. The
// pass borrows every input and gives it back: test signals and registrations are as they were.
// Then a reset restores the defaults and the stream goes on (the Poisson source on input 4).
TEST_F(Calibration, PassLearnsTheTrueBinsLeavesInputsAsFoundAndResetRestoresDefaults) {
  ZeptickImpl& zt = open(ultraBoard("CAL1", json::array({poisson(4, 1e5)}), 4));
  const std::string defaults = zt.getConfiguration();
  const auto model = std::dynamic_pointer_cast<emulator::Board>(board)->streamModel();
  const std::vector<int> channels = zt.getChannelList(ZT_CHANNEL_ALL);
  ASSERT_EQ(channels.size(), 8u);
  std::vector<size_t> sizes;
  const std::vector<int64_t> learned = collect(zt, &ZeptickImpl::getDistributionPSecs, &sizes);
  ASSERT_EQ(sizes, (std::vector<size_t>{8, 256}));
  zt.setTestSignal(3, true);
  RecordingMeasurement recorder(&zt, {2});
  const std::vector<double> quality = collect(zt, &ZeptickImpl::autoCalibration);
  ASSERT_EQ(quality.size(), channels.size());
  for (size_t row = 0; row < channels.size(); ++row) {
    const int channel = channels[row];
    // Inputs 1-4 are indices 0-3 on their rising edge, 4-7 on the falling one.
    const std::vector<int64_t> upper =
        model->binUpperEdges(channel > 0 ? channel - 1 : 3 - channel);
    double worst = 0, cubes = 0;
    for (size_t bin = 0; bin < 256; ++bin) {
      const int64_t lower = bin == 0 ? 0 : upper[bin - 1];
      worst = std::max(worst, std::abs(static_cast<double>(learned[row * 256 + bin] - lower)));
      const double w = static_cast<double>(upper[bin] - lower);
      cubes += w * w * w;
    }
    EXPECT_LT(worst, 4.0) << "channel " << channel;
    // A bin of width w contributes w / 2500 of the events and w^2 / 12 of variance.
    EXPECT_NEAR(quality[row], std::sqrt(cubes / (12.0 * 2500)), 0.05) << "channel " << channel;
  }
  EXPECT_THROW(zt.autoCalibration(nullptr), std::bad_function_call);
  for (int input = 1; input <= 4; ++input) EXPECT_EQ(zt.getTestSignal(input), input == 3);
  EXPECT_EQ(json::parse(zt.getConfiguration())["registered channels"], json({2}));

  RecordingMeasurement before(&zt, {4});
  zt.setDeadtime(1, 50000);
  zt.setInputDelay(2, 777);
  zt.setTriggerLevel(3, -1.0);
  zt.setConditionalFilter({1}, {-2});
  zt.setStreamBlockSize(1024, 3);
  zt.setNormalization(false);
  zt.setLED(5);
  zt.setTestSignalDivider(90);
  zt.setHardwareBufferSize(65536);

  zt.reset();
  // The report starts with the time; everything after it is back to the defaults.
  const std::string after = zt.getConfiguration();
  EXPECT_EQ(after.substr(after.find("\"software version\"")),
            defaults.substr(defaults.find("\"software version\"")));
  EXPECT_FALSE(before.isRunning()) << "measurements of the old stream are orphaned";
  EXPECT_EQ(zt.getOverflows(), 0);

  Countrate rate(&zt, {4});
  rate.startFor(1000000000000);
  ASSERT_TRUE(waitUntil([&] { return !rate.isRunning(); }));
  EXPECT_NEAR(collect(rate, &Countrate::getData).at(0), 1e5, 5 * std::sqrt(1e5));
}

// A host that falls behind sees a quarter of the pass's test edges (some 200 000 per input, not
// 800 000). The table must still hold the full count, so that later random events move its edges
// as little as on a quiet host.
TEST_F(Calibration, PassCountsTestEdgesNotTime) {
  json entry = ultraBoard("CALP", json::array(), 4);
  entry["pacing"] = 0.25;
  ZeptickImpl& zt = open(entry);
  std::vector<size_t> sizes;
  const std::vector<int64_t> counts = collect(zt, &ZeptickImpl::getDistributionCount, &sizes);
  ASSERT_EQ(sizes.size(), 2u);
  for (size_t row = 0; row < sizes[0]; ++row) {
    int64_t sum = 0;
    for (size_t bin = 0; bin < sizes[1]; ++bin) sum += counts[row * sizes[1] + bin];
    EXPECT_GE(sum, 500000) << "row " << row;
  }
}

}  // namespace
}  // namespace zeptick::testing
