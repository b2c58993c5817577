#include "zeptick/dump.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "file_format_testing.h"
#include "replay_test_support.h"
#include "support/log_capture.h"

namespace zeptick {
namespace {

using testing::fields;

std::vector<Tag> dumped(const std::string& path) {
  const testing::Bytes bytes = testing::readBytes(path);
  EXPECT_EQ(bytes.size() % sizeof(Tag), 0u);
  std::vector<Tag> tags(bytes.size() / sizeof(Tag));
  if (!tags.empty()) std::memcpy(tags.data(), bytes.data(), tags.size() * sizeof(Tag));
  return tags;
}

class DumpTest : public ::testing::Test {
 protected:
  DumpTest() { tagger.setIdleSpan(0); }
  testing::ScratchDirectory dir;
  testing::TestZeptick tagger{"TEST-1", 4};
  std::mt19937_64 rng{91};
};

TEST_F(DumpTest, WritesRawRecordsOfTheChosenChannelsUpToTheLimit) {
  testing::LogCapture log;
  Dump all(&tagger, dir.file("all.bin"));
  EXPECT_TRUE(log.contains(
      "The Dump class is deprecated and will be removed soon. Please use FileWriter instead."));
  Dump some(&tagger, dir.file("some.bin"), 150, {2});
  Dump none(&tagger, dir.file("none.bin"), 0, {});
  const std::vector<testing::Block> pushed =
      tagger.pushBlocks(testing::randomStream(rng, 100, {1, 2, 3}));
  ASSERT_TRUE(testing::drain(tagger));
  // At their limits they stop by themselves; without one it runs on.
  EXPECT_FALSE(some.isRunning());
  EXPECT_FALSE(none.isRunning());
  EXPECT_TRUE(all.isRunning());
  all.stop();

  const std::vector<Tag> stream = testing::concat(pushed);
  EXPECT_EQ(fields(dumped(dir.file("all.bin"))), fields(stream));
  std::vector<Tag> expected;
  for (const Tag& tag : stream) {
    if (tag.type != Tag::Type::TimeTag || tag.channel == 2) expected.push_back(tag);
  }
  ASSERT_GT(expected.size(), 150u);
  expected.resize(150);
  EXPECT_EQ(fields(dumped(dir.file("some.bin"))), fields(expected));
  EXPECT_TRUE(dumped(dir.file("none.bin")).empty());

  // A clear starts the file afresh.
  all.start();
  all.clear();
  tagger.pushBlocks({testing::Block{{Tag{Tag::Type::TimeTag, 0, 0, 1, 5}}, 0, 10}});
  ASSERT_TRUE(testing::drain(tagger));
  all.stop();
  EXPECT_EQ(dumped(dir.file("all.bin")).size(), 1u);
}

}  // namespace
}  // namespace zeptick
