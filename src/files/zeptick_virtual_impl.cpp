#include "files/zeptick_virtual_impl.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "core/input_delay.h"
#include "core/log.h"
#include "files/zeptick_file_reader.h"
#include "zeptick/library.h"

namespace zeptick {

namespace {

// Far above any input and any virtual channel of a recording made on hardware, so
// that a virtual channel of the replay never collides with one found in a file.
constexpr int kFirstVirtualChannel = 1 << 16;

bool fileExists(const std::string& name) { return std::ifstream(name, std::ios::binary).is_open(); }

// The block a worker has claimed, from the claim to the hand-over; each worker keeps its
// buffers, so that a stream of blocks allocates nothing.
detail::PackedBlock& packedBlock() {
  thread_local detail::PackedBlock block;
  return block;
}

}  // namespace

ZeptickVirtualImpl::ZeptickVirtualImpl(unsigned workers)
    : channel_number_scheme(getZeptickChannelNumberScheme()),
      anchor_real(nowNs()),
      next_virtual_channel(kFirstVirtualChannel) {
  // Started last, so that workers never see a half-built object.
  startWorkers(workers);
}

ZeptickVirtualImpl::~ZeptickVirtualImpl() {
  {
    std::lock_guard<std::mutex> guard(queue_mutex);
    ++wakes;
    wake_cv.notify_all();
  }
  stopWorkers();
}

int64_t ZeptickVirtualImpl::nowNs() const {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// --- Caller operations ----------------------------------------------------------------------

uint32_t ZeptickVirtualImpl::getFence(bool alloc_fence) {
  const uint32_t fence = ZeptickRunner::getFence(alloc_fence);
  // Without the queue lock, as a callback on a worker may ask. An idle worker that was not yet
  // waiting sees the pending fence in its wait's predicate instead.
  if (alloc_fence) wake_cv.notify_all();
  return fence;
}

uint64_t ZeptickVirtualImpl::replay(const std::string& file, int64_t begin, int64_t duration,
                                    bool queue) {
  const foreign::ForeignFormat format = foreign::detectForeignFormat(file);
  if (format == foreign::ForeignFormat::None) {
    const std::string name = ZeptickFile::makeFileName(file, 0);
    std::ifstream head(name, std::ios::binary);
    if (!head.is_open()) throw std::runtime_error("File '" + name + "' could not be opened.");
    uint32_t magic = 0;
    head.read(reinterpret_cast<char*>(&magic), sizeof(magic));
    if (!head || magic != ZeptickFile::MAGIC) {
      throw std::runtime_error(
          "File format error. Files must be written via the FileWriter class.");
    }
  }

  // Measurements created before this call see the recording from its first tag.
  const uint32_t fence = getFence(true);
  std::unique_lock<std::mutex> claim(block_mutex, std::defer_lock);
  if (!queue) {
    claim.lock();  // no block step may be inside an entry we drop
    handover.waitUntilFinished();
  }
  std::lock_guard<std::mutex> guard(queue_mutex);
  if (!queue) {
    settle();
    while (!file_queue.empty()) completeFront();
  }
  FileQueueEntry entry;
  entry.file = file;
  entry.begin = begin;
  entry.duration = duration;
  entry.id = ++last_id;
  entry.fence = fence;
  entry.format = format;
  file_queue.push_back(std::move(entry));
  ++wakes;
  wake_cv.notify_all();
  return last_id;
}

void ZeptickVirtualImpl::stop() {
  std::lock_guard<std::mutex> claim(block_mutex);
  handover.waitUntilFinished();
  std::lock_guard<std::mutex> queue_guard(queue_mutex);
  settle();
  installReader(nullptr);
  while (!file_queue.empty()) completeFront();
  ++wakes;
  wake_cv.notify_all();
}

void ZeptickVirtualImpl::completeFront() {
  completed_id = std::max(completed_id, file_queue.front().id);
  file_queue.pop_front();
  completion_cv.notify_all();
}

bool ZeptickVirtualImpl::waitForCompletion(uint64_t id, int32_t timeout) {
  bool finished;
  {
    std::unique_lock<std::mutex> guard(queue_mutex);
    if (id == 0) id = last_id;
    auto done = [this, id] { return completed_id >= id; };
    if (timeout == 0) {
      finished = done();
    } else if (timeout < 0) {
      completion_cv.wait(guard, done);
      finished = true;
    } else {
      finished = completion_cv.wait_for(guard, std::chrono::milliseconds(timeout), done);
    }
  }
  // Every measurement has seen the recording's last tag once this returns.
  if (finished) sync();
  return finished;
}

void ZeptickVirtualImpl::setReplaySpeed(double value) {
  if (value > 0.0 && value < 0.1) {
    throw std::runtime_error("Slow replay speed between 0.0 and 0.1 is not supported.");
  }
  {
    detail::MutexLock guard(clock_mutex);
    speed = value;
    anchor_virtual = virtual_time;
    anchor_real = nowNs();
  }
  std::lock_guard<std::mutex> guard(queue_mutex);
  ++wakes;
  wake_cv.notify_all();
}

double ZeptickVirtualImpl::getReplaySpeed() {
  detail::MutexLock guard(clock_mutex);
  return speed;
}

void ZeptickVirtualImpl::installReader(std::unique_ptr<RecordingSource> next) {
  tellHeldFaults();
  // Our own files are read as stored: workers unpack and check their blocks.
  if (auto* own = dynamic_cast<ZeptickFileReader*>(next.get())) own->deferChecks();
  ++generation;
  std::unique_ptr<RecordingSource> old;
  {
    detail::MutexLock guard(reader_mutex);
    old = std::move(reader);
    reader = std::move(next);
    early_end_told = false;
  }
}

void ZeptickVirtualImpl::tellHeldFaults() {
  detail::MutexLock guard(reader_mutex);
  auto* own = dynamic_cast<ZeptickFileReader*>(reader.get());
  if (own == nullptr) return;
  for (const char* text : own->takeHeldFaults()) ZT_LOG_ERROR("%s", text);
}

int ZeptickVirtualImpl::getInvertedChannel(int channel) {
  {
    detail::MutexLock guard(reader_mutex);
    if (reader) return reader->getInvertedChannel(channel);
  }
  if (channel_number_scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO) {
    ZT_LOG_ERROR(
        "getInvertedChannel(%d) called prior to replaying a file with the zero channel numbering "
        "scheme. How many inputs has your Zeptick?",
        channel);
  }
  return -channel;
}

bool ZeptickVirtualImpl::isUnusedChannel(int channel) {
  if (channel == CHANNEL_UNUSED) return true;
  if (channel != -1) return false;
  {
    detail::MutexLock guard(reader_mutex);
    if (reader) return reader->getInvertedChannel(-1) == CHANNEL_UNUSED;
  }
  return channel_number_scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO;
}

std::string ZeptickVirtualImpl::getConfiguration() {
  detail::MutexLock guard(reader_mutex);
  return reader ? reader->getConfiguration() : std::string();
}

void ZeptickVirtualImpl::editChannel(int channel,
                                     const std::function<void(ReplayChannelConfig&)>& edit) {
  detail::MutexLock guard(config_mutex);
  ReplayChannelConfig& config = caller_channels[channel];
  edit(config);
  // Only channels with a setting stay, so that unconfigured replay skips the ordering stage.
  if (config.isDefault()) caller_channels.erase(channel);
  config_dirty = true;
}

ReplayChannelConfig ZeptickVirtualImpl::channelSettings(int channel) {
  detail::MutexLock guard(config_mutex);
  auto found = caller_channels.find(channel);
  return found == caller_channels.end() ? ReplayChannelConfig{} : found->second;
}

void ZeptickVirtualImpl::setInputDelay(int channel, int64_t delay) {
  editChannel(channel, [delay](ReplayChannelConfig& config) {
    config.delay = detail::clampInputDelay(delay);
  });
}

int64_t ZeptickVirtualImpl::getInputDelay(int channel) { return channelSettings(channel).delay; }

int64_t ZeptickVirtualImpl::setDeadtime(int channel, int64_t deadtime) {
  if (deadtime < 0) throw std::invalid_argument("negative deadtimes are not supported");
  editChannel(channel, [deadtime](ReplayChannelConfig& config) { config.deadtime = deadtime; });
  return deadtime;
}

int64_t ZeptickVirtualImpl::getDeadtime(int channel) { return channelSettings(channel).deadtime; }

void ZeptickVirtualImpl::setTestSignal(std::vector<int> channels, bool enabled) {
  if (channel_number_scheme == ZT_CHANNEL_NUMBER_SCHEME_ZERO) {
    throw std::runtime_error(
        "setTestSignal called with the zero channel numbering scheme. How many inputs has your "
        "virtual Zeptick?");
  }
  for (int channel : channels) {
    const int input = std::abs(channel);
    // Both edges of the input follow the signal, each on its own phase.
    editChannel(input, [enabled](ReplayChannelConfig& config) {
      config.test_signal = enabled;
      config.rising_edge = true;
    });
    editChannel(-input, [enabled](ReplayChannelConfig& config) {
      config.test_signal = enabled;
      config.rising_edge = false;
    });
  }
}

void ZeptickVirtualImpl::setTestSignal(int channel, bool enabled) {
  setTestSignal(std::vector<int>{channel}, enabled);
}

bool ZeptickVirtualImpl::getTestSignal(int channel) { return channelSettings(channel).test_signal; }

int64_t ZeptickVirtualImpl::getOverflows() { return static_cast<int64_t>(overflows.load()); }

void ZeptickVirtualImpl::clearOverflows() { getOverflowsAndClear(); }

int64_t ZeptickVirtualImpl::getOverflowsAndClear() {
  return static_cast<int64_t>(overflows.exchange(0));
}

int ZeptickVirtualImpl::getNewVirtualChannel() {
  detail::MutexLock guard(config_mutex);
  return next_virtual_channel++;
}

// Replay has no inputs to switch on or off.
void ZeptickVirtualImpl::registerChannel(int) {}
void ZeptickVirtualImpl::unregisterChannel(int) {}

void ZeptickVirtualImpl::seedTestSignal(uint64_t seed) {
  std::lock_guard<std::mutex> guard(processing_mutex);
  channel_stage.seed(seed);
}

// --- The block step -------------------------------------------------------------------------

bool ZeptickVirtualImpl::readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock,
                                       uint32_t fence, const std::function<void()>& ready) {
  std::unique_lock<std::mutex> queue_lock(queue_mutex);
  settle();
  double current_speed;
  {
    detail::MutexLock guard(clock_mutex);
    current_speed = speed;
  }
  Claim claim;
  if (current_speed == 0.0 || (file_queue.empty() && current_speed < 0.0)) {
    // Nothing to play: an empty block now and then keeps fences, and so sync(), moving. A
    // fence no block carries yet goes out at once: sync() right after a recording ends asks
    // for one while this worker is still on its way here, and would otherwise wait out the
    // whole idle sleep.
    const bool owed = fence != carried_fence;
    lock.unlock();
    const uint64_t seen = wakes;
    if (!owed) {
      wake_cv.wait_for(queue_lock, idle_sleep, [&] { return wakes != seen || fencePending(); });
    }
    queue_lock.unlock();
    lock.lock();
    worker->fence = takeFence();
    carried_fence = worker->fence;
    handover.waitUntilFinished();
    queue_lock.lock();
    settle();
    emptyBlock(worker, 0);
  } else {
    const std::chrono::nanoseconds ahead =
        current_speed > 0.0 ? paceClock(current_speed) : std::chrono::nanoseconds(0);
    if (ahead.count() > 0) {
      // Short sleeps, so that stop() and a new speed take effect at once.
      lock.unlock();
      wake_cv.wait_for(queue_lock, std::min(ahead, idle_sleep));
      return true;
    }
    worker->fence = fence;
    carried_fence = fence;
    nothing_in_flight = false;
    Step step;
    while ((step = nextStep(worker, fence, current_speed, claim)) == Step::Drain) {
      // Without the queue lock: a measurement on its way through the chain, ahead of the blocks
      // waited for, may want it (to queue a recording, to set the speed).
      queue_lock.unlock();
      handover.waitUntilFinished();
      queue_lock.lock();
      settle();
      nothing_in_flight = true;
    }
    if (step == Step::Retry) {
      queue_lock.unlock();
      lock.unlock();
      return true;
    }
  }
  queue_lock.unlock();

  // The block has its place: the next worker may claim while this one finishes its own.
  OrderedBarrier::OrderInstance turn = handover.queue();
  lock.unlock();
  ready();
  detail::BlockFaults faults;
  const bool passed = finishBlock(worker, claim, faults);
  turn.sync();
  if (!admit(claim, passed, faults)) return true;  // the turn passes on as `turn` goes
  // Hand over hand to the ordering stage, in claim order.
  std::unique_lock<std::mutex> processing(processing_mutex);
  turn.release();
  lock = std::move(processing);
  {
    detail::MutexLock guard(config_mutex);
    if (config_dirty) {
      config_dirty = false;
      channel_stage.configure(caller_channels);
    }
  }
  channel_stage.process(worker->tags, worker->blockBegin, worker->blockEnd);
  return false;
}

bool ZeptickVirtualImpl::finishBlock(Worker* worker, Claim& claim, detail::BlockFaults& faults) {
  if (!claim.recorded) return true;
  std::vector<Tag>& tags = worker->tags;
  if (claim.packed) {
    if (!detail::unpackBlock(packedBlock(), claim.start_time, tags, claim.counted, faults)) {
      return false;
    }
  }
  auto before = [](const Tag& tag, int64_t time) { return tag.time - time < 0; };
  if (claim.cut_begin) {
    tags.erase(tags.begin(), std::lower_bound(tags.begin(), tags.end(), claim.from, before));
  }
  if (claim.cut_end) {
    tags.erase(std::lower_bound(tags.begin(), tags.end(), claim.until, before), tags.end());
  }
  // Tags on either side of a gap do not belong together: say so, as the hardware would.
  if (claim.gap) tags.insert(tags.begin(), Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, claim.from});
  return true;
}

