// The FrontPanel C functions served by the emulated boards. A device handle
// remembers which board it opened and in which connection generation, so a
// handle of a board that was unplugged, detached or opened elsewhere since
// fails every call the way a removed device does.

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "emulator/control/board_registry.h"
#include "emulator/control/emulator_api.h"

namespace zeptick::emulator {

namespace {

struct DeviceHandle {
  std::mutex mutex;
  std::shared_ptr<Board> board;  // guarded by mutex
  Session session;               // guarded by mutex
};

struct SensorList {
  std::vector<okTDeviceSensor> sensors;
};

// The board a handle has open, with its session; null board if none.
std::pair<std::shared_ptr<Board>, Session> target(okFrontPanel_HANDLE handle) {
  if (handle == nullptr) return {};
  auto* device = static_cast<DeviceHandle*>(handle);
  std::lock_guard<std::mutex> lock(device->mutex);
  return {device->board, device->session};
}

// Calls `op(board, session)` for an open handle, else returns `closed`.
template <class Result, class Op>
Result withBoard(okFrontPanel_HANDLE handle, Result closed, Op op) {
  auto [board, session] = target(handle);
  if (!board) return closed;
  return op(*board, session);
}

void copySerial(char* buf, const std::string& serial) {
  if (buf == nullptr) return;
  const size_t count = std::min<size_t>(serial.size(), 10);
  std::memcpy(buf, serial.data(), count);
  buf[count] = '\0';
}

// --- Device list and connection ---

okFrontPanel_HANDLE construct() { return new DeviceHandle(); }

void closeHandle(okFrontPanel_HANDLE handle) {
  if (handle == nullptr) return;
  auto* device = static_cast<DeviceHandle*>(handle);
  std::lock_guard<std::mutex> lock(device->mutex);
  if (device->board) device->board->close(device->session);
  device->board.reset();
}

void destruct(okFrontPanel_HANDLE handle) {
  closeHandle(handle);
  delete static_cast<DeviceHandle*>(handle);
}

std::vector<std::shared_ptr<Board>> pluggedBoards() {
  std::vector<std::shared_ptr<Board>> result;
  for (auto& board : attachedBoards()) {
    if (board->pluggedIn()) result.push_back(std::move(board));
  }
  return result;
}

int deviceCount(okFrontPanel_HANDLE) { return static_cast<int>(pluggedBoards().size()); }

void deviceListSerial(okFrontPanel_HANDLE, int num, char* buf) {
  const auto boards = pluggedBoards();
  copySerial(buf, num >= 0 && num < static_cast<int>(boards.size()) ? boards[num]->serial() : "");
}

int deviceListModel(okFrontPanel_HANDLE, int num) {
  const auto boards = pluggedBoards();
  return num >= 0 && num < static_cast<int>(boards.size()) ? boards[num]->model() : 0;
}

// An empty serial opens the first board that nobody has open.
ok_ErrorCode openBySerial(okFrontPanel_HANDLE handle, const char* serial) {
  if (handle == nullptr) return ok_InvalidParameter;
  closeHandle(handle);
  const std::string wanted = serial != nullptr ? serial : "";
  auto* device = static_cast<DeviceHandle*>(handle);
  for (const auto& board : attachedBoards()) {
    if (wanted.empty() ? !board->available() : board->serial() != wanted) continue;
    Session session;
    if (board->open(device, session) != ok_NoError) {
      if (wanted.empty()) continue;  // taken meanwhile by another thread: try the next
      return ok_Failed;
    }
    std::lock_guard<std::mutex> lock(device->mutex);
    device->board = board;
    device->session = session;
    return ok_NoError;
  }
  return ok_Failed;
}

Bool isOpen(okFrontPanel_HANDLE handle) {
  return withBoard(handle, Bool{0},
                   [](Board& board, const Session& s) { return Bool{board.isOpen(s)}; });
}

void getSerialNumber(okFrontPanel_HANDLE handle, char* buf) {
  copySerial(buf, withBoard(handle, std::string(),
                            [](Board& board, const Session& s) { return board.serialNumber(s); }));
}

ok_ErrorCode getDeviceInfo(okFrontPanel_HANDLE handle, okTDeviceInfo* info, unsigned size) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen},
                   [&](Board& board, const Session& s) { return board.deviceInfo(s, info, size); });
}

