#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "library/tagger_factories.h"
#include "support/measurement_streams.h"
#include "support/recording_measurement.h"
#include "zeptick/library.h"

namespace zeptick::testing {
namespace {

// The serial that the stand-in instrument reports when opened without one.
const std::string kDefaultSerial = "DEFAULT-1";

// Runs the registry on test doubles, recording every construction it asks for, and gives the
// library its own constructors back however a test ends.
class InstancesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    detail::TaggerFactories& factories = detail::taggerFactories();
    factories.hardware = [this](const std::string& serial) -> Zeptick* {
      hardware_calls.push_back(serial);
      if (fail_hardware) throw std::runtime_error("no instrument attached");
      return new TestZeptick(serial.empty() ? kDefaultSerial : serial, 2);
    };
    factories.replay = [this]() -> ZeptickVirtual* {
      ++replay_calls;
      return new TestZeptickVirtual(2);
    };
  }

  void TearDown() override {
    freeAllZeptick();
    detail::taggerFactories() = saved_factories;
  }

  const detail::TaggerFactories saved_factories = detail::taggerFactories();
  // Written by the factories, which the registry calls under its own lock.
  std::vector<std::string> hardware_calls;
  int replay_calls = 0;
  bool fail_hardware = false;
};

// Random opens (some failing), replay opens and frees, with freed, unknown and null handles among
// them, against a table of the open taggers and their counts. Each tagger carries a measurement,
// orphaned exactly when its tagger goes; it may still be started, stopped and given channels.
TEST_F(InstancesTest, OpensAndFreesFollowAReferenceCountTable) {
  struct Entry {
    std::string serial;  // empty for a replay tagger
    int count = 1;
    std::unique_ptr<RecordingMeasurement> probe;
  };
  std::map<ZeptickBase*, Entry> table;
  ZeptickBase* default_tagger = nullptr;
  TestZeptick stranger("LOOSE-4", 2);
  std::vector<ZeptickBase*> handles{nullptr, &stranger};  // freed ones stay in the list
  size_t constructions = 0;
  auto added = [&](ZeptickBase* tagger, const std::string& serial) {
    EXPECT_EQ(table.count(tagger), 0u);
    table[tagger] =
        Entry{serial, 1, std::make_unique<RecordingMeasurement>(tagger, std::vector{1})};
    handles.push_back(tagger);
    return tagger;
  };
  auto orphaned = [&](Entry& entry) {
    EXPECT_EQ(entry.probe->getTagger(), nullptr);
    EXPECT_FALSE(entry.probe->isRunning());
    EXPECT_EQ(entry.probe->stops(), 1);
    entry.probe->start();
    entry.probe->stop();
    entry.probe->registerChannel(4);
  };
  std::mt19937_64 rng(11);
  for (int step = 0; step < 300; ++step) {
    SCOPED_TRACE("step " + std::to_string(step));
    const unsigned action = rng() % 6;  // 0-1 open, 2 replay, 3-4 free an open one, 5 any
    const std::string serial = std::array<std::string, 3>{"", kDefaultSerial, "OTHER-2"}[rng() % 3];
    // The default, or any tagger open under the serial: two may share one when the default
    // was opened while a tagger of its serial was open.
    std::set<ZeptickBase*> known;
    if (serial.empty() && default_tagger != nullptr) known.insert(default_tagger);
    for (auto& [tagger, entry] : table) {
      if (!serial.empty() && entry.serial == serial) known.insert(tagger);
    }
    fail_hardware = rng() % 5 == 0;
    constructions += (action < 2 && known.empty()) || action == 2 ? 1 : 0;
    if (action < 2 && known.empty() && fail_hardware) {
      EXPECT_THAT([&] { createZeptick(serial); },
                  ::testing::ThrowsMessage<std::runtime_error>("no instrument attached"));
    } else if (action < 2 && known.empty()) {
      ZeptickBase* tagger = added(createZeptick(serial), serial.empty() ? kDefaultSerial : serial);
      if (serial.empty()) default_tagger = tagger;
    } else if (action < 2) {
      ZeptickBase* tagger = createZeptick(serial);
      ASSERT_EQ(known.count(tagger), 1u);
      ++table.at(tagger).count;
    } else if (action == 2) {
      added(createZeptickVirtual(), "");
    } else {
      ZeptickBase* tagger = handles[rng() % handles.size()];
      if (action < 5 && !table.empty())
        tagger = std::next(table.begin(), rng() % table.size())->first;
      const auto found = table.find(tagger);
      const bool last = found != table.end() && --found->second.count == 0;
      EXPECT_EQ(freeZeptick(tagger), last);
      if (last) orphaned(found->second);
      if (last) table.erase(found);
      if (last && tagger == default_tagger) default_tagger = nullptr;
    }
    ASSERT_EQ(hardware_calls.size() + static_cast<size_t>(replay_calls), constructions);
  }
  // Every tagger left still delivers; freeAll destroys them all, and the default opens anew.
  for (auto& [tagger, entry] : table) {
    const auto sent = deliver(dynamic_cast<TestTaggerCore&>(*tagger), {{{timeTag(1, 5)}, 0, 9}});
    EXPECT_TRUE(sameTags(concatenate(entry.probe->blocks()), concatenate(sent)));
  }
  freeAllZeptick();
  for (auto& [tagger, entry] : table) orphaned(entry);
  for (auto& [tagger, entry] : table) EXPECT_FALSE(freeZeptick(tagger));
  EXPECT_TRUE(freeZeptick(createZeptick("")));
  EXPECT_EQ(hardware_calls.size() + static_cast<size_t>(replay_calls), constructions + 1);
}

TEST_F(InstancesTest, ConcurrentOpensShareOneTagger) {
  constexpr int kThreads = 4;
  const auto inParallel = [](auto body) {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(body, i);
  };
  std::vector<Zeptick*> opened(kThreads, nullptr);
  inParallel([&](int i) { opened[i] = createZeptick(""); });
  for (Zeptick* tagger : opened) EXPECT_EQ(tagger, opened.front());
  EXPECT_EQ(hardware_calls.size(), 1u);
  std::atomic<int> destroyed{0};
  inParallel([&](int i) { destroyed += freeZeptick(opened[i]) ? 1 : 0; });
  EXPECT_EQ(destroyed.load(), 1);
}

}  // namespace
}  // namespace zeptick::testing
