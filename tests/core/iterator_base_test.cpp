#include <gtest/gtest.h>

#include <stdexcept>

#include "support/log_capture.h"
#include "support/recording_measurement.h"
#include "support/test_tagger.h"

namespace zeptick::testing {
namespace {

TEST(IteratorBase, ChannelsAreRegisteredOnceAndReleasedAtDestruction) {
  LogCapture log;
  TestZeptick tagger("T", 2);
  auto first =
      std::make_unique<RecordingMeasurement>(&tagger, std::vector<int>{1, 1, 2, CHANNEL_UNUSED});
  RecordingMeasurement second(&tagger, {1});
  EXPECT_EQ(tagger.registrations(1), 2);
  EXPECT_EQ(tagger.registrations(2), 1);

  first->unregisterChannel(2);
  first->unregisterChannel(2);  // a second time does nothing
  first->unregisterChannel(3);  // never registered
  EXPECT_EQ(tagger.registrations(2), 0);
  first.reset();
  EXPECT_EQ(tagger.registrations(1), 1);
  EXPECT_TRUE(log.messages().empty()) << log.messages().front();
}

class FailingStart : public IteratorBase {
 public:
  explicit FailingStart(ZeptickBase* tagger) : IteratorBase(tagger) {}
  ~FailingStart() override { stop(); }
  void begin() { finishInitialization(); }

 protected:
  void on_start() override { throw std::runtime_error("cannot start"); }
  void clear_impl() override { throw std::logic_error("cannot clear"); }
  bool next_impl(std::vector<Tag>&, int64_t, int64_t) override { return false; }
};

TEST(IteratorBase, FailuresOfStartAndClearReachTheCaller) {
  TestZeptick tagger("T", 2);
  FailingStart m(&tagger);
  EXPECT_THROW(m.begin(), std::runtime_error);
  EXPECT_FALSE(m.isRunning());
  EXPECT_THROW(m.clear(), std::logic_error);
}

// Forgets to stop in its destructor; the base class must say so.
class Careless : public IteratorBase {
 public:
  explicit Careless(ZeptickBase* tagger) : IteratorBase(tagger) { finishInitialization(); }

 protected:
  bool next_impl(std::vector<Tag>&, int64_t, int64_t) override { return false; }
};

TEST(IteratorBase, DestroyingARunningMeasurementIsReported) {
  LogCapture log;
  TestZeptick tagger("T", 2);
  tagger.setIdleSpan(0);  // no block may reach the half-destroyed object
  { Careless careless(&tagger); }
  EXPECT_TRUE(log.contains(LOGGER_ERROR,
                           "Iterator still running, please call stop() within the destructor"));
}

}  // namespace
}  // namespace zeptick::testing