int boardModel(okFrontPanel_HANDLE handle) {
  return withBoard(handle, 0, [](Board& board, const Session& s) { return board.boardModel(s); });
}

int majorVersion(okFrontPanel_HANDLE handle) {
  return withBoard(handle, 0, [](Board& board, const Session& s) { return board.majorVersion(s); });
}

int minorVersion(okFrontPanel_HANDLE handle) {
  return withBoard(handle, 0, [](Board& board, const Session& s) { return board.minorVersion(s); });
}

// --- FPGA and clock ---

ok_ErrorCode configureFpga(okFrontPanel_HANDLE handle, const char* path) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen},
                   [&](Board& board, const Session& s) { return board.configureFpga(s, path); });
}

okPLL22150_HANDLE pllConstruct() { return new PllSettings(); }
void pllDestruct(okPLL22150_HANDLE pll) { delete static_cast<PllSettings*>(pll); }

void pllRecord(okPLL22150_HANDLE pll, const char* call, int a, int b) {
  if (pll != nullptr) static_cast<PllSettings*>(pll)->calls.push_back({call, a, b, {}});
}

// The reference is 48 MHz; the VCO must stay within 100 to 400 MHz with P and Q
// inside the counters' ranges.
Bool pllSetVco(okPLL22150_HANDLE pll, int p, int q) {
  pllRecord(pll, "PLL.SetVCOParameters", p, q);
  if (pll == nullptr) return 0;
  const double vco_mhz = q > 0 ? 48.0 * p / q : 0;
  const bool valid = p >= 8 && p <= 2055 && q >= 2 && q <= 129 && vco_mhz >= 100 && vco_mhz <= 400;
  static_cast<PllSettings*>(pll)->vco_valid = valid;
  return valid ? 1 : 0;
}

void pllSetDiv1(okPLL22150_HANDLE pll, int source, int n) {
  pllRecord(pll, "PLL.SetDiv1", source, n);
}
void pllSetOutputSource(okPLL22150_HANDLE pll, int output, int source) {
  pllRecord(pll, "PLL.SetOutputSource", output, source);
}
void pllSetOutputEnable(okPLL22150_HANDLE pll, int output, Bool enable) {
  pllRecord(pll, "PLL.SetOutputEnable", output, enable);
}

ok_ErrorCode setPll(okFrontPanel_HANDLE handle, okPLL22150_HANDLE pll) {
  if (pll == nullptr) return ok_InvalidParameter;
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen}, [&](Board& board, const Session& s) {
    return board.configurePll(s, *static_cast<PllSettings*>(pll));
  });
}

// --- Endpoints ---

ok_ErrorCode setWireIn(okFrontPanel_HANDLE handle, int ep, unsigned long value,
                       unsigned long mask) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen}, [&](Board& board, const Session& s) {
    return board.setWireIn(s, ep, static_cast<uint32_t>(value), static_cast<uint32_t>(mask));
  });
}

ok_ErrorCode getWireIn(okFrontPanel_HANDLE handle, int ep, uint32_t* value) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen},
                   [&](Board& board, const Session& s) { return board.getWireIn(s, ep, value); });
}

ok_ErrorCode updateWireIns(okFrontPanel_HANDLE handle) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen},
                   [](Board& board, const Session& s) { return board.updateWireIns(s); });
}

ok_ErrorCode updateWireOuts(okFrontPanel_HANDLE handle) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen},
                   [](Board& board, const Session& s) { return board.updateWireOuts(s); });
}

unsigned long getWireOut(okFrontPanel_HANDLE handle, int ep) {
  return withBoard(handle, 0UL,
                   [&](Board& board, const Session& s) { return board.wireOut(s, ep); });
}

ok_ErrorCode activateTrigger(okFrontPanel_HANDLE handle, int ep, int bit) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen}, [&](Board& board, const Session& s) {
    return board.activateTrigger(s, ep, bit);
  });
}

long writePipe(okFrontPanel_HANDLE handle, int ep, long length, unsigned char* data) {
  return withBoard(handle, long{ok_DeviceNotOpen}, [&](Board& board, const Session& s) {
    return board.writePipe(s, ep, length, data);
  });
}

long readPipe(okFrontPanel_HANDLE handle, int ep, int block_size, long length,
              unsigned char* data) {
  return withBoard(handle, long{ok_DeviceNotOpen}, [&](Board& board, const Session& s) {
    return board.readPipe(s, ep, block_size, length, data);
  });
}

