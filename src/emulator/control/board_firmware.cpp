// The firmware side of an emulated board: what the FPGA does with the wires,
// triggers, pipes and registers the host drives.

#include <algorithm>

#include "emulator/control/board.h"

namespace zeptick::emulator {

namespace {

// Wire-ins the firmware acts on.
constexpr int kWireBusData = 0x03;
constexpr int kWireBusControl = 0x04;
constexpr int kWireFence = 0x08;
constexpr int kWireTestPeriod = 0x09;
constexpr int kWireTestHalfPeriod = 0x0B;
constexpr int kWireStart = 0x0D;
constexpr int kWireBufferSize = 0x12;
constexpr int kWireRing = 0x14;

// Wire-outs, as offsets from 0x20.
constexpr int kOutTimestamp = 0x00;
constexpr int kOutInputs = 0x01;
constexpr int kOutPsPerClock = 0x02;
constexpr int kOutBinCount = 0x03;
constexpr int kOutFirmware = 0x04;
constexpr int kOutClockInput = 0x05;
constexpr int kOutIdentifierLow = 0x06;
constexpr int kOutIdentifierHigh = 0x07;
constexpr int kOutRevision = 0x09;
constexpr int kOutBusStatus = 0x0A;
constexpr int kOutSyncData = 0x0B;
constexpr int kOutSyncFlags = 0x0C;
constexpr uint32_t kBusFinished = 0x02;

constexpr int kTriggerBus = 0x40;
constexpr int kTriggerTable = 0x41;
constexpr int kPipeTable = 0x80;
constexpr int kPipeStream = 0xA0;
constexpr int kTableEntryBytes = 8;

// The DAC word the Ultra's converters take on the serial bus: command 3 (write
// and update) in bits 20-23, the channel in bits 16-19, the code below.
constexpr uint32_t kDacWriteCommand = 3;
// The Zeptick 20's DAC write: command 3 writes channel `b`; others (0 resets) set no level.
constexpr uint32_t kDac20WriteCommand = 3;

ChannelSetup decodeTableEntry(const unsigned char* entry) {
  ChannelSetup channel;
  channel.enabled = (entry[0] & 0x01) != 0;
  channel.filtered = (entry[0] & 0x02) != 0;
  channel.trigger = (entry[0] & 0x04) != 0;
  channel.mux = static_cast<uint8_t>((entry[0] >> 3) & 0x03);
  channel.deadtime_clocks = static_cast<uint16_t>(entry[2] | entry[3] << 8);
  channel.divider_field = static_cast<uint16_t>(entry[4] | entry[5] << 8);
  return channel;
}

}  // namespace

ok_ErrorCode Board::configureFpga(const Session& session, const char* path) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  record("ConfigureFPGA", 0, 0, path != nullptr ? path : "");
  FirmwareImage image;
  const ok_ErrorCode result = path != nullptr ? loadFirmware(path, image) : ok_FileError;
  // A file that cannot be read never reaches the FPGA; a bad bitstream leaves it blank.
  if (result == ok_FileError) return result;
  if (result != ok_NoError || image.model != fixed.model) {
    fpga_loaded = false;
    return ok_InvalidBitstream;
  }
  installFirmware(image);
  return ok_NoError;
}

// REQUIRES: mutex held. A fresh firmware: wires at zero, the channel table at
// its defaults, a new stream whose clock starts now.
void Board::installFirmware(const FirmwareImage& image) {
  fpga_loaded = true;
  firmware = image;
  wires_pending.fill(0);
  wires.fill(0);
  wire_outs.fill(0);
  bus_busy_left = 0;
  table_armed = false;
  i2c->resetCore();
  setup = FirmwareSetup{};
  setup.channels.assign(2 * static_cast<size_t>(fixed.inputs), ChannelSetup{});
  stream = std::make_shared<StreamModel>(streamParameters(), fixed.sources);
  pushSetup();
}

// REQUIRES: mutex held.
void Board::pushSetup() {
  if (!fpga_loaded) return;
  const double low = fixed.model == kModel20 ? 0.0 : -2.5;
  const double high = 2.5;
  setup.trigger_volts.resize(fixed.inputs);
  for (int input = 0; input < fixed.inputs; ++input) {
    setup.trigger_volts[input] = dac[input] * (high - low) / 65535 + low;
  }
  stream->configure(setup);
}

