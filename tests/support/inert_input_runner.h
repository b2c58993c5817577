#pragma once

#include <cstdint>
#include <vector>

#include "core/zeptick_runner.h"

namespace zeptick::testing {

/// A runner for doubles that only stream: input settings are accepted and ignored and no
/// overflow is counted, as none of their users reads them back.
class InertInputRunner : public ZeptickRunner {
 public:
  bool isUnusedChannel(int channel) override { return channel == CHANNEL_UNUSED; }
  void setInputDelay(int, int64_t) override {}
  int64_t getInputDelay(int) override { return 0; }
  int64_t setDeadtime(int, int64_t deadtime) override { return deadtime; }
  int64_t getDeadtime(int) override { return 0; }
  void setTestSignal(std::vector<int>, bool) override {}
  void setTestSignal(int, bool) override {}
  bool getTestSignal(int) override { return false; }
  int64_t getOverflows() override { return 0; }
  void clearOverflows() override {}
  int64_t getOverflowsAndClear() override { return 0; }
};

}  // namespace zeptick::testing
