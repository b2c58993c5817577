#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "zeptick/zeptick_hardware.h"
#include "zeptick_impl_fixture.h"

namespace zeptick::testing {
namespace {

using emulator::BoardEvent;

class ZeptickImplOpen : public EmulatedTagger {};

std::vector<BoardEvent> callsNamed(const std::vector<BoardEvent>& events, const std::string& name) {
  std::vector<BoardEvent> out;
  for (const BoardEvent& event : events) {
    if (event.call == name) out.push_back(event);
  }
  return out;
}

// The upload after opening, as the board received it: the ring word, the
// channel table behind its trigger, the trigger levels of 0.5 V and the wires.
TEST_F(ZeptickImplOpen, UploadsRingWordChannelTableLevelsAndWires) {
  ZeptickImpl& zt = open(ultraBoard("ENG1"));
  const std::vector<BoardEvent> events = board->events();

  const uint32_t ring = board->wireIn(0x14);
  EXPECT_EQ(ring & 0xFF, 0u) << "first device has identifier 0";
  EXPECT_GE((ring >> 8) & 0xFF, 1u) << "probe number drawn from 1..255";
  EXPECT_EQ(ring >> 16, 1u) << "bit of identifier 0";

  auto trigger = std::find_if(events.begin(), events.end(), [](const BoardEvent& e) {
    return e.call == "ActivateTriggerIn" && e.a == 0x41 && e.b == 0;
  });
  ASSERT_NE(trigger, events.end());
  ASSERT_NE(trigger + 1, events.end());
  EXPECT_EQ((trigger + 1)->call, "WriteToPipeIn");
  EXPECT_EQ((trigger + 1)->a, 0x80);
  EXPECT_EQ((trigger + 1)->b, 36 * 8) << "eight bytes per hardware index";

  EXPECT_EQ(board->wireIn(0x12), 67108864u);
  EXPECT_EQ(board->wireIn(0x13), 33554432u);
  EXPECT_EQ(board->wireIn(0x09), 126u) << "the Ultra's test clock word is twice the divider";
  EXPECT_EQ(board->wireIn(0x0B), 63u);
  EXPECT_EQ(board->wireIn(0x0C), 0u);

  // 0.5 V on a -2.5..2.5 V range: (0.5 + 2.5) * 65535 / 5 = 39321.
  std::set<int> levelled;
  for (const emulator::SerialWord& word : board->serialWords()) {
    if ((word.word >> 20) != 3) continue;
    const int dac = static_cast<int>((word.word >> 16) & 0xF) + (word.select == 2 ? 16 : 0);
    if (dac < 18) {
      EXPECT_EQ(word.word & 0xFFFF, 39321u) << "DAC " << dac;
      levelled.insert(dac);
    }
  }
  EXPECT_EQ(levelled.size(), 18u);

  // The fence wire goes last, in an update of its own.
  const auto wires = callsNamed(events, "SetWireInValue");
  auto last_fence =
      std::find_if(wires.rbegin(), wires.rend(), [](const BoardEvent& e) { return e.a == 0x08; });
  ASSERT_NE(last_fence, wires.rend());
  EXPECT_EQ(board->wireIn(0x08), static_cast<uint32_t>(last_fence->b));
  EXPECT_TRUE(zt.sync());
}

TEST_F(ZeptickImplOpen, ReportsIdentityAndNumbersChannelsFromOne) {
  ZeptickImpl& zt = open(ultraBoard("ENG2"));
  EXPECT_EQ(zt.getSerial(), "ENG2");
  EXPECT_EQ(zt.getModel(), "Zeptick Ultra");
  EXPECT_EQ(zt.getPcbVersion(), "1.4b");
  EXPECT_EQ(zt.getFirmwareVersion().rfind("ZT-Ultra, FW 4, TS ", 0), 0u);
  EXPECT_EQ(zt.getPsPerClock(), 2500);
  EXPECT_EQ(zt.getDACRange(), (std::vector<double>{-2.5, 2.5}));
  EXPECT_EQ(zt.getChannelNumberScheme(), ZT_CHANNEL_NUMBER_SCHEME_ONE);
  EXPECT_EQ(zt.getTestSignalDivider(), 63);
  EXPECT_EQ(zt.getHardwareBufferSize(), 67108864);
  EXPECT_TRUE(zt.getNormalization());

  std::vector<int> rising;
  std::vector<int> falling;
  for (int i = 1; i <= 18; ++i) {
    rising.push_back(i);
    falling.push_back(-i);
  }
  EXPECT_EQ(zt.getChannelList(ZT_CHANNEL_RISING), rising);
  EXPECT_EQ(zt.getChannelList(ZT_CHANNEL_FALLING), falling);
  std::vector<int> all = zt.getChannelList(ZT_CHANNEL_ALL);
  EXPECT_TRUE(std::is_sorted(all.begin(), all.end()));
  EXPECT_EQ(all.size(), 36u);
  for (int i = 1; i <= 18; ++i) {
    EXPECT_EQ(zt.getInvertedChannel(i), -i);
    EXPECT_EQ(zt.getInvertedChannel(-i), i);
  }
  EXPECT_EQ(zt.getInvertedChannel(0), CHANNEL_UNUSED);
  EXPECT_TRUE(zt.isUnusedChannel(CHANNEL_UNUSED));
  EXPECT_FALSE(zt.isUnusedChannel(-1)) << "-1 is a falling edge in this scheme";
  EXPECT_EQ(zt.getNewVirtualChannel(), 1000);
  EXPECT_EQ(zt.getNewVirtualChannel(), 1001);
}

// A first-revision board numbers from 0, falling edges after the rising ones;
// the Zeptick 20 has its own defaults.
TEST_F(ZeptickImplOpen, ZeroBasedNumberingAndZeptick20Defaults) {
  nlohmann::json entry = boardEntry("ENG3", 4, 0);
  entry["inputs"] = 4;
  ZeptickImpl& zt = open(entry);
  EXPECT_EQ(zt.getModel(), "Zeptick 20");
  EXPECT_EQ(zt.getPcbVersion(), "2.0");
  EXPECT_EQ(zt.getChannelNumberScheme(), ZT_CHANNEL_NUMBER_SCHEME_ZERO);
  EXPECT_EQ(zt.getChannelList(ZT_CHANNEL_RISING), (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(zt.getChannelList(ZT_CHANNEL_FALLING), (std::vector<int>{4, 5, 6, 7}));
  EXPECT_EQ(zt.getInvertedChannel(2), 6);
  EXPECT_EQ(zt.getInvertedChannel(6), 2);
  EXPECT_TRUE(zt.isUnusedChannel(-1));
  EXPECT_EQ(zt.getPsPerClock(), 6000);
  EXPECT_EQ(zt.getDACRange(), (std::vector<double>{0.0, 2.5}));
  EXPECT_EQ(zt.getTestSignalDivider(), 74);
  EXPECT_EQ(zt.getHardwareBufferSize(), 8388608);
  EXPECT_EQ(board->wireIn(0x09), 74u) << "the Zeptick 20 takes the divider as it is";
  EXPECT_EQ(board->wireIn(0x0B), 37u);

  LogCapture log;
  zt.setHardwareBufferSize(100000);
  EXPECT_TRUE(log.contains("Zeptick 20 does not support variable hardware buffer sizes."));
  EXPECT_EQ(zt.getHardwareBufferSize(), 8388608);
}

TEST_F(ZeptickImplOpen, NumberingSchemeSetBeforeCreationWins) {
  setZeptickChannelNumberScheme(ZT_CHANNEL_NUMBER_SCHEME_ZERO);
  ZeptickImpl& zt = open(ultraBoard("ENG4"));
  EXPECT_EQ(zt.getChannelNumberScheme(), ZT_CHANNEL_NUMBER_SCHEME_ZERO);
  EXPECT_EQ(zt.getChannelList(ZT_CHANNEL_RISING).front(), 0);
  EXPECT_EQ(zt.getInvertedChannel(17), 35);
}

TEST_F(ZeptickImplOpen, OpeningFailuresReachTheCaller) {
  attach(ultraBoard("ENG5"));
  EXPECT_EQ(errorOf([] { ZeptickImpl tagger("NOPE"); }),
            "Opening of USB connection failed or device with serial 'NOPE' not found.");
  {
    setCustomBitFileName("/nowhere/ZeptickUltraController.bit");
    EXPECT_EQ(errorOf([] { ZeptickImpl tagger("ENG5"); }),
              "Firmware file not found - filename: 'ZeptickUltraController.bit'");
    setCustomBitFileName("");
  }
  board = emulator::findBoard("ENG5");
  board->unplug();
  EXPECT_EQ(errorOf([] { ZeptickImpl tagger(""); }),
            "Opening of USB connection failed or device with serial '' not found.");
}

// Through the library entry: the empty serial takes the first device, and the
// same device asked for by serial is the same object.
TEST_F(ZeptickImplOpen, LibraryEntryOpensTheEmulatedBoard) {
  attach(ultraBoard("ENG6"));
  Zeptick* first = createZeptick();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->getSerial(), "ENG6");
  Zeptick* again = createZeptick("ENG6");
  EXPECT_EQ(again, first);
  EXPECT_FALSE(freeZeptick(again));
  EXPECT_TRUE(freeZeptick(first));
  // The LEDs say that the instrument is no longer in use.
  EXPECT_EQ(emulator::findBoard("ENG6")->wireIn(0x0C), 0x70000u);
}

}  // namespace
}  // namespace zeptick::testing
