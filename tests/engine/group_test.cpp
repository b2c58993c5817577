// Synchronized groups on emulated Synchronizers: finding and ordering the members, one merged
// stream on one time axis, and what each wiring or link fault a lab meets turns into.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

// About 1 us clocks on input 1 of every member. Not a whole number of the boards' 2.5 ns clock
// cycles: a clock locked to the boards' own would always land in the same fine bin, which the
// code-density table, learning from the events themselves, would then take for a wide one.
constexpr int64_t kPeriod = 1000003;
constexpr int64_t kStep = 100000;  // member k's clock runs k x 100 ns behind the first's

class Group : public EmulatedTagger {
 protected:
  // Members named G0, G1, ... each with a periodic source on input 1, phase k * kStep.
  void attachGroup(int members, json wiring) {
    json devices = json::array();
    for (int k = 0; k < members; ++k) {
      json source = periodic(1, kPeriod);
      source["phase_ps"] = k * kStep;
      devices.push_back(ultraBoard("G" + std::to_string(k), json::array({source}), 2));
    }
    emulator::attachBoards({{"devices", devices}, {"synchronizer", std::move(wiring)}});
  }
  ZeptickImpl& openGroup(const std::string& serials) {
    tagger = std::make_unique<ZeptickImpl>(serials);
    return *tagger;
  }
  // Every member's clock tags, once each, in time order, each member k behind the first by
  // k x kStep, whatever the member's place in the chain: each tag within 200 ps of its channel's
  // mean and the members' means within 50 ps of each other (the fine bins, learned from test
  // signal and clocks alike, are good to a few ps), while a slip of the time axis would be a
  // clock period (2500 ps) or a group delay (780 ps).
  void expectOneTimeAxis(const std::map<int, int>& phase_step_of_channel) {
    std::vector<int> channels;
    for (const auto& [channel, step] : phase_step_of_channel) channels.push_back(channel);
    std::map<int, std::vector<int64_t>> offsets;
    int64_t origin = -1;
    for (const Tag& tag : record(channels, 2 * 1000 * kPeriod)) {
      ASSERT_EQ(tag.type, Tag::Type::TimeTag);
      const int64_t phase = tag.time - phase_step_of_channel.at(tag.channel) * kStep;
      if (origin < 0) origin = phase - phase % kPeriod;
      // Signed distance to the nearest clock edge of the first member's grid.
      int64_t off = ((phase - origin) % kPeriod + kPeriod) % kPeriod;
      if (off > kPeriod / 2) off -= kPeriod;
      offsets[tag.channel].push_back(off);
    }
    double first_mean = 0;
    for (int channel : channels) {
      const std::vector<int64_t>& list = offsets[channel];
      EXPECT_NEAR(static_cast<double>(list.size()), 2000, 2) << channel;
      double mean = 0;
      for (int64_t off : list) mean += static_cast<double>(off);
      mean /= std::max<size_t>(1, list.size());
      for (int64_t off : list) ASSERT_NEAR(static_cast<double>(off), mean, 200) << channel;
      if (channel == channels.front()) first_mean = mean;
      EXPECT_NEAR(mean, first_mean, 50) << "channel " << channel << " against " << channels[0];
    }
  }
};

