// zeptick serve: a live view of the tagger in the browser, with a JSON API
// behind it, until Ctrl-C or SIGTERM.

#include <httplib.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "commands.h"
#include "live.h"
#include "serve_api.h"
#include "serve_state.h"
#include "zeptick/emulator.h"
#include "zeptick/library.h"
#include "zeptick/zeptick_hardware.h"

namespace zeptick::cli {

namespace {

struct ServeOptions {
  std::string serial, bind = "127.0.0.1", token, record_dir;
  int port = 8080;
  const CLI::Option* emulator = nullptr;
};

bool isLoopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.rfind("127.", 0) == 0;
}

// Shown with the configuration report, so the page tells which signals an emulated board makes.
nlohmann::json emulatorConfiguration(const CLI::Option* option) {
  if (option == nullptr || option->count() == 0) return nullptr;
  const std::string value = option->as<std::string>();
  if (value == "default") return nlohmann::json::parse(defaultEmulatorConfiguration());
  std::ifstream in(value);
  return nlohmann::json::parse(in, nullptr, false);
}

void runServe(const ServeOptions& o) {
  if (o.port < 0 || o.port > 65535) throw std::invalid_argument("--port must be from 0 to 65535");
  if (!isLoopback(o.bind) && o.token.empty())
    throw std::invalid_argument("--bind " + o.bind + " reaches beyond this machine: give --token");
  if (!o.record_dir.empty() && !std::filesystem::is_directory(o.record_dir))
    throw std::invalid_argument("--record-dir '" + o.record_dir + "' is not a directory");
  std::unique_ptr<Zeptick, bool (*)(ZeptickBase*)> tagger(openInstrument(o.serial), freeZeptick);
  serve::LiveInstrument instrument(tagger.get(), o.record_dir, emulatorConfiguration(o.emulator));
  httplib::Server server;
  // Each open page holds one thread for its update stream.
  server.new_task_queue = [] { return new httplib::ThreadPool(32); };
  serve::installRoutes(server, instrument, o.token);
  int port = o.port;
  if (port == 0)
    port = server.bind_to_any_port(o.bind);
  else if (!server.bind_to_port(o.bind, port))
    port = -1;
  if (port < 0)
    throw std::runtime_error("cannot listen on " + o.bind + ":" + std::to_string(o.port));
  catchInterrupts();
  std::thread listener([&] { server.listen_after_bind(); });
  const std::string host = o.bind.find(':') != std::string::npos ? "[" + o.bind + "]" : o.bind;
  std::printf(
      "zeptick serve: open http://%s:%d/%s (Ctrl-C stops)\n", host.c_str(), port,
      o.token.empty() ? "" : ("?token=" + httplib::detail::encode_query_param(o.token)).c_str());
  std::fflush(stdout);
  while (!interrupted()) sleepUnlessInterrupted(int64_t{1000000000000});
  instrument.shutdown();
  server.stop();
  listener.join();
}

}  // namespace

void addServe(CLI::App& app) {
  auto* cmd = app.add_subcommand(
      "serve", "Serve a live view of the tagger to a web browser, with a JSON API, until Ctrl-C");
  auto o = std::make_shared<ServeOptions>();
  addSerialOption(cmd, o->serial);
  cmd->add_option("--port", o->port, "TCP port (default 8080; 0 picks a free one)");
  cmd->add_option("--bind", o->bind, "address to listen on (default 127.0.0.1)");
  cmd->add_option("--token", o->token,
                  "secret every request must carry; required for a --bind beyond this machine");
  cmd->add_option("--record-dir", o->record_dir,
                  "directory recordings go to (default: recording is off)");
  o->emulator = app.get_option_no_throw("--emulator");
  cmd->callback([o] { runServe(*o); });
}

}  // namespace zeptick::cli
