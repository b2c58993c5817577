#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "device/pipe_backend.h"
#include "device_fixture.h"
#include "emulator/control/board.h"
#include "support/log_capture.h"

namespace zeptick::testing {
namespace {

using device::PipeBackend;

using PipeBackendTest = EmulatedBoards;

// Wires reach the board only at the update. The Zeptick 20 keeps LED bits 0-2,
// moves bits 16-18 down to 8-10 and drops the rest, and takes the test signal
// divider as it is; the Ultra takes the LEDs whole and the divider doubled.
// A DAC value becomes the trigger level of its input. The Ultra sends inputs 0-15 to its
// first converter and the rest to the second, over -2.5..2.5 V; the Zeptick 20 frames the
// value over two wires, over 0..2.5 V. Levels are known answers, not the conversion again.
TEST_F(PipeBackendTest, WiresDacValuesAndFailedReadsFollowTheModelsLayout) {
  auto boards = attachAll({boardEntry("Z20", 4, 2), boardEntry("ULTRA", 36, 5)});
  PipeBackend z20, ultra;
  ASSERT_TRUE(z20.openDevice("Z20"));
  ASSERT_TRUE(ultra.openDevice("ULTRA"));
  ASSERT_TRUE(ultra.setWire(0x08, 0xA5));
  EXPECT_EQ(ultra.getWireIn(0x08), 0xA5u);
  EXPECT_NE(boards[1]->wireIn(0x08), 0xA5u);
  // LEDs asked for, then wires 0x0C (LEDs), 0x09 and 0x0B (test signal period and half) seen.
  for (auto [backend, board, led, wires] :
       {std::tuple{&z20, 0, 0xFFFFFFFFu, std::array{0x707u, 63u, 31u}},
        {&z20, 0, 0x50005u, std::array{0x505u, 63u, 31u}},
        {&ultra, 1, 0x12345678u, std::array{0x12345678u, 126u, 63u}}}) {
    ASSERT_TRUE(backend->setLed(led) && backend->setTestSignalDivider(63) &&
                backend->updateWires());
    EXPECT_EQ((std::array{boards[board]->wireIn(0x0C), boards[board]->wireIn(0x09),
                          boards[board]->wireIn(0x0B)}),
              wires);
  }
  EXPECT_EQ(boards[1]->wireIn(0x08), 0xA5u);

  // Board, input, value, trigger level.
  const std::tuple<int, int, uint16_t, double> dacs[] = {
      {1, 0, 0, -2.5},     {1, 5, 6554, -2.0},      {1, 15, 0xFFFF, 2.5}, {1, 16, 39321, 0.5},
      {1, 17, 45875, 1.0}, {0, 2, 0xABCD, 1.67777}, {0, 7, 26214, 1.0}};
  for (const auto& board : boards) board->clearTraffic();
  for (auto [board, input, value, volts] : dacs) {
    ASSERT_TRUE((board == 0 ? z20 : ultra).setDac(input, value));
  }
  for (auto [board, input, value, volts] : dacs) {
    const auto emulated = std::static_pointer_cast<emulator::Board>(boards[board]);
    EXPECT_EQ(emulated->dacCode(input), value) << input;
    EXPECT_NEAR(emulated->firmwareSetup().trigger_volts.at(input), volts, 1e-4) << input;
  }
  // The words on the wires, as the converters' data sheets have them.
  EXPECT_EQ(boards[0]->dacWrites().front().wire3, 0xABCD0u);
  EXPECT_EQ(boards[0]->dacWrites().front().wire4, 0x320Au);
  const emulator::SerialWord last = boards[1]->serialWords().back();
  EXPECT_EQ(std::pair(last.select, last.word), std::pair(2u, 0x31B333u));
  EXPECT_EQ(boards[1]->wireIn(0x04), 0x30000u);  // the select bits are taken back

  // A failed read is retried once but reported as failed.
  std::vector<unsigned char> buffer(4096);
  LogCapture log;
  EXPECT_EQ(ultra.readBlock(buffer.data(), 4096), 4096);

  // A short read is the caller's business: the connection stays up, nothing is logged.
  boards[1]->shortReads(1);
  EXPECT_EQ(ultra.readBlock(buffer.data(), 4096), 2048);
  EXPECT_TRUE(ultra.isConnected());
  EXPECT_TRUE(log.messages().empty());

  // The second run works, yet the caller sees the first, failed result.
  boards[1]->failReads(1);
  EXPECT_LT(ultra.readBlock(buffer.data(), 4096), 0);
  EXPECT_FALSE(ultra.isConnected());
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_TRUE(log.contains(LOGGER_ERROR, "PipeBackend: Pipe transfer failed, len=4096"));

  // Disconnected: no transfer at all (the handle would still deliver), and the unsigned -1.
  EXPECT_EQ(ultra.readBlock(buffer.data(), 4096), 0xFFFFFFFFll);

  ASSERT_TRUE(ultra.openDevice("ULTRA"));
  log.reset();
  boards[1]->failReads(2);
  EXPECT_LT(ultra.readBlock(buffer.data(), 1024), 0);
  EXPECT_EQ(log.messages().size(), 2u);
  EXPECT_TRUE(
      log.contains(LOGGER_ERROR, "PipeBackend: Pipe transfer failed, second run, len=1024"));
}

// The board reports busy for this many status polls, then done; -1 for never.
// Revision 3 is the first whose I2C core the start-up enables.
TEST_F(PipeBackendTest, BusesThatStayBusyTooLongFail) {
  // Serial bus or I2C, busy polls, success; done on the serial bus's last poll is late.
  const std::tuple<bool, int, bool> cases[] = {{true, 0, true},     {true, 997, true},
                                               {true, 998, false},  {true, -1, false},
                                               {false, 1001, true}, {false, 1002, false}};
  for (auto [serial, busy_polls, succeeds] : cases) {
    SCOPED_TRACE(std::to_string(serial) + " " + std::to_string(busy_polls));
    nlohmann::json entry = boardEntry("BUS", 36, 3);
    entry[serial ? "serial_bus_busy_polls" : "i2c_busy_polls"] = busy_polls;
    auto board = attach(entry);
    PipeBackend backend;
    ASSERT_TRUE(backend.openDevice("BUS"));
    EXPECT_EQ(serial ? backend.writeBusWord(4, 0x123456) : backend.i2cWrite(0x30, 0x90), succeeds);
    EXPECT_EQ(board->wireIn(0x04), 0x30000u);  // the select bits are taken back
  }
}

using Row = std::pair<std::string, std::string>;
using Rows = std::vector<Row>;

// Splits a report into its "label\tvalue" lines; every line must have exactly one tab.
Rows parseReport(const std::string& report) {
  Rows rows;
  EXPECT_EQ(report.back(), '\n');
  std::istringstream lines(report);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_EQ(std::count(line.begin(), line.end(), '\t'), 1) << line;
    const size_t tab = line.find('\t');
    rows.emplace_back(line.substr(0, tab), tab == std::string::npos ? "" : line.substr(tab + 1));
  }
  return rows;
}

using Sensors = EmulatedBoards;

// Degrees with eighths, duty in whole percent of 240 steps (truncated), raw registers. A fan
// controller that never answers a read (0x31 absent) reads 42 in each row, and the report goes on.
TEST_F(Sensors, ReportHasTheRowsOfModelAndRevisionAndFailedReadingsRead42) {
  // Supply values the converter sees, one per channel 0-11, all inside their limits.
  const double rails[12] = {-5.1, -4.9, 2.45, 3.1, 5.05, -5.5, 5.7, 4.95, 2.6, 12.3, 0.8, 1.2};
  const std::pair<const char*, double> platform_rows[] = {
      {"FPGA temperature", 47}, {"VCCINT", 1}, {"VCCAUX", 1.8}, {"VCC3V3", 3.3}};
  const std::pair<const char*, double> fan_rows[] = {
      {"6615 Temp #1", 41.375}, {"6615 Temp #2", 38.5},  {"6615 DutyCyc #1", 50},
      {"6615 DutyCyc #2", 99},  {"6615 FanTach #1", 87}, {"6615 FanTach #2", 90},
      {"6615 Fan status", 3}};
  const std::pair<const char*, int> voltage_rows[] = {
      {"11611 -5VD", 0},   {"11611 -5VA", 1},  {"11611 -5.52V", 5}, {"11611 +5VD", 7},
      {"11611 +5VA", 4},   {"11611 +5.6V", 6}, {"11611 +2.5VD", 2}, {"11611 +2.5VA", 8},
      {"11611 +2.99V", 3}, {"11611 12V", 9},   {"11611 incurr", 10}};
  const std::tuple<int, int, int> cases[] = {{4, 0, 0},  {4, 2, 0},  {36, 0, 0}, {36, 2, 0},
                                             {36, 3, 0}, {36, 4, 0}, {36, 5, 0}, {36, 5, 0x31}};
  for (auto [model, revision, absent] : cases) {
    SCOPED_TRACE(::testing::Message() << model << " revision " << revision << " " << absent);
    const bool ultra = model == 36;
    nlohmann::json entry = boardEntry("HEALTH", model, revision);
    entry.update({{"temperatures", {41.375, 38.5}},
                  {"fan_duty", {120, 239}},
                  {"fan_tachometer", {87, 90}},
                  {"fan_status", 3},
                  {"voltages", std::vector<double>(std::begin(rails), std::end(rails))}});
    if (absent != 0) entry["absent_i2c_addresses"] = {absent};
    attach(entry);
    PipeBackend backend;
    ASSERT_TRUE(backend.openDevice("HEALTH"));
    const Rows rows = parseReport(backend.getSensorReport());
    size_t at = 0;
    auto next = [&] { return at < rows.size() ? rows[at++] : Row{"<end>", ""}; };
    auto expectRow = [&](const std::string& label, double value, double tolerance) {
      const Row row = next();
      size_t used = 0;  // the whole value must be the number
      EXPECT_EQ(row.first, label);
      EXPECT_NEAR(std::stod(row.second, &used), value, tolerance) << label;
      EXPECT_EQ(used, row.second.size()) << row.second;
    };
    EXPECT_EQ(next(), (Row{"Serial", "HEALTH"}));
    for (auto [label, value] : platform_rows) expectRow(label, value, 1e-6);
    for (auto [label, value] : fan_rows) {
      if (ultra && revision > 2) expectRow(label, absent != 0 ? 42 : value, 0);
    }
    for (auto [label, channel] : voltage_rows) {
      if (ultra && revision > 3) expectRow(label, rails[channel], 0.015);
    }
    expectRow("CLK IN freq", 10e6, 1.0);
    if (ultra) {
      // Alone, without a Synchronizer: flags and data read zero, no offset rows.
      EXPECT_EQ(next(), (Row{"Synchronizer flags", "0 0 0"}));
      EXPECT_EQ(next(), (Row{"Synchronizer data", "0x00000000"}));
    }
    EXPECT_EQ(next().first, "<end>");
  }

  // Unknown channels fail after selecting, before any reading.
  auto board = attach(boardEntry("RAILS", 36, 5));
  PipeBackend backend;
  ASSERT_TRUE(backend.openDevice("RAILS"));
  for (int channel : {12, 15, -1}) {
    board->clearTraffic();
    bool stable = false;
    EXPECT_EQ(backend.readVoltage(channel, &stable), 42.0f);
    EXPECT_TRUE(stable);
    const auto bytes = board->i2cBytes();
    ASSERT_EQ(bytes.size(), 2u);
    EXPECT_EQ(bytes[0].byte, 0x6A);
    EXPECT_EQ(bytes[1].byte, (channel & 15) * 2 + 97);
  }
}

}  // namespace
}  // namespace zeptick::testing
