#include "recording/recording_generator.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <set>

#include "files/file_format.h"
#include "files/zeptick_file_writer.h"

namespace zeptick {

std::vector<int> RecordingPlan::channels() const {
  std::set<int> used;
  if (pair_rate > 0.0) {
    used.insert(pair_start);
    used.insert(pair_stop);
  }
  if (period > 0) used.insert(periodic_channel);
  if (background_rate > 0.0) used.insert(background_channels.begin(), background_channels.end());
  used.erase(CHANNEL_UNUSED);
  return {used.begin(), used.end()};
}

RecordingGenerator::RecordingGenerator(RecordingPlan plan_in)
    : plan(std::move(plan_in)),
      rng(plan.seed),
      jitter(0.0, std::max(plan.pair_jitter, 0.0)),
      position(plan.start_time) {
  const int64_t start = plan.start_time;
  if (plan.pair_rate > 0.0 && plan.pair_start != CHANNEL_UNUSED) {
    schedule(start + poissonGap(plan.pair_rate), plan.pair_start, Source::PairStart);
  }
  if (plan.period > 0 && plan.periodic_channel != CHANNEL_UNUSED) {
    schedule(start, plan.periodic_channel, Source::Periodic);
  }
  if (plan.background_rate > 0.0) {
    for (int channel : plan.background_channels) {
      if (channel != CHANNEL_UNUSED) {
        schedule(start + poissonGap(plan.background_rate), channel, Source::Background);
      }
    }
  }
}

void RecordingGenerator::schedule(int64_t time, int channel, Source source) {
  events.push(Event{time, next_sequence++, channel, source});
}

int64_t RecordingGenerator::poissonGap(double rate) {
  std::exponential_distribution<double> gap(rate / 1e12);
  return std::max<int64_t>(1, static_cast<int64_t>(gap(rng)));
}

void RecordingGenerator::appendMissed(std::vector<Tag>& tags, const std::map<int, uint64_t>& missed,
                                      int64_t time) {
  for (auto [channel, count] : missed) {
    // One tag holds at most 65535 lost events.
    while (count > 0) {
      const auto part = static_cast<uint16_t>(std::min<uint64_t>(count, 65535));
      tags.push_back(Tag{Tag::Type::MissedEvents, 0, part, channel, time});
      count -= part;
    }
  }
}

bool RecordingGenerator::next(std::vector<Tag>& tags, int64_t& begin_time, int64_t& end_time) {
  tags.clear();
  const int64_t stream_end = plan.start_time + plan.duration;
  if (position >= stream_end) return false;
  begin_time = position;
  end_time = std::min(position + plan.block_span, stream_end);
  position = end_time;

  // Overflow boundaries inside this block, in time order: (time, begins).
  std::vector<std::pair<int64_t, bool>> marks;
  for (auto [from, to] : plan.overflow_spans) {
    from += plan.start_time;
    to += plan.start_time;
    if (from >= begin_time && from < end_time) marks.emplace_back(from, true);
    if (to >= begin_time && to < end_time) marks.emplace_back(to, false);
  }
  std::sort(marks.begin(), marks.end());

  // Events lost in the current overflow stretch are reported, per channel, at
  // the point the stretch became visible in this block: its begin or the block's.
  std::map<int, uint64_t> missed;
  int64_t missed_at = begin_time;
  size_t missed_index = tags.size();
  auto flushMissed = [&] {
    std::vector<Tag> counts;
    appendMissed(counts, missed, missed_at);
    tags.insert(tags.begin() + static_cast<std::ptrdiff_t>(missed_index), counts.begin(),
                counts.end());
    missed.clear();
  };
  size_t mark = 0;
  auto passMarks = [&](int64_t time) {
    // Marks at or before `time` come first: an event at a span's end is seen again.
    while (mark < marks.size() && marks[mark].first <= time) {
      const auto [at, begins] = marks[mark++];
      if (begins && !in_overflow) {
        in_overflow = true;
        tags.push_back(Tag{Tag::Type::OverflowBegin, 0, 0, CHANNEL_UNUSED, at});
        missed_at = at;
        missed_index = tags.size();
      } else if (!begins && in_overflow) {
        flushMissed();
        in_overflow = false;
        tags.push_back(Tag{Tag::Type::OverflowEnd, 0, 0, CHANNEL_UNUSED, at});
      }
    }
  };

  while (!events.empty() && events.top().time < end_time) {
    const Event event = events.top();
    events.pop();
    passMarks(event.time);
    if (in_overflow) {
      ++missed[event.channel];
    } else {
      tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, event.channel, event.time});
    }
    switch (event.source) {
      case Source::PairStart:
        if (plan.pair_stop != CHANNEL_UNUSED) {
          const auto offset = static_cast<int64_t>(std::llround(jitter(rng)));
          schedule(event.time + std::max<int64_t>(0, plan.pair_delay + offset), plan.pair_stop,
                   Source::PairStop);
        }
        schedule(event.time + poissonGap(plan.pair_rate), plan.pair_start, Source::PairStart);
        break;
      case Source::Periodic:
        schedule(event.time + plan.period, event.channel, Source::Periodic);
        break;
      case Source::Background:
        schedule(event.time + poissonGap(plan.background_rate), event.channel, Source::Background);
        break;
      case Source::PairStop:
        break;
    }
  }
  passMarks(end_time - 1);
  if (in_overflow) flushMissed();
  return true;
}

