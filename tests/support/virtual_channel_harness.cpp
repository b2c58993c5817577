#include "virtual_channel_harness.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <sstream>
#include <tuple>
#include <utility>

namespace zeptick::testing {
namespace {

Tag makeTag(Tag::Type type, int channel, int64_t time, uint16_t missed = 0) {
  return Tag{type, 0, missed, channel, time};
}

bool equalTags(const Tag& a, const Tag& b) {
  return a.type == b.type && a.reserved == b.reserved && a.missed_events == b.missed_events &&
         a.channel == b.channel && a.time == b.time;
}

// Keeps every block that reaches the end of the chain, so that the harness
// can wait for a known number of them.
class BlockRecorder : public IteratorBase {
 public:
  explicit BlockRecorder(ZeptickBase* tagger) : IteratorBase(tagger) { finishInitialization(); }
  ~BlockRecorder() override { stop(); }

  bool waitFor(size_t count, std::chrono::seconds timeout) {
    std::unique_lock<std::mutex> guard(seen_mutex);
    return seen_cv.wait_for(guard, timeout, [&] { return seen.size() >= count; });
  }
  std::vector<Block> blocks() {
    std::lock_guard<std::mutex> guard(seen_mutex);
    return seen;
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override {
    std::lock_guard<std::mutex> guard(seen_mutex);
    seen.push_back(Block{tags, begin_time, end_time});
    seen_cv.notify_all();
    return false;
  }

 private:
  std::mutex seen_mutex;
  std::condition_variable seen_cv;
  std::vector<Block> seen;
};

// Runs `blocks` through the chain on a fresh tagger and returns what the
// recorder behind it saw, in the times of `blocks`.
std::vector<Block> runThrough(const std::vector<Block>& blocks, const VirtualChainFactory& factory,
                              unsigned workers) {
  TestZeptick tagger("VCHANNEL-HARNESS", workers);
  tagger.setIdleSpan(0);
  std::vector<std::unique_ptr<IteratorBase>> chain = factory(&tagger);
  BlockRecorder recorder(&tagger);

  // Idle blocks may have been served before the idle span was set to 0. An
  // empty filler block then closes the gap to the stream's first time; were
  // the idle stream already past it, the blocks are shifted and shifted back.
  std::vector<Block> pushed;
  const int64_t stream_end = tagger.streamEnd();
  const int64_t first_begin = blocks.front().begin_time;
  const bool filler = stream_end < first_begin;
  if (filler) pushed.push_back(Block{{}, stream_end, first_begin});
  pushed.insert(pushed.end(), blocks.begin(), blocks.end());
  const int64_t shift = std::max<int64_t>(stream_end - first_begin, 0);
  tagger.pushBlocks(pushed);

  if (!recorder.waitFor(pushed.size(), std::chrono::seconds(120))) {
    ADD_FAILURE() << "the chain did not pass all " << pushed.size() << " blocks";
  }
  std::vector<Block> seen = recorder.blocks();
  recorder.stop();
  for (auto& channel : chain) channel->stop();
  if (filler && !seen.empty()) seen.erase(seen.begin());
  for (Block& block : seen) {
    block.begin_time -= shift;
    block.end_time -= shift;
    for (Tag& tag : block.tags) tag.time -= shift;
  }
  return seen;
}

std::vector<int64_t> cutsAtTagTimes(const TagStream& stream) {
  std::vector<int64_t> cuts;
  bool after = false;
  for (size_t i = 0; i < stream.tags.size(); ++i) {
    if (i > 0 && stream.tags[i].time == stream.tags[i - 1].time) continue;
    // Alternately a tag opens its block and closes the one before at end - 1.
    cuts.push_back(std::min(stream.tags[i].time + (after ? 1 : 0), stream.end_time));
    after = !after;
  }
  return cuts;
}

std::vector<int64_t> randomCuts(const TagStream& stream, std::mt19937_64& rng, bool many) {
  const size_t most = std::max<size_t>(2, many ? stream.tags.size() / 2 : 12);
  const size_t count = std::uniform_int_distribution<size_t>(1, most)(rng);
  std::uniform_int_distribution<int64_t> anywhere(stream.begin_time, stream.end_time);
  std::uniform_int_distribution<int> percent(0, 99);
  std::vector<int64_t> cuts;
  for (size_t i = 0; i < count; ++i) {
    const int roll = percent(rng);
    if (roll < 10 && !cuts.empty()) {
      cuts.push_back(cuts.back());  // a zero-length block
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

::testing::AssertionResult blocksInOrder(const std::vector<Block>& pushed,
                                         const std::vector<Block>& seen) {
  if (seen.size() != pushed.size()) {
    return ::testing::AssertionFailure()
           << seen.size() << " blocks left the chain, " << pushed.size() << " went in";
  }
  for (size_t b = 0; b < seen.size(); ++b) {
    const Block& block = seen[b];
    if (block.begin_time != pushed[b].begin_time || block.end_time != pushed[b].end_time) {
      return ::testing::AssertionFailure() << "block " << b << " changed its span";
    }
    for (size_t i = 0; i < block.tags.size(); ++i) {
      const Tag& tag = block.tags[i];
      if (tag.time < block.begin_time || tag.time >= block.end_time) {
        return ::testing::AssertionFailure()
               << "block " << b << " [" << block.begin_time << ", " << block.end_time << ") holds "
               << describe(tag) << " at index " << i;
      }
      if (i > 0 && tag.time < block.tags[i - 1].time) {
        return ::testing::AssertionFailure() << "block " << b << " has " << describe(tag)
                                             << " after " << describe(block.tags[i - 1]);
      }
    }
  }
  return ::testing::AssertionSuccess();
}

std::vector<Tag> expectedPassed(const std::vector<Tag>& input, const VirtualChannelRules& rules,
                                int64_t run_end) {
  std::vector<Tag> passed;
  if (rules.passed) {
    passed = rules.passed(input);
  } else {
    passed = input;
    if (rules.shift) {
      for (Tag& tag : passed) tag.time += rules.shift(tag);
    }
  }
  std::erase_if(passed, [run_end](const Tag& tag) { return tag.time >= run_end; });
  return passed;
}

}  // namespace

TagStream makeRandomStream(std::mt19937_64& rng, const StreamShape& shape) {
  TagStream stream;
  stream.begin_time = shape.begin_time;
  std::uniform_real_distribution<double> percent(0.0, 100.0);
  std::uniform_int_distribution<size_t> pick(0, shape.channels.size() - 1);
  std::uniform_int_distribution<int64_t> gap(1, std::max<int64_t>(1, 2 * shape.mean_gap - 1));
  std::uniform_int_distribution<int64_t> jitter(0, 3);
  std::uniform_int_distribution<uint16_t> missed_count(1, 1000);
  auto channel = [&] { return shape.channels[pick(rng)]; };
  auto push = [&](Tag::Type type, int ch, int64_t time, uint16_t missed = 0) {
    stream.tags.push_back(makeTag(type, ch, time, missed));
  };

  int64_t t = shape.begin_time + gap(rng);
  while (stream.tags.size() < shape.tags) {
    double roll = percent(rng);
    if ((roll -= shape.error_percent) < 0) {
      push(Tag::Type::Error, CHANNEL_UNUSED, t);
    } else if ((roll -= shape.overflow_percent) < 0) {
      push(Tag::Type::OverflowBegin, CHANNEL_UNUSED, t);
      const int lost = std::uniform_int_distribution<int>(0, 5)(rng);
      for (int i = 0; i < lost; ++i) {
        push(Tag::Type::MissedEvents, channel(), t, missed_count(rng));
        if (percent(rng) < 50) t += gap(rng);
      }
      t += gap(rng);
      push(Tag::Type::OverflowEnd, CHANNEL_UNUSED, t);
    } else if ((roll -= shape.missed_outside_percent) < 0) {
      push(Tag::Type::MissedEvents, channel(), t, missed_count(rng));
    } else if ((roll -= shape.burst_percent) < 0) {
      const int size = std::uniform_int_distribution<int>(2, 8)(rng);
      for (int i = 0; i < size; ++i) {
        push(Tag::Type::TimeTag, channel(), t);
        if (i + 1 < size) t += jitter(rng);
      }
    } else {
      push(Tag::Type::TimeTag, channel(), t);
    }
    if (percent(rng) >= shape.equal_time_percent) t += gap(rng);
  }
  stream.end_time = stream.tags.back().time + 1 + (percent(rng) < 30 ? 0 : gap(rng));
  return stream;
}

TagStream makeTimeTagStream(std::mt19937_64& rng, const std::vector<int>& channels, size_t count,
                            int64_t mean_gap, int64_t begin_time) {
  StreamShape shape;
  shape.channels = channels;
  shape.tags = count;
  shape.mean_gap = mean_gap;
  shape.begin_time = begin_time;
  shape.error_percent = 0;
  shape.overflow_percent = 0;
  shape.burst_percent = 0;
  shape.equal_time_percent = 0;
  return makeRandomStream(rng, shape);
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

std::vector<Tag> sortedWithinEqualTimes(std::vector<Tag> tags) {
  std::stable_sort(tags.begin(), tags.end(), [](const Tag& a, const Tag& b) {
    return std::tuple(a.time, a.type, a.channel, a.missed_events) <
           std::tuple(b.time, b.type, b.channel, b.missed_events);
  });
  return tags;
}

std::string describe(const Tag& tag) {
  static const char* const kNames[] = {"time", "error", "overflow-begin", "overflow-end", "missed"};
  std::ostringstream text;
  const auto type = static_cast<unsigned>(tag.type);
  text << (type < 5 ? kNames[type] : "type?") << ' ';
  if (tag.channel == CHANNEL_UNUSED) {
    text << "-";
  } else {
    text << tag.channel;
  }
  text << '@' << tag.time;
  if (tag.type == Tag::Type::MissedEvents || tag.missed_events != 0) {
    text << " x" << tag.missed_events;
  }
  if (tag.reserved != 0) text << " reserved=" << static_cast<unsigned>(tag.reserved);
  return text.str();
}

::testing::AssertionResult sameTags(const std::vector<Tag>& actual,
                                    const std::vector<Tag>& expected) {
  const size_t common = std::min(actual.size(), expected.size());
  size_t first = 0;
  while (first < common && equalTags(actual[first], expected[first])) ++first;
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

VirtualChannelOutput checkVirtualChain(const TagStream& stream, const VirtualChainFactory& factory,
                                       const VirtualChannelRules& rules) {
  std::mt19937_64 rng(rules.seed);
  const int64_t run_end = stream.end_time + std::max<int64_t>(rules.tail, 0);
  std::function<bool(const Tag&)> is_inserted = rules.inserted;
  if (!is_inserted)
    is_inserted = [](const Tag& tag) { return tag.channel >= kFirstVirtualChannel; };
  auto canonical = [&](std::vector<Tag> tags) {
    return rules.order_free_among_equal_times ? sortedWithinEqualTimes(std::move(tags)) : tags;
  };
  const std::vector<Tag> expected_passed = canonical(expectedPassed(stream.tags, rules, run_end));

  VirtualChannelOutput first;
  std::vector<Tag> first_output_canonical;
  for (int cutting = 0; cutting < std::max(rules.cuttings, 1); ++cutting) {
    std::vector<int64_t> cuts;
    std::string how = "one block";
    if (cutting == 1) {
      cuts = cutsAtTagTimes(stream);
      how = "cut at every tag time";
    } else if (cutting > 1) {
      cuts = randomCuts(stream, rng, cutting % 2 == 1);
      how = cutting % 2 == 1 ? "many random cuts" : "a few random cuts";
    }
    SCOPED_TRACE("cutting " + std::to_string(cutting) + ": " + how);
    std::vector<Block> blocks = cutStream(stream, cuts);
    if (rules.tail > 0) blocks.push_back(Block{{}, stream.end_time, run_end});

    const std::vector<Block> seen = runThrough(blocks, factory, rules.workers);
    EXPECT_TRUE(blocksInOrder(blocks, seen));

    VirtualChannelOutput out;
    out.output = concatenate(seen);
    out.end_time = run_end;
    for (const Tag& tag : out.output) (is_inserted(tag) ? out.inserted : out.passed).push_back(tag);
    EXPECT_TRUE(sameTags(canonical(out.passed), expected_passed))
        << "the stream passed through the channel differs from its input";

    if (cutting == 0) {
      first = std::move(out);
      first_output_canonical = canonical(first.output);
    } else if (rules.cut_invariant) {
      EXPECT_TRUE(sameTags(canonical(out.output), first_output_canonical))
          << "the output depends on where the blocks were cut";
    }
  }
  return first;
}

VirtualChannelOutput checkVirtualChannel(const TagStream& stream,
                                         const VirtualChannelFactory& factory,
                                         const VirtualChannelRules& rules) {
  return checkVirtualChain(
      stream,
      [&factory](TestZeptick* tagger) {
        std::vector<std::unique_ptr<IteratorBase>> chain;
        chain.push_back(factory(tagger));
        return chain;
      },
      rules);
}

}  // namespace zeptick::testing
