#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "core/zeptick_runner.h"
#include "files/checked_blocks.h"
#include "files/file_format.h"
#include "files/foreign/foreign_format.h"
#include "files/recording_source.h"
#include "files/replay_channel_stage.h"
#include "files/zeptick_file_reader.h"
#include "zeptick/detail/annotated_mutex.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick {

/// The replay tagger: plays a queue of recordings through the measurements as
/// if they came from an instrument. A virtual clock, paced against real time
/// at the chosen speed, carries the stream; each recording's tags are rebased
/// onto it, and input delay, dead time and the test signal are applied as the
/// hardware would. Blocks that fail verification never reach a measurement.
///
/// Lock order: block_mutex (the runner's claim lock), queue_mutex,
/// clock_mutex; processing_mutex follows block_mutex hand over hand.
/// reader_mutex and config_mutex are leaves.
class ZeptickVirtualImpl final : public ZeptickRunner, public ZeptickVirtual {
 public:
  /// `workers` 0 starts one per hardware thread.
  explicit ZeptickVirtualImpl(unsigned workers = 0);
  ~ZeptickVirtualImpl() override;

  /// As the runner's, and wakes an idle worker, whose next empty block then carries the fence.
  uint32_t getFence(bool alloc_fence = true) override;
  uint64_t replay(const std::string& file, int64_t begin = 0, int64_t duration = -1,
                  bool queue = true) override;
  void stop() override;
  bool waitForCompletion(uint64_t id = 0, int32_t timeout = -1) override;
  void setReplaySpeed(double speed) override;
  double getReplaySpeed() override;

  int getInvertedChannel(int channel) override;
  bool isUnusedChannel(int channel) override;
  std::string getConfiguration() override;
  void setInputDelay(int channel, int64_t delay) override;
  int64_t getInputDelay(int channel) override;
  int64_t setDeadtime(int channel, int64_t deadtime) override;
  int64_t getDeadtime(int channel) override;
  void setTestSignal(std::vector<int> channels, bool enabled) override;
  void setTestSignal(int channel, bool enabled) override;
  bool getTestSignal(int channel) override;
  int64_t getOverflows() override;
  void clearOverflows() override;
  int64_t getOverflowsAndClear() override;
  int getNewVirtualChannel() override;
  void registerChannel(int channel) override;
  void unregisterChannel(int channel) override;

  /// Makes the test signal's random draws reproducible.
  void seedTestSignal(uint64_t seed);

 protected:
  bool readNextBlock(Worker* worker, std::unique_lock<std::mutex>& lock, uint32_t fence,
                     const std::function<void()>& ready) override;

 private:
  struct FileQueueEntry {
    std::string file;
    uint32_t file_index = 0;
    int64_t begin = 0;      // recording time still to skip; negative: idle gap still to run
    int64_t duration = -1;  // replay time left; negative: to the end of the files
    uint64_t id = 0;
    uint32_t fence = 0;
    bool has_data = true;
    bool opened = false;
    foreign::ForeignFormat format = foreign::ForeignFormat::None;  // None: a .ztbin set
  };

  // What one call of the block step decided.
  enum class Step { Block, Retry };

  // The parts of the block step. REQUIRES: block_mutex and queue_mutex.
  Step nextStep(Worker* worker, uint32_t fence, double speed);
  Step playFiles(FileQueueEntry& entry, Worker* worker, int64_t step);
  Step nextFile(FileQueueEntry& entry, Worker* worker, int64_t step);
  bool readBlock(FileQueueEntry& entry, Worker* worker);
  void emptyBlock(Worker* worker, int64_t length);
  /// How far the virtual clock is ahead of real time at `speed`; re-anchors when far off.
  std::chrono::nanoseconds paceClock(double speed);
  /// Unpacks and checks a block to come outside the serial block step; false if there is none
  /// to check. REQUIRES: block_mutex, which it releases when it returns true.
  bool checkBlockAhead(std::unique_lock<std::mutex>& lock);
  void completeFront();  // REQUIRES: queue_mutex
  /// REQUIRES: block_mutex. `file` names the file `next` reads.
  void installReader(std::unique_ptr<RecordingSource> next, const std::string& file = {});
  void editChannel(int channel, const std::function<void(ReplayChannelConfig&)>& edit);
  ReplayChannelConfig channelSettings(int channel);
  int64_t nowNs() const;

  const int64_t block_period = 20000000000;             // ps
  const std::chrono::nanoseconds idle_sleep{20000000};  // 20 ms
  const int64_t pacing_tolerance = 500000000;           // ns
  int channel_number_scheme;
  // A lone worker gains nothing from checking blocks ahead: it would do the same work in turn.
  bool look_ahead;

  // Touched by the block step only, under block_mutex.
  ZeptickFile::FileId current_file_id{};
  ZeptickFile::FileId last_file_id{};
  int64_t last_block_end = 0;
  bool first_block = true;

  // Blocks that workers unpack and check ahead of the reader: a few, enough to keep two
  // workers busy, since each is held in memory until the reader takes it.
  static constexpr size_t kBlocksAhead = 4;
  detail::CheckedBlocks checked_blocks{kBlocksAhead};
  // Reads the reader's file ahead of it, under block_mutex.
  std::unique_ptr<ZeptickFileReader> scout;

  detail::Mutex reader_mutex;  // the block step reads, the callers query
  std::unique_ptr<RecordingSource> reader ZT_GUARDED_BY(reader_mutex);
  bool early_end_told ZT_GUARDED_BY(reader_mutex) = false;  // for `reader`

  std::atomic<uint64_t> overflows{0};

  detail::Mutex clock_mutex;
  double speed ZT_GUARDED_BY(clock_mutex) = -1.0;
  int64_t virtual_time ZT_GUARDED_BY(clock_mutex) = 0;
  int64_t anchor_real ZT_GUARDED_BY(clock_mutex) = 0;
  int64_t anchor_virtual ZT_GUARDED_BY(clock_mutex) = 0;

  std::mutex queue_mutex;
  std::condition_variable completion_cv;
  std::condition_variable wake_cv;  // cuts idle and pacing sleeps short
  uint64_t last_id = 0;
  uint64_t completed_id = 0;
  std::deque<FileQueueEntry> file_queue;

  detail::Mutex config_mutex;
  ReplayChannelMap caller_channels ZT_GUARDED_BY(config_mutex);
  bool config_dirty ZT_GUARDED_BY(config_mutex) = true;
  int next_virtual_channel ZT_GUARDED_BY(config_mutex);

  // The ordering stage, one block at a time in stream order.
  std::mutex processing_mutex;
  ReplayChannelStage channel_stage;
};

}  // namespace zeptick