// Opened by one serial, the rest found by probing: the chain follows the ring, not the scan.
TEST_F(Group, MembersFollowTheRingOrTheListGivenAndResetReopensTheGroup) {
  for (int members : {2, 3, 4}) {
    SCOPED_TRACE(members);
    tagger.reset();
    json ring = json::array();
    for (int k = members - 1; k >= 0; --k) ring.push_back("G" + std::to_string(k));
    attachGroup(members, {{"ring", ring}});
    ZeptickImpl& zt = openGroup("G1");
    std::string expected;
    std::map<int, int> steps;
    for (int k = members - 1; k >= 0; --k) {
      expected += (expected.empty() ? "" : ", ") + ("G" + std::to_string(k));
      const int ordinal = members - 1 - k;
      steps[(ordinal + 1) * 100 + 1] = k;
    }
    EXPECT_EQ(zt.getSerial(), expected);
    EXPECT_EQ(zt.getInvertedChannel(101), -101);
    EXPECT_EQ(zt.getChannelList(ZT_CHANNEL_RISING).size(), static_cast<size_t>(2 * members));
    {
      // Settings of the unused second inputs keep changing on every member meanwhile, from
      // another thread, while the workers decode and merge (run under ThreadSanitizer too).
      std::atomic<bool> done{false};
      std::thread settings([&] {
        for (int round = 0; !done; ++round) {
          for (int k = 1; k <= members; ++k) {
            zt.setTriggerLevel(k * 100 + 2, 0.1 * (round % 5));
            zt.setDeadtime(k * 100 + 2, 2000 + 500 * (round % 3));
          }
        }
      });
      expectOneTimeAxis(steps);
      done = true;
      settings.join();
    }
    if (members == 3) {
      zt.reset();
      EXPECT_EQ(zt.getSerial(), expected);
      expectOneTimeAxis(steps);
    }
  }
  // A list of serials is a group in the order given, and its wiring is not examined.
  tagger.reset();
  attachGroup(2, {{"feedback", nullptr}});
  EXPECT_EQ(openGroup("G1, G0").getSerial(), "G1, G0");
  expectOneTimeAxis({{101, 1}, {201, 0}});
}

// A photon pair source of the Synchronizer spans two boards: the merged stream shows every
// pair once on each board, at the configured delay within a few ps.
TEST_F(Group, APairSourceAcrossBoardsKeepsItsDelay) {
  const json g0 = ultraBoard("G0", json::array(), 2), g1 = ultraBoard("G1", json::array(), 2);
  auto attach = [&](json inputs) {
    const json source = pairs(std::move(inputs), 300, 5e5, 20);
    emulator::attachBoards({{"devices", {g0, g1}}, {"synchronizer", {{"sources", {source}}}}});
  };
  EXPECT_THROW(attach({"G0:1", "G9:1"}), std::invalid_argument) << "no board G9";
  attach({"G0:1", "G1:2"});
  openGroup("G0");
  const std::vector<Tag> tags = record({101, 202}, 20000000000);  // 20 ms, about 10000 pairs
  const std::vector<int64_t> first = timesOf(tags, 101);
  const std::vector<int64_t> second = timesOf(tags, 202);
  ASSERT_GT(first.size(), 8000u);
  EXPECT_NEAR(static_cast<double>(second.size()), static_cast<double>(first.size()), 2);
  const Partners partners = partnersOf(first, second, 300, 200);
  EXPECT_GT(partners.found, first.size() * 99 / 100);
  EXPECT_NEAR(partners.mean_delay, 300, 5);
}

