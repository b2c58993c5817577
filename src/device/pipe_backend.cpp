#include "device/pipe_backend.h"

#include <cstdio>

#include "core/log.h"
#include "device/board_model.h"
#include "device/endpoints.h"

namespace zeptick::device {
namespace {

constexpr uint32_t kAllBits = 0xFFFFFFFF;
// Extra status reads while the I2C core is busy, and polls of the serial bus.
constexpr int kI2cBusyPolls = 1001;
constexpr int kBusPolls = 999;
constexpr uint32_t kBusDone = 0x02;

}  // namespace

PipeBackend::PipeBackend(int transfer_bytes, uint32_t empty_threshold, const FrontPanelApi* api)
    : explicit_api(api), block_size(transfer_bytes), empty_threshold(empty_threshold) {}

PipeBackend::~PipeBackend() { close(); }

void PipeBackend::close() {
  connected.store(false, std::memory_order_release);
  if (handle == nullptr) return;
  api->okFrontPanel_Close(handle);
  api->okFrontPanel_Destruct(handle);
  handle = nullptr;
}

std::string PipeBackend::displayName() const { return modelDisplayName(board_model); }

int64_t PipeBackend::readBlock(unsigned char* buffer, int64_t length) {
  if (!isConnected()) return static_cast<uint32_t>(-1);
  const long first = api->okFrontPanel_ReadFromBlockPipeOut(handle, kPipeStream, block_size,
                                                            static_cast<long>(length), buffer);
  if (first >= 0) return first;
  ZT_LOG_ERROR("PipeBackend: Pipe transfer failed, len=%d", static_cast<int>(length));
  connected.store(false, std::memory_order_release);
  // The second run only tells a lasting fault from a passing one in the log;
  // its data came after a gap in the stream and must not be used.
  const long second = api->okFrontPanel_ReadFromBlockPipeOut(handle, kPipeStream, block_size,
                                                             static_cast<long>(length), buffer);
  if (second < 0) {
    ZT_LOG_ERROR("PipeBackend: Pipe transfer failed, second run, len=%d", static_cast<int>(length));
  }
  return first;
}

bool PipeBackend::writePipe(int address, const unsigned char* data, int64_t length) {
  if (handle == nullptr) return false;
  // The platform call takes a non-const pointer but only reads the bytes.
  const long written = api->okFrontPanel_WriteToPipeIn(handle, address, static_cast<long>(length),
                                                       const_cast<unsigned char*>(data));
  return written == length;
}

bool PipeBackend::setWire(int address, uint32_t value) {
  if (handle == nullptr) return false;
  return api->okFrontPanel_SetWireInValue(handle, address, value, kAllBits) == ok_NoError;
}

uint32_t PipeBackend::getWireIn(int address) {
  uint32_t value = 0;
  if (handle == nullptr) return 0;
  if (api->okFrontPanel_GetWireInValue(handle, address, &value) != ok_NoError) return 0;
  return value;
}

bool PipeBackend::updateWires() {
  if (handle == nullptr) return false;
  return api->okFrontPanel_UpdateWireIns(handle) == ok_NoError;
}

uint32_t PipeBackend::getWire(int address) {
  if (handle == nullptr) return 0;
  if (api->okFrontPanel_UpdateWireOuts(handle) != ok_NoError) return 0;
  return static_cast<uint32_t>(api->okFrontPanel_GetWireOutValue(handle, address));
}

bool PipeBackend::trigger(int address, int bit) {
  if (handle == nullptr) return false;
  return api->okFrontPanel_ActivateTriggerIn(handle, address, bit) == ok_NoError;
}

bool PipeBackend::i2cTransfer(uint8_t byte, uint8_t command) {
  if (handle == nullptr) return false;
  if (api->okFrontPanel_WriteRegister(handle, kI2cData, byte) != ok_NoError) return false;
  if (api->okFrontPanel_WriteRegister(handle, kI2cCommand, command) != ok_NoError) return false;
  uint32_t status = 0;
  if (api->okFrontPanel_ReadRegister(handle, kI2cCommand, &status) != ok_NoError) return false;
  for (int polls = 0; (status & kI2cBusy) != 0; ++polls) {
    if (polls == kI2cBusyPolls) return false;
    if (api->okFrontPanel_ReadRegister(handle, kI2cCommand, &status) != ok_NoError) return false;
  }
  // The acknowledge bit settles only after the busy bit falls, so read it afresh.
  if (api->okFrontPanel_ReadRegister(handle, kI2cCommand, &status) != ok_NoError) return false;
  return (status & kI2cNoAck) == 0;
}

bool PipeBackend::i2cWrite(uint8_t byte, uint8_t command_bits) {
  return i2cTransfer(byte, command_bits);
}

std::optional<uint8_t> PipeBackend::i2cRead(bool last) {
  if (!i2cTransfer(0, last ? kI2cReadStop : kI2cRead)) return std::nullopt;
  uint32_t data = 0;
  if (api->okFrontPanel_ReadRegister(handle, kI2cData, &data) != ok_NoError) return std::nullopt;
  return static_cast<uint8_t>(data);
}

bool PipeBackend::setTestSignalDivider(int divider) {
  // The Ultra's test clock runs at twice the rate, so its period word is doubled.
  const uint32_t word = board_model == kModelZeptick20 ? static_cast<uint32_t>(divider)
                                                       : 2u * static_cast<uint32_t>(divider);
  const bool period = setWire(kWireTestPeriod, word);
  const bool half = setWire(kWireTestHalfPeriod, word / 2);
  return period && half;
}

bool PipeBackend::setLed(uint32_t word) {
  if (board_model == kModelZeptick20) {
    // The Zeptick 20 has its second LED group at bits 8-10 of the wire.
    return setWire(kWireLed, (word & 7) | ((word & 0x70000) >> 8));
  }
  return setWire(kWireLed, word);
}

bool PipeBackend::writeBusWord(uint32_t select, uint32_t word) {
  const uint32_t control = getWireIn(kWireBusControl);
  bool ok = setWire(kWireBusControl, control | select);
  ok = setWire(kWireBusData, word) && ok;
  ok = updateWires() && ok;
  ok = trigger(kTriggerBus, 0) && ok;
  bool done = false;
  if (ok) {
    for (int poll = 1; poll <= kBusPolls; ++poll) {
      if ((getWire(kWireOutBusStatus) & kBusDone) != 0) {
        // Done only at the last allowed poll still counts as a timeout.
        done = poll < kBusPolls;
        break;
      }
    }
  }
  setWire(kWireBusControl, control);
  updateWires();
  return done;
}

bool PipeBackend::writeDac(uint32_t a, uint32_t b, uint32_t value, uint32_t extra) {
  bool ok = setWire(kWireBusData, (value << 4) | extra);
  ok = setWire(kWireBusControl, (value >> 12) | (a << 12) | (b << 8)) && ok;
  ok = updateWires() && ok;
  if (!ok) ZT_LOG_ERROR("setting DAC value failed");
  if (!trigger(kTriggerBus, 0)) {
    ZT_LOG_ERROR("triggering DAC failed");
    return false;
  }
  return ok;
}

bool PipeBackend::setDac(int channel, uint32_t value) {
  const auto index = static_cast<uint32_t>(channel);
  if (board_model == kModelZeptickUltra) {
    const uint32_t select = index < 16 ? kSelectConverter1 : kSelectConverter2;
    return writeBusWord(select, (3u << 20) | ((index & 15) << 16) | (value & 0xFFFF));
  }
  if (board_model == kModelZeptick20) return writeDac(3, index, value, 0);
  return false;
}

std::string formatFirmwareTimestamp(uint32_t word) {
  const unsigned seconds = word & 63;
  const unsigned minutes = (word >> 6) & 63;
  const unsigned hours = (word >> 12) & 31;
  const unsigned year = 2000 + ((word >> 17) & 63);
  const unsigned month = (word >> 23) & 15;
  const unsigned day = word >> 27;
  char text[32];
  std::snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u", year, month, day, hours,
                minutes, seconds);
  return text;
}

}  // namespace zeptick::device
