// Plots of the CSV the subcommands write, drawn by matplotlib in Debian's Python.
#pragma once

#include <string>

namespace zeptick::cli {

/// Throws std::invalid_argument unless `out` ends in ".svg" or ".png".
void checkPlotName(const std::string& out);

/// Draws the CSV file `csv` (a header line, then numbers; the first column on the x axis, the
/// last on the y axis; a "channel" first column gives bars) into `out` with `title`. Runs
/// /usr/bin/python3 with matplotlib; throws std::runtime_error if it cannot or it fails.
void plotCsv(const std::string& csv, const std::string& out, const std::string& title);

/// Writes `csv` to the file `out`, or to standard output when neither `out` nor `plot` is
/// given, and draws it into `plot` when that is given.
void emitCsv(const std::string& csv, const std::string& out, const std::string& plot,
             const std::string& title);

}  // namespace zeptick::cli