bool ZeptickVirtualImpl::admit(const Claim& claim, bool passed, const detail::BlockFaults& faults) {
  if (!claim.recorded) return true;
  detail::MutexLock guard(verdict_mutex);
  // Behind a block that failed: its file ended there.
  if (claim.generation == failed_generation) return false;
  if (!passed) {
    for (const char* text : faults) ZT_LOG_ERROR("%s", text);
    failed_generation = claim.generation;
    failure = claim.before;
    return false;
  }
  overflows += claim.counted + (claim.gap ? 1 : 0);
  return true;
}

void ZeptickVirtualImpl::settle() {
  std::optional<Rollback> rollback;
  {
    detail::MutexLock guard(verdict_mutex);
    rollback.swap(failure);
  }
  // The failed block's entry is still the front one: no step leaves an entry before a drain.
  if (!rollback || file_queue.empty()) return;
  FileQueueEntry& entry = file_queue.front();
  entry.begin = rollback->begin;
  entry.duration = rollback->duration;
  entry.has_data = false;
  last_block_end = rollback->last_block_end;
  last_file_id = rollback->last_file_id;
  first_block = rollback->first_block;
  {
    detail::MutexLock guard(clock_mutex);
    virtual_time = rollback->virtual_time;
  }
  detail::MutexLock guard(reader_mutex);
  // Only our own files have blocks that fail at the hand-over.
  static_cast<ZeptickFileReader*>(reader.get())->endHere();
}

