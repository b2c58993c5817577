#include "files/replay_channel_stage.h"

#include <algorithm>
#include <cmath>

namespace zeptick {

ReplayChannelStage::ReplayChannelStage() : rng(std::random_device{}()) {}

void ReplayChannelStage::configure(const ReplayChannelMap& settings) {
  ReplayChannelMap updated = settings;
  for (auto& [channel, config] : updated) {
    auto old = channels.find(channel);
    if (old == channels.end()) continue;
    config.last_tag = old->second.last_tag;
    config.has_last_tag = old->second.has_last_tag;
  }
  channels.swap(updated);
  test_signal_active = false;
  max_delay = 0;
  min_delay = 0;
  for (const auto& [channel, config] : channels) {
    test_signal_active |= config.test_signal;
    max_delay = std::max(max_delay, config.delay);
    min_delay = std::min(min_delay, config.delay);
  }
}

void ReplayChannelStage::hold(const Tag& tag) { pending.push(Pending{tag, next_sequence++}); }

void ReplayChannelStage::releaseBefore(int64_t bound) {
  while (!pending.empty() && pending.top().tag.time - bound < 0) {
    const Tag tag = pending.top().tag;
    pending.pop();
    if (tag.type == Tag::Type::OverflowEnd) in_overflow = false;
    // Events that a delay moved into an overflow span were never seen by the host.
    if (tag.type == Tag::Type::TimeTag && in_overflow) continue;
    output.push_back(tag);
  }
}

void ReplayChannelStage::advanceTo(int64_t time) {
  while (test_signal_active && next_test_edge - time < 0) {
    releaseBefore(next_test_edge);
    for (auto& [channel, config] : channels) {
      if (!config.test_signal || config.rising_edge != test_phase) continue;
      const auto jitter = static_cast<int64_t>(std::abs(config.jitter(rng)));
      hold(Tag{Tag::Type::TimeTag, 0, 0, channel, next_test_edge + config.delay + jitter});
    }
    next_test_edge += static_cast<int64_t>(std::abs(test_signal_period(rng)));
    test_phase = !test_phase;
  }
  releaseBefore(time);
}

void ReplayChannelStage::process(std::vector<Tag>& tags, int64_t begin, int64_t end) {
  // Recorded data are already in order: nothing to do unless a setting or a held tag says so.
  if (pending.empty() && channels.empty() && !in_overflow) return;
  // A signal switched back on starts afresh rather than catching up on the time it was off.
  if (test_signal_active && (!test_signal_started || next_test_edge - begin < 0)) {
    test_signal_started = true;
    next_test_edge = begin;
  }
  output.clear();
  for (const Tag& incoming : tags) {
    Tag tag = incoming;
    // A negative delay holds back the whole stream instead of moving a tag into the past.
    tag.time = incoming.time - min_delay;
    bool keep = true;
    if (tag.type == Tag::Type::TimeTag) {
      auto found = channels.find(tag.channel);
      if (found != channels.end()) {
        ReplayChannelConfig& config = found->second;
        if (config.test_signal) {
          keep = false;
        } else {
          tag.time += config.delay;
          if (!config.has_last_tag || tag.time - config.last_tag >= config.deadtime) {
            config.last_tag = tag.time;
            config.has_last_tag = true;
          } else {
            keep = false;
          }
        }
      }
    } else if (tag.type == Tag::Type::OverflowEnd) {
      // Delayed events of the span must still fall inside it.
      tag.time += max_delay;
    } else if (tag.type == Tag::Type::OverflowBegin) {
      in_overflow = true;
    } else if (tag.type == Tag::Type::Error) {
      for (auto& [channel, config] : channels) config.has_last_tag = false;
    }
    advanceTo(incoming.time + 1);
    if (!keep) continue;
    if (tag.time == incoming.time && !in_overflow) {
      output.push_back(tag);
    } else {
      hold(tag);
    }
  }
  advanceTo(end);
  tags.swap(output);
}

}  // namespace zeptick
