#pragma once

#include <cstdint>
#include <map>
#include <queue>
#include <random>
#include <vector>

#include "zeptick/tag.h"

namespace zeptick {

/// Settings of one replayed channel that differ from the default.
struct ReplayChannelConfig {
  int64_t deadtime = 0;
  int64_t last_tag = 0;  // time of the last tag kept, for the dead time
  bool has_last_tag = false;
  int64_t delay = 0;
  bool test_signal = false;
  bool rising_edge = false;  // which phase of the test signal fires this channel
  std::normal_distribution<double> jitter{100.0, 9.0};

  bool isDefault() const { return deadtime == 0 && delay == 0 && !test_signal; }
};

using ReplayChannelMap = std::map<int, ReplayChannelConfig>;

/// What the hardware does to events before the host sees them, redone for
/// replayed data: input delays, dead time and the internal test signal. Runs
/// on one block at a time in stream order (the replay tagger's processing
/// lock); holds back tags that a delay pushes past the block's end.
class ReplayChannelStage {
 public:
  ReplayChannelStage();

  /// Takes new settings; the dead time memory of channels that stay is kept.
  void configure(const ReplayChannelMap& settings);
  /// Rewrites `tags` of the block [begin, end) in place.
  void process(std::vector<Tag>& tags, int64_t begin, int64_t end);
  /// Seeds the test signal's random draws, for reproducible tests.
  void seed(uint64_t value) { rng.seed(value); }

 private:
  struct Pending {
    Tag tag;
    uint64_t sequence;  // keeps tags of equal time in the order they came
    bool operator>(const Pending& other) const {
      return tag.time != other.tag.time ? tag.time > other.tag.time : sequence > other.sequence;
    }
  };

  void hold(const Tag& tag);
  void releaseBefore(int64_t bound);
  void advanceTo(int64_t time);

  ReplayChannelMap channels;
  std::priority_queue<Pending, std::vector<Pending>, std::greater<Pending>> pending;
  uint64_t next_sequence = 0;
  std::vector<Tag> output;
  bool in_overflow = false;
  int64_t max_delay = 0;
  int64_t min_delay = 0;

  std::normal_distribution<double> test_signal_period{628006.5, 1000.0};
  std::mt19937 rng;
  int64_t next_test_edge = 0;
  bool test_signal_started = false;
  bool test_signal_active = false;
  bool test_phase = true;
};

}  // namespace zeptick
