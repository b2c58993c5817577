#include <algorithm>

#include "core/log.h"
#include "test_tagger.h"

namespace zeptick::testing {

TestZeptick::TestZeptick(std::string serial, unsigned workers) : serial(std::move(serial)) {
  // Started by the most derived class, so that workers never see a half-built object.
  startWorkers(workers);
}

TestZeptick::~TestZeptick() { stopWorkers(); }

void TestZeptick::setTestSignalDivider(int divider) {
  std::lock_guard<std::mutex> guard(config_mutex);
  test_signal_divider = divider;
}

int TestZeptick::getTestSignalDivider() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return test_signal_divider;
}

void TestZeptick::setTriggerLevel(int channel, double voltage) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isInput(channel)) {
    ZT_LOG_WARNING("Tried to configure the trigger level for an unknown channel");
    return;
  }
  trigger_levels[std::abs(channel)] = std::clamp(voltage, -2.5, 2.5);
}

double TestZeptick::getTriggerLevel(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isInput(channel)) {
    ZT_LOG_WARNING("Tried to fetch the trigger level for an unknown channel");
    return 0;
  }
  auto found = trigger_levels.find(std::abs(channel));
  return found == trigger_levels.end() ? 0.5 : found->second;
}

int64_t TestZeptick::getHardwareDelayCompensation(int /*channel*/) { return 0; }

void TestZeptick::setInputMux(int channel, int mux_mode) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isInput(channel)) {
    ZT_LOG_WARNING("Tried to set the input multiplexer of an unknown channel");
    return;
  }
  input_mux[std::abs(channel)] = mux_mode;
}

int TestZeptick::getInputMux(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isInput(channel)) {
    ZT_LOG_WARNING("Tried to get the input multiplexer of an unknown channel");
    return 0;
  }
  return input_mux[std::abs(channel)];
}

void TestZeptick::setConditionalFilter(std::vector<int> trigger, std::vector<int> filtered,
                                       bool /*hardwareDelayCompensation*/) {
  std::lock_guard<std::mutex> guard(config_mutex);
  std::sort(trigger.begin(), trigger.end());
  std::sort(filtered.begin(), filtered.end());
  filter_trigger = std::move(trigger);
  filter_filtered = std::move(filtered);
}

void TestZeptick::clearConditionalFilter() { setConditionalFilter({}, {}, true); }

std::vector<int> TestZeptick::getConditionalFilterTrigger() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return filter_trigger;
}

std::vector<int> TestZeptick::getConditionalFilterFiltered() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return filter_filtered;
}

void TestZeptick::setNormalization(bool enabled) {
  std::lock_guard<std::mutex> guard(config_mutex);
  normalization = enabled;
}

bool TestZeptick::getNormalization() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return normalization;
}

void TestZeptick::setHardwareBufferSize(int size) {
  std::lock_guard<std::mutex> guard(config_mutex);
  hardware_buffer_size = std::clamp(size, 32768, 536870912);
}

int TestZeptick::getHardwareBufferSize() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return hardware_buffer_size;
}

void TestZeptick::setStreamBlockSize(int events, int latency) {
  std::lock_guard<std::mutex> guard(config_mutex);
  max_events = events;
  max_latency = latency;
}

int TestZeptick::getStreamBlockSizeEvents() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return max_events;
}

int TestZeptick::getStreamBlockSizeLatency() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return max_latency;
}

void TestZeptick::setEventDivider(int channel, uint32_t divider) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isInput(channel)) {
    ZT_LOG_WARNING("Tried to configure the event divider for an unknown channel");
    return;
  }
  event_dividers[channel] = std::min<uint32_t>(divider, 65535);
}

uint32_t TestZeptick::getEventDivider(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isInput(channel)) {
    ZT_LOG_WARNING("Tried to query the event divider for an unknown channel");
    return 0;
  }
  return event_dividers[channel];
}

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

void TestZeptick::setLED(uint32_t bitmask) {
  std::lock_guard<std::mutex> guard(config_mutex);
  led = bitmask;
}

uint32_t TestZeptick::factoryAccess(uint32_t, uint32_t, uint32_t, uint32_t) { return 0; }

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
