#include "engine/device_merger.h"

#include <algorithm>
#include <functional>

namespace zeptick {

DeviceMerger::DeviceMerger(size_t members, int64_t horizon) : queues_(members), horizon_(horizon) {
  for (DeviceQueue& queue : queues_) queue.endTime = horizon;
}

void DeviceMerger::recomputeSuppress() {
  suppress_ = std::any_of(queues_.begin(), queues_.end(),
                          [](const DeviceQueue& queue) { return queue.invalid; });
}

DeviceQueue* DeviceMerger::earliest() {
  DeviceQueue* best = nullptr;
  for (DeviceQueue& queue : queues_) {
    if (queue.cursor == nullptr) continue;
    if (best == nullptr || queue.cursor->time < best->cursor->time) best = &queue;
  }
  return best;
}

void DeviceMerger::finishChunk(DeviceQueue& queue) {
  TagChunk& chunk = queue.chunks.front();
  queue.fence = chunk.fence;
  queue.invalid = chunk.invalid;
  recomputeSuppress();
  chunk.tags.clear();
  pool_.push_back(std::move(chunk.tags));
  queue.chunks.pop_front();
  if (queue.chunks.empty()) {
    queue.cursor = queue.chunkEnd = nullptr;
  } else {
    queue.cursor = queue.chunks.front().tags.data();
    queue.chunkEnd = queue.cursor + queue.chunks.front().tags.size();
  }
}

void DeviceMerger::passControl(DeviceQueue& queue, Tag tag, std::vector<Tag>& out) {
  bool skip = false;
  if (tag.type == Tag::Type::TimeTag) {
    tag.type = Tag::Type::MissedEvents;
    tag.missed_events = 1;
  } else if (tag.type == Tag::Type::OverflowBegin) {
    queue.overflow = true;
    skip = overflow_;
    overflow_ = true;
  } else if (tag.type == Tag::Type::OverflowEnd) {
    queue.overflow = false;
    overflow_ = std::any_of(queues_.begin(), queues_.end(),
                            [](const DeviceQueue& q) { return q.overflow; });
  }
  if (!skip && (tag.type == Tag::Type::Error || !suppress_)) out.push_back(tag);
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
    fed.chunks.push_back(TagChunk{std::move(worker.tags), worker.fence, worker.streamInvalid});
    if (fed.cursor == nullptr) {
      fed.cursor = fed.chunks.front().tags.data();
      fed.chunkEnd = fed.cursor + fed.chunks.front().tags.size();
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
  bool cut = false;
  // Two members with tags waiting, the common group: a plain two-way merge, since runs are
  // short when members alternate and each run would cost two scans. Ties go to the first.
  if (queues_.size() == 2) {
    DeviceQueue& q0 = queues_[0];
    DeviceQueue& q1 = queues_[1];
    while (q0.cursor != nullptr && q1.cursor != nullptr) {
      DeviceQueue& queue = q1.cursor->time < q0.cursor->time ? q1 : q0;
      const Tag tag = *queue.cursor;
      if (tag.time - worker.blockEnd >= 0) {
        cut = true;
        break;
      }
      if (n >= max_events && !out.empty() && tag.time > out.back().time) {
        horizon_ = tag.time;
        worker.blockEnd = tag.time;
        cut = true;
        break;
      }
      if (tag.type == Tag::Type::TimeTag && !overflow_) {
        if (!suppress_) out.push_back(tag);
      } else {
        passControl(queue, tag, out);
      }
      if (++queue.cursor == queue.chunkEnd) finishChunk(queue);
      ++n;
    }
  }
  for (DeviceQueue* queue = cut ? nullptr : earliest(); queue != nullptr; queue = earliest()) {
    // A run: this member's tags up to the next member's next tag (or the horizon) leave
    // without another scan. At equal times the scan decides, so ties keep member order.
    int64_t limit = worker.blockEnd;
    for (const DeviceQueue& other : queues_) {
      if (&other != queue && other.cursor != nullptr && other.cursor->time < limit) {
        limit = other.cursor->time;
      }
    }
    bool first = true;
    while (queue->cursor != nullptr && (first || queue->cursor->time < limit)) {
      Tag tag = *queue->cursor;
      if (tag.time - worker.blockEnd >= 0) {
        cut = true;
        break;
      }
      if (n >= max_events && !out.empty() && tag.time > out.back().time) {
        horizon_ = tag.time;
        worker.blockEnd = tag.time;
        cut = true;
        break;
      }
      first = false;
      if (tag.type == Tag::Type::TimeTag && !overflow_) {
        if (!suppress_) out.push_back(tag);
      } else {
        passControl(*queue, tag, out);
      }
      if (++queue->cursor == queue->chunkEnd) finishChunk(*queue);
      ++n;
    }
    if (cut) break;
  }

  uint32_t fence = queues_.front().fence;
  for (const DeviceQueue& queue : queues_) {
    if (static_cast<int32_t>(queue.fence - fence) < 0) fence = queue.fence;
  }
  worker.fence = fence;
}

}  // namespace zeptick
