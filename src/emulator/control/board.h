#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "device/frontpanel_api.h"
#include "emulator/control/board_config.h"
#include "emulator/control/board_control.h"
#include "emulator/control/firmware_file.h"
#include "emulator/control/i2c_master.h"
#include "emulator/stream/firmware_setup.h"
#include "emulator/stream/stream_model.h"

namespace zeptick::emulator {

/// The stream facts of a board as configured, without a Synchronizer.
StreamParameters streamParametersOf(const BoardConfig& config);

/// Who is talking to a board: an opaque owner (the FrontPanel handle) and the
/// connection generation it opened. A board that is unplugged, detached or
/// closed moves on, and every call with an old session fails.
struct Session {
  const void* owner = nullptr;
  uint64_t generation = 0;
};

/// PLL settings collected on a PLL handle before they are sent to a board.
struct PllSettings {
  std::vector<BoardEvent> calls;  ///< "PLL.*" events in call order
  bool vco_valid = false;
};

/// One emulated board: identity, the firmware's wires, triggers, pipes and
/// registers, the serial bus, the DACs, the I2C chips and the stream model.
///
/// Thread-safe: one mutex guards all state. A pipe read holds it only to check
/// and to pick the stream model; the paced wait runs without it, so control
/// calls from another thread are never stuck behind a read.
class Board : public BoardControl {
 public:
  /// Throws std::invalid_argument when the sources are bad.
  explicit Board(BoardConfig config);
  ~Board() override;

  // --- Connection, used by the device list and the FrontPanel handles ---
  const BoardConfig& config() const { return fixed; }
  int model() const { return fixed.model; }
  /// Plugged in, attached and not open by anyone.
  bool available() const;
  bool pluggedIn() const;
  /// Claims the board for `owner`. ok_Failed when unplugged, detached or taken.
  ok_ErrorCode open(const void* owner, Session& session);
  void close(const Session& session);
  bool isOpen(const Session& session) const;
  /// From now on every call fails as if the board was removed.
  void detach();

  // --- FrontPanel operations on an open session ---
  std::string serialNumber(const Session& session) const;
  ok_ErrorCode deviceInfo(const Session& session, okTDeviceInfo* info, unsigned size);
  /// 0 when the session is not open.
  int boardModel(const Session& session);
  int majorVersion(const Session& session);
  int minorVersion(const Session& session);
  ok_ErrorCode configureFpga(const Session& session, const char* path);
  ok_ErrorCode configurePll(const Session& session, const PllSettings& pll);
  ok_ErrorCode setWireIn(const Session& session, int address, uint32_t value, uint32_t mask);
  ok_ErrorCode getWireIn(const Session& session, int address, uint32_t* value);
  ok_ErrorCode updateWireIns(const Session& session);
  ok_ErrorCode updateWireOuts(const Session& session);
  /// The value latched by the last updateWireOuts(); 0 for an unknown address.
  unsigned long wireOut(const Session& session, int address);
  ok_ErrorCode activateTrigger(const Session& session, int address, int bit);
  long writePipe(const Session& session, int address, long length, const unsigned char* data);
  long readPipe(const Session& session, int address, int block_size, long length,
                unsigned char* data);
  ok_ErrorCode writeRegister(const Session& session, uint32_t address, uint32_t value);
  ok_ErrorCode readRegister(const Session& session, uint32_t address, uint32_t* value);
  ok_ErrorCode sensors(const Session& session, std::vector<okTDeviceSensor>& list);

  // --- BoardControl ---
  std::string serial() const override { return fixed.serial; }
  std::vector<BoardEvent> events() const override;
  std::vector<SerialWord> serialWords() const override;
  std::vector<DacWrite> dacWrites() const override;
  std::vector<I2cByte> i2cBytes() const override;
  void clearTraffic() override;
  uint32_t wireIn(int address) const override;
  void unplug() override;
  void replug() override;
  void failReads(int count) override;
  void shortReads(int count) override;
  void failDeviceInfo(int error_code) override;
  void setVoltage(int channel, double volts) override;
  void setFirmwareVersion(uint32_t version) override;
  void injectError() override;
  void dropSyncByte(int byte) override;
  void skewSyncWord(unsigned tick) override;
  void restartSynchronizer(uint32_t counter) override;
  void loopRecording(std::vector<uint32_t> words) override;

  /// Hangs the board on `synchronizer` (before the host first opens it).
  void attachSynchronizer(std::shared_ptr<Synchronizer> synchronizer);

  // --- Truth for tests and tools ---
  /// What the firmware applies now, as last handed to the stream model.
  FirmwareSetup firmwareSetup() const;
  /// The code last written to DAC channel `channel` (0 to 31).
  uint16_t dacCode(int channel) const;
  /// Whether a ConfigureFPGA succeeded since the board was powered up.
  bool firmwareLoaded() const;
  /// Register of the MAX6615 model, e.g. to check the host's set-up writes.
  uint8_t fanControllerRegister(int address) const;
  uint8_t converterSetupByte() const;
  /// The stream model serving the loaded firmware (a new one per firmware load).
  std::shared_ptr<StreamModel> streamModel() const;

 private:
  // REQUIRES: mutex held, for every private member function below.
  bool valid(const Session& session) const;
  void record(std::string call, int64_t a = 0, int64_t b = 0, std::string text = {});
  void powerOn();
  void installFirmware(const FirmwareImage& image);
  void applyWires();
  void serialTransfer();
  void dacWrite();
  void setDac(int channel, uint16_t code);
  void pushSetup();
  StreamParameters streamParameters() const;

  /// Traffic logs keep the newest entries, so a long-running emulator does not grow without end.
  template <class T>
  static void trim(std::vector<T>& log) {
    constexpr size_t kLimit = size_t{1} << 16;
    if (log.size() > kLimit) log.erase(log.begin(), log.begin() + kLimit / 2);
  }
  std::array<uint32_t, 32> wireOutValues();

  BoardConfig fixed;  ///< the configuration; only voltages change, through setVoltage
  mutable std::mutex mutex;

  bool attached = true;
  bool plugged = true;
  const void* owner = nullptr;
  uint64_t generation = 1;

  // Faults.
  int fail_reads = 0;
  int short_reads = 0;
  int device_info_error = 0;
  bool version_override = false;
  uint32_t forced_version = 0;

  // Parts outside the FPGA: they keep their state across firmware loads.
  std::unique_ptr<I2cMaster> i2c;
  std::array<uint16_t, 32> dac{};
  bool pll_configured = false;

  // The firmware.
  bool fpga_loaded = false;
  FirmwareImage firmware;
  std::array<uint32_t, 32> wires_pending{};
  std::array<uint32_t, 32> wires{};
  std::array<uint32_t, 32> wire_outs{};
  int bus_busy_left = 0;  ///< -1: the transfer never finishes
  bool table_armed = false;
  FirmwareSetup setup;
  std::shared_ptr<StreamModel> stream;
  std::shared_ptr<Synchronizer> synchronizer;  ///< null when the board is on its own

  // Traffic the tests read.
  std::vector<BoardEvent> event_log;
  std::vector<SerialWord> serial_log;
  std::vector<DacWrite> dac_log;
  std::vector<I2cByte> i2c_log;
};

}  // namespace zeptick::emulator
