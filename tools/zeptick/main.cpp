// zeptick: everyday jobs on a time tagger from the shell. Exit status 0 on
// success, 1 when the job fails, 2 on bad usage.

#include <cstdio>
#include <exception>
#include <stdexcept>

#include <string>

#include "commands.h"
#include "zeptick/emulator.h"

int main(int argc, char** argv) {
  CLI::App app{"zeptick: find, watch and record instruments, and inspect and replay recordings"};
  app.require_subcommand(1);
  std::string emulator;
  // Global so every hardware subcommand (and later ones) can run without an
  // instrument; it is applied before the chosen subcommand's callback runs.
  app.add_option("--emulator", emulator,
                 "use emulated instruments: 'default' or a JSON configuration file")
      ->each([](const std::string& value) {
        if (value == "default")
          zeptick::attachDefaultEmulatedDevice();
        else
          zeptick::attachEmulatedDevicesFromFile(value);
      });
  zeptick::cli::addScan(app);
  zeptick::cli::addInspect(app);
  zeptick::cli::addExport(app);
  zeptick::cli::addImport(app);
  zeptick::cli::addHistogram(app);
  zeptick::cli::addInfo(app);
  zeptick::cli::addRates(app);
  zeptick::cli::addRecord(app);
  zeptick::cli::addReplay(app);
  zeptick::cli::addServe(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    std::fprintf(stderr, "zeptick: %s; see 'zeptick --help'\n", e.what());
    return 2;
  } catch (const std::invalid_argument& e) {
    // Bad values found while doing the job (times, file names) are usage errors.
    std::fprintf(stderr, "zeptick: %s\n", e.what());
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zeptick: %s\n", e.what());
    return 1;
  }
  return 0;
}
