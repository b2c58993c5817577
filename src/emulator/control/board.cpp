#include "emulator/control/board.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace zeptick::emulator {

namespace {

void copyText(char* target, size_t capacity, const std::string& text) {
  const size_t count = std::min(capacity - 1, text.size());
  std::memcpy(target, text.data(), count);
  target[count] = '\0';
}

okTDeviceSensor makeSensor(int id, int type, const char* name, const char* description, double low,
                           double high, double step, double value) {
  okTDeviceSensor sensor{};
  sensor.id = id;
  sensor.type = type;
  copyText(sensor.name, sizeof(sensor.name), name);
  copyText(sensor.description, sizeof(sensor.description), description);
  sensor.min = low;
  sensor.max = high;
  sensor.step = step;
  sensor.value = value;
  return sensor;
}

}  // namespace

Board::Board(BoardConfig config) : fixed(std::move(config)) {
  try {
    stream = std::make_shared<StreamModel>(streamParameters(), fixed.sources);
  } catch (const std::invalid_argument& error) {
    throw std::invalid_argument("emulator configuration: sources of device \"" + fixed.serial +
                                "\": " + error.what());
  }
  powerOn();
}

Board::~Board() = default;

StreamParameters streamParametersOf(const BoardConfig& config) {
  StreamParameters parameters;
  parameters.model = config.model;
  parameters.inputs = config.inputs;
  parameters.ps_per_clock = config.model == kModel20 ? 6000 : 2500;
  parameters.bin_count = config.model == kModel20 ? 180 : 256;
  parameters.seed = config.seed;
  parameters.paced = config.paced;
  parameters.pace = config.pace;
  if (config.usb_words_per_second > 0)
    parameters.usb_words_per_second = config.usb_words_per_second;
  parameters.serial = config.serial;
  return parameters;
}

StreamParameters Board::streamParameters() const {
  StreamParameters parameters = streamParametersOf(fixed);
  parameters.synchronizer = synchronizer;
  return parameters;
}

// Power-up state of everything on the board; the FPGA starts blank.
void Board::powerOn() {
  i2c = std::make_unique<I2cMaster>(fixed);
  // The converters wake up at mid-scale: 0 V on the Ultra's bipolar range.
  dac.fill(fixed.model == kModel20 ? 0 : 0x8000);
  pll_configured = false;
  fpga_loaded = false;
  firmware = FirmwareImage{};
  wires_pending.fill(0);
  wires.fill(0);
  wire_outs.fill(0);
  bus_busy_left = 0;
  table_armed = false;
  setup = FirmwareSetup{};
  setup.channels.assign(2 * static_cast<size_t>(fixed.inputs), ChannelSetup{});
}

bool Board::valid(const Session& session) const {
  return attached && plugged && owner != nullptr && session.owner == owner &&
         session.generation == generation;
}

void Board::record(std::string call, int64_t a, int64_t b, std::string text) {
  event_log.push_back({std::move(call), a, b, std::move(text)});
  trim(event_log);
}

bool Board::available() const {
  std::lock_guard<std::mutex> lock(mutex);
  return attached && plugged && owner == nullptr;
}

bool Board::pluggedIn() const {
  std::lock_guard<std::mutex> lock(mutex);
  return attached && plugged;
}

ok_ErrorCode Board::open(const void* new_owner, Session& session) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!attached || !plugged || (owner != nullptr && owner != new_owner)) return ok_Failed;
  owner = new_owner;
  session = {new_owner, generation};
  record("OpenBySerial", 0, 0, fixed.serial);
  return ok_NoError;
}

void Board::close(const Session& session) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return;
  record("Close");
  owner = nullptr;
  ++generation;
}

bool Board::isOpen(const Session& session) const {
  std::lock_guard<std::mutex> lock(mutex);
  return valid(session);
}

void Board::detach() {
  std::lock_guard<std::mutex> lock(mutex);
  attached = false;
  owner = nullptr;
  ++generation;
}

std::string Board::serialNumber(const Session& session) const {
  std::lock_guard<std::mutex> lock(mutex);
  return valid(session) ? fixed.serial : std::string();
}

ok_ErrorCode Board::deviceInfo(const Session& session, okTDeviceInfo* info, unsigned size) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  record("GetDeviceInfoWithSize", size);
  if (device_info_error != 0) return device_info_error;
  if (info == nullptr || size < sizeof(okTDeviceInfo)) return ok_InvalidParameter;
  okTDeviceInfo out{};
  copyText(out.deviceID, sizeof(out.deviceID), fixed.device_id);
  copyText(out.serialNumber, sizeof(out.serialNumber), fixed.serial);
  copyText(out.productName, sizeof(out.productName), productName(fixed.model));
  out.productID = fixed.model;
  out.usbSpeed = fixed.usb_speed;
  out.deviceMajorVersion = fixed.major_version;
  out.deviceMinorVersion = fixed.minor_version;
  out.hostInterfaceMajorVersion = 1;
  out.isPLL22150Supported = fixed.model == kModel20;
  out.isFrontPanelEnabled = fpga_loaded;
  out.wireWidth = out.triggerWidth = out.pipeWidth = 32;
  out.registerAddressWidth = out.registerDataWidth = 32;
  out.interfaceCount = 1;
  std::memcpy(info, &out, sizeof(out));
  return ok_NoError;
}

int Board::boardModel(const Session& session) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return 0;
  record("GetBoardModel");
  return fixed.model;
}

int Board::majorVersion(const Session& session) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return 0;
  record("GetDeviceMajorVersion");
  return fixed.major_version;
}