ok_ErrorCode Board::setWireIn(const Session& session, int address, uint32_t value, uint32_t mask) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  if (address < 0 || address >= 32) return ok_InvalidEndpoint;
  wires_pending[address] = (wires_pending[address] & ~mask) | (value & mask);
  record("SetWireInValue", address, wires_pending[address]);
  return ok_NoError;
}

ok_ErrorCode Board::getWireIn(const Session& session, int address, uint32_t* value) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  if (address < 0 || address >= 32) return ok_InvalidEndpoint;
  if (value == nullptr) return ok_InvalidParameter;
  *value = wires_pending[address];
  return ok_NoError;
}

ok_ErrorCode Board::updateWireIns(const Session& session) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  record("UpdateWireIns");
  wires = wires_pending;
  if (fpga_loaded) applyWires();
  // The firmware sends wire-in 0x14 around the ring of a synchronized group.
  if (fpga_loaded && synchronizer) synchronizer->setRingWord(fixed.serial, wires[kWireRing]);
  return ok_NoError;
}

// REQUIRES: mutex held.
void Board::applyWires() {
  const FirmwareSetup before = setup;
  setup.fence = static_cast<uint8_t>(wires[kWireFence] & 0xFF);
  setup.test_period_word = wires[kWireTestPeriod];
  setup.test_half_period_word = wires[kWireTestHalfPeriod];
  setup.buffer_words = wires[kWireBufferSize];
  setup.started = (wires[kWireStart] & 1) != 0;
  if (setup.fence != before.fence || setup.test_period_word != before.test_period_word ||
      setup.test_half_period_word != before.test_half_period_word ||
      setup.buffer_words != before.buffer_words || setup.started != before.started) {
    pushSetup();
  }
}

ok_ErrorCode Board::updateWireOuts(const Session& session) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  wire_outs = wireOutValues();
  return ok_NoError;
}

// REQUIRES: mutex held. A blank FPGA drives nothing: all zero.
std::array<uint32_t, 32> Board::wireOutValues() {
  std::array<uint32_t, 32> out{};
  if (!fpga_loaded) return out;
  const bool ultra = fixed.model == kModelUltra;
  out[kOutTimestamp] = firmware.build_stamp;
  out[kOutInputs] = static_cast<uint32_t>(fixed.inputs);
  out[kOutPsPerClock] = ultra ? 2500 : 6000;
  out[kOutBinCount] = ultra ? 256 : 180;
  out[kOutFirmware] = version_override ? forced_version : firmware.version;
  // A 10 MHz reference as each model's counter measures it.
  out[kOutClockInput] = ultra ? 10000 : 300;
  out[kOutIdentifierLow] = static_cast<uint32_t>(fixed.identifier);
  out[kOutIdentifierHigh] = static_cast<uint32_t>(fixed.identifier >> 32);
  out[kOutRevision] = static_cast<uint32_t>(fixed.revision);
  // Each latch of the wire-outs is one poll of a running transfer.
  const bool busy = bus_busy_left != 0;
  if (bus_busy_left > 0) --bus_busy_left;
  out[kOutBusStatus] = busy ? 0 : kBusFinished;
  // What the board sees of a Synchronizer: zero when it is alone.
  if (synchronizer) {
    out[kOutSyncData] = synchronizer->loopWire(fixed.serial);
    out[kOutSyncFlags] = synchronizer->statusWire(fixed.serial);
  }
  return out;
}

unsigned long Board::wireOut(const Session& session, int address) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session) || address < 0x20 || address >= 0x40) return 0;
  return wire_outs[address - 0x20];
}

ok_ErrorCode Board::activateTrigger(const Session& session, int address, int bit) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  if (address < 0x40 || address >= 0x60) return ok_InvalidEndpoint;
  if (bit < 0 || bit >= 32) return ok_InvalidParameter;
  record("ActivateTriggerIn", address, bit);
  if (!fpga_loaded || bit != 0) return ok_NoError;
  if (address == kTriggerBus) {
    if (fixed.model == kModelUltra) {
      serialTransfer();
    } else {
      dacWrite();
    }
  } else if (address == kTriggerTable) {
    table_armed = true;
  }
  return ok_NoError;
}

