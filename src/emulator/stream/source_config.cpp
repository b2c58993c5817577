#include "emulator/stream/source_config.h"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

namespace zeptick::emulator {
namespace {

using nlohmann::json;

// Bounds that keep every derived time far from 64-bit overflow.
constexpr double kMaxTimePs = 1e15;
constexpr double kMaxRateHz = 1e11;
constexpr double kMaxJitterPs = 1e12;
constexpr int kMaxBurstEvents = 65536;
// Occurrences a source may have in flight. Jitter (cut at six standard deviations either way)
// reorders the edges of those within its spread, each put in place one by one; the widest delay
// holds back those within it. Past these the emulator would stall or run out of memory.
constexpr double kMaxReordered = 1000;
constexpr double kMaxHeld = 1e6;

class Reader {
 public:
  Reader(const json& object, int number, int inputs)
      : object_(object), number_(number), inputs_(inputs) {}

  [[noreturn]] void fail(const std::string& what) const {
    std::string type = object_.contains("type") && object_["type"].is_string()
                           ? object_["type"].get<std::string>()
                           : std::string();
    std::string where = "emulated source " + std::to_string(number_);
    if (!type.empty()) where += " (\"" + type + "\")";
    throw std::invalid_argument(where + ": " + what);
  }

  void onlyKeys(std::initializer_list<const char*> allowed) const {
    for (const auto& item : object_.items()) {
      bool known = false;
      for (const char* key : allowed) known = known || item.key() == key;
      if (!known) fail("unknown key \"" + item.key() + "\"");
    }
  }

  bool has(const char* key) const { return object_.contains(key); }

  double number(const char* key, double low, double high, bool low_open) const {
    if (!has(key)) fail(std::string("needs \"") + key + "\"");
    const json& value = object_[key];
    if (!value.is_number()) fail(std::string(key) + " must be a number");
    const double v = value.get<double>();
    const bool above = low_open ? v > low : v >= low;
    if (!std::isfinite(v) || !above || v > high) {
      fail(std::string(key) + " must be " + (low_open ? "above " : "at least ") + format(low) +
           " and at most " + format(high));
    }
    return v;
  }

  double number(const char* key, double fallback, double low, double high, bool low_open) const {
    return has(key) ? number(key, low, high, low_open) : fallback;
  }

  int input(const json& value, const char* key) const {
    if (!value.is_number_integer()) fail(std::string(key) + " must hold whole input numbers");
    const int64_t n = value.get<int64_t>();
    if (n < 1 || n > inputs_) {
      fail(std::string(key) + " must name inputs 1 to " + std::to_string(inputs_) + ", not " +
           std::to_string(n));
    }
    return static_cast<int>(n - 1);
  }

  int input() const {
    if (!has("input")) fail("needs \"input\"");
    return input(object_["input"], "input");
  }

  const json& array(const char* key) const {
    if (!has(key)) fail(std::string("needs \"") + key + "\"");
    if (!object_[key].is_array()) fail(std::string(key) + " must be an array");
    return object_[key];
  }

 private:
  static std::string format(double v) {
    std::string s = std::to_string(v);
    s.erase(s.find_last_not_of('0') + 1);
    if (!s.empty() && s.back() == '.') s.pop_back();
    return s;
  }

