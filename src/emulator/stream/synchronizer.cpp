#include "emulator/stream/synchronizer.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace zeptick::emulator {

namespace {

constexpr uint32_t kCabled = 1u << 2;
constexpr int kDefaultPhase = 10;
// How far a free-running board may run ahead of the others, in periods.
constexpr uint64_t kSlackPeriods = 16;
// A board not read for this long does not hold the others back: nobody is reading it.
constexpr auto kIdleBoard = std::chrono::milliseconds(50);

[[noreturn]] void fail(const std::string& what) {
  throw std::invalid_argument("emulator configuration: synchronizer." + what);
}

std::string serialIn(const nlohmann::json& value, const std::vector<std::string>& serials,
                     const std::string& field) {
  if (!value.is_string()) fail(field + " must be a serial");
  const std::string serial = value.get<std::string>();
  if (std::find(serials.begin(), serials.end(), serial) == serials.end()) {
    fail(field + " names an unknown device \"" + serial + "\"");
  }
  return serial;
}

}  // namespace

SynchronizerWiring SynchronizerWiring::parse(const nlohmann::json& object,
                                             const std::vector<std::string>& serials) {
  if (!object.is_object()) {
    throw std::invalid_argument("emulator configuration: synchronizer must be an object");
  }
  for (const auto& [key, value] : object.items()) {
    if (key != "boards" && key != "feedback" && key != "ring" && key != "loop_in" &&
        key != "phase" && key != "counter_start" && key != "sources") {
      fail(key + " is not a known key");
    }
  }
  SynchronizerWiring wiring;
  if (object.contains("boards")) {
    if (!object["boards"].is_array()) fail("boards must be an array of serials");
    for (const auto& entry : object["boards"]) {
      wiring.boards.push_back(serialIn(entry, serials, "boards"));
    }
  } else {
    wiring.boards = serials;
  }
  // The ring: LOOP OUT of each board to LOOP IN of the next, the last back to the first.
  std::vector<std::string> ring = wiring.boards;
  if (object.contains("ring")) {
    if (!object["ring"].is_array()) fail("ring must be an array of serials");
    ring.clear();
    for (const auto& entry : object["ring"]) ring.push_back(serialIn(entry, serials, "ring"));
  }
  for (size_t i = 0; i < ring.size(); ++i) {
    wiring.loop_in[ring[(i + 1) % ring.size()]] = ring[i];
  }
  if (object.contains("loop_in")) {
    if (!object["loop_in"].is_object()) fail("loop_in must be an object");
    for (const auto& [board, source] : object["loop_in"].items()) {
      serialIn(board, serials, "loop_in");
      wiring.loop_in[board] = source.is_null() ? "" : serialIn(source, serials, "loop_in");
    }
  }
  wiring.feedback = ring.empty() ? "" : ring.front();
  if (object.contains("feedback")) {
    wiring.feedback =
        object["feedback"].is_null() ? "" : serialIn(object["feedback"], serials, "feedback");
  }
  if (object.contains("phase")) {
    if (!object["phase"].is_object()) fail("phase must be an object");
    for (const auto& [board, value] : object["phase"].items()) {
      serialIn(board, serials, "phase");
      if (!value.is_number_integer() || value.get<int>() < 0 || value.get<int>() > 31) {
        fail("phase must be an integer from 0 to 31");
      }
      wiring.phase[board] = value.get<int>();
    }
  }
  if (object.contains("counter_start")) {
    const auto& value = object["counter_start"];
    if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
      fail("counter_start must be an integer from 0 to 4294967295");
    }
    wiring.counter_start = static_cast<uint32_t>(value.get<uint64_t>());
  }
  return wiring;
}

Synchronizer::Synchronizer(SynchronizerWiring wiring) : wiring_(std::move(wiring)) {}

void Synchronizer::setRingWord(const std::string& serial, uint32_t word) {
  std::lock_guard<std::mutex> guard(mutex_);
  ring_words_[serial] = word;
}

bool Synchronizer::drives(const std::string& serial) const {
  return std::find(wiring_.boards.begin(), wiring_.boards.end(), serial) != wiring_.boards.end();
}

uint32_t Synchronizer::statusWire(const std::string& serial) const {
  if (!drives(serial)) return 0;
  auto phase = wiring_.phase.find(serial);
  const int value = phase == wiring_.phase.end() ? kDefaultPhase : phase->second;
  return kCabled | static_cast<uint32_t>(value) << 6;
}

uint32_t Synchronizer::loopWire(const std::string& serial) const {
  std::lock_guard<std::mutex> guard(mutex_);
  auto ring_word = [this](const std::string& board) {
    auto found = ring_words_.find(board);
    return found == ring_words_.end() ? 0u : found->second;
  };
  uint32_t word = 0;
  // What the Synchronizer hears on FDBK it sends to every board on SYNC IN.
  if (drives(serial) && !wiring_.feedback.empty()) word |= ring_word(wiring_.feedback) & 0xFFFF;
  auto source = wiring_.loop_in.find(serial);
  if (source != wiring_.loop_in.end() && !source->second.empty()) {
    word |= (ring_word(source->second) & 0xFFFF) << 16;
  }
  return word;
}

uint32_t Synchronizer::counter(uint64_t period) {
  std::lock_guard<std::mutex> guard(mutex_);
  uint64_t from = 0;
  uint32_t value = wiring_.counter_start;
  for (const Restart& restart : restarts_) {
    if (restart.period > period) break;
    from = restart.period;
    value = restart.value;
  }
  return static_cast<uint32_t>(value + (period - from));
}

void Synchronizer::restart(uint32_t value) {
  std::lock_guard<std::mutex> guard(mutex_);
  uint64_t furthest = 0;
  for (const auto& [serial, position] : positions_) furthest = std::max(furthest, position.period);
  if (!restarts_.empty()) furthest = std::max(furthest, restarts_.back().period);
  restarts_.push_back(Restart{furthest + 1, value});
}

void Synchronizer::report(const std::string& serial, uint64_t period) {
  std::lock_guard<std::mutex> guard(mutex_);
  positions_[serial] = Position{period, std::chrono::steady_clock::now()};
}

bool Synchronizer::mayAdvance(const std::string& serial, uint64_t period) {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto now = std::chrono::steady_clock::now();
  for (const auto& [other, position] : positions_) {
    if (other == serial || now - position.seen > kIdleBoard) continue;
    if (period > position.period + kSlackPeriods) return false;
  }
  return true;
}

uint64_t Synchronizer::furthestOther(const std::string& serial) {
  std::lock_guard<std::mutex> guard(mutex_);
  const auto now = std::chrono::steady_clock::now();
  uint64_t furthest = 0;
  for (const auto& [other, position] : positions_) {
    if (other != serial && now - position.seen <= kIdleBoard) {
      furthest = std::max(furthest, position.period);
    }
  }
  return furthest;
}

}  // namespace zeptick::emulator