// REQUIRES: mutex held. Shifts wire-in 0x03 out to the chips selected in the
// low byte of wire-in 0x04; the two converters hold DAC channels 0-15 and 16-31.
void Board::serialTransfer() {
  const uint32_t select = wires[kWireBusControl] & 0xFF;
  const uint32_t word = wires[kWireBusData];
  serial_log.push_back({select, word});
  trim(serial_log);
  bus_busy_left = fixed.serial_bus_busy_polls;
  if ((word >> 24) != 0 || ((word >> 20) & 0xF) != kDacWriteCommand) return;
  const int channel = static_cast<int>((word >> 16) & 0xF);
  const auto code = static_cast<uint16_t>(word & 0xFFFF);
  if (select & 1) setDac(channel, code);
  if (select & 2) setDac(16 + channel, code);
}

// REQUIRES: mutex held. The Zeptick 20's converter takes one frame made of
// wire-in 0x04 (command in bits 12-15, channel in 8-11, code bits 12-15 in
// 0-3) and wire-in 0x03 (code bits 0-11 in 4-15, extra bits in 0-3).
void Board::dacWrite() {
  const uint32_t high = wires[kWireBusControl];
  const uint32_t low = wires[kWireBusData];
  dac_log.push_back({low, high});
  trim(dac_log);
  const uint32_t command = (high >> 12) & 0xF;
  const int channel = static_cast<int>((high >> 8) & 0xF);
  const auto code = static_cast<uint16_t>((high & 0xF) << 12 | ((low >> 4) & 0xFFF));
  if (command == kDac20WriteCommand) setDac(channel, code);
}

// REQUIRES: mutex held.
void Board::setDac(int channel, uint16_t code) {
  if (dac[channel] == code) return;
  dac[channel] = code;
  if (channel < fixed.inputs) pushSetup();
}

long Board::writePipe(const Session& session, int address, long length, const unsigned char* data) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  if (address < 0x80 || address >= 0xA0) return ok_InvalidEndpoint;
  if (length < 0 || length % 4 != 0) return ok_InvalidBlockSize;
  if (length > 0 && data == nullptr) return ok_InvalidParameter;
  record("WriteToPipeIn", address, length);
  // Without the trigger that arms it the firmware lets the bytes fall.
  if (!fpga_loaded || address != kPipeTable || !table_armed) return length;
  table_armed = false;
  const long entries = std::min<long>(length / kTableEntryBytes, 2L * fixed.inputs);
  for (long index = 0; index < entries; ++index) {
    setup.channels[index] = decodeTableEntry(data + index * kTableEntryBytes);
  }
  pushSetup();
  return length;
}

long Board::readPipe(const Session& session, int address, int block_size, long length,
                     unsigned char* data) {
  std::shared_ptr<StreamModel> model;
  long bytes = length;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (!valid(session)) return ok_DeviceNotOpen;
    if (address != kPipeStream) return ok_InvalidEndpoint;
    if (block_size <= 0 || length < 0 || length % block_size != 0 || length % 4 != 0) {
      return ok_InvalidBlockSize;
    }
    if (length > 0 && data == nullptr) return ok_InvalidParameter;
    if (fail_reads > 0) {
      --fail_reads;
      return ok_Failed;
    }
    // No stream without firmware, without the start wire, or on a Zeptick 20
    // whose PLL never got its clock set up: the transfer times out.
    if (!fpga_loaded || !setup.started || (fixed.model == kModel20 && !pll_configured)) {
      return ok_Timeout;
    }
    if (short_reads > 0) {
      --short_reads;
      bytes = (length / 2) & ~3L;
    }
    model = stream;
  }
  // Paced reads wait in here, so no board lock may be held.
  return bytes == 0 ? 0 : model->read(data, bytes, block_size);
}

ok_ErrorCode Board::writeRegister(const Session& session, uint32_t address, uint32_t value) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  if (address > 4) return ok_InvalidEndpoint;
  record("WriteRegister", address, value);
  if (!fpga_loaded) return ok_NoError;
  const ok_ErrorCode result = i2c->writeRegister(address, value, i2c_log);
  trim(i2c_log);
  return result;
}

ok_ErrorCode Board::readRegister(const Session& session, uint32_t address, uint32_t* value) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  if (address > 4) return ok_InvalidEndpoint;
  if (value == nullptr) return ok_InvalidParameter;
  record("ReadRegister", address);
  *value = 0;
  if (!fpga_loaded) return ok_NoError;
  return i2c->readRegister(address, *value);
}

}  // namespace zeptick::emulator
