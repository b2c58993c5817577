// The measurements that move tags between a stream and files: FileWriter on a live stream and
// FileReader on what it leaves (split sets read back whole, in any chunk size, and replayed;
// damaged sets and names that cannot be opened), TimeTagStream, and the old raw Dump.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_format_testing.h"
#include "zeptick/dump.h"
#include "zeptick/file_reader.h"
#include "zeptick/file_writer.h"
#include "zeptick/time_tag_stream.h"

namespace zeptick::testing {
namespace {

using ::testing::ThrowsMessage;

// Everything `reader` delivers, fetched in random chunk sizes. Each span starts where the last
// one ended (the first at the recording's begin), and ends at its last tag.
std::vector<Tag> readInChunks(FileReader& reader, std::mt19937_64& rng, int64_t span_start) {
  std::uniform_int_distribution<uint64_t> chunk(0, 700);
  std::vector<Tag> read;
  while (reader.hasData()) {
    const uint64_t n = chunk(rng);
    const TimeTagStreamBuffer buffer = reader.getData(n);
    EXPECT_LE(buffer.size, n);
    EXPECT_EQ(buffer.tStart, span_start);
    const std::vector<Tag> part = bufferTags(buffer);
    EXPECT_EQ(buffer.tGetData, part.empty() ? span_start : part.back().time);
    span_start = buffer.tGetData;
    read.insert(read.end(), part.begin(), part.end());
  }
  EXPECT_EQ(reader.getData(10).size, 0u);
  std::vector<Tag> raw = {Tag{}};
  EXPECT_TRUE(reader.getDataRaw(raw));
  EXPECT_TRUE(raw.empty());
  return read;
}

// Everything `reader` hands out block by block; each refused block counts in `refusals`, where
// given, and is a failure where not.
std::vector<Tag> readRaw(FileReader& reader, int* refusals = nullptr) {
  std::vector<Tag> read, block;
  while (reader.hasData()) {
    const bool delivered = reader.getDataRaw(block);
    EXPECT_TRUE(delivered || refusals != nullptr);
    if (refusals != nullptr) *refusals += !delivered;
    read.insert(read.end(), block.begin(), block.end());
  }
  return read;
}

class FileMeasurements : public ::testing::Test {
 protected:
  FileMeasurements() { tagger.setIdleSpan(0); }
  // Pushes `blocks`; waits up to a minute for them to pass, so a stalled writer fails, not hangs.
  std::vector<Block> push(std::vector<Block> blocks) {
    blocks = tagger.pushBlocks(std::move(blocks));
    const uint32_t fence = tagger.getFence(true);
    tagger.pushBlocks({Block{{}, 0, 0}});  // carries the fence
    EXPECT_TRUE(tagger.waitForFence(fence, 60000));
    return blocks;
  }
  ScratchDirectory dir;
  TestZeptick tagger{"TEST-1", 8};
  std::mt19937_64 rng{77};
};

// Eight workers finish blocks in parallel while tiny files roll over all the time, so rollovers
// keep replacing the writer under blocks still in flight.
TEST_F(FileMeasurements, WriterSplitRecordingReadsBackCompleteAndInOrder) {
  const std::string base = dir.file("run");
  FileWriter writer(&tagger, base, {1, 2, -1});
  writer.setMaxFileSize(3000);
  const std::vector<Block> pushed = push(randomStream(rng, 600, {1, 2, 3, -1}));
  writer.stop();

  const std::vector<std::string> files = splitFiles(base);
  EXPECT_GT(files.size(), 20u);
  // The head file holds no tags; every other file holds a run of whole blocks.
  EXPECT_TRUE(readRecording(files[0]).empty());
  // Files roll over only outside overflows, so no missed-event count is lost at a split.
  std::vector<Tag> expected;
  bool overflow = false;
  for (const Block& block : pushed) {
    const std::vector<Tag> kept =
        expectedAfterFile(block.tags, block.begin_time, {1, 2, -1}, overflow);
    expected.insert(expected.end(), kept.begin(), kept.end());
  }
  FileReader reader(base);
  EXPECT_TRUE(sameTags(readInChunks(reader, rng, pushed.front().begin_time), expected));

  uint64_t bytes = 0;
  for (const std::string& name : files) bytes += std::filesystem::file_size(name);
  EXPECT_EQ(writer.getTotalSize(), static_cast<int64_t>(bytes));
  EXPECT_EQ(writer.getTotalEvents(), static_cast<int64_t>(expected.size()));

  // Replay rebases the recording onto its own clock, which starts at 0, and finds no gap
  // anywhere, so it adds no error tag.
  std::vector<Tag> shifted = expected;
  for (Tag& tag : shifted) tag.time -= pushed.front().begin_time;
  EXPECT_TRUE(sameTags(Replay(4).play(base), shifted));
}

TEST_F(FileMeasurements, WriterSplitClearAndMarkersKeepOneRecordingAndBadSetupsAreRefused) {
  const std::string base = dir.file("parts");
  FileWriter writer(&tagger, base, {1});
  const int64_t shift = push({Block{{timeTag(1, 10)}, 0, 100}}).front().begin_time;
  writer.setMarker("after first");
  writer.split();
  push({Block{{timeTag(1, 150)}, 100, 200}});
  writer.clear();
  push({Block{{timeTag(1, 250)}, 200, 300}});
  // A new name restarts the numbering, with a head file of its own.
  const std::string renamed = dir.file("renamed");
  writer.split(renamed);
  push({Block{{timeTag(1, 350)}, 300, 400}});
  writer.stop();

  EXPECT_EQ(splitFiles(base).size(), 4u);
  EXPECT_EQ(splitFiles(renamed).size(), 2u);
  // Given two recordings, the reader reads one set after the other.
  FileReader both(std::vector<std::string>{base, renamed});
  EXPECT_TRUE(sameTags(readRaw(both), {timeTag(1, shift + 10), timeTag(1, shift + 150),
                                       timeTag(1, shift + 250), timeTag(1, shift + 350)}));
  // The marker landed in the first data file, behind its blocks.
  ZeptickFileReader first_file(splitFiles(base)[1], true);
  EXPECT_EQ(concatenate(readRecording(splitFiles(base)[1])).size(), 1u);
  while (first_file.skipBlock()) continue;
  EXPECT_EQ(first_file.getLastMarker(), "after first");
  EXPECT_EQ(FileReader(base).getConfiguration(), tagger.getConfiguration());

  std::vector<int> too_many(251, 1);
  EXPECT_THROW(FileWriter(&tagger, dir.file("x"), too_many), std::runtime_error);
  EXPECT_THROW(FileWriter(&tagger, dir.file("y"), {}), std::runtime_error);
  EXPECT_THROW(FileWriter(&tagger, dir.file("no/such/dir/z"), {1}), std::runtime_error);
  // Only unused channels: an empty channel map, and nothing registered.
  { FileWriter writer(&tagger, dir.file("unused"), {CHANNEL_UNUSED}); }
  EXPECT_EQ(splitFiles(dir.file("unused")).size(), 2u);

  FileWriter unlimited(&tagger, dir.file("one"), {1, 2});
  unlimited.setMaxFileSize(-1);
  push(randomStream(rng, 200, {1, 2}));
  unlimited.stop();
  EXPECT_EQ(splitFiles(dir.file("one")).size(), 2u);
}

// A split file of another recording, an empty one (a full disk, a killed recorder) and one cut
// inside a block: the reader says what it found and where, and reads on with the next recording.
TEST_F(FileMeasurements, ReaderEndsARecordingAtAForeignOrEmptySplitFileAndReadsACutOneOn) {
  const std::string other = dir.file("other");
  RecordingPlan plan = smallPlan(41);
  writeRecording(other, plan, 4000);
  const std::vector<Tag> whole_other = generatedTags(plan);
  // Reads `base` then the other recording: the first `kept` split files of `base` as a verifying
  // reader reads them, file by file, then all of the other.
  const auto expectRead = [&](const std::string& base, size_t kept, int refusals,
                              const std::vector<std::string>& messages) {
    std::vector<Tag> expected;
    for (uint32_t index = 1; index <= kept; ++index) {
      const std::vector<Tag> more =
          concatenate(readRecording(ZeptickFile::makeFileName(base, index)));
      expected.insert(expected.end(), more.begin(), more.end());
    }
    expected.insert(expected.end(), whole_other.begin(), whole_other.end());
    LogCapture log;
    FileReader reader(std::vector<std::string>{base, other});
    int refused = 0;
    EXPECT_TRUE(sameTags(readRaw(reader, &refused), expected));
    EXPECT_EQ(refused, refusals);
    expectMessages(log, messages);
  };
  const auto name = [&](const char* base, uint32_t index) {
    return ZeptickFile::makeFileName(dir.file(base), index);
  };
  plan.seed = 42;
  for (const char* base : {"foreign", "empty", "cut"}) writeRecording(dir.file(base), plan, 4000);
  ASSERT_TRUE(std::filesystem::exists(name("cut", 3)));
  std::filesystem::copy_file(name("other", 2), name("foreign", 2),
                             std::filesystem::copy_options::overwrite_existing);
  expectRead(dir.file("foreign"), 1, 1,
             {"File '" + name("foreign", 2) +
              "' matches the naming schema, but was not written in the same FileWriter. Skipped."});
  std::filesystem::resize_file(name("empty", 2), 0);
  expectRead(dir.file("empty"), 1, 0,
             {"File access failed", "Incorrect Header",
              "File '" + name("empty", 2) + "' has no file header: the recording ends before it."});
  const std::string cut = name("cut", 1);
  std::filesystem::resize_file(cut, std::filesystem::file_size(cut) * 2 / 3);
  expectRead(dir.file("cut"), splitFiles(dir.file("cut")).size() - 1, 0,
             {"File access failed", "Time tag block data could not be loaded",
              "File '" + cut + "' ends early, after the data up to " +
                  std::to_string(readRecording(cut).back().end_time) + " ps."});

  EXPECT_THROW(FileReader(std::vector<std::string>{}), std::runtime_error);
  const std::vector<std::string> names = {other, dir.file("missing")};
  EXPECT_THAT(
      [&] { FileReader reader(names); },
      ThrowsMessage<std::runtime_error>("FileReader could not open file '" + names[1] + "'."));
  FileReader again(other);
  EXPECT_EQ(again.getData(0).size, 0u);
  EXPECT_NE(again.getConfiguration().find("generator"), std::string::npos);
  EXPECT_EQ(again.getData(5).size, 5u);
}

// With a channel filter and without, with and without a limit: what each span collects, and
// that the overflow mark says that data are missing even when the tag that set it was dropped.
TEST_F(FileMeasurements, StreamCollectsFilteredTagsUpToItsLimitAndChainsSpans) {
  const std::vector<Block> blocks = randomStream(rng, 60, {1, 2, 3, -1});
  using Setting = std::pair<std::vector<int>, uint64_t>;
  for (const auto& [filter, limit] : {Setting{{2, -1}, 1 << 20}, Setting{{}, 7}, {{1, 2}, 7}}) {
    SCOPED_TRACE(limit);
    Direct<TimeTagStream> stream(&tagger, limit, filter);  // fed on this thread
    const TimeTagStreamBuffer empty = stream.getData();
    EXPECT_TRUE(bufferTags(empty).empty());
    EXPECT_FALSE(empty.hasOverflows);
    std::vector<Tag> expected;
    bool expect_overflow = false;
    int64_t span_start = -1;
    for (size_t i = 0; i < blocks.size(); ++i) {
      stream.feed(blocks[i].tags, blocks[i].begin_time, blocks[i].end_time);
      if (span_start == -1) span_start = blocks[i].end_time;
      for (const Tag& tag : blocks[i].tags) {
        const bool on_channel = std::count(filter.begin(), filter.end(), tag.channel) > 0;
        const bool counted = tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents;
        expect_overflow |= tag.type != Tag::Type::TimeTag;
        if ((filter.empty() || on_channel || !counted) && expected.size() < limit) {
          expected.push_back(tag);
        }
      }
      if (i % 20 != 19) continue;
      EXPECT_EQ(stream.getCounts(), expected.size());
      const TimeTagStreamBuffer buffer = stream.getData();
      EXPECT_TRUE(sameTags(bufferTags(buffer), expected)) << "after block " << i;
      EXPECT_EQ(buffer.hasOverflows, expect_overflow);
      EXPECT_EQ(buffer.tGetData, blocks[i].end_time);
      EXPECT_EQ(buffer.tStart, span_start);
      span_start = blocks[i].end_time;  // the next span begins where this one ended
      expected.clear();
      expect_overflow = false;
    }
    EXPECT_EQ(stream.getCounts(), 0u);
  }
}

std::vector<Tag> dumped(const std::string& path) {
  const Bytes bytes = readBytes(path);
  EXPECT_EQ(bytes.size() % sizeof(Tag), 0u);
  std::vector<Tag> tags(bytes.size() / sizeof(Tag));
  if (!tags.empty()) std::memcpy(tags.data(), bytes.data(), tags.size() * sizeof(Tag));
  return tags;
}

TEST_F(FileMeasurements, DumpWritesRawRecordsOfTheChosenChannelsUpToTheLimit) {
  LogCapture log;
  Dump all(&tagger, dir.file("all.bin"));
  EXPECT_TRUE(log.contains(
      LOGGER_ERROR,
      "The Dump class is deprecated and will be removed soon. Please use FileWriter instead."));
  Dump some(&tagger, dir.file("some.bin"), 150, {2});
  Dump none(&tagger, dir.file("none.bin"), 0, {});
  const std::vector<Tag> stream = concatenate(push(randomStream(rng, 100, {1, 2, 3})));
  // At their limits they stop by themselves; without one it runs on.
  EXPECT_FALSE(some.isRunning());
  EXPECT_FALSE(none.isRunning());
  EXPECT_TRUE(all.isRunning());
  all.stop();

  EXPECT_TRUE(sameTags(dumped(dir.file("all.bin")), stream));
  std::vector<Tag> expected;
  for (const Tag& tag : stream) {
    if (tag.type != Tag::Type::TimeTag || tag.channel == 2) expected.push_back(tag);
  }
  ASSERT_GT(expected.size(), 150u);
  expected.resize(150);
  EXPECT_TRUE(sameTags(dumped(dir.file("some.bin")), expected));
  EXPECT_TRUE(dumped(dir.file("none.bin")).empty());

  // A clear starts the file afresh.
  all.start();
  all.clear();
  push({Block{{timeTag(1, 5)}, 0, 10}});
  all.stop();
  EXPECT_EQ(dumped(dir.file("all.bin")).size(), 1u);
}

}  // namespace
}  // namespace zeptick::testing
