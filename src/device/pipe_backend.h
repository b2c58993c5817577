#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "device/frontpanel_api.h"

namespace zeptick::device {

/// One board reached through the FrontPanel table: opening and programming it,
/// its wires, triggers, pipes and I2C registers, the serial bus of its
/// converters and synthesiser, and its sensors. The only way to the hardware.
///
/// Thread-safety: an object is used by one thread at a time; the engine
/// serialises calls with its per-device locks. isConnected() alone may be
/// called from any thread. Destroying the object closes the device; objects
/// for different boards are independent.
class PipeBackend {
 public:
  /// Half of this goes to wire-in 0x01 at start-up: the words the firmware
  /// buffers before it offers a block to the pipe. The default is one default
  /// USB block (1024 bytes) of 32-bit words.
  static constexpr uint32_t kDefaultEmptyThreshold = 256;
  /// resolutionMask of a board without licence restrictions.
  static constexpr uint32_t kFullResolutionMask = 0xFFFFFFFF;

  /// `transfer_bytes` is the USB block size of every pipe read. `api` is the
  /// table to use; null picks activeFrontPanelApi() anew at every openDevice.
  /// An explicit table must outlive this object.
  explicit PipeBackend(int transfer_bytes = 1024, uint32_t empty_threshold = kDefaultEmptyThreshold,
                       const FrontPanelApi* api = nullptr);
  ~PipeBackend();
  PipeBackend(const PipeBackend&) = delete;
  PipeBackend& operator=(const PipeBackend&) = delete;

  /// Opens the board with `serial` ("" for the first one), loads its firmware,
  /// checks versions and supply voltages and sets up its chips. Closes a
  /// handle left from an earlier open first. Returns `connected`. A board that
  /// cannot be opened gives false when `silent`, else std::runtime_error; any
  /// later fault throws std::runtime_error and leaves the board unusable until
  /// the next openDevice.
  bool openDevice(const std::string& serial, bool silent = false);
  /// Closes the handle; later calls fail until openDevice.
  void close();

  // Identity, valid after a successful openDevice.
  const std::string& serial() const { return device_serial; }
  /// "ZT-20", "ZT-Ultra" or "unknown".
  const std::string& modelName() const { return model_name; }
  /// "Zeptick 20", "Zeptick Ultra" or "unknown".
  std::string displayName() const;
  int boardModel() const { return board_model; }
  /// 4 or 36; 0 before the model is known.
  uint32_t modelCode() const { return model_code; }
  uint32_t resolutionMask() const { return resolution_mask; }
  /// Board revision, wire-out 0x29.
  uint32_t revision() const { return board_revision; }
  /// e.g. "ZT-Ultra, FW 4, TS 2024-03-05 14:07:09, OK 1.35".
  const std::string& firmwareVersion() const { return version_text; }
  /// Wire-outs 0x27 (high word) and 0x26 (low word).
  uint64_t deviceIdentifier() const { return device_identifier; }
  /// Physical inputs, wire-out 0x21.
  int inputCount() const { return input_count; }
  /// Hardware indices this board offers: rising edges 0..inputs-1, falling edges after them.
  const std::set<int32_t>& availableChannels() const { return available_channels; }
  /// The last pipe transfer or the opening worked. Any thread.
  bool isConnected() const { return connected.load(std::memory_order_acquire); }
  int transferBytes() const { return block_size; }

  /// Reads `length` bytes (a multiple of the block size) from pipe-out 0xA0.
  /// Returns the bytes read or a negative error. A failed transfer is logged,
  /// clears `connected`, and is run once more, whose data and result are
  /// dropped: the caller sees the first result. When not connected, returns
  /// 0xFFFFFFFF (-1 as an unsigned 32-bit value) without any transfer.
  int64_t readBlock(unsigned char* buffer, int64_t length);
  /// Writes `length` bytes to a pipe-in endpoint (the channel table). False on failure.
  bool writePipe(int address, const unsigned char* data, int64_t length);

  /// Sets a wire-in with mask 0xFFFFFFFF; it takes effect at updateWires(). False if refused.
  bool setWire(int address, uint32_t value);
  /// The value the host last set on a wire-in; 0 if it cannot be read.
  uint32_t getWireIn(int address);
  bool updateWires();
  /// Fetches the wire-outs and returns one; 0 if the board does not answer.
  uint32_t getWire(int address);
  bool trigger(int address, int bit);

  /// One byte through the I2C master: `command_bits` is 0x90 start and write,
  /// 0x10 write or 0x50 write and stop. True when the slave acknowledged.
  bool i2cWrite(uint8_t byte, uint8_t command_bits);
  /// Reads one byte (with stop when `last`); nothing when the transfer failed.
  std::optional<uint8_t> i2cRead(bool last);

  /// Sets wires 0x09 and 0x0B for the internal test signal (no update).
  bool setTestSignalDivider(int divider);
  /// Sets the LED wire 0x0C (no update).
  bool setLed(uint32_t word);
  /// Sends `word` on the serial bus to the chips selected by the bits of
  /// `select`. False when the bus did not report the end of the transfer.
  bool writeBusWord(uint32_t select, uint32_t word);
  /// Sets DAC `channel` (the trigger level of input `channel`, or a board
  /// reference) to the 16-bit code `value`.
  bool setDac(int channel, uint32_t value);

  /// Supply voltage `channel` of the converter in volts, or 42.0 when the bus
  /// fails or the channel is unknown. `stable` (optional) is cleared when the
  /// eight readings change direction after the second.
  float readVoltage(int channel, bool* stable = nullptr);
  /// The board's health as tab-separated lines ("label\tvalue\n"). Bus
  /// failures show as 42.0 in their row.
  std::string getSensorReport();

 private:
  // Steps of openDevice, in order; each throws std::runtime_error on a fault.
  bool connect(const std::string& serial, bool silent);
  void identify();
  void programClock();
  void loadFirmware();
  void setUpBoard();
  void readIdentity();
  void startStream();
  void setUpSynthesiserAndReferences();

  bool writeDac(uint32_t a, uint32_t b, uint32_t value, uint32_t extra);
  bool i2cTransfer(uint8_t byte, uint8_t command);
  void configureFanController();
  std::optional<uint8_t> readFanRegister(uint8_t reg);
  void checkVoltages();
  std::string fanRows();
  std::string voltageRows();
  std::string platformSensorRows();
  std::string synchronizerRows();
  [[noreturn]] void fail(const std::string& message);
  void resetIdentity();

  const FrontPanelApi* explicit_api;
  const FrontPanelApi* api = nullptr;  ///< the table of the current handle
  okFrontPanel_HANDLE handle = nullptr;
  int block_size;
  uint32_t empty_threshold;
  std::atomic<bool> connected{false};

  std::string device_serial;
  std::string model_name = "unknown";
  std::string version_text;
  int board_model = 0;
  uint32_t model_code = 0;
  uint32_t resolution_mask = kFullResolutionMask;
  uint32_t board_revision = 0;
  uint64_t device_identifier = 0;
  int input_count = 0;
  std::set<int32_t> available_channels;
};

/// The firmware build time of wire-out 0x20 as "YYYY-MM-DD hh:mm:ss". Bits
/// 0-5 seconds, 6-11 minutes, 12-16 hours, 17-22 years since 2000, 23-26
/// month, 27-31 day.
std::string formatFirmwareTimestamp(uint32_t word);

}  // namespace zeptick::device
