// ZeptickFileReader on good, damaged and forged files: what it delivers, and that each fault
// is told exactly once.

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <sys/resource.h>

#include <functional>
#include <random>

#include "file_format_testing.h"

namespace zeptick::testing {
namespace {

// A recording of small raw blocks and one large compressed block, cut short, changed byte by
// byte and damaged: a reader delivers the blocks before the fault, nothing from it on, and
// says why.
TEST(RecordedFile, CutChangedAndDamagedFilesEndAtTheFaultWithTheirMessages) {
  std::mt19937_64 rng(5);
  std::vector<Block> blocks = randomStream(rng, 6, {1, 2});
  Block large{{}, blocks.back().end_time, blocks.back().end_time + 100000};
  for (int64_t t = 0; t < 3000; ++t) large.tags.push_back(timeTag(1 + t % 2, large.begin_time + t));
  blocks.push_back(large);
  blocks.push_back(Block{{timeTag(2, large.end_time + 5)}, large.end_time, large.end_time + 10});
  ScratchDirectory directory;
  const std::string path = directory.file("recording.ztbin");
  writeRecording(path, blocks, {{1, -1}, {2, -2}});
  const Bytes bytes = readBytes(path);
  const std::vector<RawBlock> time_blocks = timeTagBlocks(bytes);
  ASSERT_EQ(time_blocks.size(), blocks.size());
  ASSERT_EQ(u32At(time_blocks[6].payload, 36), 1u) << "the large block should be compressed";
  ASSERT_GE(u32At(time_blocks[1].payload, 24), 2u) << "damage tests need raw words in block 1";
  ASSERT_GE(u32At(time_blocks[3].payload, 24), 2u) << "and in block 3";
  const std::vector<Block> clean = readRecording(path);
  // Offset in the file of a byte of time tag block `index`, counted from its payload.
  const auto offsetIn = [&](size_t index, size_t at) {
    return time_blocks[index].offset + 16 + at;
  };
  const std::string invalid = "Time tag block data with invalid hash or signature";

  // Cut at every length: every complete block is delivered.
  const std::string cut = directory.file("cut.ztbin");
  for (size_t length = 0; length < bytes.size(); ++length) {
    writeBytes(cut, Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(length)));
    LogCapture log;
    const std::vector<Block> read = readRecording(cut);
    size_t complete = 0;
    for (const RawBlock& block : time_blocks) {
      complete += block.offset + 16 + (block.payload.size() + 15) / 16 * 16 <= length;
    }
    ASSERT_EQ(read.size(), complete) << "cut at " << length;
    for (size_t b = 0; b < read.size(); ++b) {
      ASSERT_TRUE(sameTags(read[b].tags, clean[b].tags)) << "cut at " << length;
    }
    // The short read, then what could not be loaded: two errors, whatever the place.
    const std::vector<std::string> texts = messageTexts(log);
    ASSERT_EQ(texts.size(), 2u) << "cut at " << length;
    EXPECT_EQ(texts[0], "File access failed") << "cut at " << length;
  }

  // Every byte that the digest or the signature covers, changed in turn in a raw and in a
  // compressed block. (The span and flag fields before the digest are not covered by it.)
  for (const size_t block : {size_t{3}, size_t{6}}) {
    for (size_t at = 48; at < time_blocks[block].payload.size(); ++at) {
      if (at >= 144 + u32At(time_blocks[block].payload, 28)) break;  // the padding
      Bytes damaged = bytes;
      damaged[offsetIn(block, at)] ^= 0xFF;
      writeBytes(path, damaged);
      LogCapture log;
      const std::vector<Block> read = readRecording(path, true);
      ASSERT_EQ(read.size(), block) << "block " << block << " byte " << at;
      const std::vector<std::string> messages = messageTexts(log);
      const bool unpacked = messages.size() == 1 && messages[0].ends_with("decompressed");
      const bool refused = messages.size() == 2 && messages[1].ends_with(invalid) &&
                           (messages[0].ends_with(at < 80 || at >= 144 ? "Hash missmatch"
                                                                       : "ECC signature is wrong"));
      EXPECT_TRUE(refused || (unpacked && block == 6 && at >= 144))
          << "block " << block << " byte " << at << ": " << ::testing::PrintToString(messages);
    }
  }

