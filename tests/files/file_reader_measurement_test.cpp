#include "zeptick/file_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_format_testing.h"
#include "files/recording_generator.h"
#include "replay_test_support.h"
#include "support/log_capture.h"

namespace zeptick {
namespace {

using testing::fields;

class FileReaderMeasurementTest : public ::testing::Test {
 protected:
  RecordingPlan plan(uint64_t seed, int64_t start) {
    RecordingPlan s;
    s.seed = seed;
    s.start_time = start;
    s.duration = 15000000000;
    s.block_span = 800000000;
    s.overflow_spans = {{2000000000, 3100000000}};
    return s;
  }
  testing::ScratchDirectory dir;
};

TEST_F(FileReaderMeasurementTest, ReadsSeveralSplitRecordingsInAnyChunkSize) {
  const RecordingPlan a = plan(31, 0);
  const RecordingPlan b = plan(32, 40000000000);
  writeRecording(dir.file("a"), a, 4000);
  writeRecording(dir.file("b.ztbin"), b, 4000);
  std::vector<Tag> expected = testing::generatedTags(a);
  const std::vector<Tag> second = testing::generatedTags(b);
  expected.insert(expected.end(), second.begin(), second.end());

  std::mt19937_64 rng(3);
  std::uniform_int_distribution<uint64_t> chunk(0, 700);
  FileReader reader(std::vector<std::string>{dir.file("a"), dir.file("b")});
  std::vector<Tag> read;
  int64_t previous_end = -1;
  bool first = true;
  while (reader.hasData()) {
    const uint64_t n = chunk(rng);
    const TimeTagStreamBuffer buffer = reader.getData(n);
    ASSERT_LE(buffer.size, n);
    // Each span starts where the last one ended; the first at the recording's start.
    EXPECT_EQ(buffer.tStart, first ? a.start_time : previous_end);
    if (buffer.size > 0) first = false;
    const std::vector<Tag> part = testing::bufferTags(buffer);
    if (!part.empty()) {
      EXPECT_EQ(buffer.tGetData, part.back().time);
    }
    previous_end = buffer.tGetData;
    read.insert(read.end(), part.begin(), part.end());
  }
  EXPECT_EQ(fields(read), fields(expected));
  EXPECT_EQ(reader.getData(10).size, 0u);
  std::vector<Tag> raw = {Tag{}};
  EXPECT_TRUE(reader.getDataRaw(raw));
  EXPECT_TRUE(raw.empty());
}

TEST_F(FileReaderMeasurementTest, ForeignSplitFileIsSkippedAndTheNextRecordingFollows) {
  const RecordingPlan a = plan(41, 0);
  const RecordingPlan b = plan(42, 0);
  writeRecording(dir.file("a"), a, 4000);
  writeRecording(dir.file("b"), b, 4000);
  std::filesystem::copy_file(ZeptickFile::makeFileName(dir.file("b"), 2),
                             ZeptickFile::makeFileName(dir.file("a"), 2),
                             std::filesystem::copy_options::overwrite_existing);
  testing::LogCapture log;
  FileReader reader(std::vector<std::string>{dir.file("a"), dir.file("b")});
  std::vector<Tag> read;
  std::vector<Tag> block;
  int refusals = 0;
  while (reader.hasData()) {
    if (!reader.getDataRaw(block)) ++refusals;
    read.insert(read.end(), block.begin(), block.end());
  }
  EXPECT_EQ(refusals, 1);
  EXPECT_EQ(testing::countMessages(log,
                                   "matches the naming schema, but was not written in the "
                                   "same FileWriter. Skipped."),
            1u);
  const std::vector<testing::Block> first_file =
      testing::readRecording(ZeptickFile::makeFileName(dir.file("a"), 1));
  std::vector<Tag> expected = testing::concat(first_file);
  const std::vector<Tag> whole_b = testing::generatedTags(b);
  expected.insert(expected.end(), whole_b.begin(), whole_b.end());
  EXPECT_EQ(fields(read), fields(expected));
}

TEST_F(FileReaderMeasurementTest, RefusesMissingFilesAndReadsNothingForZero) {
  EXPECT_THROW(FileReader(std::vector<std::string>{}), std::runtime_error);
  writeRecording(dir.file("ok"), plan(51, 0));
  try {
    FileReader reader(std::vector<std::string>{dir.file("ok"), dir.file("missing")});
    FAIL() << "no exception";
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
}  // namespace zeptick
