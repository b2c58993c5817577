// zeptick-generate-recording: writes a synthetic recording that FileReader and
// the replay tagger read like one made on an instrument. Deterministic for a
// given seed.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <utility>

#include "recording/recording_generator.h"

namespace {

void usage() {
  std::fprintf(stderr,
               "usage: zeptick-generate-recording OUTPUT [options]\n"
               "  --seed N              random seed (1)\n"
               "  --duration-ms X       length of the recording (100)\n"
               "  --block-us X          span of one block (1000)\n"
               "  --pair-rate X         correlated pairs per second, channels 1 and 2 (50000)\n"
               "  --delay-ps N          delay of channel 2 behind channel 1 (2500)\n"
               "  --jitter-ps X         standard deviation of that delay (40)\n"
               "  --period-ps N         period of channel 3, 0 for none (10000000)\n"
               "  --background-rate X   Poisson events per second on channels 1 and 2 (20000)\n"
               "  --overflow A:B        events lost from A to B ms; may repeat\n"
               "  --max-file-size N     bytes per split file, negative for one (1073741824)\n");
}

int64_t picoseconds(double milliseconds) { return static_cast<int64_t>(milliseconds * 1e9); }

}  // namespace

int run(int argc, char** argv) {
  if (argc < 2 || argv[1][0] == '-') {
    usage();
    return 2;
  }
  const std::string output = argv[1];
  zeptick::RecordingPlan plan;
  int64_t max_file_size = 0x40000000;
  for (int i = 2; i < argc; ++i) {
    const std::string option = argv[i];
    if (i + 1 >= argc) {
      usage();
      return 2;
    }
    const std::string value = argv[++i];
    if (option == "--seed") {
      plan.seed = std::stoull(value);
    } else if (option == "--duration-ms") {
      plan.duration = picoseconds(std::stod(value));
    } else if (option == "--block-us") {
      plan.block_span = picoseconds(std::stod(value) / 1000.0);
    } else if (option == "--pair-rate") {
      plan.pair_rate = std::stod(value);
    } else if (option == "--delay-ps") {
      plan.pair_delay = std::stoll(value);
    } else if (option == "--jitter-ps") {
      plan.pair_jitter = std::stod(value);
    } else if (option == "--period-ps") {
      plan.period = std::stoll(value);
    } else if (option == "--background-rate") {
      plan.background_rate = std::stod(value);
    } else if (option == "--overflow") {
      const size_t colon = value.find(':');
      if (colon == std::string::npos) {
        usage();
        return 2;
      }
      plan.overflow_spans.emplace_back(picoseconds(std::stod(value.substr(0, colon))),
                                       picoseconds(std::stod(value.substr(colon + 1))));
    } else if (option == "--max-file-size") {
      max_file_size = std::stoll(value);
    } else {
      usage();
      return 2;
    }
  }
  if (plan.block_span < 1 || plan.duration < 0) {
    std::fprintf(stderr, "block span and duration must be positive\n");
    return 2;
  }
  const zeptick::RecordingSummary summary = zeptick::writeRecording(output, plan, max_file_size);
  std::printf("%s: %u files, %llu blocks, %llu tags over %.3f ms\n", output.c_str(), summary.files,
              static_cast<unsigned long long>(summary.blocks),
              static_cast<unsigned long long>(summary.tags),
              static_cast<double>(summary.end_time - summary.begin_time) / 1e9);
  for (const auto& [channel, events] : summary.events) {
    std::printf("  channel %d: %llu events\n", channel, static_cast<unsigned long long>(events));
  }
  return 0;
}

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::invalid_argument&) {
    usage();  // a number that does not parse
    return 2;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "zeptick-generate-recording: %s\n", e.what());
    return 1;
  }
}
