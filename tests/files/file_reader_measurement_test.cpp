#include "zeptick/file_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_format_testing.h"

namespace zeptick::testing {
namespace {

RecordingPlan makePlan(uint64_t seed, int64_t start) {
  RecordingPlan plan;
  plan.seed = seed;
  plan.start_time = start;
  plan.duration = 15000000000;
  plan.block_span = 800000000;
  plan.overflow_spans = {{2000000000, 3100000000}};
  return plan;
}

TEST(FileReaderMeasurement, ReadsSeveralSplitRecordingsInAnyChunkSize) {
  ScratchDirectory dir;
  const RecordingPlan a = makePlan(31, 0);
  const RecordingPlan b = makePlan(32, 40000000000);
  writeRecording(dir.file("a"), a, 4000);
  writeRecording(dir.file("b.ztbin"), b, 4000);
  std::vector<Tag> expected = generatedTags(a);
  const std::vector<Tag> second = generatedTags(b);
  expected.insert(expected.end(), second.begin(), second.end());

  std::mt19937_64 rng(3);
  std::uniform_int_distribution<uint64_t> chunk(0, 700);
  FileReader reader(std::vector<std::string>{dir.file("a"), dir.file("b")});
  std::vector<Tag> read;
  int64_t span_start = a.start_time;
  while (reader.hasData()) {
    const uint64_t n = chunk(rng);
    const TimeTagStreamBuffer buffer = reader.getData(n);
    ASSERT_LE(buffer.size, n);
    // Each span starts where the last one ended.
    EXPECT_EQ(buffer.tStart, span_start);
    const std::vector<Tag> part = bufferTags(buffer);
    if (!part.empty()) {
      EXPECT_EQ(buffer.tGetData, part.back().time);
    }
    if (!part.empty() || !read.empty()) span_start = buffer.tGetData;
    read.insert(read.end(), part.begin(), part.end());
  }
  EXPECT_EQ(fields(read), fields(expected));
  EXPECT_EQ(reader.getData(10).size, 0u);
  std::vector<Tag> raw = {Tag{}};
  EXPECT_TRUE(reader.getDataRaw(raw));
  EXPECT_TRUE(raw.empty());
}

TEST(FileReaderMeasurement, ForeignSplitFileIsSkippedAndTheNextRecordingFollows) {
  ScratchDirectory dir;
  const RecordingPlan b = makePlan(42, 0);
  writeRecording(dir.file("a"), makePlan(41, 0), 4000);
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
  writeRecording(dir.file("ok"), makePlan(51, 0));
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
