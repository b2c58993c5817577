#include "serve_state.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <optional>
#include <sstream>

#include "serve_panel.h"
#include "serve_rates.h"
#include "serve_request.h"
#include "zeptick/file_writer.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli::serve {

namespace {

constexpr size_t kMaxPanels = 16;
// Delays beyond this are clamped by the tagger; refusing them tells the user instead.
constexpr int64_t kMaxInputDelay = 100000000000000000;

double unixSeconds() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

LiveInstrument::LiveInstrument(Zeptick* tagger, std::string record_dir, nlohmann::json emulator)
    : tagger(tagger),
      record_dir(std::move(record_dir)),
      emulator(std::move(emulator)),
      inputs(tagger->getChannelList(ZT_CHANNEL_RISING)),
      enabled(inputs.begin(), inputs.end()) {
  restartRates();
}

LiveInstrument::~LiveInstrument() {
  shutdown();
  std::lock_guard lock(mutex);
  if (writer) writer->stop();
  writer.reset();
  panels.clear();
  rate_history.reset();
}

void LiveInstrument::shutdown() {
  {
    std::lock_guard lock(wake_mutex);
    stopping = true;
  }
  wake.notify_all();
}

bool LiveInstrument::waitUntil(std::chrono::steady_clock::time_point when) {
  std::unique_lock lock(wake_mutex);
  wake.wait_until(lock, when, [this] { return stopping; });
  return !stopping;
}

void LiveInstrument::restartRates() {
  rate_history =
      std::make_unique<RateHistory>(tagger, std::vector<int>(enabled.begin(), enabled.end()));
}

nlohmann::json LiveInstrument::rates() {
  std::lock_guard lock(mutex);
  RateHistory::Points points = rate_history->points();
  return {{"channels", rate_history->channels},
          {"interval", kRateIntervalPs * 1e-12},
          {"times", points.times},
          {"rates", points.rates}};
}

nlohmann::json LiveInstrument::channelSettings(int channel) {
  return {{"channel", channel},
          {"trigger_level", tagger->getTriggerLevel(channel)},
          {"input_delay", tagger->getInputDelay(channel)},
          {"dead_time", tagger->getDeadtime(channel)},
          {"test_signal", tagger->getTestSignal(channel)},
          {"enabled", enabled.count(channel) > 0}};
}

nlohmann::json LiveInstrument::channels() {
  std::lock_guard lock(mutex);
  nlohmann::json list = nlohmann::json::array();
  for (int channel : inputs) list.push_back(channelSettings(channel));
  return {{"trigger_range", tagger->getDACRange()}, {"channels", list}};
}

nlohmann::json LiveInstrument::updateChannel(int64_t channel, const nlohmann::json& body) {
  rejectUnknownFields(body,
                      {"trigger_level", "input_delay", "dead_time", "test_signal", "enabled"});
  if (std::find(inputs.begin(), inputs.end(), channel) == inputs.end())
    throw ApiError(400, "channel", "channel " + std::to_string(channel) + " is not an input");
  const int input = static_cast<int>(channel);
  // Everything is checked before anything changes, so a refused request changes nothing.
  const std::vector<double> dac = tagger->getDACRange();
  std::optional<double> level;
  std::optional<int64_t> delay, dead_time;
  std::optional<bool> test_signal, enable;
  if (body.contains("trigger_level")) {
    level = numberField(body, "trigger_level");
    if (dac.size() == 2 && (*level < dac[0] || *level > dac[1])) {
      std::ostringstream message;
      message << "trigger_level must be from " << dac[0] << " to " << dac[1] << " V";
      throw ApiError(400, "trigger_level", message.str());
    }
  }
  if (body.contains("input_delay")) {
    delay = timeField(body, "input_delay");
    if (*delay > kMaxInputDelay || *delay < -kMaxInputDelay)
      throw ApiError(400, "input_delay", "input_delay must be within +-1e17 ps");
  }
  if (body.contains("dead_time")) {
    dead_time = timeField(body, "dead_time");
    if (*dead_time < 0) throw ApiError(400, "dead_time", "dead_time must not be negative");
  }
  if (body.contains("test_signal")) test_signal = boolField(body, "test_signal");
  if (body.contains("enabled")) enable = boolField(body, "enabled");

  if (level) tagger->setTriggerLevel(input, *level);
  if (delay) tagger->setInputDelay(input, *delay);
  if (dead_time) tagger->setDeadtime(input, *dead_time);
  if (test_signal) tagger->setTestSignal(input, *test_signal);
  // Histograms restart once the stream runs under the new settings, so what the
  // page shows next was measured with them alone. The wait holds no lock of ours:
  // the update stream and other clients carry on meanwhile.
  tagger->waitForFence(tagger->getFence(), 2000);
  std::lock_guard lock(mutex);
  for (auto& [id, panel] : panels) panel->clear();
  if (enable && *enable != (enabled.count(input) > 0)) {
    if (*enable)
      enabled.insert(input);
    else
      enabled.erase(input);
    restartRates();
  }
  return channelSettings(input);
}

nlohmann::json LiveInstrument::createPanel(const nlohmann::json& body) {
  std::lock_guard lock(mutex);
  if (panels.size() >= kMaxPanels)
    throw ApiError(409, "", "at most " + std::to_string(kMaxPanels) + " panels at once");
  auto created = std::make_shared<Panel>(tagger, next_panel_id, body);
  panels[next_panel_id++] = created;
  return created->describe();
}

std::vector<std::shared_ptr<Panel>> LiveInstrument::panelList() {
  std::lock_guard lock(mutex);
  std::vector<std::shared_ptr<Panel>> list;
  for (auto& [id, panel] : panels) list.push_back(panel);
  return list;
}

std::shared_ptr<Panel> LiveInstrument::findPanel(int64_t id) {
  std::lock_guard lock(mutex);
  const auto found = panels.find(id);
  if (found == panels.end()) throw ApiError(404, "id", "no panel " + std::to_string(id));
  return found->second;
}

nlohmann::json LiveInstrument::listPanels() {
  nlohmann::json list = nlohmann::json::array();
  for (const auto& panel : panelList()) list.push_back(panel->describe());
  return list;
}

nlohmann::json LiveInstrument::panel(int64_t id) {
  // A panel deleted meanwhile stays alive through this reference until the read ends.
  const std::shared_ptr<Panel> found = findPanel(id);
  nlohmann::json out = found->describe();
  out["counts"] = found->counts();
  return out;
}

void LiveInstrument::deletePanel(int64_t id) {
  std::shared_ptr<Panel> removed = findPanel(id);
  std::lock_guard lock(mutex);
  panels.erase(id);
}

void LiveInstrument::clearPanel(int64_t id) { findPanel(id)->clear(); }

nlohmann::json LiveInstrument::configuration() {
  nlohmann::json report = nlohmann::json::parse(tagger->getConfiguration(), nullptr, false);
  if (report.is_discarded()) report = tagger->getConfiguration();
  return {{"tagger", report}, {"emulator", emulator}};
}

nlohmann::json LiveInstrument::health() {
  const std::string text = tagger->getSensorData();
  nlohmann::json values = nlohmann::json::array();
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t tab = line.find('\t');
    if (tab != std::string::npos) values.push_back({line.substr(0, tab), line.substr(tab + 1)});
  }
  return {{"text", text}, {"values", values}, {"overflows", tagger->getOverflows()}};
}

