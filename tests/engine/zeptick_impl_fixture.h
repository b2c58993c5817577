#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "device/device_fixture.h"
#include "engine/zeptick_impl.h"
#include "support/log_capture.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"
#include "zeptick/library.h"

namespace zeptick::testing {

using nlohmann::json;

inline json periodic(int input, double period_ps) {
  return {{"type", "periodic"}, {"input", input}, {"period_ps", period_ps}};
}
inline json poisson(int input, double rate_hz) {
  return {{"type", "poisson"}, {"input", input}, {"rate_hz", rate_hz}};
}
/// Photon pairs on two inputs (numbers, or "serial:input" across a group), `delay_ps` apart.
inline json pairs(json inputs, double delay_ps, double rate_hz, double jitter_ps = 0) {
  return {{"type", "pairs"},
          {"inputs", std::move(inputs)},
          {"delays_ps", {0, delay_ps}},
          {"rate_hz", rate_hz},
          {"jitter_ps", jitter_ps}};
}

/// A free-running emulated "Zeptick Ultra" (revision 5: one-based channel numbers) with the given
/// signal sources and, unless 0, that many inputs instead of its 18.
inline json ultraBoard(const std::string& serial, json sources = json::array(), int inputs = 0) {
  json entry = boardEntry(serial, 36, 5);
  entry["sources"] = std::move(sources);
  if (inputs != 0) entry["inputs"] = inputs;
  return entry;
}

/// Waits until `done()` holds; false after a minute (a hang guard).
template <class Condition>
bool waitUntil(Condition done, int seconds = 60) {
  return eventually(done, std::chrono::seconds(seconds));
}

/// Time tags of `channel`, in stream order.
inline std::vector<int64_t> timesOf(const std::vector<Tag>& tags, int channel) {
  std::vector<int64_t> out;
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::TimeTag && tag.channel == channel) out.push_back(tag.time);
  }
  return out;
}

/// Partners on `second` found within `tolerance` of `delay` after the tags of `first`.
struct Partners {
  size_t found = 0;
  double mean_delay = 0;  ///< over the partners found
};
inline Partners partnersOf(const std::vector<int64_t>& first, const std::vector<int64_t>& second,
                           int64_t delay, int64_t tolerance) {
  Partners out;
  double sum = 0;
  for (int64_t t : first) {
    const auto at = std::lower_bound(second.begin(), second.end(), t + delay - tolerance);
    if (at != second.end() && *at <= t + delay + tolerance) {
      sum += static_cast<double>(*at - t);
      ++out.found;
    }
  }
  if (out.found > 0) out.mean_delay = sum / static_cast<double>(out.found);
  return out;
}

/// The stream rules every block must keep: spans touch, and each block's tags
/// lie in its span in ascending time.
inline void expectOrderedStream(const std::vector<Block>& blocks) {
  for (size_t i = 0; i < blocks.size(); ++i) {
    const Block& block = blocks[i];
    ASSERT_EQ(block.begin_time, i == 0 ? block.begin_time : blocks[i - 1].end_time) << i;
    ASSERT_LE(block.begin_time, block.end_time) << "block " << i;
    for (size_t k = 0; k < block.tags.size(); ++k) {
      ASSERT_GE(block.tags[k].time, block.begin_time) << i << ": " << describe(block.tags[k]);
      ASSERT_LT(block.tags[k].time, block.end_time) << i << ": " << describe(block.tags[k]);
      ASSERT_LE(block.tags[k == 0 ? 0 : k - 1].time, block.tags[k].time) << "block " << i;
    }
  }
}

/// Emulated boards plus a hardware tagger opened on them. Tests may change the channel number
/// scheme; it is back at its default after each.
class EmulatedTagger : public EmulatedBoards {
 protected:
  void TearDown() override {
    tagger.reset();
    setZeptickChannelNumberScheme(ZT_CHANNEL_NUMBER_SCHEME_AUTO);
    EmulatedBoards::TearDown();
  }

  /// Attaches `entry` and opens a tagger on it.
  ZeptickImpl& open(const json& entry) {
    board = attach(entry);
    tagger = std::make_unique<ZeptickImpl>(entry.at("serial").get<std::string>());
    return *tagger;
  }

  /// The tags of `channels` over `span_ps` of stream time, begun after every
  /// setting made so far is in force; the stream's order is checked.
  std::vector<Tag> record(std::vector<int> channels, int64_t span_ps,
                          std::vector<Block>* blocks = nullptr) {
    tagger->sync();
    RecordingMeasurement recorder(tagger.get(), channels);
    recorder.startFor(span_ps);
    EXPECT_TRUE(waitUntil([&] { return !recorder.isRunning(); }));
    const std::vector<Block> seen = recorder.blocks();
    expectOrderedStream(seen);
    if (blocks != nullptr) *blocks = seen;
    return concatenate(seen);
  }

  std::shared_ptr<emulator::BoardControl> board;
  std::unique_ptr<ZeptickImpl> tagger;
};

}  // namespace zeptick::testing
