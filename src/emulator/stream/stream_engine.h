#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "emulator/stream/firmware_setup.h"
#include "emulator/stream/source_generator.h"
#include "emulator/stream/stream_channel.h"
#include "emulator/stream/stream_model.h"
#include "emulator/stream/stream_output.h"
#include "emulator/stream/stream_profile.h"

namespace zeptick::emulator {

/// The data path of one board in stream time, without locking or pacing:
/// sources fill lanes for a window of clock cycles, each channel applies its
/// dead time, divider and fine bins, and the output stage merges and frames
/// the words. Windows never straddle a rollover boundary. Stretches in which
/// no source can fire are skipped in O(1) per rollover run.
///
/// Internal times are picoseconds from an origin that moves forward by whole
/// rollover periods once the stream is 2^40 cycles old, so that a free-running
/// stream that races through quiet stretches never overflows; the words show
/// no trace of it. Not thread-safe.
class StreamEngine {
 public:
  /// Throws std::invalid_argument for bad parameters or source descriptions.
  StreamEngine(const StreamParameters& parameters, const nlohmann::json& sources);

  /// Applies the host's settings from the current position on.
  void configure(const FirmwareSetup& setup);

  /// Produces the next window or quiet stretch if it ends at or before cycle
  /// `limit` (the cycles due so far when paced). Returns false when that
  /// produced no new word and no window.
  bool advance(int64_t limit);

  /// True when no source will ever send an edge and no overflow is open: from
  /// here on the stream holds nothing but the passing of time.
  bool quiet() const;

  /// Copies up to `count` produced words to `out`; returns how many.
  size_t take(unsigned char* out, size_t count) { return output_.take(out, count); }
  void injectError() { output_.injectError(); }
  void setSync(std::function<uint32_t(uint64_t)> counter) { output_.setSync(std::move(counter)); }
  void dropSyncByte(int byte) { output_.dropSyncByte(byte); }
  void skewSyncWord(unsigned tick) { output_.skewSyncWord(tick); }

  /// Cycle up to which the stream has been produced, from the current origin.
  int64_t position() const { return position_; }
  /// End of the window that advance() would produce next if nothing limited it.
  int64_t nextWindowEnd() const;
  /// Cycles by which the origin has moved since the start.
  int64_t originClocks() const { return origin_clocks_; }

  const std::vector<int64_t>& binUpperEdges(int index) const;
  int64_t inputLatency(int input) const;
  int channelCount() const { return 2 * parameters_.inputs; }

 private:
  void validate() const;
  void bindLanes();
  void produceWindow(int64_t end);
  int64_t earliestPending() const;
  void rebase();

  StreamParameters parameters_;
  ClockDivider clock_;
  std::vector<int64_t> latency_;
  std::vector<BinProfile> profiles_;
  std::vector<ChannelStage> channels_;
  std::vector<std::unique_ptr<Source>> sources_;  ///< from the description, then the test signal
  std::unique_ptr<Source> test_signal_;
  int64_t test_period_ps_ = 0;
  int64_t test_high_ps_ = 0;
  StreamOutput output_;

  FirmwareSetup setup_;
  std::vector<std::vector<Lane*>> channel_lanes_;  ///< active lanes per channel
  std::vector<int> active_channels_;
  std::vector<Source*> active_sources_;
  std::vector<KeyBuffer> records_;  ///< per channel, reused every window
  std::vector<const KeyBuffer*> streams_;
  std::vector<int64_t> scratch_;
  int64_t window_clocks_ = StreamOutput::kPeriodClocks;
  int64_t position_ = 0;
  int64_t origin_clocks_ = 0;
};

}  // namespace zeptick::emulator