TEST_F(Group, WiringFaultsAreNamed) {
  struct Case {
    int members;
    json wiring;
    std::string error;    // "" opens
    std::string message;  // logged, "" for none
    LogLevel level = LOGGER_WARNING;
    std::function<void()> before = [] {};
  };
  const std::string no_chain =
      "No valid chain of Zepticks found. Please connect LOOP OUT of the Zeptick 'G0' to LOOP IN "
      "of the next one.";
  const std::string no_first =
      "No first Zeptick device found. Please connect FDBK OUT of the "
      "first Zeptick to FDBK IN of the Synchronizer.";
  const std::vector<Case> cases = {
      {3,
       {{"boards", {"G0", "G2"}}, {"ring", {"G0", "G1", "G2"}}},
       no_chain,
       "Device 'G1' CLK IN or SYNC IN is not connected to the Synchronizer."},
      {2,
       {{"feedback", nullptr}},
       no_first,
       "Device 'G0' SYNC IN is not connected to the Synchronizer."},
      {2,
       {{"loop_in", {{"G1", nullptr}}}},
       no_chain,
       "Device 'G1' LOOP IN is not connected to any other Zeptick LOOP OUT."},
      {3,
       {{"ring", {"G0", "G1"}}, {"loop_in", {{"G2", "G0"}}}},
       "Zeptick 'G2' outside of the chain found. Please connect LOOP OUT of every Zeptick to LOOP "
       "IN of the next one.",
       ""},
      {2,
       {{"phase", {{"G1", 18}}}},
       "",
       "Device 'G1' has a large phase offset between CLK IN and SYNC IN 1: 18 Please use equal "
       "cables for this two links to avoid undefined 2 ns offsets.",
       LOGGER_ERROR},
      {2, {{"phase", {{"G0", 6}, {"G1", 17}}}}, "", ""},
      // G2 cannot be opened: it sends nothing around the ring, so G0's LOOP IN is dark.
      {3, json::object(), no_first,
       "Probing of device 'G2' failed: Error on fetching the device information: -5", LOGGER_ERROR,
       [] { emulator::findBoard("G2")->failDeviceInfo(-5); }},
      // The 17th board opened gets identifier 16, which the ring word cannot carry: left out,
      // it leaves a gap in the ring.
      {17, json::object(),
       "No valid chain of Zepticks found. Please connect LOOP OUT of the Zeptick 'G15' to LOOP "
       "IN of the next one.",
       "Device 'G16' skipped. Probing of more than 16 devices is currently not supported. "
       "Current identifier: 16",
       LOGGER_WARNING},
      {2, json::object(), "",
       "Only the channel numbering schema ZT_CHANNEL_NUMBER_SCHEME_ONE is supported for "
       "synchronizing Zepticks.",
       LOGGER_ERROR, [] { setZeptickChannelNumberScheme(ZT_CHANNEL_NUMBER_SCHEME_ZERO); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.wiring.dump());
    tagger.reset();
    attachGroup(c.members, c.wiring);
    c.before();
    LogCapture log;
    // A case that opens must not throw.
    EXPECT_EQ(c.error.empty() ? (openGroup("G0"), "") : errorOf([&] { openGroup("G0"); }), c.error);
    if (!c.message.empty()) {
      EXPECT_TRUE(log.contains(c.level, c.message));
    } else {
      for (const std::string& line : log.messages()) {
        EXPECT_EQ(line.find("Device '"), std::string::npos) << line;
      }
    }
  }
}

// Link faults while running: each is reported, the member realigns, and the merged stream goes
// on in order on one time axis; a Synchronizer restart that breaks with the host clock starts
// a new epoch.
TEST_F(Group, LinkFaultsRealignAndTheStreamGoesOn) {
  attachGroup(2, json::object());
  ZeptickImpl& zt = openGroup("G0");
  const auto g0 = emulator::findBoard("G0"), g1 = emulator::findBoard("G1");
  struct Fault {
    std::function<void()> inject;
    std::string message;
    std::string also = "";  // a second message the same fault gives
  };
  const std::vector<Fault> faults = {
      {[&] { g1->dropSyncByte(2); },
       "Nothing received from the sync board between two rollover events. Is AUX IN 1 still "
       "connected to G1?"},
      {[&] { g1->skewSyncWord(5); },
       "Unexpected syncboard word received after 5 clock cycles. Is the clock connected "
       "properly?"},
      {[&] { g0->injectError(); },
       "Error event received from G0, please make sure that the CLK is connected properly."},
      // About 600 s of counter ahead of where the host's clock puts the group.
      {[&] { g0->restartSynchronizer(4000000000u); }, "Zeptick vs Sync Board counter mismatch",
       "Host computer vs Sync Board timer mismatch"},
  };
  for (const Fault& fault : faults) {
    SCOPED_TRACE(fault.message);
    LogCapture log;
    fault.inject();
    zt.setInputDelay(201, 0);  // settings keep changing meanwhile
    for (const std::string& message : {fault.message, fault.also}) {
      // Every link fault stops the aligned stream, so each is an error.
      EXPECT_TRUE(waitUntil([&] {
        return std::ranges::any_of(log.entries(), [&](const LogCapture::Entry& l) {
          return l.level == LOGGER_ERROR && l.text.find(message) != l.text.npos;
        });
      })) << message;
    }
    expectOneTimeAxis({{101, 0}, {201, 1}});
  }
}

}  // namespace
}  // namespace zeptick::testing