  // Header fields and data damaged one at a time.
  auto put = [&](size_t block, size_t at, uint32_t value) {
    return [&, block, at, value](Bytes& file) {
      putLittleEndian(file, offsetIn(block, at), value, 4);
    };
  };
  // One tick later, with a digest that matches again: only the signature can tell.
  auto forge = [&](Bytes& file) {
    file[offsetIn(1, 144)] ^= 0x01;
    unsigned int length = 0;
    ASSERT_EQ(EVP_Digest(&file[offsetIn(1, 144)], u32At(time_blocks[1].payload, 24) * 4,
                         &file[offsetIn(1, 48)], &length, EVP_sha1(), nullptr),
              1);
  };
  struct Damage {
    const char* what;
    size_t block;  // the first block lost
    std::function<void(Bytes&)> edit;
    std::vector<std::string> messages;
    bool verify;  // only a verifying reader notices
  };
  const std::string unpacked = "Time tag block data could not be decompressed";
  const std::string small = "Block is too small";
  const std::string raw_lost = "Time tag block data could not be loaded";
  const std::string packed_lost = "Compressed time tag block data could not be loaded";
  const std::string unknown = "Time tag block data with unknown compression";
  const std::vector<Damage> damages = {
      {"forged data with a fresh digest", 1, forge, {"ECC signature is wrong", invalid}, true},
      {"one word more than compressed", 6, put(6, 24, 3001), {unpacked}, false},
      {"compressed block claiming 16 GiB", 6, put(6, 24, 0xFFFFFFFF), {unpacked}, false},
      {"more stored bytes than the block", 6, put(6, 28, 0x7FFFFFFF), {small, packed_lost}, false},
      {"more raw words than the block", 1, put(1, 24, 0x40000000), {small, raw_lost}, false},
      {"unknown compression", 1, put(1, 36, 2), {unknown}, false},
  };
  for (const Damage& damage : damages) {
    SCOPED_TRACE(damage.what);
    Bytes damaged = bytes;
    damage.edit(damaged);
    writeBytes(path, damaged);
    {
      LogCapture log;
      const std::vector<Block> read = readRecording(path, damage.verify);
      ASSERT_EQ(read.size(), damage.block);
      for (size_t b = 0; b < read.size(); ++b) EXPECT_TRUE(sameTags(read[b].tags, clean[b].tags));
      expectMessages(log, damage.messages);
    }
    if (damage.verify) {
      LogCapture log;
      EXPECT_EQ(readRecording(path, false).size(), blocks.size());
      EXPECT_TRUE(log.messages().empty());
    }
  }
}

TEST(FileReader, DecodesEveryCodeWithTheBlocksTimeUnitAndTheLatestMapsAndRefusesBrokenFiles) {
  ScratchDirectory directory;
  const std::string path = directory.file("unit.ztbin");
  // Worked by hand with time_unit 3 from start time 100.
  const std::vector<uint32_t> words = {
      shortTag(1, 251),  // t = 100 + (3 << 24)
      shortTag(2, 0),    // t += 6: time tag on index 0
      shortTag(1, 252),  // t += 3 << 48
      shortTag(0, 1),    // time tag on index 1 at the same t
      shortTag(4, 253),  // t += 12: overflow begins
      shortTag(9, 0),    // 9 missed events on index 0 at t
      shortTag(5, 7),    // index 7 is in no map: the unused channel
      shortTag(1, 254),  // t += 3: overflow ends
      shortTag(5, 255),  // t += 15: error
      shortTag(0, 7),    // time tag on an unmapped index
  };
  writeBytes(path, FileBuilder()
                       .fileHeader()
                       .channelMap({{0, 4, -4}, {1, 2, -2}})
                       .channelMap({{1, 9, -9}, {600, 6, -6}})  // refines; 600 names no code
                       .block(77, Bytes(40, 0xAB))              // a kind this reader does not know
                       .timeTags(100, 200, words, 3)
                       .block(77, {})
                       .timeTags(200, 300, {shortTag(8, 1)}, 1, true)
                       .end()
                       .bytes);
  {
    LogCapture log;
    ZeptickFileReader reader(path, false);
    std::vector<Tag> tags;
    uint64_t overflows = 10;
    ASSERT_TRUE(reader.decodeBlock(tags, 100, overflows));
    const int64_t t1 = 100 + (int64_t{3} << 24) + 6;
    const int64_t t2 = t1 + (int64_t{3} << 48);
    const int64_t t3 = t2 + 12;
    EXPECT_TRUE(sameTags(
        tags,
        {timeTag(4, t1), timeTag(9, t2), marker(Tag::Type::OverflowBegin, t3), missedTag(4, t3, 9),
         missedTag(CHANNEL_UNUSED, t3, 5), marker(Tag::Type::OverflowEnd, t3 + 3),
         marker(Tag::Type::Error, t3 + 18), timeTag(CHANNEL_UNUSED, t3 + 18)}));
    EXPECT_EQ(overflows, 12u);
    // The second block starts in overflow: its channel word is a missed-event count. A start
    // time other than begin_time moves the whole block.
    ASSERT_TRUE(reader.decodeBlock(tags, 5000, overflows));
    EXPECT_TRUE(sameTags(tags, {missedTag(9, 5000, 8)}));
    EXPECT_EQ(reader.getInvertedChannel(2), -2);  // kept though its index was given to 9
    EXPECT_EQ(reader.getInvertedChannel(-9), 9);
    EXPECT_EQ(reader.getInvertedChannel(6), -6);
    EXPECT_EQ(reader.getInvertedChannel(3), CHANNEL_UNUSED);
    // At the end: nothing decoded, the caller's tags untouched.
    EXPECT_FALSE(reader.decodeBlock(tags, 0, overflows));
    EXPECT_EQ(tags.size(), 1u);
    // A missing file is no fault: it holds nothing.
    EXPECT_TRUE(readRecording(directory.file("missing.ztbin")).empty());
    EXPECT_TRUE(log.messages().empty());
  }
  const std::string small = "Block is too small", access = "File access failed";
  const auto sized = [](uint32_t type, uint32_t size, const Bytes& payload) {
    return FileBuilder().fileHeader().blockWithSize(type, size, payload).bytes;
  };
  // Blocks too small for their kind, sizes of 4 GiB, a marker past the end, a wrong magic, and a
  // file that needs a newer reader.
  const std::vector<std::pair<Bytes, std::vector<std::string>>> cases = {
      {FileBuilder().blockWithSize(2, 8, Bytes(32, 0)).bytes,
       {small, "File header could not be loaded"}},
      {sized(3, 8, Bytes(16, 0)), {small, "Channel map could not be loaded"}},
      {sized(3, 32, {3, 0, 0, 0}), {small, "Channel map data could not be loaded"}},
      {sized(4, 100, Bytes(144, 0)), {small, "Time tag block header could not be loaded"}},
      {sized(5, 0xFFFFFFF0, Bytes(64, 'x')), {access, "JSON config could not be loaded"}},
      {sized(6, 40, Bytes(20, 'x')), {access, "last_marker could not be loaded"}},
      {sized(3, 0xFFFFFFF0, {0xF0, 0xFF, 0xFF, 0x0F}),
       {access, "Channel map data could not be loaded"}},
      {Bytes(48, 1), {"Incorrect Header"}},
      {FileBuilder().fileHeader(2).channelMap({{0, 1, -1}}).timeTags(0, 10, {1}).end().bytes,
       {"This file is too new. Please update your Zeptick installation."}},
  };
  for (const auto& [file, messages] : cases) {
    SCOPED_TRACE(messages.back());
    writeBytes(path, file);
    LogCapture log;
    EXPECT_TRUE(readRecording(path).empty());
    expectMessages(log, messages);
  }

  // Alignment 0: no padding anywhere after the file header.
  FileBuilder unaligned = FileBuilder().fileHeader(1, 0).block(5, {'{', '}', ' '});
  writeBytes(path, unaligned.channelMap({{0, 3, -3}}).timeTags(0, 9, {shortTag(4, 0)}).end().bytes);
  LogCapture log;
  EXPECT_TRUE(sameTags(readRecording(path, false).at(0).tags, {timeTag(3, 4)}));
  EXPECT_EQ(ZeptickFileReader(path, false).getConfiguration(), "{} ");
  EXPECT_TRUE(log.messages().empty());
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Under an address-space limit far below what the headers claim, the reader must still end
// these files calmly: a single allocation of the claimed size would throw.
[[noreturn]] void readWithLittleMemory(const std::string& path) {
  rlimit limit{uint64_t{1} << 30, uint64_t{1} << 30};
  setrlimit(RLIMIT_AS, &limit);
  try {
    readRecording(path, false);
  } catch (...) {
    std::_Exit(1);
  }
  std::_Exit(0);
}

TEST(FileReader, HeaderClaimsDoNotAllocate) {
  ScratchDirectory directory;
  const std::string path = directory.file("claims.ztbin");
  Bytes header(144, 0);
  putLittleEndian(header, 24, 0x3FFFFF00, 4);  // word_count: 4 GiB of words
  putLittleEndian(header, 28, 0xFFFFFC00, 4);
  const std::vector<Bytes> files = {
      FileBuilder().fileHeader().blockWithSize(4, 0xFFFFFFF0, header).bytes,
      FileBuilder().fileHeader().blockWithSize(5, 0xFFFFFFF0, Bytes(64, 'x')).bytes,
  };
  for (const Bytes& file : files) {
    writeBytes(path, file);
    EXPECT_EXIT(readWithLittleMemory(path), ::testing::ExitedWithCode(0), "");
  }
}
#endif

}  // namespace
}  // namespace zeptick::testing
