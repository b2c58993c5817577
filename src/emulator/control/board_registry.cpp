#include "emulator/control/board_registry.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

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

[[noreturn]] void failShared(size_t number, const std::string& what) {
  throw std::invalid_argument("emulator configuration: synchronizer.sources[" +
                              std::to_string(number) + "]: " + what);
}

// A source of the Synchronizer names its inputs "SERIAL:INPUT" across its boards. Each board
// it spans gets a copy with its own inputs as numbers and the others as null, all with one
// seed, so every copy draws the same occurrences and jitter.
void spreadSharedSources(const nlohmann::json& sources, const std::vector<std::string>& wired,
                         std::vector<BoardConfig>& configs) {
  if (!sources.is_array()) failShared(0, "sources must be an array of source objects");
  for (size_t j = 0; j < sources.size(); ++j) {
    const nlohmann::json& source = sources[j];
    if (!source.is_object() || !source.contains("inputs") || !source["inputs"].is_array()) {
      failShared(j, "needs \"inputs\": [\"SERIAL:INPUT\", ...]");
    }
    std::vector<std::pair<std::string, int64_t>> inputs;
    for (const nlohmann::json& name : source["inputs"]) {
      const std::string text = name.is_string() ? name.get<std::string>() : "";
      const size_t colon = text.rfind(':');
      const std::string serial = colon == std::string::npos ? "" : text.substr(0, colon);
      int64_t input = 0;
      try {
        size_t used = 0;
        input = std::stoll(text.substr(colon + 1), &used);
        if (used != text.size() - colon - 1) input = 0;
      } catch (const std::exception&) {
        input = 0;
      }
      if (serial.empty() || input < 1) {
        failShared(j, "inputs must be strings \"SERIAL:INPUT\", not " + name.dump());
      }
      if (std::find(wired.begin(), wired.end(), serial) == wired.end()) {
        failShared(j, "\"" + serial + "\" is not a board of the synchronizer");
      }
      inputs.emplace_back(serial, input);
    }
    for (BoardConfig& board : configs) {
      nlohmann::json copy = source;
      copy["inputs"] = nlohmann::json::array();
      bool spans = false;
      for (const auto& [serial, input] : inputs) {
        spans |= serial == board.serial;
        copy["inputs"].push_back(serial == board.serial ? nlohmann::json(input) : nullptr);
      }
      if (!copy.contains("seed")) copy["seed"] = 0x5EED0000u + j;
      if (spans) board.sources.push_back(std::move(copy));
    }
  }
}

std::vector<std::shared_ptr<Board>> build(const nlohmann::json& config) {
  std::vector<BoardConfig> configs = parseConfiguration(config);
  std::shared_ptr<Synchronizer> synchronizer;
  if (config.contains("synchronizer")) {
    std::vector<std::string> serials;
    for (const BoardConfig& board : configs) serials.push_back(board.serial);
    SynchronizerWiring wiring = SynchronizerWiring::parse(config["synchronizer"], serials);
    if (config["synchronizer"].contains("sources")) {
      spreadSharedSources(config["synchronizer"]["sources"], wiring.boards, configs);
    }
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
