#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "emulator/control/board.h"
#include "emulator/control/board_control.h"
#include "emulator/control/emulator_api.h"

namespace zeptick::emulator::testing {

inline std::string firmwarePath(int model) {
  return std::string(ZEPTICK_SOURCE_DIR) + "/firmware/" +
         (model == 4 ? "ZeptickController.bit" : "ZeptickUltraController.bit");
}

/// Drives emulated boards through the FrontPanel table, as the host would.
class BoardTest : public ::testing::Test {
 protected:
  const device::FrontPanelApi& fp = emulatorFrontPanelApi();
  okFrontPanel_HANDLE handle = nullptr;

  void TearDown() override {
    if (handle != nullptr) fp.okFrontPanel_Destruct(handle);
    detachBoards();
  }

  /// Attaches one board with `fields` (serial "B1" unless given) and opens it.
  std::shared_ptr<Board> openBoard(nlohmann::json fields = nlohmann::json::object()) {
    if (!fields.contains("serial")) fields["serial"] = "B1";
    attachBoards({{"devices", {fields}}});
    handle = fp.okFrontPanel_Construct();
    EXPECT_EQ(fp.okFrontPanel_OpenBySerial(handle, fields["serial"].get<std::string>().c_str()),
              ok_NoError);
    return std::static_pointer_cast<Board>(findBoard(fields["serial"].get<std::string>()));
  }

  /// As openBoard(), then loads the model's shipped firmware.
  std::shared_ptr<Board> loadedBoard(nlohmann::json fields = nlohmann::json::object()) {
    auto board = openBoard(std::move(fields));
    EXPECT_EQ(fp.okFrontPanel_ConfigureFPGA(handle, firmwarePath(board->model()).c_str()),
              ok_NoError);
    return board;
  }

  void setWire(int address, uint32_t value) {
    ASSERT_EQ(fp.okFrontPanel_SetWireInValue(handle, address, value, 0xFFFFFFFF), ok_NoError);
  }
  void update() { ASSERT_EQ(fp.okFrontPanel_UpdateWireIns(handle), ok_NoError); }
  uint32_t wireOut(int address) {
    EXPECT_EQ(fp.okFrontPanel_UpdateWireOuts(handle), ok_NoError);
    return static_cast<uint32_t>(fp.okFrontPanel_GetWireOutValue(handle, address));
  }
};

}  // namespace zeptick::emulator::testing
