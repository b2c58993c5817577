#include "files/zeptick_virtual_impl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "file_format_testing.h"
#include "files/recording_generator.h"
#include "replay_test_support.h"
#include "support/log_capture.h"
#include "support/recording_measurement.h"
#include "zeptick/countrate.h"
#include "zeptick/library.h"

namespace zeptick {
namespace {

using testing::Block;
using testing::fields;
using testing::RecordingMeasurement;
using testing::ScratchDirectory;

// Tags stamped in [from, to), moved by `shift`.
std::vector<Tag> window(const std::vector<Tag>& tags, int64_t from, int64_t to, int64_t shift) {
  std::vector<Tag> out;
  for (Tag tag : tags) {
    if (tag.time < from || tag.time >= to) continue;
    tag.time += shift;
    out.push_back(tag);
  }
  return out;
}

RecordingPlan smallSpec(uint64_t seed) {
  RecordingPlan plan;
  plan.seed = seed;
  plan.duration = 20000000000;  // 20 ms
  plan.block_span = 700000000;  // blocks do not line up with round numbers
  plan.overflow_spans = {{3000000000, 4500000000}, {9100000000, 9100000001}};
  return plan;
}

void expectContiguous(const std::vector<Block>& blocks) {
  for (size_t i = 1; i < blocks.size(); ++i) {
    ASSERT_EQ(blocks[i].begin_time, blocks[i - 1].end_time) << "block " << i;
  }
  for (const Block& block : blocks) {
    for (const Tag& tag : block.tags) {
      ASSERT_GE(tag.time, block.begin_time);
      ASSERT_LT(tag.time, block.end_time);
    }
  }
}

class ReplayTest : public ::testing::Test {
 protected:
  ScratchDirectory dir;
};

TEST_F(ReplayTest, SplitRecordingPlaysCompleteOnItsOwnClock) {
  const RecordingPlan plan = smallSpec(5);
  const std::string base = dir.file("rec");
  const RecordingSummary summary = writeRecording(base, plan, 8000);
  EXPECT_GE(summary.files, 4u);

  auto tagger_owner = testing::replayTagger(4);
  ZeptickVirtualImpl& tagger = *tagger_owner;
  RecordingMeasurement seen(&tagger);
  const uint64_t id = tagger.replay(base);
  EXPECT_EQ(id, 1u);
  ASSERT_TRUE(tagger.waitForCompletion(id, 60000));
  const std::vector<Block> blocks = seen.blocks();
  expectContiguous(blocks);
  EXPECT_EQ(fields(testing::concat(blocks)), fields(testing::generatedTags(plan)));
  EXPECT_EQ(blocks.back().end_time, plan.duration);
  // One overflow begin per span, and no error: the split files join without a gap.
  EXPECT_EQ(tagger.getOverflowsAndClear(), 2);
  EXPECT_EQ(tagger.getOverflows(), 0);
  EXPECT_FALSE(tagger.getConfiguration().empty());
  EXPECT_EQ(tagger.getInvertedChannel(2), -2);
}

TEST_F(ReplayTest, BeginAndDurationCutAtExactTimes) {
  const RecordingPlan plan = smallSpec(6);
  const std::string base = dir.file("cut");
  writeRecording(base, plan, 6000);
  const std::vector<Tag> all = testing::generatedTags(plan);

  struct Case {
    int64_t begin;
    int64_t duration;
  };
  // Inside blocks, on a block edge, a negative begin (idle time first, which
  // counts against the duration), and a duration beyond the end (empty time).
  for (const Case c :
       {Case{1234567, 5000000123}, Case{2100000000, 1400000000}, Case{-3000000000, 7000000000},
        Case{15000000000, 9000000000}, Case{25000000000, 1000000000}}) {
    auto tagger_owner = testing::replayTagger(3);
    ZeptickVirtualImpl& tagger = *tagger_owner;
    RecordingMeasurement seen(&tagger);
    ASSERT_TRUE(tagger.waitForCompletion(tagger.replay(base, c.begin, c.duration), 60000));
    const std::vector<Block> blocks = seen.blocks();
    SCOPED_TRACE(c.begin);
    expectContiguous(blocks);
    ASSERT_FALSE(blocks.empty());
    EXPECT_EQ(blocks.front().begin_time, 0);
    EXPECT_EQ(blocks.back().end_time, c.duration);
    const int64_t from = std::max<int64_t>(c.begin, 0);
    const int64_t to = c.begin + c.duration;
    EXPECT_EQ(fields(testing::concat(blocks)), fields(window(all, from, to, -c.begin)));
  }
}

TEST_F(ReplayTest, QueueMarksTheJoinAndStopEndsEverything) {
  RecordingPlan plan = smallSpec(7);
  const std::string first = dir.file("first");
  const std::string second = dir.file("second");
  writeRecording(first, plan, 5000);
  plan.seed = 8;
  writeRecording(second, plan, -1);

  auto tagger_owner = testing::replayTagger(4);
  ZeptickVirtualImpl& tagger = *tagger_owner;
  RecordingMeasurement seen(&tagger);
  const uint64_t a = tagger.replay(first);
  const uint64_t b = tagger.replay(second, 0, 0);  // nothing but a walk through its files
  const uint64_t c = tagger.replay(second);
  EXPECT_EQ(b, a + 1);
  ASSERT_TRUE(tagger.waitForCompletion(0, 60000));
  EXPECT_TRUE(tagger.waitForCompletion(a, 0));

  std::vector<Tag> expected = testing::generatedTags(smallSpec(7));
  std::vector<Tag> tail = testing::generatedTags(plan);
  // The second recording starts where the first ended, behind an error tag.
  expected.push_back(Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, plan.duration});
  for (Tag& tag : tail) tag.time += plan.duration;
  expected.insert(expected.end(), tail.begin(), tail.end());
  const std::vector<Block> blocks = seen.blocks();
  expectContiguous(blocks);
  EXPECT_EQ(fields(testing::concat(blocks)), fields(expected));
  EXPECT_EQ(tagger.getOverflows(), 2 + 1 + 2);

