#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "test_tagger.h"
#include "zeptick/iterator_base.h"

namespace zeptick::testing {

/// A stream as the histogram tests reason about it: the tags in order and the
/// span they were delivered in. Block boundaries are left out on purpose: the
/// histograms must not depend on them.
struct FlatStream {
  std::vector<Tag> tags;
  int64_t begin_time = 0;
  int64_t end_time = 0;
};

inline Tag histTimeTag(int channel, int64_t time) {
  return Tag{Tag::Type::TimeTag, 0, 0, channel, time};
}
inline Tag histMarker(Tag::Type type, int64_t time) {
  return Tag{type, 0, 0, CHANNEL_UNUSED, time};
}

/// Random tags on `channels` with gaps around `mean_gap`: equal times, bursts
/// of tags close together, device errors, and overflows (begin, missed events,
/// end) spread over time. Times start at 0. With a `grid`, gaps are multiples
/// of it, so that differences land exactly on bin edges and range limits.
inline std::vector<Tag> randomHistogramTags(std::mt19937_64& rng, const std::vector<int>& channels,
                                            int64_t mean_gap, size_t n_tags, int64_t grid = 1) {
  std::uniform_int_distribution<size_t> pick(0, channels.size() - 1);
  std::uniform_int_distribution<int> percent(0, 99);
  std::uniform_int_distribution<int64_t> gap_steps(1, std::max<int64_t>(1, 2 * mean_gap / grid));
  auto gap = [&](std::mt19937_64& r) { return gap_steps(r) * grid; };
  std::vector<Tag> tags;
  int64_t time = 0;
  while (tags.size() < n_tags) {
    const int roll = percent(rng);
    if (roll < 12) {
      // Same time as the tag before.
    } else if (roll < 20) {
      // A burst: several tags within a small fraction of the usual gap.
      const int n = std::uniform_int_distribution<int>(2, 8)(rng);
      for (int i = 0; i < n; ++i) {
        time += std::uniform_int_distribution<int64_t>(0, std::max<int64_t>(1, mean_gap / 8))(rng);
        tags.push_back(histTimeTag(channels[pick(rng)], time));
      }
      continue;
    } else {
      time += gap(rng);
    }
    if (roll == 98) {
      tags.push_back(histMarker(Tag::Type::Error, time));
    } else if (roll == 99) {
      tags.push_back(histMarker(Tag::Type::OverflowBegin, time));
      const int missed = std::uniform_int_distribution<int>(0, 3)(rng);
      for (int i = 0; i < missed; ++i) {
        time += gap(rng);
        tags.push_back(Tag{Tag::Type::MissedEvents, 0, 5, channels[pick(rng)], time});
      }
      time += gap(rng);
      tags.push_back(histMarker(Tag::Type::OverflowEnd, time));
    } else {
      tags.push_back(histTimeTag(channels[pick(rng)], time));
    }
  }
  return tags;
}

/// Cuts a stream into blocks at random times: many short blocks, some empty,
/// some holding most of the stream. Tags of equal time always share a block,
/// as the half-open spans demand.
inline std::vector<Block> cutIntoBlocks(std::mt19937_64& rng, const FlatStream& stream) {
  std::vector<Block> blocks;
  const int64_t length = stream.end_time - stream.begin_time;
  std::vector<int64_t> cuts;
  const int n_cuts = std::uniform_int_distribution<int>(0, 40)(rng);
  std::uniform_int_distribution<int64_t> at(stream.begin_time + 1, stream.end_time - 1);
  for (int i = 0; i < n_cuts && length > 1; ++i) cuts.push_back(at(rng));
  cuts.push_back(stream.end_time);
  std::sort(cuts.begin(), cuts.end());
  cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
  int64_t begin = stream.begin_time;
  size_t next_tag = 0;
  for (int64_t end : cuts) {
    Block block{{}, begin, end};
    while (next_tag < stream.tags.size() && stream.tags[next_tag].time < end) {
      block.tags.push_back(stream.tags[next_tag++]);
    }
    blocks.push_back(std::move(block));
    begin = end;
  }
  return blocks;
}

/// The pushed blocks, as delivered (shifted to where the tagger's stream
/// stood), taken back into one stream.
inline FlatStream flatten(const std::vector<Block>& blocks) {
  FlatStream stream;
  stream.begin_time = blocks.front().begin_time;
  stream.end_time = blocks.back().end_time;
  for (const Block& block : blocks) {
    stream.tags.insert(stream.tags.end(), block.tags.begin(), block.tags.end());
  }
  return stream;
}

/// Pushes `stream` cut at random into `tagger`, waits until every measurement
/// has seen it, and returns the stream as delivered. The measurements must be
/// running already.
template <typename Tagger>
FlatStream deliverInRandomBlocks(Tagger& tagger, std::mt19937_64& rng, const FlatStream& stream) {
  const FlatStream delivered = flatten(tagger.pushBlocks(cutIntoBlocks(rng, stream)));
  tagger.sync();
  return delivered;
}

/// A measurement fed by the test itself, block by block: stopped and cleared
/// at once, so that no worker calls into it.
template <typename Measurement>
class Fed : public Measurement {
 public:
  template <typename... Args>
  explicit Fed(Args&&... args) : Measurement(std::forward<Args>(args)...) {
    this->stop();
    this->clear();
  }
  void feed(std::vector<Tag> tags, int64_t begin_time, int64_t end_time) {
    this->lock();
    this->next_impl(tags, begin_time, end_time);
    this->unlock();
    last_end = end_time;
  }
  /// The next block, beginning where the last one ended.
  void feed(std::vector<Tag> tags, int64_t end_time) { feed(std::move(tags), last_end, end_time); }

 private:
  int64_t last_end = 0;
};

/// The text of the std::invalid_argument that `make` throws, or "no exception".
template <typename Make>
std::string invalidArgumentMessage(Make&& make) {
  try {
    make();
  } catch (const std::invalid_argument& e) {
    return e.what();
  }
  return "no exception";
}

}  // namespace zeptick::testing
