#include "plot.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <vector>

extern char** environ;

namespace zeptick::cli {

namespace {

// Kept here rather than as a file beside the program, so an installed or copied tool needs
// nothing else of ours.
constexpr const char* kScript = R"py(
import csv, sys
import matplotlib
matplotlib.use("Agg")
import matplotlib.pyplot as plt
source, out, title = sys.argv[1:4]
with open(source) as f:
    rows = list(csv.reader(f))
head, data = rows[0], rows[1:]
x = [float(r[0]) for r in data]
y = [float(r[-1]) for r in data]
fig, ax = plt.subplots(figsize=(8, 4.5))
if head[0] == "channel":
    ax.bar([str(int(v)) for v in x], y)
else:
    ax.step(x, y, where="post")
labels = {"bin_ps": "time difference (ps)", "counts": "counts per bin",
          "rate_per_s": "count rate (counts/s)", "channel": "channel"}
ax.set_xlabel(labels.get(head[0], head[0]))
ax.set_ylabel(labels.get(head[-1], head[-1]))
ax.set_title(title)
fig.tight_layout()
fig.savefig(out)
)py";

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() &&
         text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

}  // namespace

void checkPlotName(const std::string& out) {
  if (!endsWith(out, ".svg") && !endsWith(out, ".png")) {
    throw std::invalid_argument("--plot writes .svg or .png files, not '" + out + "'");
  }
}

void plotCsv(const std::string& csv, const std::string& out, const std::string& title) {
  const std::string python = "/usr/bin/python3";
  std::vector<std::string> args = {python, "-c", kScript, csv, out, title};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  pid_t pid = 0;
  if (posix_spawn(&pid, python.c_str(), nullptr, nullptr, argv.data(), environ) != 0) {
    throw std::runtime_error("plotting needs " + python +
                             " with matplotlib (Debian: python3-matplotlib)");
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    throw std::runtime_error("the plot '" + out + "' could not be drawn; " + python +
                             " with matplotlib (Debian: python3-matplotlib) is needed");
  }
}

void emitCsv(const std::string& csv, const std::string& out, const std::string& plot,
             const std::string& title) {
  auto writeTo = [&csv](const std::string& path) {
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "w"), std::fclose);
    if (!file || std::fwrite(csv.data(), 1, csv.size(), file.get()) != csv.size()) {
      throw std::runtime_error("cannot write '" + path + "'; check the directory");
    }
  };
  if (!out.empty()) writeTo(out);
  if (out.empty() && plot.empty()) std::fwrite(csv.data(), 1, csv.size(), stdout);
  if (plot.empty()) return;
  std::string source = out;
  std::string scratch;
  if (source.empty()) {
    char name[] = "/tmp/zeptick-plot-XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) throw std::runtime_error("cannot create a scratch file for the plot");
    close(fd);
    scratch = source = name;
    writeTo(source);
  }
  try {
    plotCsv(source, plot, title);
  } catch (...) {
    if (!scratch.empty()) std::remove(scratch.c_str());
    throw;
  }
  if (!scratch.empty()) std::remove(scratch.c_str());
}

}  // namespace zeptick::cli
