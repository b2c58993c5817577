#include "files/foreign/foreign_recording.h"

#include <algorithm>
#include <atomic>
#include <random>

namespace zeptick::foreign {

namespace {

ZeptickFile::FileId freshFileId() {
  // Unique per opening: two foreign files queued one after the other never join.
  static const uint32_t session = std::random_device{}();
  static std::atomic<uint32_t> counter{0};
  return {0x46524E47u, session, 0, ++counter};
}

bool earlier(const Tag& a, const Tag& b) { return a.time < b.time; }

}  // namespace

ForeignRecording::ForeignRecording() : file_id(freshFileId()) {}

void ForeignRecording::start(std::string settings) {
  configuration = std::move(settings);
  opened = true;
  load();
}

void ForeignRecording::load() {
  has_block = false;
  begin = end;
  block.clear();
  block.swap(waiting);
  // Reads on through chunks without a tag (a run of overflow records), and while every tag of
  // the block shares one time: a block must keep some tag before its end.
  for (;;) {
    const size_t before = block.size();
    if (!exhausted) exhausted = !decodeChunk(block);
    if (block.size() > before) {
      if (!std::is_sorted(block.begin(), block.end(), earlier)) {
        std::stable_sort(block.begin(), block.end(), earlier);
      }
      for (Tag& tag : block) {
        if (tag.time >= begin) break;
        tag.time = begin;
      }
    }
    if (exhausted || (!block.empty() && block.front().time != block.back().time)) break;
  }
  if (block.empty()) return;
  if (exhausted) {
    end = std::max(block.back().time + 1, recordedUntil());
  } else {
    auto last = std::lower_bound(block.begin(), block.end(), block.back(), earlier);
    end = last->time;
    waiting.assign(last, block.end());
    block.erase(last, block.end());
  }
  has_block = true;
}

bool ForeignRecording::getBlockRange(int64_t& begin_time, int64_t& end_time) const {
  if (!has_block) return false;
  begin_time = begin;
  end_time = end;
  return true;
}

bool ForeignRecording::skipBlock() {
  if (!has_block) return false;
  load();
  return true;
}

bool ForeignRecording::decodeBlock(std::vector<Tag>& tags, int64_t start_time,
                                   uint64_t& overflows) {
  if (!has_block) return false;
  const int64_t shift = start_time - begin;
  for (Tag& tag : block) {
    tag.time += shift;
    overflows += tag.type == Tag::Type::Error;
  }
  // Handed over rather than copied; the caller's old vector becomes the next block's buffer.
  tags.swap(block);
  load();
  return true;
}

}  // namespace zeptick::foreign
