// The command-line tool as users run it: the `zeptick` program itself, timed from start to exit.
// export: tags per second to CSV and to HDF5 against `FileReader` alone reading the same
//   recording in this process, same run.
// record: the free-running emulator at its full rate for a few seconds; tags per second written
//   and the overflows (none means it kept up), against the tagger alone taking the same board
//   into a Countrate of the same channels, same run.

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "engine/zeptick_impl.h"
#include "zeptick/countrate.h"
#include "zeptick/emulator.h"
#include "zeptick/file_reader.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// Built programs sit in <build>/tools, beside <build>/bench where this one runs.
fs::path buildTree() { return fs::read_symlink("/proc/self/exe").parent_path().parent_path(); }

fs::path scratch() {
  static const fs::path dir = [] {
    fs::path made = fs::temp_directory_path() / ("zeptick-bench-cli-" + std::to_string(getpid()));
    fs::create_directories(made);
    return made;
  }();
  return dir;
}

// Runs a shell command, returns its wall time in seconds; throws when it fails.
double timed(const std::string& command) {
  const auto start = Clock::now();
  if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string slurp(const fs::path& file) {
  std::ifstream in(file);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// 2 s of pairs and background: about 30 M tags, 110 MB on disk.
const fs::path& recording() {
  static const fs::path file = [] {
    const fs::path out = scratch() / "tags.ztbin";
    timed((buildTree() / "tools/zeptick-generate-recording").string() + " " + out.string() +
          " --duration-ms 2000 --pair-rate 5e6 --background-rate 2.5e6 > /dev/null");
    return out;
  }();
  return file;
}

double fileReaderTagsPerSecond(const fs::path& file, double& tags) {
  const auto start = Clock::now();
  zeptick::FileReader reader({file.string()});
  std::vector<zeptick::Tag> block;
  tags = 0;
  while (reader.hasData()) {
    reader.getDataRaw(block);
    tags += static_cast<double>(block.size());
  }
  return tags / std::chrono::duration<double>(Clock::now() - start).count();
}

void BM_Export(benchmark::State& state, const std::string& extension) {
  const fs::path& in = recording();
  const fs::path out = scratch() / ("export" + extension);
  double tags = 0;
  double reader = 0;
  double seconds = 0;
  for (auto _ : state) {
    reader += fileReaderTagsPerSecond(in, tags);
    const double run = timed((buildTree() / "tools/zeptick").string() + " export " + in.string() +
                             " --to " + out.string() + " > /dev/null");
    seconds += run;
    state.SetIterationTime(run);
    fs::remove(out);
  }
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["tags_per_s"] = tags * iterations / seconds;
  state.counters["file_reader_tags_per_s"] = reader / iterations;
  state.counters["vs_file_reader"] = (tags * iterations / seconds) / (reader / iterations);
}
BENCHMARK_CAPTURE(BM_Export, csv, std::string(".csv"))->UseManualTime()->Iterations(2);
BENCHMARK_CAPTURE(BM_Export, hdf5, std::string(".h5"))->UseManualTime()->Iterations(2);

// A board with `rate` events/s of stream time on four inputs. Free-running, it streams as fast
// as the host takes it, so whatever is recorded per second is the whole chain's limit; paced,
// it streams in real time and overflows its buffer when the host falls behind.
nlohmann::json busyBoard(bool paced, double rate = 1e8) {
  const double quarter = rate / 4;
  nlohmann::json sources = nlohmann::json::array(
      {{{"type", "pairs"}, {"inputs", {1, 2}}, {"delays_ps", {0, 1500}}, {"rate_hz", quarter}},
       {{"type", "poisson"}, {"input", 3}, {"rate_hz", quarter}},
       {{"type", "poisson"}, {"input", 4}, {"rate_hz", quarter}}});
  return {
      {"devices",
       {{{"serial", "BENCHREC"}, {"pacing", paced ? "realtime" : "free"}, {"sources", sources}}}}};
}

double taggerAloneTagsPerSecond(double seconds) {
  zeptick::attachEmulatedDevices(busyBoard(false).dump());
  double rate = 0;
  {
    zeptick::ZeptickImpl tagger("BENCHREC");
    zeptick::Countrate countrate(&tagger, {1, 2, 3, 4});
    tagger.sync();
    countrate.clear();
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    std::vector<int64_t> totals;
    countrate.getCountsTotal([&totals](size_t n) {
      totals.resize(n);
      return totals.data();
    });
    double sum = 0;
    for (int64_t total : totals) sum += static_cast<double>(total);
    rate = sum / std::chrono::duration<double>(Clock::now() - start).count();
  }
  zeptick::detachEmulatedDevices();
  return rate;
}

// Arg 0: the free-running board against the tagger alone. Arg N > 0: a paced board at N M
// events/s, to see whether recording keeps up with real time (no overflows).
void BM_Record(benchmark::State& state) {
  const fs::path config = scratch() / "board.json";
  const bool paced = state.range(0) > 0;
  const double rate = paced ? static_cast<double>(state.range(0)) * 1e6 : 1e8;
  std::ofstream(config) << busyBoard(paced, rate).dump();
  const fs::path out = scratch() / "record.ztbin";
  const fs::path log = scratch() / "record.log";
  double written = 0;
  double alone = 0;
  double overflows = 0;
  for (auto _ : state) {
    const double run = timed((buildTree() / "tools/zeptick").string() + " --emulator " +
                             config.string() + " record " + out.string() +
                             " --duration 3s --channels 1,2,3,4 > " + log.string() + " 2>&1");
    state.SetIterationTime(run);
    // "<file>: <n> tags, <b> bytes in <s> s", and progress lines ending in "<k> overflows".
    const std::string text = slurp(log);
    std::smatch done;
    if (!std::regex_search(text, done, std::regex(R"(: (\d+) tags, \d+ bytes in ([\d.]+) s)"))) {
      throw std::runtime_error("no summary line in: " + text);
    }
    written += std::stod(done[1]) / std::stod(done[2]);
    const std::regex progress(R"((\d+) overflows)");
    for (auto it = std::sregex_iterator(text.begin(), text.end(), progress);
         it != std::sregex_iterator(); ++it) {
      overflows = std::max(overflows, std::stod((*it)[1]));
    }
    if (!paced) alone += taggerAloneTagsPerSecond(3);
    for (const auto& entry : fs::directory_iterator(scratch())) {
      if (entry.path().string().find("record") != std::string::npos &&
          entry.path().extension() == ".ztbin") {
        fs::remove(entry.path());
      }
    }
  }
  const auto iterations = static_cast<double>(state.iterations());
  state.counters["tags_per_s"] = written / iterations;
  state.counters["overflows"] = overflows;
  if (paced) return;
  state.counters["tagger_alone_tags_per_s"] = alone / iterations;
  state.counters["vs_tagger_alone"] = written / alone;
}
BENCHMARK(BM_Record)->Arg(0)->Arg(20)->Arg(50)->UseManualTime()->Iterations(1)->Unit(
    benchmark::kSecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  fs::remove_all(scratch());
  return 0;
}
