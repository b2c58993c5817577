// The running tagger behind `zeptick serve`: its rate history, histogram
// panels, channel settings and recording. Every method is safe to call from
// the HTTP server's threads at once; one mutex guards the panels, the recording
// and the rate history, while measurement reads need no lock of ours.
#pragma once

#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace zeptick {
class Zeptick;
class FileWriter;
}  // namespace zeptick

namespace zeptick::cli::serve {

struct Panel;
class RateHistory;

class LiveInstrument {
 public:
  /// Serves `tagger` (not owned; it must outlive this). `record_dir` empty
  /// refuses recording; `emulator` is the emulated instruments' configuration
  /// (null for real hardware), shown with the configuration report.
  LiveInstrument(Zeptick* tagger, std::string record_dir, nlohmann::json emulator);
  /// Stops any recording and frees every measurement.
  ~LiveInstrument();
  LiveInstrument(const LiveInstrument&) = delete;
  LiveInstrument& operator=(const LiveInstrument&) = delete;

  /// {"channels": [...], "times": [unix s...], "rates": [[per channel]...]}: the last minute.
  nlohmann::json rates();
  /// Settings of every input: {"trigger_range": [min, max], "channels": [{channel, ...}]}.
  nlohmann::json channels();
  /// Applies the fields of `body` to input `channel` once all of them are valid
  /// (ApiError 400 otherwise), waits until the stream runs under them, clears
  /// the histograms and returns the input's settings as now in force.
  nlohmann::json updateChannel(int64_t channel, const nlohmann::json& body);

  /// Creates a histogram panel from {"kind", "channels": [a, b], "binwidth", "range"}.
  nlohmann::json createPanel(const nlohmann::json& body);
  nlohmann::json listPanels();
  /// Panel `id` with its counts; ApiError 404 for an unknown id.
  nlohmann::json panel(int64_t id);
  void deletePanel(int64_t id);
  void clearPanel(int64_t id);

  /// The tagger's configuration report, with the emulator's configuration if any.
  nlohmann::json configuration();
  /// {"text": report, "values": [[label, value]...], "overflows": n}.
  nlohmann::json health();

  /// Starts recording the enabled inputs to {"name"} in the recording directory.
  nlohmann::json startRecording(const nlohmann::json& body);
  nlohmann::json stopRecording();
  nlohmann::json recording();

  /// What the page redraws on each push: the newest rates, every panel's counts
  /// and the recording state.
  nlohmann::json snapshot();

  /// Ends every wait of snapshot subscribers; called once when the server stops.
  void shutdown();
  /// Waits until `when` or until shutdown(); false once shut down.
  bool waitUntil(std::chrono::steady_clock::time_point when);

 private:
  void restartRates();
  std::vector<std::shared_ptr<Panel>> panelList();
  std::shared_ptr<Panel> findPanel(int64_t id);
  nlohmann::json channelSettings(int channel);
  nlohmann::json recordingLocked();

  Zeptick* tagger;
  const std::string record_dir;
  const nlohmann::json emulator;
  std::vector<int> inputs;

  std::mutex mutex;  // guards everything below
  std::set<int> enabled;
  std::unique_ptr<RateHistory> rate_history;
  std::map<int64_t, std::shared_ptr<Panel>> panels;
  int64_t next_panel_id = 1;
  std::unique_ptr<FileWriter> writer;
  std::string recording_name;
  double recording_started = 0;

  std::mutex wake_mutex;
  std::condition_variable wake;
  bool stopping = false;
};

}  // namespace zeptick::cli::serve
