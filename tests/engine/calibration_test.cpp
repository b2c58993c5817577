#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/control/board.h"
#include "zeptick/countrate.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

class Calibration : public EmulatedTagger {};

std::vector<double> calibrate(ZeptickImpl& zt) {
  std::vector<double> out;
  zt.autoCalibration([&out](size_t n) {
    out.assign(n, 0.0);
    return out.data();
  });
  return out;
}

// The test signal has its own oscillator, so its edges sweep every fine bin
// evenly: the half-second pass at opening already teaches the tables the
// board's true, uneven bins, and the reported figure is their true RMS error.
TEST_F(Calibration, PassAtOpeningLearnsTheTrueBinsAndReportsTheirError) {
  nlohmann::json entry = ultraBoard("CAL1");
  entry["inputs"] = 4;
  ZeptickImpl& zt = open(entry);
  const auto model = std::dynamic_pointer_cast<emulator::Board>(board)->streamModel();
  const std::vector<int> channels = zt.getChannelList(ZT_CHANNEL_ALL);
  ASSERT_EQ(channels.size(), 8u);
  std::vector<int64_t> learned;
  size_t width = 0;
  zt.getDistributionPSecs([&](size_t rows, size_t columns) {
    width = columns;
    learned.assign(rows * columns, 0);
    return learned.data();
  });
  ASSERT_EQ(width, 256u);
  const std::vector<double> quality = calibrate(zt);
  ASSERT_EQ(quality.size(), channels.size());
  for (size_t row = 0; row < channels.size(); ++row) {
    const int channel = channels[row];
    // Inputs 1-4 are indices 0-3 on their rising edge, 4-7 on the falling one.
    const int index = channel > 0 ? channel - 1 : -channel - 1 + 4;
    const std::vector<int64_t> upper = model->binUpperEdges(index);
    double worst = 0;
    double cubes = 0;
    for (size_t bin = 0; bin < width; ++bin) {
      const int64_t lower = bin == 0 ? 0 : upper[bin - 1];
      worst = std::max(worst, std::abs(static_cast<double>(learned[row * width + bin] - lower)));
      const double w = static_cast<double>(upper[bin] - lower);
      cubes += w * w * w;
    }
    EXPECT_LT(worst, 4.0) << "channel " << channel;
    // A bin of width w contributes w / 2500 of the events and w^2 / 12 of variance.
    EXPECT_NEAR(quality[row], std::sqrt(cubes / (12.0 * 2500)), 0.05) << "channel " << channel;
  }
  EXPECT_THROW(zt.autoCalibration(nullptr), std::bad_function_call);
}

// Calibration borrows every input and gives it back: test signals and
// registrations are what they were.
TEST_F(Calibration, LeavesTestSignalsAndRegistrationsAsFound) {
  nlohmann::json entry = ultraBoard("CAL2");
  entry["inputs"] = 4;
  ZeptickImpl& zt = open(entry);
  zt.setTestSignal(3, true);
  TagCollector collector(&zt, {2});
  calibrate(zt);
  EXPECT_FALSE(zt.getTestSignal(1));
  EXPECT_FALSE(zt.getTestSignal(2));
  EXPECT_TRUE(zt.getTestSignal(3));
  EXPECT_FALSE(zt.getTestSignal(4));
  const nlohmann::json report = nlohmann::json::parse(zt.getConfiguration());
  EXPECT_EQ(report["registered channels"], nlohmann::json({2}));
}

TEST_F(Calibration, ResetRestoresDefaultsAndKeepsStreaming) {
  ZeptickImpl& zt = open(ultraBoard(
      "CAL3", nlohmann::json::array({{{"type", "poisson"}, {"input", 4}, {"rate_hz", 1e5}}})));
  EXPECT_EQ(zt.getOverflows(), 0);
  const std::string defaults = zt.getConfiguration();
  TagCollector before(&zt, {4});
  zt.setDeadtime(1, 50000);
  zt.setInputDelay(2, 777);
  zt.setTriggerLevel(3, -1.0);
  zt.setConditionalFilter({5}, {6});
  zt.setStreamBlockSize(1024, 3);
  zt.setNormalization(false);
  zt.setLED(5);
  zt.setTestSignalDivider(90);
  zt.setHardwareBufferSize(65536);
  ASSERT_NE(zt.getConfiguration().substr(50), defaults.substr(50));

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
  std::vector<double> rates;
  rate.getData([&rates](size_t n) {
    rates.resize(n);
    return rates.data();
  });
  EXPECT_NEAR(rates.at(0), 1e5, 5 * std::sqrt(1e5));
}

}  // namespace
}  // namespace zeptick::testing
