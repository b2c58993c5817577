#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "device/file_searcher.h"
#include "device_fixture.h"
#include "support/log_capture.h"
#include "zeptick/logging.h"

namespace zeptick::testing {
namespace {

namespace fs = std::filesystem;
using device::searchFirmware;

// Runs each test in an empty working directory of its own, with no firmware
// settings in the environment and no custom file.
class FirmwareSearch : public ::testing::Test {
 protected:
  void SetUp() override {
    previous_directory = fs::current_path();
    directory = fs::path(::testing::TempDir()) / ("firmware_search_" + std::to_string(getpid()));
    fs::remove_all(directory);
    fs::create_directories(directory);
    fs::current_path(directory);
    setCustomBitFileName("");
  }
  void TearDown() override {
    setCustomBitFileName("");
    fs::current_path(previous_directory);
    fs::remove_all(directory);
  }
  void createLocal(const std::string& name) { std::ofstream(directory / name) << "bits"; }

  LogCapture log;
  fs::path previous_directory;
  fs::path directory;
  ScopedEnvironment base{"ZEPTICK_BASE_DIRECTORY", std::nullopt};
  ScopedEnvironment subdirectory{"ZEPTICK_FIRMWARE_SUBDIRECTORY", std::nullopt};
};

// Each source in turn, from the first choice down: every one shadows those after it.
TEST_F(FirmwareSearch, CustomThenWorkingDirectoryThenEnvironmentThenInstallation) {
  createLocal("ZeptickUltraController.bit");
  setenv("ZEPTICK_BASE_DIRECTORY", "/opt/zeptick", 1);
  setenv("ZEPTICK_FIRMWARE_SUBDIRECTORY", "fw", 1);
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
}

}  // namespace
}  // namespace zeptick::testing
