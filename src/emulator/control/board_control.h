#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace zeptick::emulator {

/// One call that reached an emulated board through the FrontPanel table, in
/// arrival order. Pipe-out reads and wire-out reads are not recorded (too many).
/// `call` is the function name without the "okFrontPanel_"/"okPLL22150_" prefix,
/// e.g. "SetWireInValue" (a = address, b = value), "UpdateWireIns",
/// "ActivateTriggerIn" (a = address, b = bit), "WriteToPipeIn" (a = address, b = length),
/// "WriteRegister" (a = register, b = value), "ReadRegister" (a = register),
/// "ConfigureFPGA", "SetPLL22150Configuration", "PLL.SetVCOParameters" (a = p, b = q),
/// "PLL.SetDiv1" (a, b), "PLL.SetOutputSource" (a, b), "PLL.SetOutputEnable" (a, b).
struct BoardEvent {
  std::string call;
  int64_t a = 0;
  int64_t b = 0;
  std::string text;  ///< the path of ConfigureFPGA, the serial of OpenBySerial
};

/// What the on-board chips received, decoded by the board model.
struct SerialWord {
  uint32_t select;  ///< chip select bits OR-ed into wire-in 0x04
  uint32_t word;    ///< wire-in 0x03
};
struct DacWrite {
  uint32_t wire3;  ///< wire-in 0x03 at the trigger
  uint32_t wire4;  ///< wire-in 0x04 at the trigger
};
struct I2cByte {
  uint8_t byte;     ///< register 3 when the command was written (or the byte read)
  uint8_t command;  ///< register 4 command
  bool read;        ///< a read command (0x20, 0x60)
};

/// Test and tool handle on one emulated board: what it received, its truth,
/// and the faults it can be told to show. Thread-safe.
class BoardControl {
 public:
  virtual ~BoardControl() = default;

  virtual std::string serial() const = 0;
  virtual std::vector<BoardEvent> events() const = 0;
  virtual std::vector<SerialWord> serialWords() const = 0;
  virtual std::vector<DacWrite> dacWrites() const = 0;
  virtual std::vector<I2cByte> i2cBytes() const = 0;
  /// Forgets all recorded traffic.
  virtual void clearTraffic() = 0;
  /// Current wire-in value after the last UpdateWireIns.
  virtual uint32_t wireIn(int address) const = 0;

  // Faults.
  /// Unplugged: open, reads and calls fail as with a removed device, until replug().
  virtual void unplug() = 0;
  virtual void replug() = 0;
  /// The next `count` pipe reads fail (negative result).
  virtual void failReads(int count) = 0;
  /// The next `count` pipe reads return only half of the bytes asked for.
  virtual void shortReads(int count) = 0;
  /// GetDeviceInfoWithSize fails with this code while not 0.
  virtual void failDeviceInfo(int error_code) = 0;
  /// The MAX11611 sees this voltage (after the board's scaling) on `channel`.
  virtual void setVoltage(int channel, double volts) = 0;
  /// The stream carries an error word at its next rollover boundary, as when
  /// the board loses its clock. Does nothing while no firmware is loaded.
  virtual void injectError() = 0;
  /// Faults of the Synchronizer link, once, at the next rollover: byte `byte`
  /// (0 to 3) of the counter goes missing; the first sync word carries a tick
  /// other than 0. Do nothing while no firmware is loaded.
  virtual void dropSyncByte(int byte) = 0;
  virtual void skewSyncWord(unsigned tick) = 0;
  /// The Synchronizer this board hangs on restarts: its counter starts over at
  /// `counter` in the period after the furthest board's. Does nothing without one.
  virtual void restartSynchronizer(uint32_t counter) = 0;
  /// Replaces the firmware version the loaded firmware reports on wire-out 0x24.
  virtual void setFirmwareVersion(uint32_t version) = 0;
  /// For measuring the host alone: the loaded firmware's stream becomes `words`
  /// over and over (see StreamModel::loopRecording). Does nothing while no
  /// firmware is loaded; a new firmware load ends it.
  virtual void loopRecording(std::vector<uint32_t> words) = 0;
};

/// Attaches emulated boards described by `config` (see the README: an object
/// with a "devices" array), replacing any attached before. Throws
/// std::invalid_argument with a readable message on a bad configuration.
void attachBoards(const nlohmann::json& config);
/// The built-in default configuration (one "Zeptick Ultra" with demo sources).
nlohmann::json defaultConfiguration();
/// Detaches every emulated board; open handles fail from then on.
void detachBoards();
/// The attached board with this serial, or null.
std::shared_ptr<BoardControl> findBoard(const std::string& serial);

}  // namespace zeptick::emulator