RecordingSummary writeRecording(const std::string& filename, const RecordingPlan& plan,
                                int64_t max_file_size) {
  ZeptickFile::FileId file_id{};
  std::mt19937 id_source(static_cast<uint32_t>(plan.seed ^ (plan.seed >> 32)) ^ 0x5A7E1Cu);
  for (uint32_t& word : file_id) word = id_source();

  std::vector<std::pair<int32_t, int32_t>> channel_map;
  for (int channel : plan.channels()) channel_map.emplace_back(channel, -channel);
  const std::string configuration = "{\"generator\": {\"seed\": " + std::to_string(plan.seed) +
                                    ", \"duration\": " + std::to_string(plan.duration) +
                                    ", \"pair_delay\": " + std::to_string(plan.pair_delay) + "}}";

  RecordingSummary summary;
  uint32_t index = 0;
  auto open = [&](std::shared_ptr<ZeptickFileWriter::BlockPool> pool) {
    auto writer = std::make_unique<ZeptickFileWriter>(filename, index++, file_id, std::move(pool));
    writer->writeConfiguration(configuration);
    writer->writeChannelMap(channel_map);
    return writer;
  };
  // Like FileWriter: file 0 holds only the configuration and the channel map.
  auto writer = open(nullptr);
  writer = open(writer->getBlockPool());

  RecordingGenerator generator(plan);
  std::vector<Tag> tags;
  int64_t begin_time = 0;
  int64_t end_time = 0;
  summary.begin_time = plan.start_time;
  summary.end_time = plan.start_time;
  bool begins_in_overflow = false;  // the block at hand, as the last one ended
  while (generator.next(tags, begin_time, end_time)) {
    // A new file starts outside overflow, so no missed-event count is lost at a split. What
    // matters is where the block begins: inOverflow() already tells where it ends.
    if (max_file_size >= 0 && writer->getBytesWritten() > static_cast<uint64_t>(max_file_size) &&
        !begins_in_overflow) {
      writer = open(writer->getBlockPool());
    }
    begins_in_overflow = generator.inOverflow();
    auto* state = writer->encodeBlock(tags, begin_time, end_time);
    ZeptickFileWriter::finishBlock(state);
    writer->writeBlock(state);
    writer->recycleBlock(state);
    for (const Tag& tag : tags) {
      if (tag.type == Tag::Type::TimeTag) ++summary.events[tag.channel];
      if (tag.type == Tag::Type::MissedEvents) summary.events[tag.channel] += tag.missed_events;
    }
    summary.tags += tags.size();
    ++summary.blocks;
    summary.end_time = end_time;
  }
  summary.files = index;
  return summary;
}

}  // namespace zeptick
