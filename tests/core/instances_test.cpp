#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "library/tagger_factories.h"
#include "support/test_tagger.h"
#include "zeptick/iterator_base.h"
#include "zeptick/library.h"

namespace zeptick::testing {
namespace {

// The serial that the stand-in instrument reports when opened without one.
const std::string kDefaultSerial = "DEFAULT-1";

// Counts the tags it is handed and how often it was stopped; registers input 1 so that an
// orphan touching its dead tagger would show up under ASan. Not a RecordingMeasurement: that one
// starts in its own constructor, before a subclass has set its vtable.
class Probe final : public IteratorBase {
 public:
  explicit Probe(ZeptickBase* tagger) : IteratorBase(tagger) {
    registerChannel(1);
    finishInitialization();
  }
  ~Probe() override { stop(); }
  using IteratorBase::registerChannel;

  bool attached() {
    auto guard = getLock();
    return getTagger() != nullptr;
  }
  size_t tagsSeen() {
    auto guard = getLock();
    return tags_seen;
  }
  int stops() {
    auto guard = getLock();
    return stop_count;
  }

 protected:
  bool next_impl(std::vector<Tag>& tags, int64_t, int64_t) override {
    tags_seen += tags.size();
    return false;
  }
  void on_stop() override { ++stop_count; }

 private:
  size_t tags_seen = 0;
  int stop_count = 0;
};

// Pushes one block with `count` tags on input 1 and waits until every
// measurement has seen it.
void feed(ZeptickBase* tagger, int count) {
  Block block;
  block.end_time = 1000;
  for (int i = 0; i < count; ++i) block.tags.push_back(Tag{Tag::Type::TimeTag, 0, 0, 1, i});
  auto* test_tagger = dynamic_cast<TestTaggerCore*>(tagger);
  ASSERT_NE(test_tagger, nullptr);
  test_tagger->pushBlocks({block});
  tagger->sync();
}

// Restores the library's tagger constructors however a test ends.
class FactoriesGuard {
 public:
  FactoriesGuard() : saved(detail::taggerFactories()) {}
  ~FactoriesGuard() { detail::taggerFactories() = saved; }
  FactoriesGuard(const FactoriesGuard&) = delete;
  FactoriesGuard& operator=(const FactoriesGuard&) = delete;

 private:
  detail::TaggerFactories saved;
};

// Runs the registry on test doubles, recording every construction it asks for.
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

  void TearDown() override { freeAllZeptick(); }

  FactoriesGuard factories_guard;
  // Written by the factories, which the registry calls under its own lock.
  std::vector<std::string> hardware_calls;
  int replay_calls = 0;
  bool fail_hardware = false;
};

TEST_F(InstancesTest, EmptySerialSharesOneTaggerUntilTheLastFree) {
  Zeptick* first = createZeptick("");
  Zeptick* second = createZeptick("");
  ASSERT_EQ(first, second);
  EXPECT_EQ(hardware_calls.size(), 1u);

  Probe probe(first);
  EXPECT_FALSE(freeZeptick(first));
  // One reference is left: the tagger still runs and delivers.
  feed(second, 3);
  EXPECT_TRUE(probe.attached());
  EXPECT_TRUE(probe.isRunning());
  EXPECT_EQ(probe.tagsSeen(), 3u);

  EXPECT_TRUE(freeZeptick(second));
  // Destroyed: the measurement is an orphan that keeps its data.
  EXPECT_FALSE(probe.attached());
  EXPECT_FALSE(probe.isRunning());
  EXPECT_EQ(probe.stops(), 1);
  EXPECT_EQ(probe.tagsSeen(), 3u);
  EXPECT_GE(probe.getCaptureDuration(), 1000);

  Zeptick* reopened = createZeptick("");
  EXPECT_EQ(hardware_calls.size(), 2u);
  Probe fresh(reopened);
  feed(reopened, 2);
  EXPECT_EQ(fresh.tagsSeen(), 2u);
}

TEST_F(InstancesTest, SerialOfTheDefaultTaggerSharesIt) {
  Zeptick* by_default = createZeptick("");
  Zeptick* by_serial = createZeptick(kDefaultSerial);
  EXPECT_EQ(by_serial, by_default);
  EXPECT_EQ(hardware_calls.size(), 1u);

  Zeptick* other = createZeptick("OTHER-2");
  EXPECT_NE(other, by_default);
  EXPECT_EQ(other->getSerial(), "OTHER-2");
  EXPECT_EQ(createZeptick("OTHER-2"), other);
  EXPECT_EQ(hardware_calls.size(), 2u);

  // Both handles count: the empty serial finds the tagger while any is left.
  EXPECT_FALSE(freeZeptick(by_default));
  EXPECT_EQ(createZeptick(""), by_default);
  EXPECT_FALSE(freeZeptick(by_default));
  EXPECT_EQ(hardware_calls.size(), 2u);

  // The last reference goes through the serial's handle; the default must go with it.
  Probe probe(by_serial);
  EXPECT_TRUE(freeZeptick(by_serial));
  EXPECT_FALSE(probe.attached());
  Zeptick* reopened = createZeptick("");
  ASSERT_EQ(hardware_calls.size(), 3u);
  EXPECT_EQ(hardware_calls.back(), "");
  Probe fresh(reopened);
  feed(reopened, 1);
  EXPECT_EQ(fresh.tagsSeen(), 1u);

  EXPECT_FALSE(freeZeptick(other));
  EXPECT_TRUE(freeZeptick(other));
}

TEST_F(InstancesTest, FailedOpenLeavesTheRegistryAsItWas) {
  fail_hardware = true;
  try {
    createZeptick("");
    ADD_FAILURE() << "an open without an instrument returned";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "no instrument attached");
  }
  EXPECT_THROW(createZeptick("NAMED-3"), std::runtime_error);
  EXPECT_EQ(hardware_calls.size(), 2u);

