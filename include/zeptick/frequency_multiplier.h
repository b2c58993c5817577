#pragma once

#include <cstdint>
#include <vector>

#include "zeptick/export.h"
#include "zeptick/iterator_base.h"

namespace zeptick {

/// A virtual channel ticking `multiplier` times as fast as an input channel.
/// From the second input tag on, each input tag is copied, and the period it
/// closes is split into `multiplier` equal parts extrapolated forward, each
/// part placed from the input tag directly so rounding does not add up. A
/// new input tag drops what is left of the previous extrapolation; any tag
/// that is not a time tag stops it until a full period is seen again. Input
/// tags at time 0 count as no tag.
class ZEPTICK_API FrequencyMultiplier : public IteratorBase {
 public:
  /// A `multiplier` below 2 is taken as 1: a copy of every input tag but the first.
  FrequencyMultiplier(ZeptickBase* tagger, int input_channel, int multiplier);
  ~FrequencyMultiplier() override;

  /// The virtual channel. Thread-safe.
  int getChannel();
  /// The multiplier in force (1 or more). Thread-safe.
  int getMultiplier();

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override;

 private:
  void reset();
  void insertExtrapolatedTag();
  int64_t getNextExtrapolatedTag();

  std::vector<Tag> output;
  int input_channel;
  int virtual_channel;
  int multiplier;
  // Times of 0 mean "none" in the three fields below.
  int64_t last_tag = 0;
  int64_t previous_tag = 0;
  int64_t next_extrapolated = 0;
  int step = 0;  // number of the last extrapolated tag within the present period
};

}  // namespace zeptick
