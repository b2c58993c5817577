#include "live.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <stdexcept>
#include <thread>

#include "zeptick/library.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli {

namespace {
std::atomic<bool> stop_requested{false};
extern "C" void onInterrupt(int) { stop_requested.store(true); }
}  // namespace

void catchInterrupts() {
  std::signal(SIGINT, onInterrupt);
  std::signal(SIGTERM, onInterrupt);
}

bool interrupted() { return stop_requested.load(); }

void sleepUnlessInterrupted(int64_t ps) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::nanoseconds(ps / 1000);
  while (!interrupted() && std::chrono::steady_clock::now() < until) {
    const auto left = until - std::chrono::steady_clock::now();
    std::this_thread::sleep_for(
        std::min<std::chrono::steady_clock::duration>(left, std::chrono::milliseconds(20)));
  }
}

std::vector<int> parseChannels(const std::string& text, const std::string& option) {
  std::vector<int> channels;
  size_t at = 0;
  while (at <= text.size()) {
    const size_t comma = std::min(text.find(',', at), text.size());
    const std::string item = text.substr(at, comma - at);
    size_t used = 0;
    int channel = 0;
    try {
      channel = std::stoi(item, &used);
    } catch (const std::exception&) {
      used = 0;
    }
    if (item.empty() || used != item.size()) {
      throw std::invalid_argument(option + " takes channel numbers separated by commas, not '" +
                                  text + "'");
    }
    channels.push_back(channel);
    at = comma + 1;
  }
  return channels;
}

Zeptick* openInstrument(const std::string& serial) {
  Zeptick* tagger = createZeptick(serial);
  if (tagger == nullptr) {
    throw std::runtime_error(serial.empty() ? "no instrument found; is it plugged in?"
                                            : "instrument '" + serial + "' not found");
  }
  return tagger;
}

std::vector<int> channelsOrAll(Zeptick* tagger, std::vector<int> chosen) {
  return chosen.empty() ? tagger->getChannelList(ZT_CHANNEL_RISING) : chosen;
}

void addSerialOption(CLI::App* cmd, std::string& serial) {
  cmd->add_option("--serial", serial, "serial of the instrument (default: the first one found)");
}

}  // namespace zeptick::cli