ok_ErrorCode writeRegister(okFrontPanel_HANDLE handle, uint32_t address, uint32_t value) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen}, [&](Board& board, const Session& s) {
    return board.writeRegister(s, address, value);
  });
}

ok_ErrorCode readRegister(okFrontPanel_HANDLE handle, uint32_t address, uint32_t* value) {
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen}, [&](Board& board, const Session& s) {
    return board.readRegister(s, address, value);
  });
}

// --- Sensors ---

okDeviceSensors_HANDLE sensorsConstruct() { return new SensorList(); }
void sensorsDestruct(okDeviceSensors_HANDLE sensors) { delete static_cast<SensorList*>(sensors); }

ok_ErrorCode getDeviceSensors(okFrontPanel_HANDLE handle, okDeviceSensors_HANDLE sensors) {
  if (sensors == nullptr) return ok_InvalidParameter;
  auto* list = static_cast<SensorList*>(sensors);
  list->sensors.clear();
  return withBoard(handle, ok_ErrorCode{ok_DeviceNotOpen},
                   [&](Board& board, const Session& s) { return board.sensors(s, list->sensors); });
}

int sensorCount(okDeviceSensors_HANDLE sensors) {
  return sensors != nullptr ? static_cast<int>(static_cast<SensorList*>(sensors)->sensors.size())
                            : 0;
}

okTDeviceSensor sensorAt(okDeviceSensors_HANDLE sensors, int num) {
  okTDeviceSensor none{};
  none.id = -1;
  if (sensors == nullptr) return none;
  const auto& list = static_cast<SensorList*>(sensors)->sensors;
  return num >= 0 && num < static_cast<int>(list.size()) ? list[num] : none;
}

const device::FrontPanelApi kTable = {
    .okFrontPanel_Construct = construct,
    .okFrontPanel_Destruct = destruct,
    .okFrontPanel_GetDeviceCount = deviceCount,
    .okFrontPanel_GetDeviceListSerial = deviceListSerial,
    .okFrontPanel_GetDeviceListModel = deviceListModel,
    .okFrontPanel_OpenBySerial = openBySerial,
    .okFrontPanel_IsOpen = isOpen,
    .okFrontPanel_Close = closeHandle,
    .okFrontPanel_GetSerialNumber = getSerialNumber,
    .okFrontPanel_GetDeviceInfoWithSize = getDeviceInfo,
    .okFrontPanel_GetBoardModel = boardModel,
    .okFrontPanel_GetDeviceMajorVersion = majorVersion,
    .okFrontPanel_GetDeviceMinorVersion = minorVersion,
    .okFrontPanel_ConfigureFPGA = configureFpga,
    .okFrontPanel_SetPLL22150Configuration = setPll,
    .okFrontPanel_SetWireInValue = setWireIn,
    .okFrontPanel_GetWireInValue = getWireIn,
    .okFrontPanel_UpdateWireIns = updateWireIns,
    .okFrontPanel_UpdateWireOuts = updateWireOuts,
    .okFrontPanel_GetWireOutValue = getWireOut,
    .okFrontPanel_ActivateTriggerIn = activateTrigger,
    .okFrontPanel_WriteToPipeIn = writePipe,
    .okFrontPanel_ReadFromBlockPipeOut = readPipe,
    .okFrontPanel_WriteRegister = writeRegister,
    .okFrontPanel_ReadRegister = readRegister,
    .okFrontPanel_GetDeviceSensors = getDeviceSensors,
    .okDeviceSensors_Construct = sensorsConstruct,
    .okDeviceSensors_Destruct = sensorsDestruct,
    .okDeviceSensors_GetSensorCount = sensorCount,
    .okDeviceSensors_GetSensor = sensorAt,
    .okPLL22150_Construct = pllConstruct,
    .okPLL22150_Destruct = pllDestruct,
    .okPLL22150_SetVCOParameters = pllSetVco,
    .okPLL22150_SetDiv1 = pllSetDiv1,
    .okPLL22150_SetOutputSource = pllSetOutputSource,
    .okPLL22150_SetOutputEnable = pllSetOutputEnable,
};

}  // namespace

const device::FrontPanelApi& emulatorFrontPanelApi() { return kTable; }

}  // namespace zeptick::emulator
