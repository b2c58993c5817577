#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "core/zeptick_runner.h"
#include "files/block_words.h"
#include "files/file_format.h"
#include "files/foreign/foreign_format.h"
#include "files/recording_source.h"
#include "files/replay_channel_stage.h"
#include "files/zeptick_file_reader.h"
#include "zeptick/detail/annotated_mutex.h"
#include "zeptick/ordered_barrier.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick {

/// The replay tagger: plays a queue of recordings through the measurements as
/// if they came from an instrument. A virtual clock, paced against real time
/// at the chosen speed, carries the stream; each recording's tags are rebased
/// onto it, and input delay, dead time and the test signal are applied as the
/// hardware would. Blocks that fail verification never reach a measurement.
///
/// Blocks are claimed one at a time in stream order, under block_mutex; each worker then
/// unpacks, checks and decodes its own block, and they meet again in claim order at the
/// hand-over, where a block that failed its checks ends its file: the blocks claimed after it
/// from that file are dropped, and the next claim rolls the recording back to it. So at most one
/// block per worker is in memory, and the stream is the one a single worker would give.
///
/// Lock order: block_mutex (the runner's claim lock), queue_mutex, clock_mutex; a turn at the
/// hand-over, then processing_mutex. reader_mutex, config_mutex and verdict_mutex are leaves.
/// Waiting for the blocks in flight holds block_mutex alone.
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

  // What one call of the block step decided. Drain: wait until every claimed block has had its
  // turn, then take the step again. Any step but the claim of the next recorded block asks for
  // this first, so that nothing rests on a block whose checks are still to come.
  enum class Step { Block, Retry, Drain };

  // What a claim of a recorded block changed, so that a block failing its checks can be undone.
  struct Rollback {
    int64_t begin = 0;
    int64_t duration = 0;
    int64_t virtual_time = 0;
    int64_t last_block_end = 0;
    ZeptickFile::FileId last_file_id{};
    bool first_block = true;
  };

  // A block between its claim and the hand-over. Lives on the worker's stack.
  struct Claim {
    bool recorded = false;  // from a recording: to be shaped, and counted when delivered
    bool packed = false;    // `block` still needs unpacking, checking and decoding
    uint64_t generation = 0;
    Rollback before;
    int64_t start_time = 0;  // where the block's time runs from
    int64_t from = 0;        // tags stamped before are cut off
    int64_t until = 0;       // tags stamped from here on are cut off, with `cut_end`
    bool cut_begin = false;
    bool cut_end = false;
    bool gap = false;      // an error tag in front marks a jump in the stream
    uint64_t counted = 0;  // overflow begins and errors in the block
  };

  // The parts of the block step. REQUIRES: block_mutex and queue_mutex.
  Step nextStep(Worker* worker, uint32_t fence, double speed, Claim& claim);
  Step playFiles(FileQueueEntry& entry, Worker* worker, int64_t step, Claim& claim);
  Step nextFile(FileQueueEntry& entry, Worker* worker, int64_t step);
  bool readBlock(FileQueueEntry& entry, Worker* worker, Claim& claim);
  void emptyBlock(Worker* worker, int64_t length);
  /// Unpacks, checks and decodes a claimed block, and cuts it as its claim says; outside every
  /// lock. False if it failed its checks, with `faults` telling why.
  bool finishBlock(Worker* worker, Claim& claim, detail::BlockFaults& faults);
  /// At the block's turn: whether it may go on into the stream. A block that failed tells its
  /// faults and ends its file; the blocks claimed behind it from that file are dropped.
  bool admit(const Claim& claim, bool passed, const detail::BlockFaults& faults);
  /// Undoes the claims from the block that failed its checks on, if one did, and ends its file.
  /// REQUIRES: block_mutex and queue_mutex.
  void settle();
  /// Logs what the reader held back while blocks before were unchecked. REQUIRES: block_mutex,
  /// nothing in flight.
  void tellHeldFaults();
  /// How far the virtual clock is ahead of real time at `speed`; re-anchors when far off.
  std::chrono::nanoseconds paceClock(double speed);
  void completeFront();  // REQUIRES: queue_mutex
  /// REQUIRES: block_mutex, nothing in flight.
  void installReader(std::unique_ptr<RecordingSource> next);
  void editChannel(int channel, const std::function<void(ReplayChannelConfig&)>& edit);
  ReplayChannelConfig channelSettings(int channel);
  int64_t nowNs() const;

  const int64_t block_period = 20000000000;             // ps
  const std::chrono::nanoseconds idle_sleep{20000000};  // 20 ms
  const int64_t pacing_tolerance = 500000000;           // ns
  int channel_number_scheme;

  // Touched by the block step only, under block_mutex.
  ZeptickFile::FileId current_file_id{};
  ZeptickFile::FileId last_file_id{};
  int64_t last_block_end = 0;
  bool first_block = true;
  uint32_t carried_fence = 0;  // the fence of the last block handed out

  // Claim order, kept at the hand-over; tickets are drawn under block_mutex.
  OrderedBarrier handover;
  uint64_t generation = 0;  // of the reader; under block_mutex
  // This block step has waited for every claimed block (see Step::Drain); under block_mutex.
  bool nothing_in_flight = false;

  detail::Mutex verdict_mutex;  // blocks at their turn, and the claims that settle
  uint64_t failed_generation ZT_GUARDED_BY(verdict_mutex) = 0;
  std::optional<Rollback> failure ZT_GUARDED_BY(verdict_mutex);

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
  uint64_t wakes = 0;               // wake_cv's notifications made under queue_mutex
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
