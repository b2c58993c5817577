// Bringing a board from unplugged to streaming: connection, clock, firmware,
// version and supply checks, and the set-up of the on-board chips.

#include <chrono>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "core/log.h"
#include "device/board_model.h"
#include "device/endpoints.h"
#include "device/file_searcher.h"
#include "device/frontpanel_provider.h"
#include "device/pipe_backend.h"

namespace zeptick::device {
namespace {

constexpr uint32_t kSupportedFirmware = 4;
constexpr float kVoltageFailure = 42.0f;

// Supply rails of the Ultra (revision 4 on), in the order they are checked. A
// limit of 0.0 stands for "the reading must be stable" instead of a bound.
struct VoltageLimit {
  int channel;
  double minimum;
  double maximum;
};
constexpr VoltageLimit kVoltageLimits[] = {
    {0, 0.0, -1.0}, {1, -5.2, -4.8}, {5, -5.8, -5.2}, {7, 4.8, 5.2}, {4, 4.8, 5.2},
    {6, 5.3, 5.9},  {2, 2.3, 2.7},   {8, 2.3, 2.7},   {3, 2.7, 3.3}, {9, 11.4, 12.6},
};

// Words for the clock synthesiser after start; the first depends on the revision.
constexpr uint32_t kSynthesiserWords[] = {0xBC843C, 3, 0xA005D42, 0x8008011, 0x640000};
constexpr uint32_t kConverterSetupWord = 0xAAE00004;
constexpr uint8_t kConverterSetupByte = 0xD2;
// Board references of the Ultra's second converter.
constexpr int kReferenceDacA = 0x12;
constexpr int kReferenceDacB = 0x13;

void sleepMilliseconds(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// The PLL handle is destroyed on every way out, also when the upload throws.
struct PllDeleter {
  const FrontPanelApi* api;
  void operator()(void* pll) const { api->okPLL22150_Destruct(pll); }
};

}  // namespace

void PipeBackend::fail(const std::string& message) {
  connected.store(false, std::memory_order_release);
  throw std::runtime_error(message);
}

void PipeBackend::resetIdentity() {
  model_name = "unknown";
  version_text.clear();
  board_model = 0;
  model_code = 0;
  resolution_mask = kFullResolutionMask;
  board_revision = 0;
  device_identifier = 0;
  input_count = 0;
  available_channels.clear();
}

bool PipeBackend::openDevice(const std::string& serial, bool silent) {
  close();
  resetIdentity();
  if (!connect(serial, silent)) return false;
  identify();
  if (board_model == kModelZeptick20) programClock();
  loadFirmware();
  setUpBoard();
  readIdentity();
  startStream();
  if (board_model == kModelZeptickUltra) setUpSynthesiserAndReferences();
  return isConnected();
}

bool PipeBackend::connect(const std::string& serial, bool silent) {
  device_serial = serial;
  api = explicit_api != nullptr ? explicit_api : activeFrontPanelApi();
  if (api != nullptr) {
    handle = api->okFrontPanel_Construct();
    if (handle != nullptr && api->okFrontPanel_OpenBySerial(handle, serial.c_str()) != ok_NoError) {
      close();
    }
  }
  if (handle == nullptr) {
    connected.store(false, std::memory_order_release);
    if (silent) return false;
    throw std::runtime_error("Opening of USB connection failed or device with serial '" + serial +
                             "' not found.");
  }
  if (serial.empty()) {
    char buffer[64] = {};
    api->okFrontPanel_GetSerialNumber(handle, buffer);
    buffer[sizeof(buffer) - 1] = '\0';
    device_serial = buffer;
  }
  return true;
}

void PipeBackend::identify() {
  okTDeviceInfo info;
  std::memset(&info, 0, sizeof(info));
  const ok_ErrorCode result = api->okFrontPanel_GetDeviceInfoWithSize(handle, &info, sizeof(info));
  if (result != ok_NoError) {
    fail("Error on fetching the device information: " + std::to_string(result));
  }
  board_model = api->okFrontPanel_GetBoardModel(handle);
  if (board_model == kModelZeptickUltra && info.usbSpeed != OK_USBSPEED_SUPER) {
    ZT_LOG_WARNING("The Zeptick '%s' is not connected by USB 3.0, its performance will be low.",
                   device_serial.c_str());
  }
}

void PipeBackend::programClock() {
  std::unique_ptr<void, PllDeleter> pll(api->okPLL22150_Construct(), PllDeleter{api});
  api->okPLL22150_SetVCOParameters(pll.get(), 125, 18);
  api->okPLL22150_SetDiv1(pll.get(), ok_DivSrc_Div1, 4);
  api->okPLL22150_SetOutputSource(pll.get(), 0, ok_ClkSrc22150_Div1ByN);
  api->okPLL22150_SetOutputEnable(pll.get(), 0, 1);
  api->okPLL22150_SetOutputSource(pll.get(), 2, ok_ClkSrc22150_Div1By2);
  api->okPLL22150_SetOutputEnable(pll.get(), 2, 1);
  if (api->okFrontPanel_SetPLL22150Configuration(handle, pll.get()) != ok_NoError) {
    fail("Uploading PLL configuration failed");
  }
}

void PipeBackend::loadFirmware() {
  const std::string file = firmwareFileName(board_model);
  if (file.empty()) fail("No Zeptick model recognized!");
  const std::string path = searchFirmware(file);
  std::error_code ignored;
  if (!std::filesystem::exists(path, ignored)) {
    std::string searched;
    for (const std::string& candidate : firmwareCandidates(file)) {
      searched += (searched.empty() ? "" : ", ") + candidate;
    }
    ZT_LOG_WARNING("Firmware searched in: %s", searched.c_str());
    fail("Firmware file not found - filename: '" + file + "'");
  }
  if (api->okFrontPanel_ConfigureFPGA(handle, path.c_str()) != ok_NoError) {
    fail("Uploading FPGA configuration failed - bitfile: '" + path + "'");
  }

  api->okFrontPanel_UpdateWireOuts(handle);
  board_revision =
      static_cast<uint32_t>(api->okFrontPanel_GetWireOutValue(handle, kWireOutRevision));
  const auto firmware =
      static_cast<uint32_t>(api->okFrontPanel_GetWireOutValue(handle, kWireOutFirmware));
  model_name = modelTag(board_model);
  model_code = static_cast<uint32_t>(board_model);
  version_text = model_name + ", FW " + std::to_string(firmware);
  if (board_model != kModelZeptick20) {
    const auto stamp =
        static_cast<uint32_t>(api->okFrontPanel_GetWireOutValue(handle, kWireOutTimestamp));
    version_text += ", TS " + formatFirmwareTimestamp(stamp);
  }
  version_text += ", OK " + std::to_string(api->okFrontPanel_GetDeviceMajorVersion(handle)) + "." +
                  std::to_string(api->okFrontPanel_GetDeviceMinorVersion(handle));
  if (firmware != kSupportedFirmware) {
    fail("The firmware version '" + version_text +
         "' is not supported by the Zeptick 2.7.0 version");
  }
}

// The Ultra's revision-dependent set-up: the firmware quirk of early boards,
// then the I2C chips that later revisions carry, and their supply check.
void PipeBackend::setUpBoard() {
  if (board_model != kModelZeptickUltra) return;
  setWire(kWireRevisionQuirk, board_revision < 3 ? 0x0C : 0);
  updateWires();
  if (board_revision > 2) {
    api->okFrontPanel_WriteRegister(handle, kI2cControl, 0);
    api->okFrontPanel_WriteRegister(handle, kI2cPrescaleHigh, 0);
    api->okFrontPanel_WriteRegister(handle, kI2cPrescaleLow, 200);
    api->okFrontPanel_WriteRegister(handle, kI2cControl, 0x80);
    configureFanController();
    setWire(kWireBoardOptions, 7);
    updateWires();
    sleepMilliseconds(100);
  }
  if (board_revision > 3) {
    i2cWrite(kVoltageConverterWrite, kI2cStartWrite);
    i2cWrite(kConverterSetupByte, kI2cWriteStop);
    sleepMilliseconds(15);  // the converter settles on its reference
    checkVoltages();
  }
}

void PipeBackend::readIdentity() {
  api->okFrontPanel_UpdateWireOuts(handle);
  const auto high =
      static_cast<uint32_t>(api->okFrontPanel_GetWireOutValue(handle, kWireOutIdentifierHigh));
  const auto low =
      static_cast<uint32_t>(api->okFrontPanel_GetWireOutValue(handle, kWireOutIdentifierLow));
  device_identifier = (static_cast<uint64_t>(high) << 32) | low;
  // Without licence restrictions every input and both its edges are offered.
  input_count = static_cast<int>(api->okFrontPanel_GetWireOutValue(handle, kWireOutInputs));
  for (int index = 0; index < 2 * input_count; ++index) available_channels.insert(index);
  resolution_mask = kFullResolutionMask;
}

// The firmware was just loaded, so its buffer threshold and the converters
// need their start values before the stream is switched on.
void PipeBackend::startStream() {
  if (!setWire(kWireEmptyThreshold, empty_threshold / 2) || !updateWires()) {
    ZT_LOG_ERROR("Uploading empty threshold failed");
  }
  if (board_model == kModelZeptick20) {
    writeDac(0, 8, 0, 0);  // resets the converter
  } else {
    setWire(kWirePulse, 1);
    updateWires();
    setWire(kWirePulse, 0);
    updateWires();
    setWire(kWireBusControl, 0);
    updateWires();
    setWire(kWireBusControl, 0x30000);
    updateWires();
    writeBusWord(kSelectConverter1 | kSelectConverter2, kConverterSetupWord);
  }
  const bool started = setWire(kWireStart, 1) && updateWires();
  connected.store(started, std::memory_order_release);
}

void PipeBackend::setUpSynthesiserAndReferences() {
  if (board_revision > 2) {
    // No option bits are reserved to particular serials here.
    const uint32_t options = 0;
    setWire(kWireBoardOptions, getWireIn(kWireBoardOptions) | options);
    updateWires();
    writeBusWord(kSelectSynthesiser, board_revision < 4 ? 5 : 0x400005);
    for (const uint32_t word : kSynthesiserWords) writeBusWord(kSelectSynthesiser, word);
  }
  setDac(kReferenceDacA, 0x7FFF);
  setDac(kReferenceDacB, 0xB332);
}

void PipeBackend::checkVoltages() {
  for (const VoltageLimit& limit : kVoltageLimits) {
    bool stable = true;
    const float volts = readVoltage(limit.channel, &stable);
    bool good = volts != kVoltageFailure;
    good = good && (limit.minimum == 0.0 ? stable : volts >= limit.minimum);
    good = good && (limit.maximum == 0.0 ? stable : volts <= limit.maximum);
    if (!good) {
      fail("Voltage " + std::to_string(limit.channel) + " is out of valid range (" +
           std::to_string(limit.minimum) + " - " + std::to_string(limit.maximum) +
           "): " + std::to_string(volts) + " - cont: " + std::to_string(stable));
    }
  }
}

}  // namespace zeptick::device
