#include "engine/device_merger.h"

#include <algorithm>
#include <functional>

namespace zeptick {

namespace {

// Later time = lower priority: std::push_heap keeps the earliest on top.
bool later(const std::pair<int64_t, DeviceQueue*>& a, const std::pair<int64_t, DeviceQueue*>& b) {
  return a.first > b.first;
}

}  // namespace

DeviceMerger::DeviceMerger(size_t members, int64_t horizon) : queues_(members), horizon_(horizon) {
  for (DeviceQueue& queue : queues_) queue.endTime = horizon;
  heap_.reserve(members);
}

void DeviceMerger::push(DeviceQueue& queue) {
  heap_.emplace_back(queue.chunks.front().tags[queue.cursor].time, &queue);
  std::push_heap(heap_.begin(), heap_.end(), later);
}

void DeviceMerger::recomputeSuppress() {
  suppress_ = std::any_of(queues_.begin(), queues_.end(),
                          [](const DeviceQueue& queue) { return queue.invalid; });
}

void DeviceMerger::add(ZeptickRunner::Worker& worker, size_t ordinal, uint64_t max_events) {
  DeviceQueue& fed = queues_[ordinal];
  fed.endTime = worker.blockEnd;
  if (worker.tags.empty()) {
    if (fed.chunks.empty()) {
      fed.fence = worker.fence;
      fed.invalid = worker.streamInvalid;
      recomputeSuppress();
    } else {
      fed.chunks.back().fence = worker.fence;
      fed.chunks.back().invalid = worker.streamInvalid;
    }
  } else {
    const bool was_empty = fed.chunks.empty();
    fed.chunks.push_back(TagChunk{std::move(worker.tags), worker.fence, worker.streamInvalid});
    if (was_empty) {
      fed.cursor = 0;
      push(fed);
    }
  }

  worker.blockBegin = horizon_;
  int64_t horizon = queues_.front().endTime;
  for (const DeviceQueue& queue : queues_) {
    if (queue.endTime - horizon < 0) horizon = queue.endTime;
  }
  horizon_ = horizon;
  worker.blockEnd = horizon;
  worker.tags.clear();
  if (!pool_.empty()) {
    worker.tags = std::move(pool_.front());
    pool_.pop_front();
  }

  uint64_t n = 0;
  std::vector<Tag>& out = worker.tags;
  while (!heap_.empty()) {
    DeviceQueue& queue = *heap_.front().second;
    TagChunk& chunk = queue.chunks.front();
    Tag tag = chunk.tags[queue.cursor];
    if (tag.time - worker.blockEnd >= 0) break;
    if (!out.empty() && n >= max_events && tag.time > out.back().time) {
      horizon_ = tag.time;
      worker.blockEnd = tag.time;
      break;
    }
    bool skip = false;
    switch (tag.type) {
      case Tag::Type::TimeTag:
        if (overflow_) {
          tag.type = Tag::Type::MissedEvents;
          tag.missed_events = 1;
        }
        break;
      case Tag::Type::OverflowBegin:
        queue.overflow = true;
        skip = overflow_;
        overflow_ = true;
        break;
      case Tag::Type::OverflowEnd:
        queue.overflow = false;
        overflow_ = std::any_of(queues_.begin(), queues_.end(),
                                [](const DeviceQueue& q) { return q.overflow; });
        break;
      default:
        break;
    }
    if (!skip && (tag.type == Tag::Type::Error || !suppress_)) out.push_back(tag);

    std::pop_heap(heap_.begin(), heap_.end(), later);
    heap_.pop_back();
    if (++queue.cursor == chunk.tags.size()) {
      queue.fence = chunk.fence;
      queue.invalid = chunk.invalid;
      recomputeSuppress();
      chunk.tags.clear();
      pool_.push_back(std::move(chunk.tags));
      queue.chunks.pop_front();
      queue.cursor = 0;
    }
    if (!queue.chunks.empty()) push(queue);
    ++n;
  }

  uint32_t fence = queues_.front().fence;
  for (const DeviceQueue& queue : queues_) {
    if (static_cast<int32_t>(queue.fence - fence) < 0) fence = queue.fence;
  }
  worker.fence = fence;
}

}  // namespace zeptick