std::chrono::nanoseconds ZeptickVirtualImpl::paceClock(double current_speed) {
  detail::MutexLock guard(clock_mutex);
  const int64_t now = nowNs();
  const int64_t elapsed = now - anchor_real;
  const auto target = static_cast<int64_t>(
      (static_cast<double>(virtual_time - anchor_virtual) * 1e-12 / current_speed) * 1e9);
  if (elapsed + pacing_tolerance < target || target + pacing_tolerance < elapsed) {
    // Far off pace (a pause, a slow consumer): start afresh rather than rush to catch up.
    anchor_real = now;
    anchor_virtual = virtual_time;
    return std::chrono::nanoseconds(0);
  }
  return std::chrono::nanoseconds(std::max<int64_t>(0, target - elapsed));
}

void ZeptickVirtualImpl::emptyBlock(Worker* worker, int64_t length) {
  detail::MutexLock guard(clock_mutex);
  worker->tags.clear();
  worker->blockBegin = virtual_time;
  virtual_time += length;
  worker->blockEnd = virtual_time;
}

ZeptickVirtualImpl::Step ZeptickVirtualImpl::nextStep(Worker* worker, uint32_t fence,
                                                      double current_speed, Claim& claim) {
  const int64_t step = current_speed > 0.0
                           ? static_cast<int64_t>(static_cast<double>(block_period) * current_speed)
                           : block_period;
  if (file_queue.empty()) {
    // The clock runs on between recordings, as an instrument's would.
    if (!nothing_in_flight) return Step::Drain;
    emptyBlock(worker, step);
    return Step::Block;
  }
  FileQueueEntry& entry = file_queue.front();
  // Measurements created before replay() must be in the chain before its first tag.
  if (static_cast<int32_t>(entry.fence - fence) > 0) return Step::Retry;

  if (entry.duration == 0) entry.has_data = false;
  if (entry.has_data && entry.begin < 0) {
    if (!nothing_in_flight) return Step::Drain;
    int64_t gap = std::min(step, -entry.begin);
    if (entry.duration >= 0) gap = std::min(gap, entry.duration);
    if (entry.duration >= 0) entry.duration -= gap;
    entry.begin += gap;
    emptyBlock(worker, gap);
    return Step::Block;
  }
  return playFiles(entry, worker, step, claim);
}

