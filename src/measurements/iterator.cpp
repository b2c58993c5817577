#include "zeptick/iterator.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace zeptick {

namespace {

// Emptied blocks kept for reuse; a handful covers the blocks in flight.
constexpr size_t kMaxSpareBlocks = 64;

uint64_t checkedMaxTags(uint64_t max_tags) {
  if (max_tags == 0) throw std::invalid_argument("max_tags must be at least 1");
  return max_tags;
}

std::vector<int> sortedUnique(std::vector<int> channels) {
  std::sort(channels.begin(), channels.end());
  channels.erase(std::unique(channels.begin(), channels.end()), channels.end());
  return channels;
}

}  // namespace

Iterator::Iterator(ZeptickBase* tagger, std::vector<int> channels, uint64_t max_tags)
    : IteratorBase(tagger),
      channels(sortedUnique(std::move(channels))),
      max_tags(checkedMaxTags(max_tags)) {
  for (int channel : this->channels) registerChannel(channel);
  finishInitialization();
}

Iterator::~Iterator() { stop(); }

bool Iterator::next(Block& block, int timeout_ms) {
  std::unique_lock<std::mutex> lock(queue_mutex);
  auto has_data = [&] { return !queue.empty() || stopped; };
  if (timeout_ms < 0) {
    queue_ready.wait(lock, has_data);
  } else if (!queue_ready.wait_for(lock, std::chrono::milliseconds(timeout_ms), has_data)) {
    return false;
  }
  if (queue.empty()) return false;  // stopped and drained
  block.tags.clear();
  if (spare.size() < kMaxSpareBlocks) spare.push_back(std::move(block));
  block = std::move(queue.front());
  queue.pop_front();
  queued_tags -= block.tags.size();
  return true;
}

uint64_t Iterator::size() {
  std::lock_guard<std::mutex> lock(queue_mutex);
  return queued_tags;
}

uint64_t Iterator::getDroppedTags() {
  std::lock_guard<std::mutex> lock(queue_mutex);
  return dropped_tags;
}

void Iterator::TagIterator::advance() {
  position = 0;
  while (source != nullptr) {
    if (!source->next(block)) {
      source = nullptr;
    } else if (!block.tags.empty()) {
      return;
    }
  }
}

void Iterator::clear_impl() {
  std::lock_guard<std::mutex> lock(queue_mutex);
  for (Block& block : queue) {
    block.tags.clear();
    spare.push_back(std::move(block));
  }
  queue.clear();
  queued_tags = 0;
  dropped_tags = 0;
  dropping = false;
}

void Iterator::on_start() {
  std::lock_guard<std::mutex> lock(queue_mutex);
  stopped = false;
}

void Iterator::on_stop() {
  {
    std::lock_guard<std::mutex> lock(queue_mutex);
    stopped = true;
  }
  queue_ready.notify_all();
}

bool Iterator::keeps(const Tag& tag) const {
  if (channels.empty() || tag.type == Tag::Type::Error || tag.type == Tag::Type::OverflowBegin ||
      tag.type == Tag::Type::OverflowEnd) {
    return true;
  }
  return std::binary_search(channels.begin(), channels.end(), tag.channel);
}

bool Iterator::next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  enqueue(tags, begin_time, end_time);
  return false;
}

void Iterator::enqueue(const std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) {
  // Counted first, so that a block that cannot fit is dropped without being copied.
  const uint64_t kept =
      channels.empty() ? tags.size()
                       : static_cast<uint64_t>(std::count_if(
                             tags.begin(), tags.end(), [&](const Tag& t) { return keeps(t); }));
  {
    std::lock_guard<std::mutex> lock(queue_mutex);
    if (kept == 0 && !queue.empty() && !dropping) {
      queue.back().end_time = end_time;
      return;
    }
    const uint64_t marks = dropping ? 2 : 0;
    if (queued_tags + kept + marks > max_tags && !queue.empty()) {
      if (!dropping) drop_begin = begin_time;
      dropping = true;
      dropped_tags += kept;
      return;
    }
    Block block;
    if (!spare.empty()) {
      block = std::move(spare.back());
      spare.pop_back();
    }
    block.begin_time = begin_time;
    block.end_time = end_time;
    if (dropping) {
      block.tags.push_back(Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, drop_begin});
      block.tags.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, begin_time});
      block.begin_time = drop_begin;
      dropping = false;
    }
    // Copying under the queue lock keeps the caller waiting at most one block's copy.
    if (channels.empty()) {
      block.tags.insert(block.tags.end(), tags.begin(), tags.end());
    } else {
      std::copy_if(tags.begin(), tags.end(), std::back_inserter(block.tags),
                   [&](const Tag& t) { return keeps(t); });
    }
    queued_tags += block.tags.size();
    queue.push_back(std::move(block));
  }
  queue_ready.notify_one();
}

}  // namespace zeptick
