#include "files/replay_channel_stage.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "file_format_testing.h"

namespace zeptick::testing {
namespace {

Tag at(int channel, int64_t time) { return timeTag(channel, time); }
Tag mark(Tag::Type type, int64_t time) { return specialTag(type, time); }

std::vector<Tag> replayed(const std::string& base,
                          const std::function<void(ZeptickVirtualImpl&)>& configure) {
  Replay replay(3);
  configure(*replay.tagger);
  return replay.play(base);
}

TEST(ReplayChannelStageTest, DeadTimeRestartsAfterAnError) {
  ReplayChannelStage stage;
  ReplayChannelMap settings;
  settings[2].deadtime = 100;
  stage.configure(settings);
  std::vector<Tag> tags = {
      at(2, 0),   at(2, 50), at(1, 60), at(2, 100), mark(Tag::Type::Error, 160),
      at(2, 170), at(2, 200)};
  stage.process(tags, 0, 1000);
  // A tag exactly one dead time after the last one counts.
  EXPECT_EQ(fields(tags),
            fields({at(2, 0), at(1, 60), at(2, 100), mark(Tag::Type::Error, 160), at(2, 170)}));
}

TEST(ReplayChannelStageTest, DelayedEventsInsideAnOverflowAreLost) {
  ReplayChannelStage stage;
  ReplayChannelMap settings;
  settings[1].delay = 1000;
  stage.configure(settings);
  std::vector<Tag> first = {at(1, 100), mark(Tag::Type::OverflowBegin, 500),
                            mark(Tag::Type::OverflowEnd, 800), at(1, 2000)};
  stage.process(first, 0, 2500);
  // The end of the span moves by the largest delay; the delayed event at 1100 fell inside it.
  EXPECT_EQ(fields(first),
            fields({mark(Tag::Type::OverflowBegin, 500), mark(Tag::Type::OverflowEnd, 1800)}));
  std::vector<Tag> second;
  stage.process(second, 2500, 5000);
  EXPECT_EQ(fields(second), fields({at(1, 3000)}));
}

class ReplaySettingsTest : public ::testing::Test {
 protected:
  ReplaySettingsTest() {
    plan.seed = 21;
    plan.duration = 30000000000;
    plan.block_span = 900000000;
    base = dir.file("settings");
    writeRecording(base, plan, 7000);
  }
  ScratchDirectory dir;
  RecordingPlan plan;
  std::string base;
};

TEST_F(ReplaySettingsTest, DelaysAndDeadTimeMatchABruteForceModel) {
  const int64_t late = 2345678;   // channel 1 later: crosses blocks
  const int64_t early = -777777;  // channel 3 earlier: holds back the whole stream
  const int64_t deadtime = 30000000;
  const std::vector<Tag> out = replayed(base, [&](ZeptickVirtualImpl& tagger) {
    tagger.setInputDelay(1, late);
    tagger.setInputDelay(3, early);
    EXPECT_EQ(tagger.setDeadtime(2, deadtime), deadtime);
    EXPECT_EQ(tagger.getInputDelay(1), late);
    EXPECT_EQ(tagger.getDeadtime(2), deadtime);
    EXPECT_EQ(tagger.getDeadtime(1), 0);
  });

  std::vector<Tag> expected;
  int64_t last_kept = 0;
  bool kept_any = false;
  for (Tag tag : generatedTags(plan)) {
    tag.time += -early + (tag.channel == 1 ? late : tag.channel == 3 ? early : 0);
    if (tag.channel == 2) {
      if (kept_any && tag.time - last_kept < deadtime) continue;
      last_kept = tag.time;
      kept_any = true;
    }
    // Held back beyond the end of the stream: still waiting when replay ends.
    if (tag.time < plan.duration) expected.push_back(tag);
  }
  std::stable_sort(expected.begin(), expected.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  EXPECT_EQ(fields(out), fields(expected));
}

TEST_F(ReplaySettingsTest, TestSignalReplacesBothEdgesOfItsInputOnly) {
  const std::vector<Tag> out = replayed(base, [](ZeptickVirtualImpl& tagger) {
    tagger.seedTestSignal(3);
    tagger.setTestSignal(1, true);
    EXPECT_TRUE(tagger.getTestSignal(1));
    EXPECT_TRUE(tagger.getTestSignal(-1));
    EXPECT_FALSE(tagger.getTestSignal(2));
  });
  std::vector<Tag> others;
  std::vector<int64_t> rising;
  std::vector<int64_t> falling;
  for (const Tag& tag : out) {
    if (tag.channel == 1) {
      rising.push_back(tag.time);
    } else if (tag.channel == -1) {
      falling.push_back(tag.time);
    } else {
      others.push_back(tag);
    }
  }
  std::vector<Tag> expected_others;
  for (const Tag& tag : generatedTags(plan)) {
    if (tag.channel != 1) expected_others.push_back(tag);
  }
  EXPECT_EQ(fields(others), fields(expected_others));

  // A square wave of about 1.256 us: edges alternate, each about 628 ns after the last.
  const double cycles = static_cast<double>(plan.duration) / (2 * 628006.5);
  EXPECT_NEAR(static_cast<double>(rising.size()), cycles, 3.0);
  EXPECT_NEAR(static_cast<double>(falling.size()), cycles, 3.0);
  ASSERT_FALSE(rising.empty());
  EXPECT_TRUE(std::is_sorted(out.begin(), out.end(),
                             [](const Tag& a, const Tag& b) { return a.time < b.time; }));
  for (size_t i = 1; i < rising.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(rising[i] - rising[i - 1]), 1256013.0, 8000.0) << i;
  }
  for (size_t i = 0; i + 1 < rising.size() && i < falling.size(); ++i) {
    EXPECT_NEAR(static_cast<double>(falling[i] - rising[i]), 628006.5, 6000.0) << i;
  }
}

}  // namespace
}  // namespace zeptick::testing
