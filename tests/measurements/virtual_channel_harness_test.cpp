// The harness is only worth something if it fails on broken channels: each
// faulty channel here breaks one invariant and must be caught, while a correct
// copying channel passes and its inserted tags match a brute-force reference.

#include "support/virtual_channel_harness.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace zeptick {
namespace {

using testing::checkVirtualChannel;
using testing::TagStream;
using testing::TestZeptick;
using testing::VirtualChannelRules;

enum class Fault { None, CopyAtFront, DropFirst, CarryLastOver, MarkBlockBegin };

// Copies time tags of one channel onto a virtual channel, right behind each
// source; the faults break that in the ways a real channel could go wrong.
class CopyChannel : public IteratorBase {
 public:
  CopyChannel(ZeptickBase* tagger, int input, Fault fault)
      : IteratorBase(tagger), input(input), fault(fault) {
    virtual_channel = getNewVirtualChannel();
    registerChannel(input);
    finishInitialization();
  }
  ~CopyChannel() override { stop(); }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t) override {
    output.clear();
    if (fault == Fault::MarkBlockBegin) {
      output.push_back(Tag{Tag::Type::TimeTag, 0, 0, virtual_channel, begin_time});
    }
    if (fault == Fault::CarryLastOver && carried) output.push_back(*carried);
    carried.reset();
    for (size_t i = 0; i < tags.size(); ++i) {
      const Tag& tag = tags[i];
      if (fault == Fault::DropFirst && i == 0) continue;
      output.push_back(tag);
      if (tag.type != Tag::Type::TimeTag || tag.channel != input) continue;
      Tag copy = tag;
      copy.channel = virtual_channel;
      if (fault == Fault::CopyAtFront) {
        output.insert(output.begin(), copy);
      } else {
        output.push_back(copy);
      }
    }
    if (fault == Fault::CarryLastOver && !output.empty()) {
      carried = output.back();
      output.pop_back();
    }
    tags.swap(output);
    return true;
  }

 private:
  int input;
  int virtual_channel;
  Fault fault;
  std::vector<Tag> output;
  std::optional<Tag> carried;
};