  // Neither failure was remembered: both opens construct, each with one reference.
  fail_hardware = false;
  Zeptick* by_default = createZeptick("");
  Zeptick* named = createZeptick("NAMED-3");
  EXPECT_EQ(hardware_calls.size(), 4u);
  EXPECT_NE(by_default, named);
  EXPECT_TRUE(freeZeptick(by_default));
  EXPECT_TRUE(freeZeptick(named));
}

TEST_F(InstancesTest, FreeingWhatTheRegistryDoesNotKnowChangesNothing) {
  EXPECT_FALSE(freeZeptick(nullptr));

  TestZeptick unregistered("LOOSE-4", 2);
  // Converted while alive: reaching the virtual base of a freed tagger reads freed memory.
  ZeptickBase* tagger = createZeptick("");
  EXPECT_FALSE(freeZeptick(&unregistered));
  EXPECT_FALSE(freeZeptick(nullptr));
  // Neither the stranger was destroyed nor the registered tagger's count touched.
  EXPECT_TRUE(unregistered.sync());
  EXPECT_TRUE(freeZeptick(tagger));
  EXPECT_FALSE(freeZeptick(tagger));
}

TEST_F(InstancesTest, EveryReplayTaggerIsNewAndFreedAtOnce) {
  ZeptickVirtual* first = createZeptickVirtual();
  ZeptickBase* second = createZeptickVirtual();
  EXPECT_NE(first, second);
  EXPECT_EQ(replay_calls, 2);

  // A replay tagger is never the default instrument.
  Zeptick* hardware = createZeptick("");
  EXPECT_EQ(hardware_calls.size(), 1u);

  Probe probe(second);
  EXPECT_TRUE(freeZeptick(first));
  feed(second, 2);
  EXPECT_EQ(probe.tagsSeen(), 2u);
  EXPECT_TRUE(freeZeptick(second));
  EXPECT_FALSE(probe.attached());
  EXPECT_FALSE(freeZeptick(second));
  EXPECT_TRUE(freeZeptick(hardware));
}

TEST_F(InstancesTest, FreeAllDestroysEveryTaggerAndOrphansItsMeasurements) {
  ZeptickBase* shared = createZeptick("");
  createZeptick("");
  createZeptick(kDefaultSerial);
  Zeptick* other = createZeptick("OTHER-2");
  ZeptickBase* replay = createZeptickVirtual();

  auto on_shared = std::make_unique<Probe>(shared);
  auto on_replay = std::make_unique<Probe>(replay);
  feed(shared, 4);
  feed(replay, 1);
  // With no blocks flowing this one is most likely still waiting to be linked
  // into the chain; an orphan must be handled in either state.
  dynamic_cast<TestTaggerCore*>(other)->setIdleSpan(0);
  auto on_other = std::make_unique<Probe>(other);

  freeAllZeptick();
  for (Probe* probe : {on_shared.get(), on_replay.get(), on_other.get()}) {
    EXPECT_FALSE(probe->attached());
    EXPECT_FALSE(probe->isRunning());
    EXPECT_EQ(probe->stops(), 1);
    // An orphan may be started, stopped and given channels, but gets nothing.
    probe->start();
    probe->stop();
    probe->registerChannel(4);
  }
  EXPECT_EQ(on_shared->tagsSeen(), 4u);
  EXPECT_EQ(on_replay->tagsSeen(), 1u);
  EXPECT_EQ(on_other->tagsSeen(), 0u);
  on_shared.reset();
  on_replay.reset();
  on_other.reset();

  // Nothing is left over: old handles are unknown and the default opens anew.
  EXPECT_FALSE(freeZeptick(shared));
  EXPECT_FALSE(freeZeptick(replay));
  Zeptick* reopened = createZeptick("");
  EXPECT_EQ(hardware_calls.size(), 3u);
  EXPECT_TRUE(freeZeptick(reopened));
}

TEST_F(InstancesTest, ConcurrentOpensShareOneTagger) {
  constexpr int kThreads = 4;
  std::vector<Zeptick*> opened(kThreads, nullptr);
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&opened, i] { opened[i] = createZeptick(""); });
    }
  }
  for (Zeptick* tagger : opened) EXPECT_EQ(tagger, opened.front());
  EXPECT_EQ(hardware_calls.size(), 1u);

  std::atomic<int> destroyed{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < kThreads; ++i) {
      threads.emplace_back([&opened, &destroyed, i] {
        if (freeZeptick(opened[i])) ++destroyed;
      });
    }
  }
  EXPECT_EQ(destroyed.load(), 1);
}

TEST(LibrarySettingsTest, WithoutAnInstrumentOpeningFails) {
  FactoriesGuard guard;
  detail::taggerFactories() = detail::defaultTaggerFactories();
  for (const char* serial : {"", "ANY-5"}) {
    try {
      createZeptick(serial);
      ADD_FAILURE() << "opened an instrument that is not there: '" << serial << "'";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), "Opening of USB connection failed or device with serial '" +
                              std::string(serial) + "' not found.");
    }
  }
  EXPECT_TRUE(scanZeptick().empty());
}

}  // namespace
}  // namespace zeptick::testing
