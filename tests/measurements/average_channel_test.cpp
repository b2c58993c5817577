#include "zeptick/average_channel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/virtual_channel_harness.h"

namespace zeptick {
namespace {

using ::testing::_;
using namespace testing;
using ::testing::NiceMock;
using ::testing::Return;

std::vector<int> channelList(size_t count) {
  std::vector<int> list;
  for (size_t i = 0; i < count; ++i) list.push_back(static_cast<int>(i / 2 + 1) * (i % 2 ? -1 : 1));
  return list;
}

// A hardware tagger whose stream, fences and channel registry are those of
// the test tagger, with mocked hardware operations and as many channels as
// the test asks for (the test tagger has too few for this channel).
class MockZeptick : public TestTaggerCore, public Zeptick {
 public:
  explicit MockZeptick(size_t channels = 36) {
    ON_CALL(*this, getChannelList(_)).WillByDefault(Return(channelList(channels)));
  }

  MOCK_METHOD(void, reset, (), (override));
  MOCK_METHOD(void, setTestSignalDivider, (int), (override));
  MOCK_METHOD(int, getTestSignalDivider, (), (override));
  MOCK_METHOD(void, setTriggerLevel, (int, double), (override));
  MOCK_METHOD(double, getTriggerLevel, (int), (override));
  MOCK_METHOD(int64_t, getHardwareDelayCompensation, (int), (override));
  MOCK_METHOD(void, setInputMux, (int, int), (override));
  MOCK_METHOD(int, getInputMux, (int), (override));
  MOCK_METHOD(void, setConditionalFilter, (std::vector<int>, std::vector<int>, bool), (override));
  MOCK_METHOD(void, clearConditionalFilter, (), (override));
  MOCK_METHOD(std::vector<int>, getConditionalFilterTrigger, (), (override));
  MOCK_METHOD(std::vector<int>, getConditionalFilterFiltered, (), (override));
  MOCK_METHOD(void, setNormalization, (bool), (override));
  MOCK_METHOD(bool, getNormalization, (), (override));
  MOCK_METHOD(void, setHardwareBufferSize, (int), (override));
  MOCK_METHOD(int, getHardwareBufferSize, (), (override));
  MOCK_METHOD(void, setStreamBlockSize, (int, int), (override));
  MOCK_METHOD(int, getStreamBlockSizeEvents, (), (override));
  MOCK_METHOD(int, getStreamBlockSizeLatency, (), (override));
  MOCK_METHOD(void, setEventDivider, (int, uint32_t), (override));
  MOCK_METHOD(uint32_t, getEventDivider, (int), (override));
  MOCK_METHOD(void, autoCalibration, (std::function<double*(size_t)>), (override));
  MOCK_METHOD(std::string, getSerial, (), (override));
  MOCK_METHOD(std::string, getModel, (), (override));
  MOCK_METHOD(int, getChannelNumberScheme, (), (override));
  MOCK_METHOD(std::vector<double>, getDACRange, (), (override));
  MOCK_METHOD(void, getDistributionCount, (std::function<int64_t*(size_t, size_t)>), (override));
  MOCK_METHOD(void, getDistributionPSecs, (std::function<int64_t*(size_t, size_t)>), (override));
  MOCK_METHOD(std::vector<int>, getChannelList, (int), (override));
  MOCK_METHOD(int64_t, getPsPerClock, (), (override));
  MOCK_METHOD(std::string, getPcbVersion, (), (override));
  MOCK_METHOD(std::string, getFirmwareVersion, (), (override));
  MOCK_METHOD(std::string, getSensorData, (), (override));
  MOCK_METHOD(void, setLED, (uint32_t), (override));
  MOCK_METHOD(uint32_t, factoryAccess, (uint32_t, uint32_t, uint32_t, uint32_t), (override));
};

// Its workers start once the whole mock is built and stop before any of it
// is torn down: they call into the mock.
class RunningMock final : public NiceMock<MockZeptick> {
 public:
  explicit RunningMock(size_t channels = 36) : NiceMock<MockZeptick>(channels) { startWorkers(2); }
  ~RunningMock() override { stopWorkers(); }
};

// The channel's rules on the whole stream: a time tag on an input takes that
// input's latest time; if every input's latest time lies within the window
// before it, a mean tag goes out at its time less the rounded-down mean
// difference. Anything but a time tag forgets all latest times. Every tag
// leaves with its own time, means behind stream tags of the same time, and
// only what lies more than a window before the end leaves at all.
std::vector<Tag> reference(const std::vector<Tag>& input, const std::vector<int>& channels,
                           int64_t window, int virtual_channel, int64_t run_end) {
  std::vector<Tag> means;
  std::vector<std::optional<int64_t>> latest(channels.size());
  for (const Tag& tag : input) {
    if (tag.type != Tag::Type::TimeTag) {
      std::fill(latest.begin(), latest.end(), std::nullopt);
      continue;
    }
    for (size_t i = 0; i < channels.size(); ++i) {
      if (channels[i] != tag.channel) continue;
      latest[i] = tag.time;
      int64_t sum = 0;
      bool complete = true;
      for (const auto& last : latest) {
        complete = complete && last && tag.time - *last < window;
        if (complete) sum += tag.time - *last;
      }
      if (complete) {
        means.push_back(timeTag(virtual_channel, tag.time - sum / int64_t(channels.size())));
      }
    }
  }
  std::vector<Tag> out;
  std::stable_sort(means.begin(), means.end(),
                   [](const Tag& a, const Tag& b) { return a.time < b.time; });
  size_t next = 0;
  for (const Tag& tag : input) {
    while (next < means.size() && means[next].time < tag.time) out.push_back(means[next++]);
    out.push_back(tag);
  }
  out.insert(out.end(), means.begin() + static_cast<ptrdiff_t>(next), means.end());
  std::erase_if(out, [&](const Tag& tag) { return tag.time + window >= run_end; });
  return out;
}

class AverageChannelTest : public ::testing::Test {
 protected:
  AverageChannelTest() { tagger.setIdleSpan(0); }
  RunningMock tagger;
};

TEST_F(AverageChannelTest, NeedsAnUltra18AndSetsTheInputMultiplexers) {
  RunningMock small(35);
  try {
    AverageChannel average(&small, 1, {1, 2});
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(),
                 "The AverageChannel measurement class is only supported on Zeptick Ultra 18 "
                 "devices.");
  }
  EXPECT_EQ(small.registrations(1), 0);