int Board::minorVersion(const Session& session) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return 0;
  record("GetDeviceMinorVersion");
  return fixed.minor_version;
}

ok_ErrorCode Board::configurePll(const Session& session, const PllSettings& pll) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  for (const BoardEvent& call : pll.calls) {
    event_log.push_back(call);
  }
  trim(event_log);
  record("SetPLL22150Configuration");
  if (fixed.model != kModel20) return ok_UnsupportedFeature;
  if (!pll.vco_valid) return ok_InvalidParameter;
  pll_configured = true;
  return ok_NoError;
}

ok_ErrorCode Board::sensors(const Session& session, std::vector<okTDeviceSensor>& list) {
  std::lock_guard<std::mutex> lock(mutex);
  if (!valid(session)) return ok_DeviceNotOpen;
  record("GetDeviceSensors");
  list = {
      makeSensor(0, 5, "FPGA temperature", "Die temperature of the FPGA", 0, 125, 0.5,
                 fixed.fpga_temperature),
      makeSensor(1, 3, "VCCINT", "FPGA core supply", 0.95, 1.05, 0.001, 1.0),
      makeSensor(2, 3, "VCCAUX", "FPGA auxiliary supply", 1.71, 1.89, 0.001, 1.8),
      makeSensor(3, 3, "VCC3V3", "Board 3.3 V supply", 3.135, 3.465, 0.001, 3.3),
  };
  return ok_NoError;
}

// --- BoardControl ---

std::vector<BoardEvent> Board::events() const {
  std::lock_guard<std::mutex> lock(mutex);
  return event_log;
}

std::vector<SerialWord> Board::serialWords() const {
  std::lock_guard<std::mutex> lock(mutex);
  return serial_log;
}

std::vector<DacWrite> Board::dacWrites() const {
  std::lock_guard<std::mutex> lock(mutex);
  return dac_log;
}

std::vector<I2cByte> Board::i2cBytes() const {
  std::lock_guard<std::mutex> lock(mutex);
  return i2c_log;
}

void Board::clearTraffic() {
  std::lock_guard<std::mutex> lock(mutex);
  event_log.clear();
  serial_log.clear();
  dac_log.clear();
  i2c_log.clear();
}

uint32_t Board::wireIn(int address) const {
  std::lock_guard<std::mutex> lock(mutex);
  return address >= 0 && address < 32 ? wires[address] : 0;
}

void Board::unplug() {
  std::lock_guard<std::mutex> lock(mutex);
  plugged = false;
  owner = nullptr;
  ++generation;
}

// Plugging in powers the board up again: the FPGA is blank and the chips reset.
void Board::replug() {
  std::lock_guard<std::mutex> lock(mutex);
  if (plugged) return;
  plugged = true;
  powerOn();
}

void Board::failReads(int count) {
  std::lock_guard<std::mutex> lock(mutex);
  fail_reads = std::max(0, count);
}

void Board::shortReads(int count) {
  std::lock_guard<std::mutex> lock(mutex);
  short_reads = std::max(0, count);
}

void Board::failDeviceInfo(int error_code) {
  std::lock_guard<std::mutex> lock(mutex);
  device_info_error = error_code;
}

void Board::setVoltage(int channel, double volts) {
  std::lock_guard<std::mutex> lock(mutex);
  if (channel < 0 || channel >= kVoltageChannels) return;
  fixed.voltages[channel] = volts;  // survives a power cycle
  i2c->converter().setValue(channel, volts);
}

void Board::injectError() {
  std::shared_ptr<StreamModel> model = streamModel();
  if (model) model->injectError();
}

void Board::dropSyncByte(int byte) {
  std::shared_ptr<StreamModel> model = streamModel();
  if (model) model->dropSyncByte(byte);
}

void Board::skewSyncWord(unsigned tick) {
  std::shared_ptr<StreamModel> model = streamModel();
  if (model) model->skewSyncWord(tick);
}

void Board::restartSynchronizer(uint32_t counter) {
  std::shared_ptr<Synchronizer> driving;
  {
    std::lock_guard<std::mutex> lock(mutex);
    driving = synchronizer;
  }
  if (driving) driving->restart(counter);
}

void Board::attachSynchronizer(std::shared_ptr<Synchronizer> driving) {
  std::lock_guard<std::mutex> lock(mutex);
  synchronizer = std::move(driving);
}

void Board::loopRecording(std::vector<uint32_t> words) {
  std::shared_ptr<StreamModel> model = streamModel();
  if (model) model->loopRecording(std::move(words));
}

void Board::setFirmwareVersion(uint32_t version) {
  std::lock_guard<std::mutex> lock(mutex);
  version_override = true;
  forced_version = version;
}

FirmwareSetup Board::firmwareSetup() const {
  std::lock_guard<std::mutex> lock(mutex);
  return setup;
}

uint16_t Board::dacCode(int channel) const {
  std::lock_guard<std::mutex> lock(mutex);
  return channel >= 0 && channel < 32 ? dac[channel] : 0;
}

bool Board::firmwareLoaded() const {
  std::lock_guard<std::mutex> lock(mutex);
  return fpga_loaded;
}

uint8_t Board::fanControllerRegister(int address) const {
  std::lock_guard<std::mutex> lock(mutex);
  return i2c->fanController().reg(address);
}

uint8_t Board::converterSetupByte() const {
  std::lock_guard<std::mutex> lock(mutex);
  return i2c->converter().setupByte();
}

std::shared_ptr<StreamModel> Board::streamModel() const {
  std::lock_guard<std::mutex> lock(mutex);
  return stream;
}

}  // namespace zeptick::emulator
