// How long an event on the emulated instrument takes to show in what
// `zeptick serve` answers: the test signal of a quiet input is switched on
// through the API, and the time until its first events are counted in a
// histogram panel is taken, both by polling the panel and through the update
// stream the page listens to. The time includes uploading the setting, so it
// bounds the event's own latency from above. Goal: a median under 250 ms.
// `request_baseline` is one plain panel request, measured in the same run.

#include <benchmark/benchmark.h>
#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "serve_api.h"
#include "serve_state.h"
#include "zeptick/emulator.h"
#include "zeptick/library.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::bench {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kQuietInput = 5;

// The server of `zeptick serve` in this process, on a free loopback port, with
// one correlation panel of the quiet input against itself.
struct LiveServer {
  LiveServer() {
    attachDefaultEmulatedDevice();
    tagger = createZeptick();
    instrument = std::make_unique<cli::serve::LiveInstrument>(tagger, "", nullptr);
    cli::serve::installRoutes(server, *instrument, "");
    port = server.bind_to_any_port("127.0.0.1");
    listener = std::thread([this] { server.listen_after_bind(); });
    client = std::make_unique<httplib::Client>("127.0.0.1", port);
    const auto created =
        client->Post("/api/panels", R"({"channels": [5, 5], "binwidth": 100, "range": "10ns"})",
                     "application/json");
    panel = "/api/panels/" + std::to_string(nlohmann::json::parse(created->body)["id"].get<int>());
  }
  ~LiveServer() {
    instrument->shutdown();
    server.stop();
    listener.join();
    instrument.reset();
    freeZeptick(tagger);
    detachEmulatedDevices();
  }
  void testSignal(bool on) {
    client->Post("/api/channels/5", on ? R"({"test_signal": true})" : R"({"test_signal": false})",
                 "application/json");
  }
  bool panelHasCounts() {
    const auto got = client->Get(panel.c_str());
    const auto counts = nlohmann::json::parse(got->body)["counts"];
    return std::any_of(counts.begin(), counts.end(), [](const auto& n) { return n > 0; });
  }

  Zeptick* tagger = nullptr;
  std::unique_ptr<cli::serve::LiveInstrument> instrument;
  httplib::Server server;
  int port = 0;
  std::thread listener;
  std::unique_ptr<httplib::Client> client;
  std::string panel;
};

LiveServer& liveServer() {
  static LiveServer server;
  return server;
}

void report(benchmark::State& state, std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  if (ms.empty()) return;
  state.counters["median_ms"] = ms[ms.size() / 2];
  state.counters["p99_ms"] = ms[std::min(ms.size() - 1, ms.size() * 99 / 100)];
}

double msSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void BM_EventToPanelPolled(benchmark::State& state) {
  LiveServer& live = liveServer();
  std::vector<double> ms;
  for (auto _ : state) {
    live.testSignal(false);  // waits until the stream runs without it, and clears the panel
    const auto start = Clock::now();
    live.testSignal(true);
    while (!live.panelHasCounts()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ms.push_back(msSince(start));
    state.SetIterationTime(ms.back() / 1000);
  }
  live.testSignal(false);
  report(state, ms);
}
BENCHMARK(BM_EventToPanelPolled)->Iterations(40)->UseManualTime()->Unit(benchmark::kMillisecond);

// The same through the server-sent events, as the page sees it: one stream stays
// open, as the page's does, and pushes come every 200 ms.
void BM_EventToPanelPushed(benchmark::State& state) {
  LiveServer& live = liveServer();
  std::mutex mutex;
  std::condition_variable seen;
  std::optional<Clock::time_point> armed;  // set while waiting for counts
  std::vector<double> ms;
  bool done = false;
  httplib::Client stream("127.0.0.1", live.port);
  std::thread reader([&] {
    std::string pending;
    stream.Get("/api/events", [&](const char* data, size_t size) {
      pending.append(data, size);
      for (size_t end; (end = pending.find("\n\n")) != std::string::npos;
           pending.erase(0, end + 2)) {
        const auto update = nlohmann::json::parse(pending.substr(6, end - 6));
        bool counted = false;
        for (const auto& panel : update["panels"])
          for (const auto& n : panel["counts"]) counted = counted || n > 0;
        std::lock_guard lock(mutex);
        if (counted && armed) {
          ms.push_back(msSince(*armed));
          armed.reset();
          seen.notify_all();
        }
      }
      std::lock_guard lock(mutex);
      return !done;
    });
  });
  for (auto _ : state) {
    live.testSignal(false);
    // A push taken before the panel was cleared may still be on its way.
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    {
      std::lock_guard lock(mutex);
      armed = Clock::now();
    }
    live.testSignal(true);
    std::unique_lock lock(mutex);
    seen.wait(lock, [&] { return !armed; });
    state.SetIterationTime(ms.back() / 1000);
  }
  {
    std::lock_guard lock(mutex);
    done = true;
  }
  reader.join();
  live.testSignal(false);
  report(state, ms);
}
BENCHMARK(BM_EventToPanelPushed)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_RequestBaseline(benchmark::State& state) {
  LiveServer& live = liveServer();
  for (auto _ : state) benchmark::DoNotOptimize(live.panelHasCounts());
}
BENCHMARK(BM_RequestBaseline)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace zeptick::bench

BENCHMARK_MAIN();
