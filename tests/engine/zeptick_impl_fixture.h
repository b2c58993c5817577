#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "device/device_fixture.h"
#include "engine/zeptick_impl.h"
#include "zeptick/iterator_base.h"
#include "zeptick/library.h"

namespace zeptick::testing {

/// A free-running emulated "Zeptick Ultra" (revision 5: one-based channel
/// numbers) with the given signal sources.
inline nlohmann::json ultraBoard(const std::string& serial, nlohmann::json sources = nullptr,
                                 int revision = 5) {
  nlohmann::json entry = boardEntry(serial, 36, revision);
  entry["sources"] = sources.is_null() ? nlohmann::json::array() : std::move(sources);
  return entry;
}

/// Emulated boards plus hardware taggers opened on them.
class EmulatedTagger : public EmulatedBoards {
 protected:
  void SetUp() override {
    EmulatedBoards::SetUp();
    setZeptickChannelNumberScheme(ZT_CHANNEL_NUMBER_SCHEME_AUTO);
  }
  void TearDown() override {
    tagger.reset();
    setZeptickChannelNumberScheme(ZT_CHANNEL_NUMBER_SCHEME_AUTO);
    EmulatedBoards::TearDown();
  }

  /// Attaches `entry` and opens a tagger on it.
  ZeptickImpl& open(const nlohmann::json& entry) {
    board = attach(entry);
    tagger = std::make_unique<ZeptickImpl>(entry.at("serial").get<std::string>());
    return *tagger;
  }

  std::shared_ptr<emulator::BoardControl> board;
  std::unique_ptr<ZeptickImpl> tagger;
};

/// Collects the tags of its channels, and every block's span, for checks
/// against the stream's own rules.
class TagCollector : public IteratorBase {
 public:
  struct Span {
    int64_t begin;
    int64_t end;
    size_t tags;
  };
  TagCollector(ZeptickBase* tagger, std::vector<int> channels) : IteratorBase(tagger) {
    for (int channel : channels) registerChannel(channel);
    finishInitialization();
  }
  ~TagCollector() override { stop(); }

  std::vector<Tag> tags() {
    auto guard = getLock();
    return seen;
  }
  std::vector<Span> spans() {
    auto guard = getLock();
    return blocks;
  }
  /// Spans and tags taken together, so that they match while blocks flow.
  std::pair<std::vector<Span>, std::vector<Tag>> snapshot() {
    auto guard = getLock();
    return {blocks, seen};
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t begin_time, int64_t end_time) override {
    seen.insert(seen.end(), tags.begin(), tags.end());
    blocks.push_back({begin_time, end_time, tags.size()});
    return false;
  }
  void clear_impl() override {
    seen.clear();
    blocks.clear();
  }

 private:
  std::vector<Tag> seen;
  std::vector<Span> blocks;
};

/// Time tags of `channel`, in stream order.
inline std::vector<int64_t> timesOf(const std::vector<Tag>& tags, int channel) {
  std::vector<int64_t> out;
  for (const Tag& tag : tags) {
    if (tag.type == Tag::Type::TimeTag && tag.channel == channel) out.push_back(tag.time);
  }
  return out;
}

}  // namespace zeptick::testing

namespace zeptick::testing {

/// Waits until `done()` holds, for at most `seconds`; false on timeout.
template <class Condition>
bool waitUntil(Condition done, int seconds = 60) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// The stream rules every block must keep: spans touch, and each block's tags
/// lie in its span in ascending time.
inline void expectOrderedStream(TagCollector& collector) {
  const auto [spans, tags] = collector.snapshot();
  size_t next = 0;
  for (size_t i = 0; i < spans.size(); ++i) {
    if (i > 0) {
      ASSERT_EQ(spans[i].begin, spans[i - 1].end) << "block " << i;
    }
    ASSERT_LE(spans[i].begin, spans[i].end) << "block " << i;
    for (size_t k = 0; k < spans[i].tags; ++k, ++next) {
      const Tag& tag = tags[next];
      ASSERT_GE(tag.time, spans[i].begin)
          << "block " << i << " type " << static_cast<int>(tag.type) << " channel " << tag.channel;
      ASSERT_LT(tag.time, spans[i].end) << "block " << i;
      if (next > 0 && k > 0) {
        ASSERT_LE(tags[next - 1].time, tag.time) << "block " << i;
      }
    }
  }
}

/// An emulated tagger with a way to collect a settled stretch of its stream.
class CollectingTagger : public EmulatedTagger {
 protected:
  /// Runs a collector on `channels` for `span_ps` of stream time, begun after
  /// every setting made so far is in force, and checks the stream's order.
  std::unique_ptr<TagCollector> collect(std::vector<int> channels, int64_t span_ps) {
    tagger->sync();
    auto collector = std::make_unique<TagCollector>(tagger.get(), channels);
    collector->startFor(span_ps);
    EXPECT_TRUE(waitUntil([&] { return !collector->isRunning(); }));
    expectOrderedStream(*collector);
    return collector;
  }
};

}  // namespace zeptick::testing
