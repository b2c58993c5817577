#include <algorithm>

#include "core/log.h"
#include "test_tagger.h"

namespace zeptick::testing {

TestZeptick::TestZeptick(std::string serial, unsigned workers) : serial(std::move(serial)) {
  // Started by the most derived class, so that workers never see a half-built object.
  startWorkers(workers);
}

TestZeptick::~TestZeptick() { stopWorkers(); }

// Instrument-only settings are accepted and ignored: no measurement under test reads them
// back, and the real taggers' handling of them is tested against the emulator.
void TestZeptick::setTestSignalDivider(int) {}
int TestZeptick::getTestSignalDivider() { return 63; }
void TestZeptick::setTriggerLevel(int, double) {}
double TestZeptick::getTriggerLevel(int) { return 0.5; }
int64_t TestZeptick::getHardwareDelayCompensation(int) { return 0; }
void TestZeptick::setInputMux(int, int) {}
int TestZeptick::getInputMux(int) { return 0; }
void TestZeptick::setConditionalFilter(std::vector<int>, std::vector<int>, bool) {}
void TestZeptick::clearConditionalFilter() {}
std::vector<int> TestZeptick::getConditionalFilterTrigger() { return {}; }
std::vector<int> TestZeptick::getConditionalFilterFiltered() { return {}; }
void TestZeptick::setNormalization(bool) {}
bool TestZeptick::getNormalization() { return true; }
void TestZeptick::setHardwareBufferSize(int) {}
int TestZeptick::getHardwareBufferSize() { return 67108864; }
void TestZeptick::setStreamBlockSize(int, int) {}
int TestZeptick::getStreamBlockSizeEvents() { return 131072; }
int TestZeptick::getStreamBlockSizeLatency() { return 20; }
void TestZeptick::setEventDivider(int, uint32_t) {}
uint32_t TestZeptick::getEventDivider(int) { return 1; }
void TestZeptick::setLED(uint32_t) {}
uint32_t TestZeptick::factoryAccess(uint32_t, uint32_t, uint32_t, uint32_t) { return 0; }

void TestZeptick::autoCalibration(std::function<double*(size_t)> array_out) {
  const std::vector<int> channels = getChannelList(ZT_CHANNEL_ALL);
  double* out = array_out(channels.size());
  std::fill(out, out + channels.size(), 0.0);
}

std::string TestZeptick::getSerial() { return serial; }

std::string TestZeptick::getModel() { return "Zeptick Ultra"; }

int TestZeptick::getChannelNumberScheme() { return scheme; }

std::vector<double> TestZeptick::getDACRange() { return {-2.5, 2.5}; }

void TestZeptick::getDistributionCount(std::function<int64_t*(size_t, size_t)> array_out) {
  array_out(getChannelList(ZT_CHANNEL_ALL).size(), 0);
}

void TestZeptick::getDistributionPSecs(std::function<int64_t*(size_t, size_t)> array_out) {
  array_out(getChannelList(ZT_CHANNEL_ALL).size(), 0);
}

std::vector<int> TestZeptick::getChannelList(int type) {
  std::vector<int> rising;
  std::vector<int> falling;
  for (int input = 0; input < 8; ++input) {
    if (scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO) {
      rising.push_back(input);
      falling.push_back(input + 8);
    } else {
      rising.push_back(input + 1);
      falling.push_back(-1 - input);
    }
  }
  if (type == ZT_CHANNEL_RISING) return rising;
  if (type == ZT_CHANNEL_FALLING) return falling;
  std::vector<int> all = rising;
  all.insert(all.end(), falling.begin(), falling.end());
  std::sort(all.begin(), all.end());
  return all;
}

int64_t TestZeptick::getPsPerClock() { return 2000; }

std::string TestZeptick::getPcbVersion() { return "1.4"; }

std::string TestZeptick::getFirmwareVersion() { return "test"; }

std::string TestZeptick::getSensorData() { return ""; }

TestZeptickVirtual::TestZeptickVirtual(unsigned workers) { startWorkers(workers); }

TestZeptickVirtual::~TestZeptickVirtual() { stopWorkers(); }

uint64_t TestZeptickVirtual::replay(const std::string&, int64_t, int64_t, bool) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return ++last_id;
}

void TestZeptickVirtual::stop() {}

bool TestZeptickVirtual::waitForCompletion(uint64_t, int32_t) { return queuedBlocks() == 0; }

void TestZeptickVirtual::setReplaySpeed(double value) {
  std::lock_guard<std::mutex> guard(config_mutex);
  speed = value;
}

double TestZeptickVirtual::getReplaySpeed() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return speed;
}

}  // namespace zeptick::testing
