#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "device/device_scan.h"
#include "device/file_searcher.h"
#include "device/frontpanel_provider.h"
#include "device/pipe_backend.h"
#include "device_fixture.h"
#include "support/log_capture.h"
#include "zeptick/library.h"

namespace zeptick::testing {
namespace {

using device::FrontPanelLibrary;
using device::PipeBackend;

using Provider = EmulatedBoards;

// No vendor library on this machine, so without emulated boards nothing is listed; a library
// that is missing or lacks the platform's functions leaves no table.
TEST_F(Provider, ScanFollowsTheAttachedBoardsAndAMissingLibraryLeavesNoTable) {
  ScopedEnvironment vendor("ZEPTICK_FRONTPANEL_LIBRARY", std::string("/nonexistent/libfp.so"));
  attachAll({boardEntry("SCAN-A", 4, 2), boardEntry("SCAN-B", 36, 5), boardEntry("SCAN-C", 36, 1)});
  EXPECT_EQ(scanZeptick(), (std::vector<std::string>{"SCAN-A", "SCAN-B", "SCAN-C"}));
  EXPECT_EQ((std::vector{getZeptickModel("SCAN-A"), getZeptickModel("SCAN-B"),
                         getZeptickModel("SCAN-Z")}),
            (std::vector<std::string>{"ZT-20", "ZT-Ultra", "unknown"}));
  emulator::detachBoards();
  EXPECT_FALSE(emulator::emulatedDevicesAttached());
  EXPECT_TRUE(scanZeptick().empty());
  EXPECT_EQ(getZeptickModel("SCAN-A"), "unknown");
  EXPECT_FALSE(PipeBackend().openDevice("", true));

  const FrontPanelLibrary missing("/nonexistent/libokFrontPanel.so");
  EXPECT_TRUE(missing.api() == nullptr && !missing.error().empty());
  const FrontPanelLibrary unrelated("libm.so.6");  // a real library without the platform's calls
  EXPECT_EQ(unrelated.api(), nullptr);
  EXPECT_NE(unrelated.error().find("missing symbol okFrontPanel_Construct"), std::string::npos)
      << unrelated.error();
  EXPECT_TRUE(device::scanDevices(nullptr).empty());
  EXPECT_EQ(device::scannedModelTag(nullptr, "X"), "unknown");
  PipeBackend backend(1024, PipeBackend::kDefaultEmptyThreshold, missing.api());
  EXPECT_EQ(errorOf([&] { backend.openDevice("X"); }),
            "Opening of USB connection failed or device with serial 'X' not found.");
}

// The emulator built as a separate shared library, loaded the way the vendor's library is, once
// per process and kept. It has an emulator of its own, configured by ZEPTICK_EMULATOR on its
// first use; the boards of this process stay out of it.
const FrontPanelLibrary& loadedEmulator() {
  static const FrontPanelLibrary* library = [] {
    // Settle this process's own emulator first, so that it does not read the variable too.
    emulator::emulatedDevicesAttached();
    const std::string path =
        ::testing::TempDir() + "/zeptick_dlopen_" + std::to_string(getpid()) + ".json";
    std::ofstream(path) << nlohmann::json{
        {"devices",
         {boardEntry("DL-20", 4, 1), boardEntry("DL-ULTRA", 36, 5), boardEntry("DL-OLD", 36, 2)}}};
    ScopedEnvironment configuration("ZEPTICK_EMULATOR", path);
    auto* loaded = new FrontPanelLibrary(ZEPTICK_EMULATOR_LIBRARY);
    // The first call into the library reads the configuration.
    if (loaded->api() != nullptr) device::scanDevices(loaded->api());
    std::filesystem::remove(path);
    return loaded;
  }();
  return *library;
}

using SharedLibraryProvider = EmulatedBoards;

TEST_F(SharedLibraryProvider, OpensBothModelsThroughTheLoadedTable) {
  const device::FrontPanelApi* api = loadedEmulator().api();
  ASSERT_NE(api, nullptr) << loadedEmulator().error();
  EXPECT_NE(api, &emulator::emulatorFrontPanelApi());
  EXPECT_EQ(device::scanDevices(api), (std::vector<std::string>{"DL-20", "DL-ULTRA", "DL-OLD"}));
  EXPECT_EQ(device::scannedModelTag(api, "DL-20"), "ZT-20");
  EXPECT_EQ(emulator::findBoard("DL-20"), nullptr);

  // Both models start up through the loaded table; the wires show it reached the boards.
  PipeBackend z20(1024, 1000, api), ultra(1024, 1000, api), old(1024, 1000, api);
  ASSERT_TRUE(z20.openDevice("DL-20"));
  EXPECT_EQ(std::pair(z20.modelName(), z20.getWireIn(0x04)),
            std::pair(std::string("ZT-20"), 0x800u));
  ASSERT_TRUE(ultra.openDevice("DL-ULTRA"));
  EXPECT_EQ(std::pair(ultra.revision(), ultra.getWireIn(0x04)), std::pair(5u, 0x30000u));
  EXPECT_NEAR(ultra.readVoltage(9), 12.0, 0.015);
  EXPECT_NE(ultra.getSensorReport().find("\n11611 incurr\t"), std::string::npos);
  ASSERT_TRUE(old.openDevice("DL-OLD"));
  EXPECT_EQ(old.getSensorReport().find("6615"), std::string::npos);

  std::vector<unsigned char> buffer(2048);
  EXPECT_EQ(z20.readBlock(buffer.data(), 2048), 2048);
  EXPECT_EQ(ultra.readBlock(buffer.data(), 2048), 2048);

  // A board already held by another handle cannot be opened twice.
  EXPECT_FALSE(PipeBackend(1024, 1000, api).openDevice("DL-ULTRA", true));

  // The library's control calls replace its own boards, and say why they refuse a configuration.
  void* handle = dlopen(ZEPTICK_EMULATOR_LIBRARY, RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(handle, nullptr) << dlerror();
  auto attach = reinterpret_cast<int (*)(const char*, char*, int)>(
      dlsym(handle, "zeptickEmulator_AttachBoards"));
  auto detach = reinterpret_cast<void (*)()>(dlsym(handle, "zeptickEmulator_DetachBoards"));
  auto find = reinterpret_cast<void* (*)(const char*)>(dlsym(handle, "zeptickEmulator_FindBoard"));
  ASSERT_TRUE(attach && detach && find);
  EXPECT_NE(find("DL-OLD"), nullptr);
  char error[256] = {};
  EXPECT_EQ(attach(R"({"devices": [{"serial": "LIB", "inputs": 40}]})", error, sizeof(error)), -1);
  EXPECT_NE(std::string(error).find("devices[0].inputs"), std::string::npos) << error;
  ASSERT_EQ(attach(R"({"devices": [{"serial": "LIB", "model": 4}]})", error, sizeof(error)), 0);
  EXPECT_EQ(device::scanDevices(api), std::vector<std::string>{"LIB"});
  EXPECT_EQ(static_cast<emulator::BoardControl*>(find("LIB"))->serial(), "LIB");
  detach();
  EXPECT_EQ(find("LIB"), nullptr);
  dlclose(handle);
}

namespace fs = std::filesystem;
using device::searchFirmware;

// Each source in turn, from the first choice down, from an empty working directory of its own:
// every one shadows those after it.
TEST(FirmwareSearch, CustomThenWorkingDirectoryThenEnvironmentThenInstallation) {
  const fs::path previous_directory = fs::current_path();
  const fs::path directory =
      fs::path(::testing::TempDir()) / ("firmware_search_" + std::to_string(getpid()));
  fs::remove_all(directory);
  fs::create_directories(directory);
  fs::current_path(directory);
  std::ofstream(directory / "ZeptickUltraController.bit") << "bits";
  ScopedEnvironment base("ZEPTICK_BASE_DIRECTORY", std::string("/opt/zeptick"));
  ScopedEnvironment subdirectory("ZEPTICK_FIRMWARE_SUBDIRECTORY", std::string("fw"));
  LogCapture log;
  // A custom file wins even when it does not exist.
  setCustomBitFileName("/nowhere/custom.bit");
  EXPECT_EQ(searchFirmware("ZeptickUltraController.bit"), "/nowhere/custom.bit");
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_TRUE(log.contains(LOGGER_WARNING, ": Loading custom bitfile '/nowhere/custom.bit'"));
  setCustomBitFileName("");
  log.reset();
  EXPECT_EQ(searchFirmware("ZeptickUltraController.bit"), "./ZeptickUltraController.bit");
  EXPECT_EQ(log.messages().size(), 1u);
  EXPECT_TRUE(
      log.contains(LOGGER_WARNING,
                   ": INFO: Loading bitfile from current directory: ZeptickUltraController.bit"));
  log.reset();
  // Only a file of that very name counts.
  EXPECT_EQ(searchFirmware("Other.bit"), "/opt/zeptick/fw/Other.bit");
  // A missing subdirectory reads as empty, and the search still gives a path.
  unsetenv("ZEPTICK_FIRMWARE_SUBDIRECTORY");
  EXPECT_EQ(searchFirmware("A.bit"), "/opt/zeptick//A.bit");
  // Without a base directory the subdirectory alone means nothing.
  unsetenv("ZEPTICK_BASE_DIRECTORY");
  setenv("ZEPTICK_FIRMWARE_SUBDIRECTORY", "fw", 1);
  const std::string installed = searchFirmware("A.bit");
  EXPECT_EQ(installed, device::installedFirmwareDirectory() + "/A.bit");
  EXPECT_TRUE(fs::path(installed).is_absolute());
  EXPECT_EQ(fs::path(installed).parent_path().filename(), "firmware");
  // Last, the tree this code was loaded from: the build tree mirrors an installation.
  if (!fs::exists(device::installedFirmwareDirectory() + "/ZeptickController.bit")) {
    const std::string beside = searchFirmware("ZeptickController.bit");
    EXPECT_EQ(beside, device::firmwareDirectoryBesideLibrary() + "/ZeptickController.bit");
    EXPECT_TRUE(fs::is_regular_file(beside)) << beside;
  }
  EXPECT_TRUE(log.messages().empty());
  fs::current_path(previous_directory);
  fs::remove_all(directory);
}

}  // namespace
}  // namespace zeptick::testing
