#include "emulator/control/board_registry.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>

#include <nlohmann/json.hpp>

#include "emulator/control/emulator_api.h"
#include "emulator/stream/synchronizer.h"
#include "zeptick/logging.h"

namespace zeptick::emulator {

namespace {

struct Registry {
  std::mutex mutex;
  std::vector<std::shared_ptr<Board>> boards;  // guarded by mutex
  // The environment is read once, and never after the program attached or
  // detached boards itself: an explicit call wins.
  std::once_flag environment_read;
};

Registry& registry() {
  static Registry instance;
  return instance;
}

void install(std::vector<std::shared_ptr<Board>> boards) {
  Registry& r = registry();
  std::vector<std::shared_ptr<Board>> old;
  {
    std::lock_guard<std::mutex> lock(r.mutex);
    old.swap(r.boards);
    r.boards = std::move(boards);
  }
  for (const auto& board : old) board->detach();
}

std::vector<std::shared_ptr<Board>> build(const nlohmann::json& config) {
  std::vector<BoardConfig> configs = parseConfiguration(config);
  std::shared_ptr<Synchronizer> synchronizer;
  if (config.contains("synchronizer")) {
    std::vector<std::string> serials;
    for (const BoardConfig& board : configs) serials.push_back(board.serial);
    SynchronizerWiring wiring = SynchronizerWiring::parse(config["synchronizer"], serials);
    for (const BoardConfig& board : configs) {
      if (board.paced && synchronizer == nullptr &&
          std::find(wiring.boards.begin(), wiring.boards.end(), board.serial) !=
              wiring.boards.end()) {
        throw std::invalid_argument(
            "emulator configuration: the boards of a synchronizer must run free "
            "(\"pacing\": \"free\"); \"" +
            board.serial + "\" runs in real time");
      }
    }
    synchronizer = std::make_shared<Synchronizer>(std::move(wiring));
  }
  std::vector<std::shared_ptr<Board>> boards;
  for (BoardConfig& board : configs) {
    boards.push_back(std::make_shared<Board>(std::move(board)));
    if (synchronizer) boards.back()->attachSynchronizer(synchronizer);
  }
  return boards;
}

void readEnvironment() {
  const char* value = std::getenv("ZEPTICK_EMULATOR");
  if (value == nullptr || *value == '\0') return;
  const std::string setting = value;
  try {
    if (setting == "default") {
      install(build(defaultConfiguration()));
      return;
    }
    std::ifstream file(setting);
    if (!file) throw std::runtime_error("the file cannot be opened");
    install(build(nlohmann::json::parse(file)));
  } catch (const std::exception& error) {
    // The public logger: the emulator stands outside the host library.
    _Log(LOGGER_ERROR, __FILE__, __LINE__, "ZEPTICK_EMULATOR='%s' attaches no emulated device: %s",
         setting.c_str(), error.what());
  }
}

void ensureEnvironmentRead() { std::call_once(registry().environment_read, readEnvironment); }

void skipEnvironment() {
  std::call_once(registry().environment_read, [] {});
}

}  // namespace

std::vector<std::shared_ptr<Board>> attachedBoards() {
  ensureEnvironmentRead();
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  return r.boards;
}

void attachBoards(const nlohmann::json& config) {
  skipEnvironment();
  install(build(config));
}

void detachBoards() {
  skipEnvironment();
  install({});
}

std::shared_ptr<BoardControl> findBoard(const std::string& serial) {
  for (const auto& board : attachedBoards()) {
    if (board->serial() == serial) return board;
  }
  return nullptr;
}

bool emulatedDevicesAttached() { return !attachedBoards().empty(); }

nlohmann::json defaultConfiguration() {
  return nlohmann::json::parse(R"({
  "devices": [
    {
      "serial": "ZTEMU00001",
      "model": "Zeptick Ultra",
      "inputs": 18,
      "sources": [
        {"type": "pairs", "inputs": [1, 2], "delays_ps": [0, 1500], "jitter_ps": 30,
         "rate_hz": 100000},
        {"type": "periodic", "input": 3, "period_ps": 100000, "jitter_ps": 5},
        {"type": "poisson", "input": 4, "rate_hz": 50000}
      ]
    }
  ]
})");
}

}  // namespace zeptick::emulator