  const json& object_;
  int number_;
  int inputs_;
};

void readCommon(const Reader& r, SourceDescription& description) {
  description.amplitude_volts = r.number("amplitude_volts", 1.0, -100.0, 100.0, false);
  description.width_ps = r.number("width_ps", 1000.0, 0.0, kMaxTimePs, true);
  description.jitter_ps = r.number("jitter_ps", 0.0, 0.0, kMaxJitterPs, false);
}

void readPeriodic(const Reader& r, SourceDescription& description) {
  description.timing = SourceDescription::Timing::Periodic;
  description.period_ps = r.number("period_ps", 1.0, kMaxTimePs, false);
  description.phase_ps = r.number("phase_ps", 0.0, -kMaxTimePs, kMaxTimePs, false);
  if (description.width_ps >= description.period_ps)
    r.fail("width_ps must be shorter than period_ps");
}

void readPoisson(const Reader& r, SourceDescription& description) {
  description.timing = SourceDescription::Timing::Poisson;
  description.rate_hz = r.number("rate_hz", 0.0, kMaxRateHz, true);
}

void checkInFlight(const Reader& r, const SourceDescription& description) {
  const double per_ps = description.occurrenceRate() * 1e-12;
  if (per_ps * 12 * description.jitter_ps > kMaxReordered) {
    r.fail(
        "jitter_ps is too large for the rate: more than 1000 occurrences would fall within "
        "12 times the jitter");
  }
  double earliest = 0, latest = 0;
  for (const SourceMember& member : description.members) {
    earliest = std::min(earliest, member.delay_ps);
    latest = std::max(latest, member.delay_ps);
  }
  if (per_ps * (latest - earliest) > kMaxHeld) {
    r.fail(
        "the delays span too long for the rate: more than a million occurrences would fall "
        "within it");
  }
}

SourceDescription readSource(const json& object, int number, int inputs) {
  if (!object.is_object()) {
    throw std::invalid_argument("emulated source " + std::to_string(number) +
                                ": must be a JSON object");
  }
  const Reader r(object, number, inputs);
  if (!r.has("type") || !object["type"].is_string()) r.fail("needs a \"type\" string");
  const std::string type = object["type"].get<std::string>();
  SourceDescription description;

  if (type == "periodic" || type == "poisson") {
    if (type == "periodic") {
      r.onlyKeys(
          {"type", "input", "period_ps", "jitter_ps", "phase_ps", "amplitude_volts", "width_ps"});
    } else {
      r.onlyKeys({"type", "input", "rate_hz", "amplitude_volts", "width_ps"});
    }
    readCommon(r, description);
    description.members.push_back({r.input(), 0.0, true});
    if (type == "periodic") readPeriodic(r, description);
    if (type == "poisson") readPoisson(r, description);
  } else if (type == "pulses") {
    r.onlyKeys({"type", "input", "width_ps", "period_ps", "rate_hz", "jitter_ps", "phase_ps",
                "amplitude_volts"});
    if (!r.has("width_ps")) r.fail("needs \"width_ps\"");
    readCommon(r, description);
    description.members.push_back({r.input(), 0.0, true});
    if (r.has("period_ps") == r.has("rate_hz")) r.fail("needs either period_ps or rate_hz");
    if (r.has("period_ps")) {
      readPeriodic(r, description);
    } else {
      if (r.has("phase_ps")) r.fail("phase_ps needs periodic timing (period_ps)");
      readPoisson(r, description);
    }
  } else if (type == "pairs" || type == "cascade") {
    r.onlyKeys({"type", "inputs", "delays_ps", "rate_hz", "jitter_ps", "amplitude_volts",
                "width_ps", "seed"});
    readCommon(r, description);
    readPoisson(r, description);
    if (r.has("seed")) {
      if (!object["seed"].is_number_unsigned()) r.fail("seed must be a whole number of at least 0");
      description.seed = object["seed"].get<uint64_t>();
    }
    const json& list = r.array("inputs");
    const json& delays = r.array("delays_ps");
    if (type == "pairs" && list.size() != 2) r.fail("inputs must list exactly two inputs");
    if (list.size() < 2 || list.size() > 64) r.fail("inputs must list 2 to 64 inputs");
    if (delays.size() != list.size()) r.fail("delays_ps must give one delay per input");
    for (size_t i = 0; i < list.size(); ++i) {
      if (!delays[i].is_number() || !std::isfinite(delays[i].get<double>()) ||
          std::fabs(delays[i].get<double>()) > kMaxTimePs) {
        r.fail("delays_ps must hold numbers of at most 1e15 in magnitude");
      }
      // A null member drives an input of another board: it takes its jitter here too, so
      // that every board of the source draws the same numbers.
      const bool here = !list[i].is_null();
      description.members.push_back(
          {here ? r.input(list[i], "inputs") : 0, delays[i].get<double>(), i > 0, here});
    }
    if (std::none_of(description.members.begin(), description.members.end(),
                     [](const SourceMember& m) { return m.here; })) {
      r.fail("inputs must name at least one input of this board");
    }
    if (!description.seed && std::any_of(description.members.begin(), description.members.end(),
                                         [](const SourceMember& m) { return !m.here; })) {
      r.fail("inputs may be null (an input of another board) only in a source with a seed");
    }
  } else if (type == "bursts") {
    r.onlyKeys({"type", "input", "rate_hz", "events", "spacing_ps", "jitter_ps", "amplitude_volts",
                "width_ps"});
    readCommon(r, description);
    readPoisson(r, description);
    const int input = r.input();
    if (!r.has("events") || !object["events"].is_number_integer() ||
        object["events"].get<int64_t>() < 1 || object["events"].get<int64_t>() > kMaxBurstEvents) {
      r.fail("events must be a whole number from 1 to " + std::to_string(kMaxBurstEvents));
    }
    const int events = static_cast<int>(object["events"].get<int64_t>());
    const double spacing = events > 1 ? r.number("spacing_ps", 0.0, kMaxTimePs, true)
                                      : r.number("spacing_ps", 0.0, 0.0, kMaxTimePs, false);
    for (int i = 0; i < events; ++i) description.members.push_back({input, spacing * i, i > 0});
  } else {
    r.fail("unknown type; use periodic, poisson, pairs, cascade, pulses or bursts");
  }
  checkInFlight(r, description);
  return description;
}

}  // namespace

double SourceDescription::occurrenceRate() const {
  return timing == Timing::Periodic ? 1e12 / period_ps : rate_hz;
}

std::vector<SourceDescription> parseSources(const nlohmann::json& sources, int inputs) {
  std::vector<SourceDescription> descriptions;
  if (sources.is_null()) return descriptions;
  if (!sources.is_array()) {
    throw std::invalid_argument("emulated sources must be a JSON array of source objects");
  }
  int number = 0;
  for (const json& object : sources) descriptions.push_back(readSource(object, ++number, inputs));
  return descriptions;
}

}  // namespace zeptick::emulator
