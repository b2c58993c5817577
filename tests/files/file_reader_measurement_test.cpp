// FileReader on a damaged split set and on names it cannot open. Reading whole sets in chunks is
// checked on FileWriter's output.

#include "zeptick/file_reader.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "file_format_testing.h"

namespace zeptick::testing {
namespace {

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