nlohmann::json LiveInstrument::recordingLocked() {
  if (!writer) return {{"active", false}, {"directory", record_dir}};
  return {{"active", true},
          {"directory", record_dir},
          {"name", recording_name},
          {"seconds", unixSeconds() - recording_started},
          {"events", writer->getTotalEvents()},
          {"bytes", writer->getTotalSize()}};
}

nlohmann::json LiveInstrument::recording() {
  std::lock_guard lock(mutex);
  return recordingLocked();
}

nlohmann::json LiveInstrument::startRecording(const nlohmann::json& body) {
  rejectUnknownFields(body, {"name"});
  if (!body.contains("name") || !body["name"].is_string())
    throw ApiError(400, "name", "name must be a file name such as \"run1.ztbin\"");
  const std::string name = recordingFileName(body["name"].get<std::string>());
  if (record_dir.empty())
    throw ApiError(409, "", "recording is off: start the server with --record-dir");
  const std::filesystem::path path = std::filesystem::path(record_dir) / name;
  std::lock_guard lock(mutex);
  if (writer) throw ApiError(409, "", "already recording to " + recording_name);
  if (std::filesystem::exists(path)) throw ApiError(409, "name", name + " exists already");
  writer = std::make_unique<FileWriter>(tagger, path.string(),
                                        std::vector<int>(enabled.begin(), enabled.end()));
  recording_name = name;
  recording_started = unixSeconds();
  return recordingLocked();
}

nlohmann::json LiveInstrument::stopRecording() {
  std::lock_guard lock(mutex);
  if (!writer) throw ApiError(409, "", "not recording");
  // Every block fetched so far reaches the file before it closes.
  tagger->sync();
  writer->stop();
  nlohmann::json done = recordingLocked();
  done["active"] = false;
  writer.reset();
  return done;
}

nlohmann::json LiveInstrument::snapshot() {
  nlohmann::json panel_data = nlohmann::json::array();
  for (const auto& panel : panelList())
    panel_data.push_back({{"id", panel->id}, {"counts", panel->counts()}});
  std::lock_guard lock(mutex);
  nlohmann::json latest = {{"channels", rate_history->channels}};
  const RateHistory::Points newest = rate_history->latest();
  if (!newest.times.empty()) {
    latest["time"] = newest.times[0];
    latest["rates"] = newest.rates[0];
  }
  return {{"rates", latest}, {"panels", panel_data}, {"recording", recordingLocked()}};
}

}  // namespace zeptick::cli::serve
