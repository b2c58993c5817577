#include "engine/device_merger.h"

#include <algorithm>
#include <bit>
#include <stdexcept>

namespace zeptick {

DeviceMerger::DeviceMerger(size_t members, int64_t horizon)
    : queues_(members), leaves_(std::bit_ceil(std::max<size_t>(members, 2))), horizon_(horizon) {
  if (members > kMaxMembers) throw std::invalid_argument("Too many devices in one group.");
  // Two halves for every level of a bulk merge of up to kMaxMembers runs, made up front: a
  // level holds references to its own while the levels below it run.
  scratch_.resize(2 * std::bit_width(kMaxMembers));
  for (DeviceQueue& queue : queues_) queue.endTime = horizon;
}

uint32_t DeviceMerger::queueFence(const DeviceQueue& queue) {
  return queue.chunks.empty() ? queue.fence : queue.chunks.front().fence;
}

void DeviceMerger::recomputeSuppress() {
  suppress_ = std::any_of(queues_.begin(), queues_.end(),
                          [](const DeviceQueue& queue) { return queue.invalid; });
}

void DeviceMerger::finishChunk(DeviceQueue& queue) {
  TagChunk& chunk = queue.chunks.front();
  queue.fence = chunk.fenceAfter;
  queue.invalid = chunk.invalid;
  recomputeSuppress();
  pool_.push_back(std::move(chunk.tags));
  queue.chunks.pop_front();
  if (queue.chunks.empty()) {
    queue.cursor = queue.chunkEnd = nullptr;
  } else {
    queue.cursor = queue.chunks.front().tags.data();
    queue.chunkEnd = queue.cursor + queue.chunks.front().tags.size();
  }
}

bool DeviceMerger::passControl(DeviceQueue& queue, Tag& tag) {
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
  return !skip && (tag.type == Tag::Type::Error || !suppress_);
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
      fed.chunks.back().fenceAfter = worker.fence;
      fed.chunks.back().invalid = worker.streamInvalid;
    }
  } else {
    fed.chunks.push_back(
        TagChunk{std::move(worker.tags), worker.fence, worker.fence, worker.streamInvalid});
    if (fed.cursor == nullptr) {
      fed.cursor = fed.chunks.front().tags.data();
      fed.chunkEnd = fed.cursor + fed.chunks.front().tags.size();
    }
  }

  // The merged block may take tags from any member's oldest waiting chunk on, so it carries the
  // oldest fence among those chunks (or, for a member with nothing waiting, the fence its later
  // tags will be under): a newer one would let a measurement started under it see tags that
  // came before its settings.
  uint32_t fence = queueFence(queues_.front());
  for (const DeviceQueue& queue : queues_) {
    if (static_cast<int32_t>(queueFence(queue) - fence) < 0) fence = queueFence(queue);
  }

  worker.blockBegin = horizon_;
  int64_t horizon = queues_.front().endTime;
  for (const DeviceQueue& queue : queues_) {
    if (queue.endTime - horizon < 0) horizon = queue.endTime;
  }
  horizon_ = horizon;
  worker.blockEnd = horizon;
  // A vector from the pool keeps its size: the merge writes over it and grows it only where
  // it must, so its tags are not zeroed again on every block.
  worker.tags.clear();
  if (!pool_.empty()) {
    worker.tags = std::move(pool_.front());
    pool_.pop_front();
  }

  switch (leaves_) {
    case 2:
      merge<2>(worker, max_events);
      break;
    case 4:
      merge<4>(worker, max_events);
      break;
    case 8:
      merge<8>(worker, max_events);
      break;
    default:
      merge<kMaxMembers>(worker, max_events);
      break;
  }

  worker.fence = fence;
}

namespace {

// Two runs into one, ties to `a`: the source is chosen by a conditional move, not a branch,
// since which run is next is a coin toss when members interleave.
Tag* mergeTwo(const Tag* a, const Tag* a_end, const Tag* b, const Tag* b_end, Tag* out) {
  // Neither run can end within the shorter one's length, so the steps count down instead of
  // checking both ends every time.
  for (auto steps = std::min(a_end - a, b_end - b); steps > 0;
       steps = std::min(a_end - a, b_end - b)) {
    for (; steps > 0; --steps) {
      const bool take_b = b->time < a->time;
      const Tag* from = take_b ? b : a;
      *out++ = *from;
      b += take_b;
      a += !take_b;
    }
  }
  out = std::copy(a, a_end, out);
  return std::copy(b, b_end, out);
}

}  // namespace

Tag* DeviceMerger::mergeRuns(const Run* runs, size_t count, Tag* out, size_t level) {
  if (count == 1) return std::copy(runs[0].begin, runs[0].end, out);
  if (count == 2) return mergeTwo(runs[0].begin, runs[0].end, runs[1].begin, runs[1].end, out);
  // The lower half first, so equal times keep member order.
  const size_t half = count / 2;
  std::vector<Tag>& low = scratch_[2 * level];
  std::vector<Tag>& high = scratch_[2 * level + 1];
  size_t low_size = 0;
  size_t high_size = 0;
  for (size_t i = 0; i < half; ++i) low_size += static_cast<size_t>(runs[i].end - runs[i].begin);
  for (size_t i = half; i < count; ++i) {
    high_size += static_cast<size_t>(runs[i].end - runs[i].begin);
  }
  if (low.size() < low_size) low.resize(low_size);
  if (high.size() < high_size) high.resize(high_size);
  mergeRuns(runs, half, low.data(), level + 1);
  mergeRuns(runs + half, count - half, high.data(), level + 1);
  return mergeTwo(low.data(), low.data() + low_size, high.data(), high.data() + high_size, out);
}

