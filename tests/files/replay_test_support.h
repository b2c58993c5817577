#pragma once

// Shared by the tests of the file measurements and of replay: random streams
// with every kind of tag, and what the file format makes of them.

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "files/file_format.h"
#include "files/recording_generator.h"
#include "files/zeptick_file_reader.h"
#include "files/zeptick_virtual_impl.h"
#include "support/test_tagger.h"
#include "zeptick/time_tag_stream.h"

namespace zeptick::testing {

/// A replay tagger on the heap. ThreadSanitizer forgets a mutex only when its
/// memory is freed, so taggers in stack slots of earlier tests would alias this
/// one's mutexes and report lock orders that never met.
inline std::unique_ptr<ZeptickVirtualImpl> replayTagger(unsigned workers) {
  return std::make_unique<ZeptickVirtualImpl>(workers);
}

/// Waits until every block pushed so far has passed every measurement: a last
/// empty block carries a new fence, and blocks pass in order.
inline bool drain(TestZeptick& tagger) {
  const uint32_t fence = tagger.getFence(true);
  tagger.pushBlocks({Block{{}, 0, 0}});
  return tagger.waitForFence(fence, 60000);
}

/// Blocks with time tags on `channels`, errors, and overflow spans that may
/// cross blocks. Inside a span mostly missed-event counts, now and then a time
/// tag; outside, now and then a stray missed-event count. Times non-decreasing.
inline std::vector<Block> randomStream(std::mt19937_64& rng, size_t count,
                                       const std::vector<int>& channels) {
  std::uniform_int_distribution<int64_t> length(0, 400000);
  std::uniform_int_distribution<int> tag_count(0, 60);
  std::uniform_int_distribution<size_t> pick(0, channels.size() - 1);
  std::uniform_int_distribution<int> roll(0, 999);
  std::uniform_int_distribution<int> lost(1, 65535);
  std::vector<Block> blocks;
  int64_t time = 0;
  bool in_overflow = false;
  for (size_t i = 0; i < count; ++i) {
    Block block{{}, time, time + length(rng)};
    // Now and then a long quiet block, so that deltas need their high-bit words.
    if (roll(rng) < 20) block.end_time = time + (int64_t{1} << 26) * (1 + roll(rng));
    std::vector<int64_t> times;
    if (block.end_time > block.begin_time) {
      std::uniform_int_distribution<int64_t> at(block.begin_time, block.end_time - 1);
      for (int k = tag_count(rng); k > 0; --k) times.push_back(at(rng));
    }
    std::sort(times.begin(), times.end());
    for (int64_t t : times) {
      const int r = roll(rng);
      const int channel = channels[pick(rng)];
      if (!in_overflow) {
        if (r < 25) {
          block.tags.push_back(Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, t});
          in_overflow = true;
        } else if (r < 40) {
          block.tags.push_back(Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, t});
        } else if (r < 45) {
          block.tags.push_back(Tag{Tag::Type::MissedEvents, 0, 3, channel, t});
        } else {
          block.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, t});
        }
      } else if (r < 150) {
        block.tags.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, t});
        in_overflow = false;
      } else if (r < 200) {
        block.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, channel, t});
      } else {
        block.tags.push_back(
            Tag{Tag::Type::MissedEvents, 0, static_cast<uint16_t>(lost(rng)), channel, t});
      }
    }
    time = block.end_time;
    blocks.push_back(std::move(block));
  }
  return blocks;
}

/// What a reader gets back from `blocks` written with the channels `recorded`:
/// tags of other channels, missed events outside overflow and time tags inside
/// it are gone; a missed-event count reads back at the time of the word before
/// it.
inline std::vector<Tag> throughFormat(const std::vector<Block>& blocks,
                                      const std::set<int>& recorded) {
  std::vector<Tag> out;
  bool in_overflow = false;
  for (const Block& block : blocks) {
    int64_t last = block.begin_time;
    for (const Tag& tag : block.tags) {
      const bool counted = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
      if (counted && recorded.count(tag.channel) == 0) continue;
      if (tag.type == Tag::Type::MissedEvents) {
        if (in_overflow) out.push_back(Tag{tag.type, 0, tag.missed_events, tag.channel, last});
        continue;
      }
      if (tag.type == Tag::Type::TimeTag && in_overflow) {
        // Dropped, but the words carrying its high time bits stay.
        int64_t delta = tag.time - last;
        last += (delta >> 48) << 48;
        delta = tag.time - last;
        last += (delta >> 24) << 24;
        continue;
      }
      if (tag.type == Tag::Type::OverflowBegin) in_overflow = true;
      if (tag.type == Tag::Type::OverflowEnd) in_overflow = false;
      out.push_back(tag);
      last = tag.time;
    }
  }
  return out;
}

/// Names of the files of recording `base` that exist, index 0 first.
inline std::vector<std::string> splitFiles(const std::string& base) {
  std::vector<std::string> names;
  for (uint32_t index = 0;; ++index) {
    const std::string name = ZeptickFile::makeFileName(base, index);
    if (!std::filesystem::exists(name)) return names;
    names.push_back(name);
  }
}

/// The generator's whole stream in memory: the reference for what the files hold.
inline std::vector<Tag> generatedTags(const RecordingPlan& plan) {
  RecordingGenerator generator(plan);
  std::vector<Tag> all;
  std::vector<Tag> tags;
  int64_t begin = 0;
  int64_t end = 0;
  while (generator.next(tags, begin, end)) all.insert(all.end(), tags.begin(), tags.end());
  return all;
}

/// A buffer's columns put back together as tags; checks that the overflow
/// flags agree with the types.
inline std::vector<Tag> bufferTags(const TimeTagStreamBuffer& buffer) {
  std::vector<int> channels;
  std::vector<int64_t> times;
  std::vector<uint16_t> missed;
  std::vector<uint8_t> types;
  std::vector<uint8_t> overflows;
  buffer.getChannels([&](size_t n) { return channels.assign(n, 0), channels.data(); });
  buffer.getTimestamps([&](size_t n) { return times.assign(n, 0), times.data(); });
  buffer.getMissedEvents([&](size_t n) { return missed.assign(n, 0), missed.data(); });
  buffer.getEventTypes([&](size_t n) { return types.assign(n, 9), types.data(); });
  buffer.getOverflows([&](size_t n) { return overflows.assign(n, 9), overflows.data(); });
  std::vector<Tag> tags;
  for (size_t i = 0; i < channels.size(); ++i) {
    EXPECT_EQ(overflows[i], types[i] != 0 ? 1 : 0);
    tags.push_back(Tag{static_cast<Tag::Type>(types[i]), 0, missed[i], channels[i], times[i]});
  }
  EXPECT_EQ(tags.size(), buffer.size);
  EXPECT_EQ(times.size(), buffer.size);
  return tags;
}

inline std::vector<Tag> concat(const std::vector<Block>& blocks) {
  std::vector<Tag> tags;
  for (const Block& block : blocks) tags.insert(tags.end(), block.tags.begin(), block.tags.end());
  return tags;
}

}  // namespace zeptick::testing
