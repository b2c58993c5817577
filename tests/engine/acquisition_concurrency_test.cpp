#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "zeptick/countrate.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using nlohmann::json;

class AcquisitionConcurrency : public EmulatedTagger {};

// Workers read and decode while other threads change settings, read the
// tagger's state and create and drop measurements. A measurement that lives
// through all of it must still see one ordered, gap-free stream.
TEST_F(AcquisitionConcurrency, SettingsAndMeasurementsChangeWhileBlocksFlow) {
  json entry = ultraBoard(
      "CON1",
      json::array({
          {{"type", "poisson"}, {"input", 1}, {"rate_hz", 3e5}},
          {{"type", "periodic"}, {"input", 2}, {"period_ps", 2e6}},
          {{"type", "pairs"}, {"inputs", {3, 4}}, {"delays_ps", {0, 800}}, {"rate_hz", 1e5}},
      }));
  entry["inputs"] = 4;
  ZeptickImpl& zt = open(entry);
  TagCollector witness(&zt, {1, 2, 3, 4});

  std::atomic<bool> stop{false};
  std::vector<std::thread> threads;
  threads.emplace_back([&] {
    for (int i = 0; !stop; ++i) {
      zt.setInputDelay(1 + i % 4, (i % 7 - 3) * 1000);
      zt.setDeadtime(-(1 + i % 4), 2500 * (1 + i % 5));
      zt.setTriggerLevel(1 + i % 4, 0.2 + 0.1 * (i % 5));
      zt.setEventDivider(2, 1 + i % 3);
      zt.setTestSignal(4, i % 9 == 0);
      if (i % 5 == 0) zt.setConditionalFilter({3}, {4});
      if (i % 5 == 2) zt.clearConditionalFilter();
      zt.setNormalization(i % 2 == 0);
      zt.setStreamBlockSize(i % 2 == 0 ? 1024 : 131072, 1 + i % 20);
      if (i % 10 == 0) zt.sync();
    }
  });
  threads.emplace_back([&] {
    while (!stop) {
      Countrate rate(&zt, {1, 2});
      TagCollector short_lived(&zt, {3});
      std::this_thread::sleep_for(std::chrono::milliseconds(3));
      std::vector<double> rates;
      rate.getData([&rates](size_t n) {
        rates.resize(n);
        return rates.data();
      });
      expectOrderedStream(short_lived);
    }
  });
  threads.emplace_back([&] {
    while (!stop) {
      zt.getConfiguration();
      zt.getOverflowsAndClear();
      zt.getDistributionCount([](size_t rows, size_t columns) {
        static thread_local std::vector<int64_t> cells;
        cells.resize(rows * columns);
        return cells.data();
      });
      zt.getSensorData();
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  stop = true;
  for (std::thread& thread : threads) thread.join();
  zt.sync();
  expectOrderedStream(witness);
  EXPECT_FALSE(timesOf(witness.tags(), 1).empty());
}

}  // namespace
}  // namespace zeptick::testing
