#include "zeptick/event_generator.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "measurements/ring_queue.h"

namespace zeptick {

struct EventGenerator::Pending {
  std::vector<int64_t> offsets;  // distinct, ascending
  std::vector<uint32_t> copies;  // how often each offset appears in the pattern
  std::vector<detail::RingQueue<Tag>> queues;
  std::vector<uint32_t> heap;  // queues holding tags, earliest head on top

  void setPattern(const std::vector<int64_t>& pattern) {
    offsets.clear();
    copies.clear();
    for (int64_t offset : pattern) {
      if (!offsets.empty() && offsets.back() == offset) {
        ++copies.back();
      } else {
        offsets.push_back(offset);
        copies.push_back(1);
      }
    }
    queues.clear();
    queues.resize(offsets.size());
    heap.clear();
  }
  bool empty() const { return heap.empty(); }
  const Tag& top() const { return queues[heap.front()].front(); }
  void clear() {
    for (uint32_t index : heap) queues[index].clear();
    heap.clear();
  }
  void add(const Tag& trigger, int channel) {
    for (uint32_t i = 0; i < offsets.size(); ++i) {
      Tag generated = trigger;
      generated.channel = channel;
      generated.time = trigger.time + offsets[i];
      const bool was_empty = queues[i].empty();
      queues[i].push_back(generated);
      if (was_empty) {
        heap.push_back(i);
        std::push_heap(heap.begin(), heap.end(), Later{this});
      }
    }
  }
  // Removes the earliest tag; returns how many equal tags it stands for.
  uint32_t pop(Tag& tag) {
    const uint32_t index = heap.front();
    std::pop_heap(heap.begin(), heap.end(), Later{this});
    tag = queues[index].front();
    queues[index].pop_front();
    if (queues[index].empty()) {
      heap.pop_back();
    } else {
      std::push_heap(heap.begin(), heap.end(), Later{this});
    }
    return copies[index];
  }

  struct Later {
    const Pending* self;
    bool operator()(uint32_t a, uint32_t b) const {
      return self->queues[a].front().time - self->queues[b].front().time > 0;
    }
  };
};

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
      pending(std::make_unique<Pending>()),
      delayed(std::make_unique<detail::RingQueue<Tag>>()) {
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
  pending->setPattern(this->pattern);
  registerChannel(trigger_channel);
  clear_impl();
  finishInitialization();
}

EventGenerator::~EventGenerator() { stop(); }

int EventGenerator::getChannel() { return virtual_channel; }

void EventGenerator::clear_impl() {
  pending->clear();
  if (!non_negative) delayed->release();
  trigger_count = 0;
}

void EventGenerator::on_start() { clear_impl(); }

bool EventGenerator::countTrigger() {
  const uint64_t position = trigger_count;
  trigger_count = position == static_cast<uint64_t>(divider_limit) ? 0 : position + 1;
  return position == divider_offset;
}

void EventGenerator::fire(const Tag& trigger) { pending->add(trigger, virtual_channel); }

void EventGenerator::emitGenerated() {
  Tag tag;
  const uint32_t copies = pending->pop(tag);
  if (in_overflow) {
    // Inside an overflow no time tag may stand; the event still counts.
    tag.type = Tag::Type::MissedEvents;
    tag.missed_events = 1;
  }
  for (uint32_t i = 0; i < copies; ++i) output.push_back(tag);
}

void EventGenerator::flushGenerated(int64_t limit) {
  while (!pending->empty() && pending->top().time - limit < 0) emitGenerated();
}

void EventGenerator::flushMerged(int64_t limit) {
  for (;;) {
    if (pending->empty() && delayed->empty()) return;
    // Stream tags go first among equal times.
    const bool from_stream =
        !delayed->empty() && (pending->empty() || delayed->front().time - pending->top().time <= 0);
    if (!from_stream) {
      if (pending->top().time - limit >= 0) return;
      emitGenerated();
      continue;
    }
    const Tag tag = delayed->front();
    if (tag.time - limit >= 0) return;
    delayed->pop_front();
    // The overflow state and errors act where they stand in the lagging stream.
    if (tag.type == Tag::Type::Error) {
      pending->clear();
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
    if (has_stop && tag.channel == stop_channel) pending->clear();
    output.push_back(tag);
    switch (tag.type) {
      case Tag::Type::TimeTag:
        if (tag.channel == trigger_channel && countTrigger()) fire(tag);
        break;
      case Tag::Type::Error:
        pending->clear();
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
    if (has_stop && tag.channel == stop_channel) pending->clear();
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
