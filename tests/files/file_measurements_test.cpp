// FileWriter on a live stream and FileReader on what it leaves: split sets read back whole, in
// any chunk size, and replayed; damaged sets and names that cannot be opened.

#include "zeptick/file_writer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_format_testing.h"
#include "zeptick/file_reader.h"

namespace zeptick::testing {
namespace {

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

std::vector<int64_t> timesFrom(const std::vector<std::string>& bases, int64_t shift) {
  FileReader reader(bases);
  std::vector<int64_t> times;
  std::vector<Tag> block;
  while (reader.hasData()) {
    EXPECT_TRUE(reader.getDataRaw(block));
    for (const Tag& tag : block) times.push_back(tag.time - shift);
  }
  return times;
}

class FileWriterMeasurementTest : public ::testing::Test {
 protected:
  FileWriterMeasurementTest() { tagger.setIdleSpan(0); }
  ScratchDirectory dir;
  TestZeptick tagger{"TEST-1", 8};
  std::mt19937_64 rng{77};
};

// Eight workers finish blocks in parallel while tiny files roll over all the time, so rollovers
// keep replacing the writer under blocks still in flight.
TEST_F(FileWriterMeasurementTest, SplitRecordingReadsBackCompleteAndInOrder) {
  const std::string base = dir.file("run");
  FileWriter writer(&tagger, base, {1, 2, -1});
  writer.setMaxFileSize(3000);
  const std::vector<Block> pushed = tagger.pushBlocks(randomStream(rng, 600, {1, 2, 3, -1}));
  ASSERT_TRUE(drain(tagger));
  writer.stop();

  const std::vector<std::string> files = splitFiles(base);
  EXPECT_GT(files.size(), 20u);
  // The head file holds no tags; every other file holds a run of whole blocks.
  EXPECT_TRUE(readRecording(files[0]).empty());
  // Files roll over only outside overflows, so no missed-event count is lost at a split.
  const std::vector<Tag> expected = throughFormat(pushed, {1, 2, -1});
  FileReader reader(base);
  EXPECT_EQ(fields(readInChunks(reader, rng, pushed.front().begin_time)), fields(expected));

  uint64_t bytes = 0;
  for (const std::string& name : files) bytes += std::filesystem::file_size(name);
  EXPECT_EQ(writer.getTotalSize(), static_cast<int64_t>(bytes));
  EXPECT_EQ(writer.getTotalEvents(), static_cast<int64_t>(expected.size()));

  // Replay rebases the recording onto its own clock, which starts at 0, and finds no gap
  // anywhere, so it adds no error tag.
  std::vector<Tag> shifted = expected;
  for (Tag& tag : shifted) tag.time -= pushed.front().begin_time;
  EXPECT_EQ(fields(Replay(4).play(base)), fields(shifted));
}

TEST_F(FileWriterMeasurementTest, SplitClearAndMarkersStartFilesOfTheSameRecording) {
  const std::string base = dir.file("parts");
  FileWriter writer(&tagger, base, {1});
  const int64_t shift = tagger.pushBlocks({Block{{timeTag(1, 10)}, 0, 100}}).front().begin_time;
  ASSERT_TRUE(drain(tagger));
  writer.setMarker("after first");
  writer.split();
  tagger.pushBlocks({Block{{timeTag(1, 150)}, 100, 200}});
  ASSERT_TRUE(drain(tagger));
  writer.clear();
  tagger.pushBlocks({Block{{timeTag(1, 250)}, 200, 300}});
  ASSERT_TRUE(drain(tagger));
  // A new name restarts the numbering, with a head file of its own.
  const std::string renamed = dir.file("renamed");
  writer.split(renamed);
  tagger.pushBlocks({Block{{timeTag(1, 350)}, 300, 400}});
  ASSERT_TRUE(drain(tagger));
  writer.stop();

  EXPECT_EQ(splitFiles(base).size(), 4u);
  EXPECT_EQ(splitFiles(renamed).size(), 2u);
  // Given two recordings, the reader reads one set after the other.
  EXPECT_EQ(timesFrom({base, renamed}, shift), (std::vector<int64_t>{10, 150, 250, 350}));
  // The marker landed in the first data file, behind its blocks.
  ZeptickFileReader first_file(splitFiles(base)[1], true);
  EXPECT_EQ(concat(readRecording(splitFiles(base)[1])).size(), 1u);
  while (first_file.skipBlock()) {
  }
  EXPECT_EQ(first_file.getLastMarker(), "after first");
  EXPECT_EQ(FileReader(base).getConfiguration(), tagger.getConfiguration());
}

TEST_F(FileWriterMeasurementTest, RejectsWhatTheFormatCannotHoldAndNeverSplitsWithoutLimit) {
  std::vector<int> too_many(251, 1);
  EXPECT_THROW(FileWriter(&tagger, dir.file("x"), too_many), std::runtime_error);
  EXPECT_THROW(FileWriter(&tagger, dir.file("y"), {}), std::runtime_error);
  EXPECT_THROW(FileWriter(&tagger, dir.file("no/such/dir/z"), {1}), std::runtime_error);
  // Only unused channels: an empty channel map, and nothing registered.
  { FileWriter writer(&tagger, dir.file("unused"), {CHANNEL_UNUSED}); }
  EXPECT_EQ(splitFiles(dir.file("unused")).size(), 2u);

  FileWriter unlimited(&tagger, dir.file("one"), {1, 2});
  unlimited.setMaxFileSize(-1);
  tagger.pushBlocks(randomStream(rng, 200, {1, 2}));
  ASSERT_TRUE(drain(tagger));
  unlimited.stop();
  EXPECT_EQ(splitFiles(dir.file("one")).size(), 2u);
}

RecordingPlan makePlan(uint64_t seed) {
  RecordingPlan plan;
  plan.seed = seed;
  plan.duration = 15000000000;
  plan.block_span = 800000000;
  plan.overflow_spans = {{2000000000, 3100000000}};
  return plan;
}

TEST(FileReaderMeasurement, ForeignSplitFileIsSkippedAndTheNextRecordingFollows) {
  ScratchDirectory dir;
  const RecordingPlan b = makePlan(42);
  writeRecording(dir.file("a"), makePlan(41), 4000);
  writeRecording(dir.file("b"), b, 4000);
  std::filesystem::copy_file(ZeptickFile::makeFileName(dir.file("b"), 2),
                             ZeptickFile::makeFileName(dir.file("a"), 2),
                             std::filesystem::copy_options::overwrite_existing);
  LogCapture log;
  FileReader reader(std::vector<std::string>{dir.file("a"), dir.file("b")});
  std::vector<Tag> read;
  std::vector<Tag> block;
  int refusals = 0;
  while (reader.hasData()) {
    refusals += !reader.getDataRaw(block);
    read.insert(read.end(), block.begin(), block.end());
  }
  EXPECT_EQ(refusals, 1);
  expectMessages(log, {"matches the naming schema, but was not written in the same FileWriter. "
                       "Skipped."});
  std::vector<Tag> expected = concat(readRecording(ZeptickFile::makeFileName(dir.file("a"), 1)));
  const std::vector<Tag> whole_b = generatedTags(b);
  expected.insert(expected.end(), whole_b.begin(), whole_b.end());
  EXPECT_EQ(fields(read), fields(expected));
}

TEST(FileReaderMeasurement, RefusesMissingFilesAndReadsNothingForZero) {
  ScratchDirectory dir;
  EXPECT_THROW(FileReader(std::vector<std::string>{}), std::runtime_error);
  writeRecording(dir.file("ok"), makePlan(51));
  try {
    FileReader reader(std::vector<std::string>{dir.file("ok"), dir.file("missing")});
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_EQ(std::string(e.what()),
              "FileReader could not open file '" + dir.file("missing") + "'.");
  }
  FileReader reader(dir.file("ok"));
  EXPECT_EQ(reader.getData(0).size, 0u);
  EXPECT_NE(reader.getConfiguration().find("generator"), std::string::npos);
  EXPECT_EQ(reader.getData(5).size, 5u);
}

}  // namespace
}  // namespace zeptick::testing
