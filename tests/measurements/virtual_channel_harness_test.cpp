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

using namespace testing;

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

TEST(VirtualChannelHarnessTest, PassesACorrectChannelAndCatchesEachBrokenInvariant) {
  std::mt19937_64 rng(11);
  testing::StreamShape shape;
  shape.tags = 300;
  shape.error_percent = shape.overflow_percent = 2;
  const TagStream stream = testing::makeRandomStream(rng, shape);
  auto failures = [&](Fault fault) {
    return failuresOf([&] {
      checkVirtualChannel(stream, [fault](TestZeptick* tagger) {
        return std::make_unique<CopyChannel>(tagger, 2, fault);
      });
    });
  };
  EXPECT_TRUE(failures(Fault::None).empty());
#ifdef NDEBUG
  EXPECT_TRUE(anyContains(failures(Fault::CopyAtFront), " after "));
  EXPECT_TRUE(anyContains(failures(Fault::CarryLastOver), ") holds "));
#else
  // With assertions on, the runner itself stops a block that leaves a channel out of order
  // or outside its span, before the harness could see it.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(failures(Fault::CopyAtFront), "tagsInsideTheirSpan");
  EXPECT_DEATH(failures(Fault::CarryLastOver), "tagsInsideTheirSpan");
#endif
  EXPECT_TRUE(anyContains(failures(Fault::DropFirst), "passed through the channel differs"));
  const auto cut_dependent = failures(Fault::MarkBlockBegin);
  EXPECT_TRUE(anyContains(cut_dependent, "depends on where the blocks were cut"));
  EXPECT_FALSE(anyContains(cut_dependent, "passed through the channel differs"));

  // The copies come back as inserted tags, the rest as passed ones.
  const auto out = checkVirtualChannel(stream, [](TestZeptick* tagger) {
    return std::make_unique<CopyChannel>(tagger, 2, Fault::None);
  });
  std::vector<Tag> expected;
  for (const Tag& tag : stream.tags) {
    if (tag.type == Tag::Type::TimeTag && tag.channel == 2) {
      expected.push_back(testing::timeTag(testing::kFirstVirtualChannel, tag.time));
    }
  }
  ASSERT_GT(expected.size(), 20u);
  EXPECT_TRUE(testing::sameTags(out.inserted, expected));
  EXPECT_TRUE(testing::sameTags(out.passed, stream.tags));
}

}  // namespace
}  // namespace zeptick
