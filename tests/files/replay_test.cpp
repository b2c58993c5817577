// The replay tagger: where it cuts, how it joins and paces recordings, what it does with damaged
// or foreign files, and the delays, dead times and test signal it applies like an instrument.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "file_format_testing.h"
#include "files/replay_channel_stage.h"
#include "zeptick/countrate.h"
#include "zeptick/library.h"

namespace zeptick::testing {
namespace {

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

TEST(Replay, BeginAndDurationCutAtExactTimesQueuesMarkTheJoinAndStopEndsEverything) {
  ScratchDirectory dir;
  RecordingPlan plan = smallPlan(7);
  writeRecording(dir.file("first"), plan, 5000);
  const std::vector<Tag> first = generatedTags(plan);
  // Inside blocks (ending on a tick of the periodic channel, which stays out), on a block edge,
  // a negative begin (idle time first, which counts against the duration), and a duration
  // beyond the end (empty time).
  for (const auto& [begin, duration] :
       std::vector<std::pair<int64_t, int64_t>>{{1234567, 4998765433},
                                                {2100000000, 1400000000},
                                                {-3000000000, 7000000000},
                                                {15000000000, 9000000000},
                                                {25000000000, 1000000000}}) {
    SCOPED_TRACE(begin);
    Replay replay(3);
    const std::vector<Tag> tags = replay.play(dir.file("first"), begin, duration);
    ASSERT_FALSE(replay.blocks.empty());
    EXPECT_EQ(replay.blocks.front().begin_time, 0);
    EXPECT_EQ(replay.blocks.back().end_time, duration);
    EXPECT_TRUE(
        sameTags(tags, window(first, std::max<int64_t>(begin, 0), begin + duration, -begin)));
  }

  plan.seed = 8;
  writeRecording(dir.file("second"), plan, -1);

  Replay replay(4);
  ZeptickVirtualImpl& tagger = *replay.tagger;
  const uint64_t a = tagger.replay(dir.file("first"));
  const uint64_t b = tagger.replay(dir.file("second"), 0, 0);  // only a walk through its files
  const uint64_t c = tagger.replay(dir.file("second"));
  EXPECT_EQ(b, a + 1);
  ASSERT_TRUE(tagger.waitForCompletion(0, 60000));
  EXPECT_TRUE(tagger.waitForCompletion(a, 0));

  // The second recording starts where the first ended, behind an error tag.
  std::vector<Tag> expected = first;
  expected.push_back(marker(Tag::Type::Error, plan.duration));
  for (const Tag& tag : window(generatedTags(plan), 0, plan.duration, plan.duration)) {
    expected.push_back(tag);
  }
  EXPECT_TRUE(sameTags(replay.tags(), expected));
  // One overflow begin per span of each recording, and the error at the join.
  EXPECT_EQ(tagger.getOverflowsAndClear(), 2 + 1 + 2);
  EXPECT_EQ(tagger.getOverflows(), 0);
  EXPECT_FALSE(tagger.getConfiguration().empty());
  EXPECT_EQ(tagger.getInvertedChannel(2), -2);

  // A replay in real time, stopped early: waiting for it ends, and no tag follows.
  tagger.setReplaySpeed(1.0);
  const uint64_t slow = tagger.replay(dir.file("first"), 0, -1, false);
  EXPECT_GT(slow, c);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  tagger.stop();
  EXPECT_TRUE(tagger.waitForCompletion(slow, 0));
  tagger.sync();
  const size_t count = replay.tags().size();
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  tagger.sync();
  EXPECT_EQ(replay.tags().size(), count);
}

TEST(Replay, SpeedPacesPausesAndRejectsTooSlow) {
  ScratchDirectory dir;
  RecordingPlan plan = smallPlan(9);
  plan.duration = 400000000000;  // 0.4 s of recording
  plan.block_span = 5000000000;
  writeRecording(dir.file("paced"), plan);

  Replay replay(2);
  ZeptickVirtualImpl& tagger = *replay.tagger;
  EXPECT_THROW(tagger.setReplaySpeed(0.05), std::runtime_error);
  EXPECT_NO_THROW(tagger.setReplaySpeed(0.1));
  EXPECT_NO_THROW(tagger.setReplaySpeed(-1.0));

  // Paused: the recording waits, yet sync() still returns.
  tagger.setReplaySpeed(0.0);
  EXPECT_EQ(tagger.getReplaySpeed(), 0.0);
  Countrate rates(&tagger, {1, 2, 3});
  const uint64_t id = tagger.replay(dir.file("paced"));
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  tagger.sync();
  EXPECT_FALSE(tagger.waitForCompletion(id, 0));
  EXPECT_EQ(collect(rates, &Countrate::getCountsTotal), (std::vector<int64_t>{0, 0, 0}));

  // At twice real time, 0.4 s of recording cannot pass in much under 0.2 s; the upper bound
  // only guards against a stalled clock.
  const auto start = std::chrono::steady_clock::now();
  tagger.setReplaySpeed(2.0);
  ASSERT_TRUE(tagger.waitForCompletion(id, 30000));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_GT(took.count(), 0.15);
  EXPECT_LT(took.count(), 20.0);
  EXPECT_GT(collect(rates, &Countrate::getCountsTotal)[0], 0);
}

// What verifying readers give for `files` read one after another, joined as replay joins blocks,
// and what they log (without the place in the source that tells it) with what replay adds.
struct FileByFile {
  std::vector<Tag> tags;
  int64_t overflows = 0;
  std::vector<std::string> log;
};

FileByFile readFileByFile(const std::vector<std::string>& files) {
  FileByFile out;
  int64_t now = 0, last_end = 0;
  for (const std::string& name : files) {
    LogCapture log;
    for (const Block& block : readRecording(name)) {
      if (!out.tags.empty() && block.begin_time != last_end) {
        out.tags.push_back(marker(Tag::Type::Error, now));
      }
      for (Tag tag : block.tags) {
        tag.time += now - block.begin_time;
        out.tags.push_back(tag);
      }
      now += block.end_time - block.begin_time;
      last_end = block.end_time;
    }
    for (const std::string& text : messageTexts(log)) out.log.push_back(text);
    // A file that ended at a fault: replay then says where its data stop.
    if (!messageTexts(log).empty()) {
      out.log.push_back("File '" + name + "' ends early, after the data up to " +
                        std::to_string(last_end) + " ps.");
    }
  }
  out.overflows = std::count_if(out.tags.begin(), out.tags.end(), [](const Tag& tag) {
    return tag.type == Tag::Type::OverflowBegin || tag.type == Tag::Type::Error;
  });
  return out;
}

void expectReplayReadsFileByFile(const std::string& base, const FileByFile& expected) {
  for (const unsigned workers : {1u, 4u}) {
    SCOPED_TRACE(workers);
    LogCapture log;
    Replay replay(workers);
    EXPECT_TRUE(sameTags(replay.play(base), expected.tags));
    EXPECT_EQ(replay.tagger->getOverflows(), expected.overflows);
    expectMessages(log, expected.log);
  }
}

// Flips a byte of time tag block `block` at `at` in its payload, or cuts the file there.
void damage(const std::string& name, size_t block, size_t at, bool cut) {
  Bytes bytes = readBytes(name);
  const std::vector<RawBlock> blocks = timeTagBlocks(bytes);
  ASSERT_GT(blocks.size(), block);
  const size_t offset = blocks[block].offset + 16 + at;
  if (cut) {
    bytes.resize(offset);
  } else {
    bytes[offset] ^= 0x20;
  }
  writeBytes(name, bytes);
}

// Workers unpack and check blocks side by side, yet the stream, the overflow count and the log
// are those of reading the files one after another: a damaged block ends its file with its own
// messages and nothing from a cut behind it, and the next file's faults follow in turn.
TEST(Replay, ParallelChecksGiveTheStreamAndLogOfReadingFileByFile) {
  ScratchDirectory dir;
  const std::string base = dir.file("rec");
  writeRecording(base, smallPlan(14), 4000);
  const std::vector<std::string> files = splitFiles(base);
  ASSERT_GE(files.size(), 6u);
  damage(files[1], 1, 144 + 3, false);  // in the data: the file ends at block 1
  damage(files[2], 1, 80 + 5, false);   // in the signature, and
  damage(files[2], 2, 150, true);       // a cut in the next block, which is never told
  damage(files[3], 2, 100, true);       // a cut that is told
  const FileByFile expected = readFileByFile(files);
  std::vector<std::string> readers_log = expected.log;
  std::erase_if(readers_log, [](const std::string& text) {
    return text.find("' ends early") != std::string::npos;
  });
  ASSERT_EQ(readers_log,
            (std::vector<std::string>{
                "Hash missmatch", "Time tag block data with invalid hash or signature",
                "ECC signature is wrong", "Time tag block data with invalid hash or signature",
                "File access failed", "Time tag block header could not be loaded"}));
  expectReplayReadsFileByFile(base, expected);
  // A split file of another recording, or an empty one as a full disk leaves it, ends the
  // recording after the file before it.
  writeRecording(dir.file("other"), smallPlan(15), 4000);
  std::filesystem::copy_file(ZeptickFile::makeFileName(dir.file("other"), 4), files[4],
                             std::filesystem::copy_options::overwrite_existing);
  FileByFile ended = readFileByFile({files.begin(), files.begin() + 4});
  ended.log.push_back("File '" + files[4] +
                      "' matches the naming schema, but was not written in the same FileWriter. "
                      "Skipped.");
  expectReplayReadsFileByFile(base, ended);
  std::filesystem::resize_file(files[4], 0);
  ended.log.pop_back();
  ended.log.insert(ended.log.end(),
                   {"File access failed", "Incorrect Header",
                    "File '" + files[4] + "' has no file header: the recording ends before it."});
  expectReplayReadsFileByFile(base, ended);

  // A large block whose signature fails only after its digest: meanwhile other workers claim the
  // blocks behind it, which must not pass.
  std::vector<Block> blocks;
  uint64_t state = 1;
  for (int64_t b = 0; b < 5; ++b) {
    Block block{{}, b * 1000000000, (b + 1) * 1000000000};
    for (int64_t t = 0; t < (b == 1 ? 2000000 : 50); ++t) {
      state = state * 6364136223846793005u + 1442695040888963407u;
      block.tags.push_back(timeTag(1 + static_cast<int>(state >> 63),
                                   block.begin_time + t * 450 + static_cast<int64_t>(state >> 56)));
    }
    blocks.push_back(block);
  }
  const std::string large = dir.file("large.ztbin");
  writeRecording(large, blocks, {{1, -1}, {2, -2}});
  damage(large, 1, 80 + 9, false);
  const FileByFile expected_large = readFileByFile({large});
  ASSERT_EQ(expected_large.tags.size(), 50u);
  expectReplayReadsFileByFile(dir.file("large"), expected_large);
  // A begin behind the damaged block has it skipped, not checked by the workers: it still ends
  // the file, with the same messages, each an error, and the same end of the data.
  LogCapture skip_log;
  EXPECT_TRUE(Replay(2).play(dir.file("large"), 3000000000).empty());
  expectMessages(skip_log, expected_large.log);
}

// Without a file, the sign flip is the best guess of the other edge; with zero-based numbering
// there is none to guess with until a recorded channel map answers.
TEST(Replay, WithoutAFileRefusesAndGuessesChannelsByTheNumberingScheme) {
  ScratchDirectory dir;
  LogCapture log;
  {
    Replay replay(1);
    ZeptickVirtualImpl& tagger = *replay.tagger;
    EXPECT_THROW(tagger.replay(dir.file("absent")), std::runtime_error);
    writeBytes(dir.file("junk.ztbin"), Bytes(64, 7));
    EXPECT_THROW(tagger.replay(dir.file("junk")), std::runtime_error);
    EXPECT_EQ(tagger.getInvertedChannel(3), -3);
    EXPECT_TRUE(tagger.isUnusedChannel(CHANNEL_UNUSED));
    EXPECT_FALSE(tagger.isUnusedChannel(-1));
    EXPECT_EQ(tagger.getConfiguration(), "");
    EXPECT_THROW(tagger.setDeadtime(1, -1), std::invalid_argument);
  }
  EXPECT_TRUE(log.messages().empty());
  const int scheme = getZeptickChannelNumberScheme();
  setZeptickChannelNumberScheme(ZT_CHANNEL_NUMBER_SCHEME_ZERO);
  {
    Replay replay(1);
    ZeptickVirtualImpl& tagger = *replay.tagger;
    EXPECT_TRUE(tagger.isUnusedChannel(-1));
    EXPECT_EQ(tagger.getInvertedChannel(4), -4);
    expectMessages(log, {"getInvertedChannel(4) called prior to replaying a file with the zero "
                         "channel numbering scheme. How many inputs has your Zeptick?"});
    EXPECT_THROW(tagger.setTestSignal(1, true), std::runtime_error);
    writeRecording(dir.file("zero"), smallPlan(14));
    replay.play(dir.file("zero"));
    EXPECT_EQ(tagger.getInvertedChannel(-3), 3);
    EXPECT_EQ(tagger.getInvertedChannel(7), CHANNEL_UNUSED);
  }
  setZeptickChannelNumberScheme(scheme);
}

// Dead time restarts after an error, and a tag exactly one dead time after the last one counts.
// The end of an overflow moves by the largest delay, and delayed events that fall inside the
// span are lost (1 at 1100); those after it come out in a later block (1 at 3000).
TEST(ReplayChannelStageTest, DeadTimeRestartsAfterAnErrorAndDelayedEventsInOverflowsAreLost) {
  ReplayChannelStage stage;
  ReplayChannelMap settings;
  settings[2].deadtime = 100;
  settings[1].delay = 1000;
  stage.configure(settings);
  const Tag error = marker(Tag::Type::Error, 160);
  const Tag overflow_begin = marker(Tag::Type::OverflowBegin, 500);
  std::vector<Tag> tags = {timeTag(2, 0),   timeTag(2, 50), timeTag(1, 60),
                           timeTag(2, 100), error,          timeTag(2, 170),
                           timeTag(2, 200), overflow_begin, marker(Tag::Type::OverflowEnd, 800),
                           timeTag(1, 2000)};
  stage.process(tags, 0, 2500);
  EXPECT_TRUE(sameTags(tags, {timeTag(2, 0), timeTag(2, 100), error, timeTag(2, 170),
                              overflow_begin, marker(Tag::Type::OverflowEnd, 1800)}));
  std::vector<Tag> later;
  stage.process(later, 2500, 5000);
  EXPECT_TRUE(sameTags(later, {timeTag(1, 3000)}));
}

TEST(ReplaySettings, DelaysDeadTimeAndTestSignalMatchTheirModels) {
  ScratchDirectory dir;
  RecordingPlan plan = smallPlan(21);
  plan.overflow_spans.clear();  // the models below know nothing of overflows
  const std::string base = dir.file("settings");
  writeRecording(base, plan, 7000);
  const std::vector<Tag> recorded = generatedTags(plan);
  const auto byTime = [](const Tag& a, const Tag& b) { return a.time < b.time; };
  {
    const int64_t late = 2345678;   // channel 1 later: crosses blocks
    const int64_t early = -777777;  // channel 3 earlier: holds back the whole stream
    const int64_t deadtime = 30000000;
    Replay replay(3);
    replay.tagger->setInputDelay(1, late);
    replay.tagger->setInputDelay(3, early);
    EXPECT_EQ(replay.tagger->setDeadtime(2, deadtime), deadtime);
    EXPECT_EQ(replay.tagger->getInputDelay(1), late);
    EXPECT_EQ(replay.tagger->getDeadtime(2), deadtime);
    EXPECT_EQ(replay.tagger->getDeadtime(1), 0);
    std::vector<Tag> expected;
    int64_t last_kept = 0;
    bool kept_any = false;
    for (Tag tag : recorded) {
      tag.time += -early + (tag.channel == 1 ? late : tag.channel == 3 ? early : 0);
      if (tag.channel == 2) {
        if (kept_any && tag.time - last_kept < deadtime) continue;
        last_kept = tag.time;
        kept_any = true;
      }
      // Held back beyond the end of the stream: still waiting when replay ends.
      if (tag.time < plan.duration) expected.push_back(tag);
    }
    std::stable_sort(expected.begin(), expected.end(), byTime);
    EXPECT_TRUE(sameTags(replay.play(base), expected));
  }
  // The test signal replaces both edges of its input only: a square wave of about 1.256 us,
  // its edges alternating, each about 628 ns after the last.
  Replay replay(3);
  replay.tagger->seedTestSignal(3);
  replay.tagger->setTestSignal(1, true);
  EXPECT_TRUE(replay.tagger->getTestSignal(1) && replay.tagger->getTestSignal(-1));
  EXPECT_FALSE(replay.tagger->getTestSignal(2));
  const std::vector<Tag> out = replay.play(base);
  EXPECT_TRUE(std::is_sorted(out.begin(), out.end(), byTime));
  std::vector<Tag> edges, others, expected_others = recorded;
  for (const Tag& tag : out) (std::abs(tag.channel) == 1 ? edges : others).push_back(tag);
  std::erase_if(expected_others, [](const Tag& tag) { return tag.channel == 1; });
  EXPECT_TRUE(sameTags(others, expected_others));
  ASSERT_FALSE(edges.empty());
  EXPECT_EQ(edges[0].channel, 1);
  EXPECT_NEAR(static_cast<double>(edges.size()), static_cast<double>(plan.duration) / 628006.5, 6);
  for (size_t i = 1; i < edges.size(); ++i) {
    EXPECT_EQ(edges[i].channel, -edges[i - 1].channel) << i;
    EXPECT_NEAR(static_cast<double>(edges[i].time - edges[i - 1].time), 628006.5, 6000.0) << i;
  }
}

}  // namespace
}  // namespace zeptick::testing
