// Each subcommand registers itself on the top-level app; its callback does the
// job and throws on failure (exit 1). New subcommands add one line here and
// one in main.cpp.
#pragma once

#include <CLI/CLI.hpp>

namespace zeptick::cli {

void addScan(CLI::App& app);
void addInspect(CLI::App& app);
void addExport(CLI::App& app);
void addImport(CLI::App& app);
void addHistogram(CLI::App& app);
void addInfo(CLI::App& app);
void addRates(CLI::App& app);
void addRecord(CLI::App& app);
void addReplay(CLI::App& app);
void addServe(CLI::App& app);

}  // namespace zeptick::cli