// Every failure message the harness reports while running `check`.
std::vector<std::string> failuresOf(const std::function<void()>& check) {
  ::testing::TestPartResultArray results;
  {
    ::testing::ScopedFakeTestPartResultReporter reporter(
        ::testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    check();
  }
  std::vector<std::string> messages;
  for (int i = 0; i < results.size(); ++i)
    messages.push_back(results.GetTestPartResult(i).message());
  return messages;
}

bool anyContains(const std::vector<std::string>& messages, const std::string& text) {
  for (const std::string& message : messages) {
    if (message.find(text) != std::string::npos) return true;
  }
  return false;
}

TagStream smallStream(uint64_t seed) {
  std::mt19937_64 rng(seed);
  testing::StreamShape shape;
  shape.tags = 300;
  shape.error_percent = 2;
  shape.overflow_percent = 2;
  return testing::makeRandomStream(rng, shape);
}

std::unique_ptr<IteratorBase> copyChannel(TestZeptick* tagger, Fault fault) {
  return std::make_unique<CopyChannel>(tagger, 2, fault);
}

TEST(VirtualChannelHarnessTest, CorrectChannelPassesAndReturnsItsCopies) {
  const TagStream stream = smallStream(7);
  const auto out = checkVirtualChannel(
      stream, [](TestZeptick* tagger) { return copyChannel(tagger, Fault::None); });

  std::vector<Tag> expected;
  for (const Tag& tag : stream.tags) {
    if (tag.type == Tag::Type::TimeTag && tag.channel == 2) {
      expected.push_back(Tag{Tag::Type::TimeTag, 0, 0, testing::kFirstVirtualChannel, tag.time});
    }
  }
  ASSERT_GT(expected.size(), 20u);
  EXPECT_TRUE(testing::sameTags(out.inserted, expected));
  EXPECT_EQ(out.output.size(), stream.tags.size() + expected.size());
  EXPECT_EQ(out.end_time, stream.end_time);
}

TEST(VirtualChannelHarnessTest, CatchesEachBrokenInvariant) {
  const TagStream stream = smallStream(11);
  auto failures = [&](Fault fault) {
    return failuresOf([&] {
      checkVirtualChannel(stream,
                          [fault](TestZeptick* tagger) { return copyChannel(tagger, fault); });
    });
  };
  EXPECT_TRUE(anyContains(failures(Fault::CopyAtFront), " after "));
  EXPECT_TRUE(anyContains(failures(Fault::DropFirst), "passed through the channel differs"));
  EXPECT_TRUE(anyContains(failures(Fault::CarryLastOver), ") holds "));
  const auto cut_dependent = failures(Fault::MarkBlockBegin);
  EXPECT_TRUE(anyContains(cut_dependent, "depends on where the blocks were cut"));
  EXPECT_FALSE(anyContains(cut_dependent, "passed through the channel differs"));
}

TEST(VirtualChannelHarnessTest, HonoursShiftDroppedTagsAndTail) {
  // A channel that holds the stream back by a fixed lag looks broken unless the
  // rules say so; the tail lets the held-back end of the stream out.
  const TagStream stream = smallStream(5);
  const int64_t lag = 5000;
  auto make = [](TestZeptick* tagger) { return copyChannel(tagger, Fault::None); };

  VirtualChannelRules shifted;
  shifted.shift = [lag](const Tag&) { return lag; };
  shifted.cuttings = 1;
  EXPECT_TRUE(anyContains(failuresOf([&] { checkVirtualChannel(stream, make, shifted); }),
                          "passed through the channel differs"));

  VirtualChannelRules dropping;
  dropping.passed = [](std::vector<Tag> input) {
    std::erase_if(input, [](const Tag& tag) { return tag.type == Tag::Type::Error; });
    return input;
  };
  dropping.cuttings = 1;
  EXPECT_TRUE(anyContains(failuresOf([&] { checkVirtualChannel(stream, make, dropping); }),
                          "passed through the channel differs"));

  VirtualChannelRules tail;
  tail.tail = 123456;
  tail.cuttings = 2;
  EXPECT_EQ(checkVirtualChannel(stream, make, tail).end_time, stream.end_time + 123456);
}

TEST(VirtualChannelHarnessTest, RandomStreamHasEveryTagTypeEqualTimesAndBursts) {
  std::mt19937_64 rng(3);
  testing::StreamShape shape;
  shape.tags = 20000;
  shape.missed_outside_percent = 0.5;
  const TagStream stream = testing::makeRandomStream(rng, shape);
  int types[5] = {};
  int equal_times = 0;
  int open_overflows = 0;
  for (size_t i = 0; i < stream.tags.size(); ++i) {
    const Tag& tag = stream.tags[i];
    ++types[static_cast<int>(tag.type)];
    if (i > 0) {
      ASSERT_GE(tag.time, stream.tags[i - 1].time);
      equal_times += tag.time == stream.tags[i - 1].time;
    }
    ASSERT_GE(tag.time, stream.begin_time);
    ASSERT_LT(tag.time, stream.end_time);
    if (tag.type == Tag::Type::OverflowBegin) ++open_overflows;
    if (tag.type == Tag::Type::OverflowEnd) --open_overflows;
    ASSERT_GE(open_overflows, 0);
    ASSERT_LE(open_overflows, 1);
  }
  for (int type = 0; type < 5; ++type) EXPECT_GT(types[type], 0) << type;
  EXPECT_EQ(open_overflows, 0);
  EXPECT_GT(equal_times, 1000);
}

TEST(VirtualChannelHarnessTest, CutStreamKeepsEveryTagInItsSpan) {
  TagStream stream;
  stream.begin_time = 100;
  stream.end_time = 200;
  for (int64_t t : {100, 120, 120, 150, 199})
    stream.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, 1, t});
  const auto blocks = testing::cutStream(stream, {150, 120, 120, 300, 50, 200});
  // Out-of-span cuts are dropped; the repeat gives a zero-length block.
  ASSERT_EQ(blocks.size(), 5u);
  const int64_t spans[][2] = {{100, 120}, {120, 120}, {120, 150}, {150, 200}, {200, 200}};
  const size_t counts[] = {1, 0, 2, 2, 0};
  for (size_t b = 0; b < blocks.size(); ++b) {
    EXPECT_EQ(blocks[b].begin_time, spans[b][0]);
    EXPECT_EQ(blocks[b].end_time, spans[b][1]);
    EXPECT_EQ(blocks[b].tags.size(), counts[b]);
  }
}

}  // namespace
}  // namespace zeptick
