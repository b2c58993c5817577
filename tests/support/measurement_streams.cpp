#include "measurement_streams.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <tuple>

namespace zeptick::testing {

TagStream makeRandomStream(std::mt19937_64& rng, const StreamShape& shape) {
  TagStream stream;
  stream.begin_time = shape.begin_time;
  std::uniform_real_distribution<double> percent(0.0, 100.0);
  std::uniform_int_distribution<size_t> pick(0, shape.channels.size() - 1);
  std::uniform_int_distribution<int64_t> steps(
      1, std::max<int64_t>(1, (2 * shape.mean_gap - 1) / shape.grid));
  std::uniform_int_distribution<int64_t> jitter(0, 3);
  std::uniform_int_distribution<uint16_t> missed_count(1, 1000);
  auto gap = [&] { return steps(rng) * shape.grid; };
  auto channel = [&] { return shape.channels[pick(rng)]; };
  auto push = [&](Tag::Type type, int ch, int64_t time, uint16_t missed = 0) {
    stream.tags.push_back(Tag{type, 0, missed, ch, time});
  };

  int64_t t = shape.begin_time + gap();
  while (stream.tags.size() < shape.tags) {
    double roll = percent(rng);
    if ((roll -= shape.error_percent) < 0) {
      push(Tag::Type::Error, CHANNEL_UNUSED, t);
    } else if ((roll -= shape.overflow_percent) < 0) {
      push(Tag::Type::OverflowBegin, CHANNEL_UNUSED, t);
      const int lost = std::uniform_int_distribution<int>(0, 5)(rng);
      for (int i = 0; i < lost; ++i) {
        push(Tag::Type::MissedEvents, channel(), t, missed_count(rng));
        if (percent(rng) < 50) t += gap();
      }
      t += gap();
      push(Tag::Type::OverflowEnd, CHANNEL_UNUSED, t);
    } else if ((roll -= shape.missed_outside_percent) < 0) {
      push(Tag::Type::MissedEvents, channel(), t, missed_count(rng));
    } else if ((roll -= shape.burst_percent) < 0) {
      const int size = std::uniform_int_distribution<int>(2, 8)(rng);
      for (int i = 0; i < size; ++i) {
        push(Tag::Type::TimeTag, channel(), t);
        if (i + 1 < size) t += jitter(rng) * shape.grid;
      }
    } else {
      push(Tag::Type::TimeTag, channel(), t);
    }
    if (percent(rng) >= shape.equal_time_percent) t += gap();
  }
  stream.end_time = stream.tags.back().time + 1 + (percent(rng) < 30 ? 0 : gap());
  return stream;
}

std::vector<Block> cutStream(const TagStream& stream, std::vector<int64_t> cuts) {
  std::erase_if(cuts,
                [&](int64_t cut) { return cut < stream.begin_time || cut > stream.end_time; });
  std::sort(cuts.begin(), cuts.end());
  cuts.push_back(stream.end_time);
  std::vector<Block> blocks;
  int64_t begin = stream.begin_time;
  size_t next = 0;
  for (int64_t end : cuts) {
    Block block{{}, begin, end};
    while (next < stream.tags.size() && stream.tags[next].time < end) {
      block.tags.push_back(stream.tags[next++]);
    }
    blocks.push_back(std::move(block));
    begin = end;
  }
  return blocks;
}

std::vector<int64_t> randomCuts(std::mt19937_64& rng, const TagStream& stream, size_t most) {
  const size_t count = std::uniform_int_distribution<size_t>(1, std::max<size_t>(most, 1))(rng);
  std::uniform_int_distribution<int64_t> anywhere(stream.begin_time, stream.end_time);
  std::uniform_int_distribution<int> percent(0, 99);
  std::vector<int64_t> cuts;
  for (size_t i = 0; i < count; ++i) {
    const int roll = percent(rng);
    if (roll < 10 && !cuts.empty()) {
      cuts.push_back(cuts.back());
    } else if (roll < 30 && !stream.tags.empty()) {
      const size_t at = std::uniform_int_distribution<size_t>(0, stream.tags.size() - 1)(rng);
      cuts.push_back(stream.tags[at].time);
    } else {
      cuts.push_back(anywhere(rng));
    }
  }
  return cuts;
}

std::vector<Tag> concatenate(const std::vector<Block>& blocks) {
  std::vector<Tag> all;
  for (const Block& block : blocks) all.insert(all.end(), block.tags.begin(), block.tags.end());
  return all;
}

std::vector<Block> deliver(TestTaggerCore& tagger, std::vector<Block> blocks) {
  std::vector<Block> pushed = tagger.pushBlocks(std::move(blocks));
  // An empty block after them carries the fence waited for, in case the
  // tagger serves no idle blocks.
  const uint32_t fence = tagger.getFence(true);
  tagger.pushBlocks({Block{{}, 0, 0}});
  // A measurement that never finishes a block fails the test instead of hanging it.
  if (!tagger.waitForFence(fence, 60000)) throw std::runtime_error("blocks not delivered in 60 s");
  return pushed;
}

std::string describe(const Tag& tag) {
  static const char* const kNames[] = {"time", "error", "overflow-begin", "overflow-end", "missed"};
  std::ostringstream text;
  const auto type = static_cast<unsigned>(tag.type);
  text << (type < 5 ? kNames[type] : "type?") << ' '
       << (tag.channel == CHANNEL_UNUSED ? "-" : std::to_string(tag.channel)) << '@' << tag.time;
  if (tag.type == Tag::Type::MissedEvents || tag.missed_events != 0) {
    text << " x" << tag.missed_events;
  }
  if (tag.reserved != 0) text << " reserved=" << static_cast<unsigned>(tag.reserved);
  return text.str();
}

::testing::AssertionResult sameTags(const std::vector<Tag>& actual,
                                    const std::vector<Tag>& expected) {
  auto key = [](const Tag& t) {
    return std::tuple(t.type, t.reserved, t.missed_events, t.channel, t.time);
  };
  const size_t common = std::min(actual.size(), expected.size());
  size_t first = 0;
  while (first < common && key(actual[first]) == key(expected[first])) ++first;
  if (first == common && actual.size() == expected.size()) return ::testing::AssertionSuccess();

  auto failure = ::testing::AssertionFailure();
  failure << actual.size() << " tags, expected " << expected.size() << "; first difference at "
          << first << "\n";
  const size_t from = first >= 3 ? first - 3 : 0;
  for (size_t i = from; i < first + 4 && i < std::max(actual.size(), expected.size()); ++i) {
    failure << "  [" << i << "] " << (i < actual.size() ? describe(actual[i]) : "(none)")
            << "   expected " << (i < expected.size() ? describe(expected[i]) : "(none)") << "\n";
  }
  return failure;
}

}  // namespace zeptick::testing
