#include "zeptick/dump.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "file_format_testing.h"

namespace zeptick::testing {
namespace {

std::vector<Tag> dumped(const std::string& path) {
  const Bytes bytes = readBytes(path);
  EXPECT_EQ(bytes.size() % sizeof(Tag), 0u);
  std::vector<Tag> tags(bytes.size() / sizeof(Tag));
  if (!tags.empty()) std::memcpy(tags.data(), bytes.data(), tags.size() * sizeof(Tag));
  return tags;
}

TEST(Dump, WritesRawRecordsOfTheChosenChannelsUpToTheLimit) {
  ScratchDirectory dir;
  TestZeptick tagger("TEST-1", 4);
  tagger.setIdleSpan(0);
  std::mt19937_64 rng(91);
  LogCapture log;
  Dump all(&tagger, dir.file("all.bin"));
  EXPECT_TRUE(log.contains(
      LOGGER_ERROR,
      "The Dump class is deprecated and will be removed soon. Please use FileWriter instead."));
  Dump some(&tagger, dir.file("some.bin"), 150, {2});
  Dump none(&tagger, dir.file("none.bin"), 0, {});
  const std::vector<Tag> stream = concat(tagger.pushBlocks(randomStream(rng, 100, {1, 2, 3})));
  ASSERT_TRUE(drain(tagger));
  // At their limits they stop by themselves; without one it runs on.
  EXPECT_FALSE(some.isRunning());
  EXPECT_FALSE(none.isRunning());
  EXPECT_TRUE(all.isRunning());
  all.stop();

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
  tagger.pushBlocks({Block{{timeTag(1, 5)}, 0, 10}});
  ASSERT_TRUE(drain(tagger));
  all.stop();
  EXPECT_EQ(dumped(dir.file("all.bin")).size(), 1u);
}

}  // namespace
}  // namespace zeptick::testing