ZeptickVirtualImpl::Step ZeptickVirtualImpl::playFiles(FileQueueEntry& entry, Worker* worker,
                                                       int64_t step, Claim& claim) {
  if (!entry.opened) {
    if (!nothing_in_flight) return Step::Drain;
    entry.opened = true;
    std::unique_ptr<RecordingSource> next;
    if (entry.format == foreign::ForeignFormat::None) {
      next = std::make_unique<ZeptickFileReader>(
          ZeptickFile::makeFileName(entry.file, entry.file_index++), true);
    } else {
      next = foreign::openForeignRecording(entry.file, entry.format);
    }
    next->getFileId(current_file_id);
    installReader(std::move(next));
  }
  if (entry.has_data && readBlock(entry, worker, claim)) return Step::Block;
  return nextFile(entry, worker, step);
}

bool ZeptickVirtualImpl::readBlock(FileQueueEntry& entry, Worker* worker, Claim& claim) {
  detail::MutexLock reader_guard(reader_mutex);
  int64_t block_begin = 0;
  int64_t block_end = 0;
  int64_t skipped_end = -1;
  for (;;) {
    if (!reader->getBlockRange(block_begin, block_end)) {
      // Where the data end, for the message of a file that ends early: after the blocks skipped.
      if (skipped_end >= 0) last_block_end = skipped_end;
      entry.has_data = false;
      return false;
    }
    if (entry.begin < block_end - block_begin) break;
    // Skipped blocks come first in an entry, with nothing in flight; a skipped block that fails
    // its checks ends the file, and the data end where it begins.
    if (!reader->skipBlock()) {
      last_block_end = block_begin;
      entry.has_data = false;
      return false;
    }
    skipped_end = block_end;
    entry.begin -= block_end - block_begin;
  }

  detail::MutexLock clock_guard(clock_mutex);
  const int64_t now = virtual_time;
  claim.start_time = now - entry.begin;
  if (auto* own = dynamic_cast<ZeptickFileReader*>(reader.get())) {
    claim.packed = own->takePackedBlock(packedBlock());
  } else {
    entry.has_data = reader->decodeBlock(worker->tags, claim.start_time, claim.counted);
    if (!entry.has_data) return false;
  }
  claim.recorded = true;
  claim.generation = generation;
  claim.before =
      Rollback{entry.begin, entry.duration, now, last_block_end, last_file_id, first_block};

  int64_t length = block_end - block_begin;
  claim.from = now;
  if (entry.begin != 0) {
    length -= entry.begin;
    entry.begin = 0;
    claim.cut_begin = true;
  }
  if (entry.duration >= 0) {
    if (entry.duration < length) {
      length = entry.duration;
      claim.cut_end = true;
      claim.until = now + length;
    }
    entry.duration -= length;
  }
  const bool continues = last_block_end == block_begin && last_file_id == current_file_id;
  claim.gap = !continues && !first_block;
  last_block_end = block_end;
  last_file_id = current_file_id;
  first_block = false;
  worker->blockBegin = now;
  virtual_time = now + length;
  worker->blockEnd = virtual_time;
  return true;
}