  // Smaller in magnitude than the reference: 2; larger: 1; equal (the
  // reference itself or its other edge): nothing.
  ::testing::InSequence in_order;
  EXPECT_CALL(tagger, setInputMux(2, 2));
  EXPECT_CALL(tagger, setInputMux(-4, 1));
  EXPECT_CALL(tagger, setInputMux(7, 1));
  EXPECT_CALL(tagger, setInputMux(-1, 2));
  AverageChannel average(&tagger, 3, {3, 2, -4, -3, 7, -1});
  EXPECT_EQ(average.getChannel(), testing::kFirstVirtualChannel);
  for (int channel : {3, 2, -4, -3, 7, -1}) EXPECT_EQ(tagger.registrations(channel), 1);
}

TEST_F(AverageChannelTest, MeanRoundsDownAndTheWindowIsStrict) {
  Direct<AverageChannel> pair(&tagger, 1, std::vector<int>{1, 2});
  const int v = pair.getChannel();
  // Differences 0 and 1: mean 0, so the new tag sits on the latest one.
  std::vector<Tag> out = pair.feed({timeTag(1, 3000000), timeTag(2, 3000001)}, 2000000, 4000000);
  EXPECT_TRUE(sameTags(out, {timeTag(1, 3000000), timeTag(2, 3000001), timeTag(v, 3000001)}));
  // Window 5000: a tag exactly a window after the other gives nothing.
  out = pair.feed({timeTag(1, 5000000), timeTag(2, 5005000)}, 4000000, 7000000);
  EXPECT_TRUE(sameTags(out, {timeTag(1, 5000000), timeTag(2, 5005000)}));
  // Held back by the window: nothing within 5000 ps of the block end leaves.
  EXPECT_TRUE(pair.feed({timeTag(3, 7000000)}, 7000000, 7005000).empty());
  EXPECT_TRUE(sameTags(pair.feed({}, 7005000, 7005001), {timeTag(3, 7000000)}));
}

TEST_F(AverageChannelTest, MatchesTheRulesOnRandomStreamsCutAnywhere) {
  std::mt19937_64 rng(31);
  const std::vector<std::vector<int>> inputs = {{1, 2, 3}, {2, -2, 2}, {4, 1, 3, 2, -1}};
  for (size_t k = 0; k < inputs.size(); ++k) {
    const std::vector<int>& channels = inputs[k];
    SCOPED_TRACE("setup " + std::to_string(k));
    int64_t window = 4000;
    for (int channel : channels) {
      window = std::max<int64_t>(window, std::abs(channel - 1) * 1000 + 4000);
    }
    testing::StreamShape shape;
    shape.channels = {1, 2, 3, 4, -1, -2, 5};
    shape.tags = 1500;
    shape.mean_gap = 900;
    shape.error_percent = shape.overflow_percent = shape.missed_outside_percent = 0.5;
    const TagStream stream = testing::makeRandomStream(rng, shape);
    const int64_t run_end = stream.end_time + window + 1;
    const std::vector<Tag> expected =
        reference(stream.tags, channels, window, testing::kFirstVirtualChannel, run_end);
    EXPECT_GT(std::count_if(expected.begin(), expected.end(),
                            [](const Tag& tag) { return tag.channel == 1000; }),
              30);

    for (size_t most_cuts : {0, 5, 300, 3000}) {
      SCOPED_TRACE(::testing::Message() << most_cuts << " cuts");
      std::vector<Block> blocks =
          testing::cutStream(stream, testing::randomCuts(rng, stream, most_cuts));
      blocks.push_back(Block{{}, stream.end_time, run_end});
      Direct<AverageChannel> average(&tagger, 1, channels);
      std::vector<Tag> out;
      for (const Block& block : blocks) {
        std::vector<Tag> left = average.feed(block.tags, block.begin_time, block.end_time);
        for (Tag& tag : left) {
          EXPECT_LT(tag.time + window, block.end_time) << "left before its window had passed";
          if (tag.channel == average.getChannel()) tag.channel = testing::kFirstVirtualChannel;
          out.push_back(tag);
        }
      }
      EXPECT_TRUE(sameTags(out, expected));
    }
  }
}

}  // namespace
}  // namespace zeptick
