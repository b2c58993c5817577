#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include <nlohmann/json.hpp>

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

// The emulated test signal keeps a fixed phase to the clock, so every channel
// sees all its events in one fine bin: a bin as wide as the clock, whose
// uniform error has an RMS of psPerClock / sqrt(12).
TEST_F(Calibration, ReportsTheQuantisationErrorOfEachChannel) {
  nlohmann::json entry = ultraBoard("CAL1");
  entry["inputs"] = 4;
  ZeptickImpl& zt = open(entry);
  const std::vector<double> quality = calibrate(zt);
  ASSERT_EQ(quality.size(), zt.getChannelList(ZT_CHANNEL_ALL).size());
  ASSERT_EQ(quality.size(), 8u);
  for (double value : quality) EXPECT_NEAR(value, 2500 / std::sqrt(12.0), 2500 * 0.01);
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
