// Pieces shared by the subcommands that run a tagger until a duration ends or
// the user presses Ctrl-C.
#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace zeptick {
class Zeptick;
}

namespace zeptick::cli {

/// Installs a SIGINT/SIGTERM handler that only sets a flag, so the job can
/// stop its measurements and close its files instead of dying mid-write.
void catchInterrupts();
/// True once Ctrl-C (or SIGTERM) arrived.
bool interrupted();
/// Sleeps up to `ps` picoseconds of wall time; returns early on an interrupt.
void sleepUnlessInterrupted(int64_t ps);

/// "1,2,3" as channel numbers; throws std::invalid_argument naming `option`.
std::vector<int> parseChannels(const std::string& text, const std::string& option);

/// Opens the instrument `serial` ("" for the first one found); throws
/// std::runtime_error if none can be opened. Free it with freeZeptick.
Zeptick* openInstrument(const std::string& serial);

/// `chosen`, or the instrument's input channels (rising edges) when it is empty.
std::vector<int> channelsOrAll(Zeptick* tagger, std::vector<int> chosen);

/// Adds "--serial" to `cmd`, bound to `serial`.
void addSerialOption(CLI::App* cmd, std::string& serial);

}  // namespace zeptick::cli