// Two ways take turns. In bulk: while no member is inside an overflow or invalid, the time tags
// below a common limit (before any member's next control tag and last tag of its block) merge
// run against run, a few passes over memory. One at a time: a tournament over the members' next
// tags takes everything else (control tags, block ends, the cut at maxEvents) with the full
// rules; after a tag leaves, only the matches on its member's path are replayed.
// The tournament, the cursors and the output position live in locals: a tag written to the
// output (its byte-sized fields may alias anything) then never forces them back to memory.
template <size_t L>
void DeviceMerger::merge(ZeptickRunner::Worker& worker, uint64_t max_events) {
  const size_t members = queues_.size();
  int64_t keys[L];
  uint32_t tree[2 * L];
  const Tag* cursors[L];
  const Tag* ends[L];
  const Tag* limits[L];  // per member: its next control tag or its block's last tag
  for (size_t i = 0; i < L; ++i) {
    // Leaves beyond the members never win: their key is later than any tag.
    cursors[i] = i < members ? queues_[i].cursor : nullptr;
    ends[i] = i < members ? queues_[i].chunkEnd : nullptr;
    limits[i] = nullptr;
    tree[L + i] = static_cast<uint32_t>(i);
  }
  const auto play = [&keys, &tree](size_t node) {
    const uint32_t left = tree[2 * node];
    const uint32_t right = tree[2 * node + 1];
    // At equal times the left one, of the lower members, wins: ties leave in member order.
    tree[node] = keys[right] < keys[left] ? right : left;
  };
  const auto rebuild = [&] {
    for (size_t i = 0; i < L; ++i) keys[i] = cursors[i] != nullptr ? cursors[i]->time : kNoTag;
    for (size_t node = L - 1; node > 0; --node) play(node);
  };

  std::vector<Tag>& out = worker.tags;
  size_t size = 0;
  int64_t block_end = worker.blockEnd;
  bool plain = !overflow_ && !suppress_;  // time tags leave unchanged
  bool try_bulk = true;
  uint64_t n = 0;
  Run runs[L];
  for (;;) {
    if (try_bulk && plain && n < max_events) {
      try_bulk = false;
      int64_t limit = block_end;
      for (size_t i = 0; i < members; ++i) {
        if (cursors[i] == nullptr) continue;
        if (limits[i] == nullptr || limits[i] < cursors[i]) {
          const Tag* last = ends[i] - 1;
          limits[i] = std::find_if(cursors[i], last, isSpecialTag);
        }
        if (limits[i]->time - limit < 0) limit = limits[i]->time;
      }
      const auto count_below = [&](int64_t time) {
        uint64_t count = 0;
        for (size_t i = 0; i < members; ++i) {
          if (cursors[i] == nullptr) continue;
          runs[i] = {cursors[i], std::partition_point(cursors[i], limits[i], [time](const Tag& t) {
                       return t.time - time < 0;
                     })};
          count += static_cast<uint64_t>(runs[i].end - runs[i].begin);
        }
        return count;
      };
      uint64_t count = count_below(limit);
      if (count > max_events - n) {
        // Too many for this block: the latest limit whose tags still fit; the cut itself is
        // left to the one-at-a-time way, which knows about equal times.
        int64_t fits = limit;
        for (size_t i = 0; i < members; ++i) {
          if (cursors[i] != nullptr && cursors[i]->time - fits < 0) fits = cursors[i]->time;
        }
        while (limit - fits > 1) {
          const int64_t middle = fits + (limit - fits) / 2;
          if (count_below(middle) <= max_events - n) {
            fits = middle;
          } else {
            limit = middle;
          }
        }
        count = count_below(fits);
      }
      if (count >= kBulkMinimum) {
        Run nonempty[L];
        size_t used = 0;
        for (size_t i = 0; i < members; ++i) {
          if (cursors[i] == nullptr) continue;
          if (runs[i].end != runs[i].begin) nonempty[used++] = runs[i];
          cursors[i] = runs[i].end;
        }
        if (out.size() < size + count) out.resize(std::max<size_t>(size + count, 2 * out.size()));
        mergeRuns(nonempty, used, out.data() + size, 0);
        size += count;
        n += count;
        rebuild();
        continue;
      }
      rebuild();
    } else if (try_bulk) {
      try_bulk = false;
      rebuild();
    }

    const uint32_t winner = tree[1];
    const Tag* cursor = cursors[winner];
    if (cursor == nullptr) break;
    Tag tag = *cursor;
    if (tag.time - block_end >= 0) break;
    if (n >= max_events && size != 0 && tag.time > out[size - 1].time) {
      horizon_ = tag.time;
      block_end = tag.time;
      break;
    }
    bool pass = true;
    if (tag.type != Tag::Type::TimeTag || !plain) {
      pass = passControl(queues_[winner], tag);
      plain = !overflow_ && !suppress_;
      try_bulk = true;
    }
    if (pass) {
      if (size == out.size()) out.resize(std::max<size_t>(2 * size, 4096));
      out[size++] = tag;
    }
    if (++cursor == ends[winner]) {
      DeviceQueue& queue = queues_[winner];
      queue.cursor = cursor;
      finishChunk(queue);
      plain = !overflow_ && !suppress_;
      cursor = queue.cursor;
      ends[winner] = queue.chunkEnd;
      limits[winner] = nullptr;
      try_bulk = true;
    }
    cursors[winner] = cursor;
    keys[winner] = cursor != nullptr ? cursor->time : kNoTag;
    for (size_t node = (L + winner) >> 1; node > 0; node >>= 1) play(node);
    ++n;
  }
  for (size_t i = 0; i < members; ++i) queues_[i].cursor = cursors[i];
  out.resize(size);
  worker.blockEnd = block_end;
}

}  // namespace zeptick
