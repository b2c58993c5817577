#pragma once

#include <memory>
#include <vector>

#include "emulator/control/board.h"

namespace zeptick::emulator {

/// The boards attached now, in the order of the configuration. Reads
/// ZEPTICK_EMULATOR first if nothing has been attached or detached yet.
/// Thread-safe.
std::vector<std::shared_ptr<Board>> attachedBoards();

}  // namespace zeptick::emulator
