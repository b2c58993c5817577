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

// Wires reach the board only at the update. The Zeptick 20 keeps LED bits 0-2,
// moves bits 16-18 down to 8-10 and drops the rest, and takes the test signal
// divider as it is; the Ultra takes the LEDs whole and the divider doubled.
TEST_F(PipeBackendTest, WiresReachTheBoardAtUpdateInTheModelsLayout) {
  auto boards = attachAll({boardEntry("LED20", 4, 2), boardEntry("LEDU", 36, 5)});
  PipeBackend z20, ultra;
  ASSERT_TRUE(z20.openDevice("LED20"));
  ASSERT_TRUE(ultra.openDevice("LEDU"));
  ASSERT_TRUE(ultra.setWire(0x08, 0xA5));
  EXPECT_EQ(ultra.getWireIn(0x08), 0xA5u);
  EXPECT_NE(boards[1]->wireIn(0x08), 0xA5u);
  struct Case {
    PipeBackend* backend;
    int board;
    uint32_t led, expected_led, expected_period, expected_half;
  };
  for (const Case& c : {Case{&z20, 0, 0xFFFFFFFF, 0x707, 63, 31},
                        {&z20, 0, 0x50005, 0x505, 63, 31},
                        {&ultra, 1, 0x12345678, 0x12345678, 126, 63}}) {
    ASSERT_TRUE(c.backend->setLed(c.led));
    ASSERT_TRUE(c.backend->setTestSignalDivider(63));
    ASSERT_TRUE(c.backend->updateWires());
    EXPECT_EQ(boards[c.board]->wireIn(0x0C), c.expected_led);
    EXPECT_EQ(boards[c.board]->wireIn(0x09), c.expected_period);
    EXPECT_EQ(boards[c.board]->wireIn(0x0B), c.expected_half);
  }
  EXPECT_EQ(boards[1]->wireIn(0x08), 0xA5u);
}

TEST_F(PipeBackendTest, DacWritesReachTheRightConverter) {
  auto boards = attachAll({boardEntry("DAC20", 4, 2), boardEntry("DACU", 36, 5)});
  PipeBackend z20, ultra;
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
  std::vector<std::pair<uint32_t, uint32_t>> words;
  for (auto [channel, value] : {std::pair{5, 0x1234}, {15, 0xFFFF}, {17, 0x8000}}) {
    ASSERT_TRUE(ultra.setDac(channel, static_cast<uint16_t>(value)));
  }
  for (const auto& word : boards[1]->serialWords()) words.emplace_back(word.select, word.word);
  EXPECT_EQ(words, (std::vector<std::pair<uint32_t, uint32_t>>{
                       {1, 0x351234}, {1, 0x3FFFFF}, {2, 0x318000}}));
  EXPECT_EQ(boards[1]->wireIn(0x04), 0x30000u);  // the select bits are taken back
}

// The board reports busy for this many status polls, then done; -1 for never.
// Revision 3 is the first whose I2C core the start-up enables.
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
    nlohmann::json entry = boardEntry("BUS", 36, 3);
    entry[c.setting] = c.busy_polls;
    auto board = attach(entry);
    PipeBackend backend;
    ASSERT_TRUE(backend.openDevice("BUS"));
    const bool serial = c.setting[0] == 's';
    EXPECT_EQ(serial ? backend.writeBusWord(4, 0x123456) : backend.i2cWrite(0x30, 0x90),
              c.succeeds);
    EXPECT_EQ(board->wireIn(0x04), 0x30000u);  // the select bits are taken back
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
