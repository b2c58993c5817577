#pragma once

#include <cstdint>
#include <map>
#include <queue>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick {

/// What a synthetic recording holds. Rates are events per second, times picoseconds.
/// A source with a rate (or period) of 0, or a channel of CHANNEL_UNUSED, is off.
struct RecordingPlan {
  uint64_t seed = 1;
  int64_t duration = 100000000000;  // 100 ms
  int64_t block_span = 1000000000;  // 1 ms per block
  int64_t start_time = 0;           // stream time of the first block
  // Correlated pairs: an event on `pair_start`, its partner on `pair_stop`
  // `pair_delay` later with Gaussian jitter of standard deviation `pair_jitter`.
  int pair_start = 1;
  int pair_stop = 2;
  double pair_rate = 50000.0;
  int64_t pair_delay = 2500;
  double pair_jitter = 40.0;
  // A strictly periodic channel.
  int periodic_channel = 3;
  int64_t period = 10000000;  // 100 kHz
  // Independent Poisson background on each listed channel.
  std::vector<int> background_channels = {1, 2};
  double background_rate = 20000.0;
  // Spans [begin, end), relative to start_time, in which the instrument lost
  // events: they appear as missed-event counts between overflow marks.
  std::vector<std::pair<int64_t, int64_t>> overflow_spans;

  /// Every channel some source uses, ascending.
  std::vector<int> channels() const;
};

/// Produces a recording's stream block by block, deterministically from the seed.
class RecordingGenerator {
 public:
  explicit RecordingGenerator(RecordingPlan plan);

  /// The next block, tags sorted by time; false once `duration` is covered.
  bool next(std::vector<Tag>& tags, int64_t& begin_time, int64_t& end_time);
  /// True if the stream is inside an overflow span at the end of the last block.
  bool inOverflow() const { return in_overflow; }

 private:
  enum class Source : uint8_t { PairStart, PairStop, Periodic, Background };
  struct Event {
    int64_t time;
    uint64_t sequence;
    int channel;
    Source source;
    bool operator>(const Event& other) const {
      return time != other.time ? time > other.time : sequence > other.sequence;
    }
  };

  void schedule(int64_t time, int channel, Source source);
  int64_t poissonGap(double rate);
  void appendMissed(std::vector<Tag>& tags, const std::map<int, uint64_t>& missed, int64_t time);

  RecordingPlan plan;
  std::mt19937_64 rng;
  std::normal_distribution<double> jitter;
  std::priority_queue<Event, std::vector<Event>, std::greater<Event>> events;
  uint64_t next_sequence = 0;
  int64_t position;
  bool in_overflow = false;
};

/// Totals of what writeRecording stored.
struct RecordingSummary {
  std::map<int, uint64_t> events;  // per channel: time tags plus missed events
  uint64_t tags = 0;
  uint64_t blocks = 0;
  uint32_t files = 0;  // split files, the head file included
  int64_t begin_time = 0;
  int64_t end_time = 0;
};

/// Writes the recording as FileWriter would: `filename` (the head file with
/// configuration and channel map) and split files .1, .2, ... each begun once
/// the previous one exceeds `max_file_size` bytes (negative: one data file).
/// Throws std::runtime_error when a file cannot be written.
RecordingSummary writeRecording(const std::string& filename, const RecordingPlan& plan,
                                int64_t max_file_size = -1);

}  // namespace zeptick
