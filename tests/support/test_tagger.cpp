#include "test_tagger.h"

#include <chrono>
#include <stdexcept>

#include "core/log.h"

namespace zeptick::testing {

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
  queue.pop_front();
  return false;
}

int TestTaggerCore::getNewVirtualChannel() {
  std::lock_guard<std::mutex> guard(config_mutex);
  return next_virtual_channel++;
}

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

std::vector<int> TestZeptick::getChannelList(int type) {
  std::vector<int> channels;
  for (int input = -inputs; input <= inputs; ++input) {
    if (input != 0 && (type == ZT_CHANNEL_ALL || (type == ZT_CHANNEL_RISING) == (input > 0))) {
      channels.push_back(input);
    }
  }
  return channels;
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
