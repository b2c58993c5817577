#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "emulator/stream/firmware_setup.h"
#include "emulator/stream/synchronizer.h"

namespace zeptick::emulator {

/// Fixed facts of one emulated board that shape its stream.
struct StreamParameters {
  int model = 36;                     ///< 4 "Zeptick 20" or 36 "Zeptick Ultra"
  int inputs = 18;                    ///< physical inputs; 2 * inputs hardware indices
  int64_t ps_per_clock = 0;           ///< as reported on wire-out 0x22
  int bin_count = 0;                  ///< as reported on wire-out 0x23
  uint64_t seed = 1;                  ///< makes sources, jitter and bin profile reproducible
  bool paced = true;                  ///< real time, or as fast as the host reads
  double pace = 1.0;                  ///< stream time per real time when paced, in (0, 1]
  double usb_words_per_second = 1e8;  ///< drain rate of the hardware buffer
  /// The Synchronizer the board hangs on, or null; `serial` names the board to it.
  std::shared_ptr<Synchronizer> synchronizer;
  std::string serial;
};

/// The firmware's data path: signal sources on the inputs, the physical latency
/// of each input, trigger levels, enables, dead time, divider, conditional
/// filter, the test signal, the hardware buffer with its overflow words, and
/// the NativeTag words that leave on pipe-out 0xA0 (rollovers carry the fence).
///
/// Thread-safety: configure() and read() may be called from different threads;
/// the model serialises them itself. read() never holds a lock while it waits.
class StreamModel {
 public:
  /// `sources` is the JSON array of source descriptions of the device
  /// (format documented in the README); throws std::invalid_argument on a bad one.
  StreamModel(const StreamParameters& parameters, const nlohmann::json& sources);
  ~StreamModel();
  StreamModel(const StreamModel&) = delete;
  StreamModel& operator=(const StreamModel&) = delete;

  /// Takes effect for every word not yet produced.
  void configure(const FirmwareSetup& setup);

  /// Fills `bytes` bytes (a multiple of 4) with stream words. Paced: returns
  /// when a real board would have delivered them. With `block_bytes` (the USB
  /// transfer size of the read, a multiple of 4) a paced read does not wait
  /// for ever on a quiet stream: like the firmware, it completes a transfer
  /// that has waited kFlushWait for words with filler words (kind 0). Returns
  /// the bytes written.
  long read(unsigned char* data, long bytes, long block_bytes = 0);

  /// How long a paced board holds a partly filled transfer before it pads it.
  static constexpr std::chrono::microseconds kFlushWait{1000};

  /// Puts an error word, as on a lost clock, at the next rollover boundary.
  void injectError();
  /// Faults of the Synchronizer link at the next boundary (see StreamOutput).
  void dropSyncByte(int byte);
  void skewSyncWord(unsigned tick);

  /// For measuring the host alone: from now on the stream is `words` over and
  /// over, delivered at the cost of a copy and never paced. `words` should be
  /// this model's own free-running output cut right after a single rollover
  /// word (kind 1, code 62), so that the loop continues the stream's time.
  /// Behind a Synchronizer, cut it after the sync words of that rollover: the
  /// sync counter then goes on counting from pass to pass.
  /// Rollover words take up the host's fence, as the model's own do; nothing
  /// else of the configuration reaches the words any more.
  void loopRecording(std::vector<uint32_t> words);

  /// Truth for tests: the upper edge in ps (from the clock edge) of each fine
  /// bin of hardware index `index`; bin_count values, the last equal to ps_per_clock.
  std::vector<int64_t> binUpperEdges(int index) const;

  /// Truth for tests: the fixed latency of input `input` in ps that the host's
  /// hardware delay compensation cancels.
  int64_t inputLatency(int input) const;

 private:
  struct State;
  std::unique_ptr<State> state;
};

}  // namespace zeptick::emulator