  // A replay in real time, stopped early: waiting for it ends, and no tag follows.
  tagger.setReplaySpeed(1.0);
  const uint64_t slow = tagger.replay(first, 0, -1, false);
  EXPECT_GT(slow, c);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  tagger.stop();
  EXPECT_TRUE(tagger.waitForCompletion(slow, 0));
  tagger.sync();
  const size_t count = testing::concat(seen.blocks()).size();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  tagger.sync();
  EXPECT_EQ(testing::concat(seen.blocks()).size(), count);
}

TEST_F(ReplayTest, SpeedPacesPausesAndRejectsTooSlow) {
  RecordingPlan plan = smallSpec(9);
  plan.duration = 400000000000;  // 0.4 s of recording
  plan.block_span = 5000000000;
  const std::string base = dir.file("paced");
  writeRecording(base, plan);

  auto tagger_owner = testing::replayTagger(2);
  ZeptickVirtualImpl& tagger = *tagger_owner;
  EXPECT_THROW(tagger.setReplaySpeed(0.05), std::runtime_error);
  EXPECT_NO_THROW(tagger.setReplaySpeed(0.1));
  EXPECT_NO_THROW(tagger.setReplaySpeed(-1.0));

  // Paused: the recording waits, yet sync() still returns.
  tagger.setReplaySpeed(0.0);
  EXPECT_EQ(tagger.getReplaySpeed(), 0.0);
  Countrate rates(&tagger, {1, 2, 3});
  const uint64_t id = tagger.replay(base);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  tagger.sync();
  EXPECT_FALSE(tagger.waitForCompletion(id, 0));
  std::vector<int64_t> totals(3, -1);
  rates.getCountsTotal([&totals](size_t) { return totals.data(); });
  EXPECT_EQ(totals, (std::vector<int64_t>{0, 0, 0}));

  // At twice real time, 0.4 s of recording cannot pass in much under 0.2 s;
  // the upper bound only guards against a stalled clock.
  const auto start = std::chrono::steady_clock::now();
  tagger.setReplaySpeed(2.0);
  ASSERT_TRUE(tagger.waitForCompletion(id, 30000));
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  EXPECT_GT(seconds, 0.15);
  EXPECT_LT(seconds, 20.0);
  rates.getCountsTotal([&totals](size_t) { return totals.data(); });
  EXPECT_GT(totals[0], 0);
}

TEST_F(ReplayTest, CorruptedBlockNeverReachesAMeasurement) {
  RecordingPlan plan = smallSpec(10);
  plan.overflow_spans.clear();
  const std::string base = dir.file("bad");
  writeRecording(base, plan, 6000);
  const std::string victim = ZeptickFile::makeFileName(base, 2);

  // Which blocks file 2 holds, and a flipped bit in the data of its second one.
  const std::vector<Block> victim_blocks = testing::readRecording(victim);
  ASSERT_GE(victim_blocks.size(), 3u);
  testing::Bytes bytes = testing::readBytes(victim);
  std::vector<size_t> offsets;
  for (const auto& raw : testing::walkBlocks(bytes)) {
    if (raw.type == ZeptickFile::BLOCK_TIME_TAGS) offsets.push_back(raw.offset);
  }
  bytes[offsets[1] + 16 + 144 + 5] ^= 0x10;
  testing::writeBytes(victim, bytes);

  testing::LogCapture log;
  auto tagger_owner = testing::replayTagger(4);
  ZeptickVirtualImpl& tagger = *tagger_owner;
  RecordingMeasurement seen(&tagger);
  ASSERT_TRUE(tagger.waitForCompletion(tagger.replay(base), 60000));
  EXPECT_TRUE(log.contains("Time tag block data with invalid hash or signature") ||
              log.contains("Time tag block data could not be decompressed"));

  // Everything but the damaged block and the rest of its file, and an error
  // tag where the stream jumps over them.
  const int64_t gap_from = victim_blocks[1].begin_time;
  const int64_t gap_to = victim_blocks.back().end_time;
  const std::vector<Tag> all = testing::generatedTags(plan);
  std::vector<Tag> expected = window(all, 0, gap_from, 0);
  expected.push_back(Tag{Tag::Type::Error, 0, 0, CHANNEL_UNUSED, gap_from});
  const std::vector<Tag> rest = window(all, gap_to, plan.duration, gap_from - gap_to);
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(fields(testing::concat(seen.blocks())), fields(expected));
}

TEST_F(ReplayTest, ForeignSplitFileEndsTheRecording) {
  RecordingPlan plan = smallSpec(11);
  const std::string base = dir.file("mine");
  const std::string other = dir.file("other");
  const RecordingSummary mine = writeRecording(base, plan, 6000);
  plan.seed = 12;
  writeRecording(other, plan, 6000);
  // The other recording's file 3 takes the place of ours.
  std::filesystem::copy_file(ZeptickFile::makeFileName(other, 3),
                             ZeptickFile::makeFileName(base, 3),
                             std::filesystem::copy_options::overwrite_existing);
  ASSERT_GT(mine.files, 4u);

  testing::LogCapture log;
  auto tagger_owner = testing::replayTagger(2);
  ZeptickVirtualImpl& tagger = *tagger_owner;
  RecordingMeasurement seen(&tagger);
  ASSERT_TRUE(tagger.waitForCompletion(tagger.replay(base), 60000));
  EXPECT_TRUE(
      log.contains("matches the naming schema, but was not written in the same "
                   "FileWriter. Skipped."));
  const int64_t end_of_two =
      testing::readRecording(ZeptickFile::makeFileName(base, 2)).back().end_time;
  EXPECT_EQ(fields(testing::concat(seen.blocks())),
            fields(window(testing::generatedTags(smallSpec(11)), 0, end_of_two, 0)));
}

TEST_F(ReplayTest, ReplayRefusesMissingAndForeignFiles) {
  auto tagger_owner = testing::replayTagger(1);
  ZeptickVirtualImpl& tagger = *tagger_owner;
  EXPECT_THROW(tagger.replay(dir.file("absent")), std::runtime_error);
  testing::writeBytes(dir.file("junk.ztbin"), testing::Bytes(64, 7));
  EXPECT_THROW(tagger.replay(dir.file("junk")), std::runtime_error);
  // Without a file, the sign flip is the best guess of the other edge.
  EXPECT_EQ(tagger.getInvertedChannel(3), -3);
  EXPECT_TRUE(tagger.isUnusedChannel(CHANNEL_UNUSED));
  EXPECT_FALSE(tagger.isUnusedChannel(-1));
  EXPECT_EQ(tagger.getConfiguration(), "");
  EXPECT_THROW(tagger.setDeadtime(1, -1), std::invalid_argument);
}

TEST_F(ReplayTest, ZeroBasedNumberingHasNoSignFlipToGuessWith) {
  const int scheme = getZeptickChannelNumberScheme();
  setZeptickChannelNumberScheme(ZT_CHANNEL_NUMBER_SCHEME_ZERO);
  testing::LogCapture log;
  {
    auto tagger_owner = testing::replayTagger(1);
    ZeptickVirtualImpl& tagger = *tagger_owner;
    EXPECT_TRUE(tagger.isUnusedChannel(-1));
    EXPECT_EQ(tagger.getInvertedChannel(4), -4);
    EXPECT_TRUE(
        log.contains("getInvertedChannel(4) called prior to replaying a file with the zero "
                     "channel numbering scheme. How many inputs has your Zeptick?"));
    EXPECT_THROW(tagger.setTestSignal(1, true), std::runtime_error);
    // With a file, the recorded channel map answers.
    const std::string base = dir.file("zero");
    writeRecording(base, smallSpec(14));
    ASSERT_TRUE(tagger.waitForCompletion(tagger.replay(base), 60000));
    EXPECT_EQ(tagger.getInvertedChannel(-3), 3);
    EXPECT_EQ(tagger.getInvertedChannel(7), CHANNEL_UNUSED);
  }
  setZeptickChannelNumberScheme(scheme);
}

TEST_F(ReplayTest, CreatedThroughTheRegistry) {
  const std::string base = dir.file("reg");
  const RecordingSummary summary = writeRecording(base, smallSpec(13));
  ZeptickVirtual* tagger = createZeptickVirtual();
  ASSERT_NE(tagger, nullptr);
  {
    Countrate rates(tagger, {1, 2, 3});
    ASSERT_TRUE(tagger->waitForCompletion(tagger->replay(base), 60000));
    std::vector<int64_t> totals(3);
    rates.getCountsTotal([&totals](size_t) { return totals.data(); });
    for (int channel : {1, 2, 3}) {
      const auto found = summary.events.find(channel);
      EXPECT_EQ(totals[static_cast<size_t>(channel - 1)],
                found == summary.events.end() ? 0 : static_cast<int64_t>(found->second));
    }
  }
  EXPECT_TRUE(freeZeptick(tagger));
}

}  // namespace
}  // namespace zeptick