ZeptickVirtualImpl::Step ZeptickVirtualImpl::nextFile(FileQueueEntry& entry, Worker* worker,
                                                      int64_t step) {
  // Whether this file ended early rests on the checks of its blocks still in flight.
  if (!nothing_in_flight) return Step::Drain;
  tellHeldFaults();
  if (entry.format == foreign::ForeignFormat::None && entry.file_index > 0) {
    bool ended_early;
    {
      detail::MutexLock reader_guard(reader_mutex);  // a leaf: not held while logging
      ended_early = reader && reader->endedEarly() && !std::exchange(early_end_told, true);
    }
    if (ended_early) {
      // The reader's own message says what failed; this one says where the data stop.
      ZT_LOG_ERROR("File '%s' ends early, after the data up to %lld ps.",
                   ZeptickFile::makeFileName(entry.file, entry.file_index - 1).c_str(),
                   static_cast<long long>(last_block_end));
    }
  }
  // Only our own recordings are split into numbered files.
  const std::string name = ZeptickFile::makeFileName(entry.file, entry.file_index++);
  if (entry.format == foreign::ForeignFormat::None && fileExists(name)) {
    auto next = std::make_unique<ZeptickFileReader>(name, true);
    ZeptickFile::FileId id{};
    next->getFileId(id);
    if (!next->hasFileHeader()) {
      // Not another recording: this one was cut short there (a full disk, a killed recorder).
      ZT_LOG_ERROR("File '%s' has no file header: the recording ends before it.", name.c_str());
    } else if (id == current_file_id) {
      installReader(std::move(next));
      entry.has_data = true;
      return Step::Retry;
    } else {
      ZT_LOG_ERROR(
          "File '%s' matches the naming schema, but was not written in the same FileWriter. "
          "Skipped.",
          name.c_str());
    }
  }
  if (entry.duration < 1) {
    completeFront();
    return Step::Retry;
  }
  // The recording ran out before its duration: the rest is empty time.
  const int64_t length = std::min(step, entry.duration);
  entry.begin += length;
  entry.duration -= length;
  emptyBlock(worker, length);
  return Step::Block;
}

}  // namespace zeptick
