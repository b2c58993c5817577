// Feeds arbitrary text to the emulator's JSON configuration through its public entry: it attaches
// the boards or refuses with std::invalid_argument, never crashing, hanging or over-allocating.
// An accepted configuration then streams a few thousand words, free-running with every input
// enabled, so that source parameters reach the generators.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "emulator/control/board.h"
#include "fuzz/fuzz_input.h"
#include "zeptick/emulator.h"

namespace {

using namespace zeptick::emulator;

void stream(const BoardConfig& board) {
  StreamParameters parameters = streamParametersOf(board);
  parameters.paced = false;
  StreamModel model(parameters, board.sources);
  FirmwareSetup setup;
  setup.channels.assign(static_cast<size_t>(2 * board.inputs), ChannelSetup{.enabled = true});
  setup.trigger_volts.assign(static_cast<size_t>(board.inputs), 0.1);
  setup.buffer_words = 1 << 16;
  setup.started = true;
  model.configure(setup);
  std::vector<unsigned char> words(4096 * 4);
  const long got = model.read(words.data(), static_cast<long>(words.size()));
  if (got != static_cast<long>(words.size())) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  try {
    zeptick::attachEmulatedDevices(text);
  } catch (const std::invalid_argument&) {
    return 0;
  }
  zeptick::detachEmulatedDevices();
  for (const BoardConfig& board : parseConfiguration(nlohmann::json::parse(text))) stream(board);
  return 0;
}
