// ZeptickFileWriter: compression choice, channel numbering, failures with their messages, and
// reuse of block states.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <random>
#include <tuple>

#include "file_format_testing.h"

namespace zeptick::testing {
namespace {

using ::testing::ThrowsMessage;

// `count` tags on channel 1, one per word: equal times compress well, random gaps do not.
std::vector<Tag> tagsOnOneChannel(size_t count, bool compressible) {
  std::mt19937_64 rng(1);
  std::vector<Tag> tags;
  int64_t time = 0;
  for (size_t i = 0; i < count; ++i) {
    if (!compressible) time += static_cast<int64_t>(rng() % (1 << 23));
    tags.push_back(timeTag(1, time));
  }
  return tags;
}

TEST(FileWriter, CompressesFromOneKibibyteOnWhenItShrinksAndNumbersChannelsOncePerMap) {
  ScratchDirectory directory;
  const std::string path = directory.file("c.ztbin");
  using Case = std::tuple<size_t, bool, uint32_t>;  // words, compressible, compression
  for (const auto& [words, compressible, compression] :
       {Case{255, true, 0}, Case{256, true, 1}, Case{5000, false, 0}, Case{0, true, 0}}) {
    SCOPED_TRACE(::testing::Message() << words << " words, compressible " << compressible);
    const std::vector<Tag> tags = tagsOnOneChannel(words, compressible);
    writeRecording(path, {{tags, 0, tags.empty() ? 1 : tags.back().time + 1}}, {{1, -1}});
    const std::vector<RawBlock> blocks = timeTagBlocks(readBytes(path));
    ASSERT_EQ(blocks.size(), 1u);
    const Bytes& header = blocks[0].payload;
    EXPECT_EQ(u32At(header, 24), words);  // word_count
    EXPECT_EQ(u32At(header, 36), compression);
    const uint32_t stored_size = u32At(header, 28);
    EXPECT_EQ(header.size(), 144 + stored_size);
    EXPECT_EQ(stored_size < words * 4, compression == 1);
    EXPECT_LE(stored_size, words * 4);
    const std::vector<Block> read = readRecording(path);
    ASSERT_EQ(read.size(), 1u);
    EXPECT_TRUE(sameTags(read[0].tags, tags));
  }

  {
    ZeptickFileWriter writer(path, 0, {});
    std::vector<std::pair<int32_t, int32_t>> many;
    for (int32_t channel = 1; channel <= 251; ++channel) many.emplace_back(channel, -channel);
    many.emplace_back(7, -7);  // a repeat takes no number
    writer.writeChannelMap(many);
    many.emplace_back(252, -252);
    EXPECT_THAT([&] { writer.writeChannelMap(many); },
                ThrowsMessage<std::runtime_error>(
                    "Too many channels. This format does not support more than 250 channels."));
    // The failed map changed nothing: channel 251 still has the last index.
    auto* state = writer.encodeBlock({timeTag(251, 10), timeTag(252, 11)}, 0, 20);
    ASSERT_EQ(state->data.size(), 1u);
    EXPECT_EQ(state->data[0].word, shortTag(10, 250));
    ZeptickFileWriter::finishBlock(state);
    writer.writeBlock(state);
    writer.recycleBlock(state);
    // A new map replaces the numbering; channel 1 is no longer known.
    writer.writeChannelMap({{2, -2}});
    state = writer.encodeBlock({timeTag(1, 25), timeTag(2, 30)}, 20, 40);
    ZeptickFileWriter::finishBlock(state);
    writer.writeBlock(state);
    writer.recycleBlock(state);
  }
  const std::vector<Block> read = readRecording(path);
  ASSERT_EQ(read.size(), 2u);
  EXPECT_TRUE(sameTags(read[0].tags, {timeTag(251, 10)}));
  EXPECT_TRUE(sameTags(read[1].tags, {timeTag(2, 30)}));
}

TEST(FileWriter, FailuresRaiseTheirMessagesAndBlockStatesAreReusedWithoutGrowing) {
  // The base name as given, not the numbered file name.
  EXPECT_THAT([] { ZeptickFileWriter("/nonexistent-zeptick-dir/data", 3, {}); },
              ThrowsMessage<std::runtime_error>("FileWriter: Error on opening the file "
                                                "'/nonexistent-zeptick-dir/data' for writing."));
  ScratchDirectory directory;
  const std::string base = directory.file("full");
  ASSERT_EQ(symlink("/dev/full", (base + ".ztbin").c_str()), 0);
  LogCapture log;
  {
    ZeptickFileWriter writer(base, 0, {});
    // More than the stream buffer, so the bytes must reach the device.
    const std::vector<Tag> tags = tagsOnOneChannel(600000, false);
    writer.writeChannelMap({{1, -1}});
    auto* state = writer.encodeBlock(tags, 0, tags.back().time + 1);
    ZeptickFileWriter::finishBlock(state);
    EXPECT_THAT([&] { writer.writeBlock(state); },
                ThrowsMessage<std::runtime_error>("FileWriter: Error on writing to the disk."));
    writer.recycleBlock(state);
  }
  // Closing meets the same failure and can only log it.
  expectMessages(log, {"FileWriter: Error on writing to the disk."});

  ZeptickFileWriter writer(directory.file("pool"), 0, {});
  writer.writeChannelMap({{1, -1}});
  const std::vector<Tag> tags = tagsOnOneChannel(3000, true);
  auto* first = writer.encodeBlock(tags, 0, 10);
  const void* first_words = first->data.data();
  writer.recycleBlock(first);
  for (int i = 0; i < 5; ++i) {
    auto* state = writer.encodeBlock(tags, 0, 10);
    ZeptickFileWriter::finishBlock(state);
    ASSERT_EQ(state, first);
    ASSERT_EQ(static_cast<const void*>(state->data.data()), first_words) << "block " << i;
    writer.writeBlock(state);
    writer.recycleBlock(state);
  }
  // Two blocks in flight at once need two states, and no more afterwards.
  auto* a = writer.encodeBlock(tags, 0, 10);
  auto* b = writer.encodeBlock(tags, 0, 10);
  writer.recycleBlock(a);
  writer.recycleBlock(b);
  for (int i = 0; i < 10; ++i) writer.recycleBlock(writer.encodeBlock(tags, 0, 10));
  EXPECT_EQ(writer.getBlockPool()->size(), 2u);
  // The writer of the next split file takes its states from the same pool.
  ZeptickFileWriter next(directory.file("pool"), 1, {}, writer.getBlockPool());
  auto* state = next.encodeBlock(tags, 0, 10);
  EXPECT_TRUE(state == a || state == b);
  next.recycleBlock(state);
}

}  // namespace
}  // namespace zeptick::testing
