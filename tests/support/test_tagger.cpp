#include "test_tagger.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "core/log.h"
#include "zeptick/library.h"

namespace zeptick::testing {

TestTaggerCore::TestTaggerCore() : scheme(getZeptickChannelNumberScheme()) {
  if (scheme == ZT_CHANNEL_NUMBER_SCHEME_AUTO) scheme = ZT_CHANNEL_NUMBER_SCHEME_ONE;
}

std::vector<Block> TestTaggerCore::pushBlocks(std::vector<Block> blocks) {
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    // Like data arriving at an instrument: the blocks belong to the configuration
    // in force now, however late a worker gets to them. Taken under the queue's
    // lock so that fences never decrease along the queue.
    const uint32_t fence = takeFence();
    if (!blocks.empty()) {
      const int64_t shift = stream_end - blocks.front().begin_time;
      for (Block& block : blocks) {
        if (block.begin_time + shift != stream_end || block.end_time < block.begin_time) {
          throw std::logic_error("pushed blocks must be contiguous");
        }
        block.begin_time += shift;
        block.end_time += shift;
        for (Tag& tag : block.tags) tag.time += shift;
        stream_end = block.end_time;
        queue.push_back(Queued{block, fence});
      }
    }
  }
  queue_cv.notify_all();
  return blocks;
}

void TestTaggerCore::setIdleSpan(int64_t span_ps) {
  std::lock_guard<std::mutex> guard(queue_mutex);
  idle_span = span_ps;
}

int64_t TestTaggerCore::streamEnd() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  return stream_end;
}

size_t TestTaggerCore::queuedBlocks() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  return queue.size();
}

bool TestTaggerCore::readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock,
                                   uint32_t /*fence*/, const std::function<void()>& /*ready*/) {
  std::unique_lock<std::mutex> guard(queue_mutex);
  if (queue.empty()) {
    // Give pushes a moment before serving an idle block, without holding the
    // claim lock, so the stream does not race ahead of the test.
    lock.unlock();
    queue_cv.wait_for(guard, std::chrono::milliseconds(1));
    if (queue.empty() && idle_span > 0) {
      queue.push_back(Queued{Block{{}, stream_end, stream_end + idle_span}, takeFence()});
      stream_end += idle_span;
    }
    return true;
  }
  Block& block = queue.front().block;
  worker->tags.swap(block.tags);
  worker->blockBegin = block.begin_time;
  worker->blockEnd = block.end_time;
  worker->fence = queue.front().fence;
  for (const Tag& tag : worker->tags) {
    if (tag.type == Tag::Type::OverflowBegin || tag.type == Tag::Type::Error) ++overflows;
  }
  queue.pop_front();
  return false;
}

bool TestTaggerCore::isInput(int channel) const {
  if (scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO) return channel >= 0 && channel < 2 * inputs;
  return channel != 0 && channel >= -inputs && channel <= inputs;
}

bool TestTaggerCore::knownInput(int channel, const char* complaint) const {
  if (isInput(channel)) return true;
  ZT_LOG_WARNING("%s", complaint);
  return false;
}

int TestTaggerCore::getInvertedChannel(int channel) {
  if (!isInput(channel)) return CHANNEL_UNUSED;
  if (scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO)
    return channel < inputs ? channel + inputs : channel - inputs;
  return -channel;
}

bool TestTaggerCore::isUnusedChannel(int channel) {
  return channel == CHANNEL_UNUSED || (scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO && channel == -1);
}

std::string TestTaggerCore::getConfiguration() { return "{\"tagger\": \"test\"}"; }

void TestTaggerCore::setInputDelay(int channel, int64_t delay) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!knownInput(channel, "Tried to set the input delay of an unknown channel")) return;
  input_delays[channel] = delay;
}

int64_t TestTaggerCore::getInputDelay(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!knownInput(channel, "Tried to get the input delay of an unknown channel")) return 0;
  return input_delays[channel];
}

int64_t TestTaggerCore::setDeadtime(int channel, int64_t deadtime) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!knownInput(channel, "Tried to configure the deadtime for an unknown channel")) return 0;
  return deadtimes[channel] = deadtime;
}

int64_t TestTaggerCore::getDeadtime(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!knownInput(channel, "Tried to query the deadtime for an unknown channel")) return 0;
  return deadtimes[channel];
}

void TestTaggerCore::setTestSignal(std::vector<int> channels, bool enabled) {
  for (int channel : channels) setTestSignal(channel, enabled);
}

void TestTaggerCore::setTestSignal(int channel, bool enabled) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!knownInput(channel, "Tried to set the test signal of an unknown channel")) return;
  test_signals[channel] = enabled;
}

bool TestTaggerCore::getTestSignal(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!knownInput(channel, "Tried to query the test signal of an unknown channel")) return false;
  return test_signals[channel];
}

int64_t TestTaggerCore::getOverflows() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  return overflows;
}

void TestTaggerCore::clearOverflows() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  overflows = 0;
}

int64_t TestTaggerCore::getOverflowsAndClear() {
  std::lock_guard<std::mutex> guard(queue_mutex);
  const int64_t count = overflows;
  overflows = 0;
  return count;
}

int TestTaggerCore::getNewVirtualChannel() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return next_virtual_channel++;
}

void TestTaggerCore::registerChannel(int channel) { countRegistration(channel, 1); }

void TestTaggerCore::unregisterChannel(int channel) { countRegistration(channel, -1); }

void TestTaggerCore::countRegistration(int channel, int step) {
  std::lock_guard<std::mutex> guard(config_mutex);
  if (!isInput(channel) && (channel < 1000 || channel >= next_virtual_channel)) {
    ZT_LOG_WARNING("Tried to %s an unknown channel", step > 0 ? "register" : "unregister");
    return;
  }
  registration_counts[channel] += step;
}

int TestTaggerCore::registrations(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  auto found = registration_counts.find(channel);
  return found == registration_counts.end() ? 0 : found->second;
}

TestZeptick::TestZeptick(std::string serial, unsigned workers, int input_count)
    : serial(std::move(serial)) {
  inputs = input_count;
  // Started by the most derived class, so that workers never see a half-built object.
  startWorkers(workers);
}

// Instrument-only settings but the input multiplexers are accepted and ignored: no measurement
// under test reads them back, and the real taggers' handling of them is tested against the
// emulator.

void TestZeptick::autoCalibration(std::function<double*(size_t)> array_out) {
  const std::vector<int> channels = getChannelList(ZT_CHANNEL_ALL);
  double* out = array_out(channels.size());
  std::fill(out, out + channels.size(), 0.0);
}

void TestZeptick::getDistributionCount(std::function<int64_t*(size_t, size_t)> array_out) {
  array_out(getChannelList(ZT_CHANNEL_ALL).size(), 0);
}

void TestZeptick::getDistributionPSecs(std::function<int64_t*(size_t, size_t)> array_out) {
  array_out(getChannelList(ZT_CHANNEL_ALL).size(), 0);
}

std::vector<int> TestZeptick::getChannelList(int type) {
  std::vector<int> rising;
  std::vector<int> falling;
  for (int input = 0; input < inputs; ++input) {
    if (scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO) {
      rising.push_back(input);
      falling.push_back(input + inputs);
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

void TestZeptick::setInputMux(int channel, int mux) {
  std::lock_guard<std::mutex> guard(config_mutex);
  input_muxes[channel] = mux;
}

int TestZeptick::getInputMux(int channel) {
  std::lock_guard<std::mutex> guard(config_mutex);
  return input_muxes[channel];
}

}  // namespace zeptick::testing
