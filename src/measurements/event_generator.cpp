#include "zeptick/event_generator.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "measurements/tag_queue.h"

namespace zeptick {

namespace {

bool later(const Tag& a, const Tag& b) { return a.time - b.time > 0; }

}  // namespace

EventGenerator::EventGenerator(ZeptickBase* tagger, int trigger_channel,
                               std::vector<int64_t> pattern, uint64_t trigger_divider,
                               uint64_t divider_offset, int stop_channel)
    : IteratorBase(tagger),
      trigger_channel(trigger_channel),
      virtual_channel(getNewVirtualChannel()),
      stop_channel(stop_channel),
      divider_limit(static_cast<int64_t>(trigger_divider - 1)),
      divider_offset(divider_offset),
      pattern(std::move(pattern)),
      delayed(std::make_unique<detail::TagQueue>()) {
  clear();
  if (divider_limit < 0) {
    throw std::runtime_error("negative or zero trigger dividers are not supported");
  }
  if (divider_offset >= trigger_divider) {
    throw std::runtime_error("divider_offset must be smaller than trigger_divider");
  }
  std::sort(this->pattern.begin(), this->pattern.end());
  if (!this->pattern.empty() && this->pattern.front() < 0) {
    // Holding the stream back by the earliest offset makes every entry non-negative.
    non_negative = false;
    lag = -this->pattern.front();
    for (int64_t& offset : this->pattern) offset += lag;
  }
  registerChannel(trigger_channel);
  clear_impl();
  finishInitialization();
}

EventGenerator::~EventGenerator() { stop(); }

int EventGenerator::getChannel() { return virtual_channel; }

void EventGenerator::clear_impl() {
  pending.clear();
  if (!non_negative) delayed->release();
  trigger_count = 0;
}

void EventGenerator::on_start() { clear_impl(); }

bool EventGenerator::countTrigger() {
  const uint64_t position = trigger_count;
  trigger_count = position == static_cast<uint64_t>(divider_limit) ? 0 : position + 1;
  return position == divider_offset;
}

void EventGenerator::fire(const Tag& trigger) {
  for (int64_t offset : pattern) {
    Tag generated = trigger;
    generated.channel = virtual_channel;
    generated.time = trigger.time + offset;
    pending.push_back(generated);
    std::push_heap(pending.begin(), pending.end(), later);
  }
}

void EventGenerator::emitGenerated() {
  Tag tag = pending.front();
  std::pop_heap(pending.begin(), pending.end(), later);
  pending.pop_back();
  if (in_overflow) {
    // Inside an overflow no time tag may stand; the event still counts.
    tag.type = Tag::Type::MissedEvents;
    tag.missed_events = 1;
  }
  output.push_back(tag);
}

void EventGenerator::flushGenerated(int64_t limit) {
  while (!pending.empty() && pending.front().time - limit < 0) emitGenerated();
}

void EventGenerator::flushMerged(int64_t limit) {
  for (;;) {
    if (pending.empty() && delayed->empty()) return;
    // Stream tags go first among equal times.
    const bool from_stream =
        !delayed->empty() && (pending.empty() || delayed->front().time - pending.front().time <= 0);
    if (!from_stream) {
      if (pending.front().time - limit >= 0) return;
      emitGenerated();
      continue;
    }
    const Tag tag = delayed->front();
    if (tag.time - limit >= 0) return;
    delayed->pop_front();
    // The overflow state and errors act where they stand in the lagging stream.
    if (tag.type == Tag::Type::Error) {
      pending.clear();
    } else if (tag.type == Tag::Type::OverflowBegin) {
      in_overflow = true;
    } else if (tag.type == Tag::Type::OverflowEnd) {
      in_overflow = false;
    }
    output.push_back(tag);
  }
}

void EventGenerator::nextNonNegative(const std::vector<Tag>& tags) {
  const bool has_stop = stop_channel != CHANNEL_UNUSED;
  for (const Tag& tag : tags) {
    flushGenerated(tag.time);
    if (has_stop && tag.channel == stop_channel) pending.clear();
    output.push_back(tag);
    switch (tag.type) {
      case Tag::Type::TimeTag:
        if (tag.channel == trigger_channel && countTrigger()) fire(tag);
        break;
      case Tag::Type::Error:
        pending.clear();
        break;
      case Tag::Type::OverflowBegin:
        in_overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        in_overflow = false;
        break;
      default:
        break;
    }
  }
}

void EventGenerator::nextNegative(const std::vector<Tag>& tags) {
  const bool has_stop = stop_channel != CHANNEL_UNUSED;
  for (const Tag& tag : tags) {
    flushMerged(tag.time);
    if (has_stop && tag.channel == stop_channel) pending.clear();
    Tag lagging = tag;
    lagging.time += lag;
    delayed->push_back(lagging);
    if (tag.type == Tag::Type::TimeTag && tag.channel == trigger_channel && countTrigger()) {
      fire(tag);
    }
  }
}

bool EventGenerator::next_impl(std::vector<Tag>& tags, int64_t /*begin_time*/, int64_t end_time) {
  output.clear();
  if (non_negative) {
    nextNonNegative(tags);
    flushGenerated(end_time);
  } else {
    nextNegative(tags);
    flushMerged(end_time);
  }
  tags.swap(output);
  output.clear();
  return true;
}

}  // namespace zeptick
