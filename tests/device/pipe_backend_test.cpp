#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "device/pipe_backend.h"
#include "device_fixture.h"
#include "support/log_capture.h"

namespace zeptick::testing {
namespace {

using device::PipeBackend;

// The emulator's table with the pipe read counted, to see whether a read
// reached the platform at all.
std::atomic<int> pipe_reads{0};
long countingRead(okFrontPanel_HANDLE handle, int address, int block, long length,
                  unsigned char* data) {
  ++pipe_reads;
  return emulator::emulatorFrontPanelApi().okFrontPanel_ReadFromBlockPipeOut(handle, address, block,
                                                                             length, data);
}
const device::FrontPanelApi* countingApi() {
  static device::FrontPanelApi api = [] {
    device::FrontPanelApi copy = emulator::emulatorFrontPanelApi();
    copy.okFrontPanel_ReadFromBlockPipeOut = &countingRead;
    return copy;
  }();
  return &api;
}

class PipeBackendTest : public EmulatedBoards {};

TEST_F(PipeBackendTest, FailedReadIsRetriedOnceButReportedAsFailed) {
  auto board = attach(boardEntry("PIPE", 36, 5));
  PipeBackend backend(1024, PipeBackend::kDefaultEmptyThreshold, countingApi());
  ASSERT_TRUE(backend.openDevice("PIPE"));
  std::vector<unsigned char> buffer(4096);
  LogCapture log;

  pipe_reads = 0;
  EXPECT_EQ(backend.readBlock(buffer.data(), 4096), 4096);
  EXPECT_EQ(pipe_reads, 1);

  // A short read is the caller's business: the connection stays up, nothing is logged.
  board->shortReads(1);
  EXPECT_EQ(backend.readBlock(buffer.data(), 4096), 2048);
  EXPECT_TRUE(backend.isConnected());
  EXPECT_TRUE(log.messages().empty());

  // The second run works, yet the caller sees the first, failed result.
  board->failReads(1);
  pipe_reads = 0;
  EXPECT_LT(backend.readBlock(buffer.data(), 4096), 0);
  EXPECT_EQ(pipe_reads, 2);
  EXPECT_FALSE(backend.isConnected());
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_TRUE(log.contains("PipeBackend: Pipe transfer failed, len=4096"));

  // Disconnected: no transfer at all, and the unsigned -1.
  pipe_reads = 0;
  EXPECT_EQ(backend.readBlock(buffer.data(), 4096), 0xFFFFFFFFll);
  EXPECT_EQ(pipe_reads, 0);

  ASSERT_TRUE(backend.openDevice("PIPE"));
  log.reset();
  board->failReads(2);
  EXPECT_LT(backend.readBlock(buffer.data(), 1024), 0);
  EXPECT_EQ(log.messages().size(), 2u);
  EXPECT_TRUE(log.contains("PipeBackend: Pipe transfer failed, second run, len=1024"));
}

TEST_F(PipeBackendTest, WiresReachTheBoardOnlyAtUpdate) {
  auto board = attach(boardEntry("WIRES", 36, 5));
  PipeBackend backend;
  ASSERT_TRUE(backend.openDevice("WIRES"));
  ASSERT_TRUE(backend.setWire(0x08, 0xA5));
  EXPECT_EQ(backend.getWireIn(0x08), 0xA5u);
  EXPECT_NE(board->wireIn(0x08), 0xA5u);
  ASSERT_TRUE(backend.updateWires());
  EXPECT_EQ(board->wireIn(0x08), 0xA5u);

  const unsigned char table[16] = {1, 0, 1, 0, 0, 0, 0, 0, 1, 0, 1, 0, 0, 0, 0, 0};
  EXPECT_TRUE(backend.trigger(0x41, 0));
  EXPECT_TRUE(backend.writePipe(0x80, table, sizeof(table)));
}

TEST_F(PipeBackendTest, LedAndTestSignalWordsFollowTheModel) {
  auto boards = attachAll({boardEntry("LED20", 4, 2), boardEntry("LEDU", 36, 5)});
  PipeBackend z20;
  PipeBackend ultra;
  ASSERT_TRUE(z20.openDevice("LED20"));
  ASSERT_TRUE(ultra.openDevice("LEDU"));

  // Bits 0-2 stay, bits 16-18 move down to 8-10, everything else is dropped.
  ASSERT_TRUE(z20.setLed(0xFFFFFFFF));
  ASSERT_TRUE(z20.setTestSignalDivider(63));
  ASSERT_TRUE(z20.updateWires());
  EXPECT_EQ(boards[0]->wireIn(0x0C), 0x707u);
  EXPECT_EQ(boards[0]->wireIn(0x09), 63u);
  EXPECT_EQ(boards[0]->wireIn(0x0B), 31u);
  ASSERT_TRUE(z20.setLed(0x50005));
  ASSERT_TRUE(z20.updateWires());
  EXPECT_EQ(boards[0]->wireIn(0x0C), 0x505u);

  ASSERT_TRUE(ultra.setLed(0x12345678));
  ASSERT_TRUE(ultra.setTestSignalDivider(63));
  ASSERT_TRUE(ultra.updateWires());
  EXPECT_EQ(boards[1]->wireIn(0x0C), 0x12345678u);
  EXPECT_EQ(boards[1]->wireIn(0x09), 126u);
  EXPECT_EQ(boards[1]->wireIn(0x0B), 63u);
}

TEST_F(PipeBackendTest, DacWritesReachTheRightConverter) {
  auto boards = attachAll({boardEntry("DAC20", 4, 2), boardEntry("DACU", 36, 5)});
  PipeBackend z20;
  PipeBackend ultra;
  ASSERT_TRUE(z20.openDevice("DAC20"));
  ASSERT_TRUE(ultra.openDevice("DACU"));
  boards[0]->clearTraffic();
  boards[1]->clearTraffic();

  // Zeptick 20: value 0xABCD on channel 5, command 3 -> 0xABCD0 and 0x3000 | 0x500 | 0xA.
  ASSERT_TRUE(z20.setDac(5, 0xABCD));
  ASSERT_EQ(boards[0]->dacWrites().size(), 1u);
  EXPECT_EQ(boards[0]->dacWrites()[0].wire3, 0xABCD0u);
  EXPECT_EQ(boards[0]->dacWrites()[0].wire4, 0x350Au);

  // Ultra: inputs 0-15 on the first converter, the rest on the second.
  ASSERT_TRUE(ultra.setDac(5, 0x1234));
  ASSERT_TRUE(ultra.setDac(15, 0xFFFF));
  ASSERT_TRUE(ultra.setDac(17, 0x8000));
  const auto words = boards[1]->serialWords();
  ASSERT_EQ(words.size(), 3u);
  EXPECT_EQ(words[0].select, 1u);
  EXPECT_EQ(words[0].word, 0x351234u);
  EXPECT_EQ(words[1].select, 1u);
  EXPECT_EQ(words[1].word, 0x3FFFFFu);
  EXPECT_EQ(words[2].select, 2u);
  EXPECT_EQ(words[2].word, 0x318000u);
  // The select bits are taken back after each transfer.
  EXPECT_EQ(boards[1]->wireIn(0x04), 0x30000u);
}

// The board reports busy for this many status polls, then done; -1 for never.
TEST_F(PipeBackendTest, BusesThatStayBusyTooLongFail) {
  struct Case {
    const char* setting;
    int busy_polls;
    bool succeeds;
  };
  for (const Case& c : {Case{"serial_bus_busy_polls", 0, true},
                        {"serial_bus_busy_polls", 997, true},
                        {"serial_bus_busy_polls", 998, false},  // done on the last poll is late
                        {"serial_bus_busy_polls", -1, false},
                        {"i2c_busy_polls", 1001, true},
                        {"i2c_busy_polls", 1002, false}}) {
    SCOPED_TRACE(std::string(c.setting) + " " + std::to_string(c.busy_polls));
    // Revision 3 is the first whose I2C core the start-up enables.
    nlohmann::json entry = boardEntry("BUS", 36, 3);
    entry[c.setting] = c.busy_polls;
    auto board = attach(entry);
    PipeBackend backend;
    ASSERT_TRUE(backend.openDevice("BUS"));
    if (c.setting[0] == 's') {
      EXPECT_EQ(backend.writeBusWord(4, 0x123456), c.succeeds);
      EXPECT_EQ(board->wireIn(0x04), 0x30000u);  // the select bits are taken back
    } else {
      EXPECT_EQ(backend.i2cWrite(0x30, 0x90), c.succeeds);
    }
  }
}

TEST(FirmwareTimestamp, DecodesEveryField) {
  // 2024-03-05 14:07:09: day 5 << 27 | month 3 << 23 | (24) << 17 | 14 << 12 | 7 << 6 | 9.
  EXPECT_EQ(device::formatFirmwareTimestamp(0x29B0E1C9), "2024-03-05 14:07:09");
  // Every field at its largest valid value: no field may bleed into its neighbour.
  EXPECT_EQ(device::formatFirmwareTimestamp(0xFE7F7EFB), "2063-12-31 23:59:59");
  EXPECT_EQ(device::formatFirmwareTimestamp(0), "2000-00-00 00:00:00");
}

}  // namespace
}  // namespace zeptick::testing
