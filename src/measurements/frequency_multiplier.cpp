#include "zeptick/frequency_multiplier.h"

namespace zeptick {

FrequencyMultiplier::FrequencyMultiplier(ZeptickBase* tagger, int input_channel, int multiplier)
    : IteratorBase(tagger),
      input_channel(input_channel),
      virtual_channel(getNewVirtualChannel()),
      multiplier(multiplier < 2 ? 1 : multiplier) {
  registerChannel(input_channel);
  finishInitialization();
}

FrequencyMultiplier::~FrequencyMultiplier() { stop(); }

int FrequencyMultiplier::getChannel() { return virtual_channel; }

int FrequencyMultiplier::getMultiplier() { return multiplier; }

void FrequencyMultiplier::reset() {
  last_tag = 0;
  previous_tag = 0;
  next_extrapolated = 0;
  step = 0;
}

int64_t FrequencyMultiplier::getNextExtrapolatedTag() {
  if (previous_tag == 0 || step + 1 >= multiplier) return 0;
  step += 1;
  // Multiply first: each position comes from last_tag, so rounding never accumulates.
  return last_tag + (last_tag - previous_tag) * step / multiplier;
}

void FrequencyMultiplier::insertExtrapolatedTag() {
  output.push_back(Tag{Tag::Type::TimeTag, 0, 0, virtual_channel, next_extrapolated});
  next_extrapolated = getNextExtrapolatedTag();
}

bool FrequencyMultiplier::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/,
                                    int64_t end_time) {
  output.clear();
  for (const Tag& tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      // Events may have been lost: the period must be measured afresh.
      output.push_back(tag);
      reset();
      continue;
    }
    while (next_extrapolated < tag.time && next_extrapolated > 0) insertExtrapolatedTag();
    output.push_back(tag);
    if (tag.channel != input_channel) continue;
    previous_tag = last_tag;
    last_tag = tag.time;
    if (previous_tag <= 0) continue;
    Tag copy = tag;
    copy.channel = virtual_channel;
    output.push_back(copy);
    if (multiplier > 1) {
      next_extrapolated = last_tag + (last_tag - previous_tag) / multiplier;
      step = 1;
    } else {
      next_extrapolated = 0;
      step = 0;
    }
  }
  while (next_extrapolated < end_time && next_extrapolated > 0) insertExtrapolatedTag();
  tags.swap(output);
  return true;
}

}  // namespace zeptick
