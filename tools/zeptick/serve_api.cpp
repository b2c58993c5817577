#include "serve_api.h"

#include <httplib.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <utility>

#include "serve_assets.h"
#include "serve_request.h"
#include "serve_state.h"

namespace zeptick::cli::serve {

namespace {

using Handler = std::function<nlohmann::json(const httplib::Request&)>;

void sendError(httplib::Response& res, int status, const std::string& message,
               const std::string& field) {
  nlohmann::json body = {{"error", message}};
  if (!field.empty()) body["field"] = field;
  res.status = status;
  res.set_content(body.dump(), "application/json");
}

// Every answer is JSON; whatever a handler throws becomes a status and a message,
// so no request can take the server down.
httplib::Server::Handler json(Handler handler) {
  return [handler = std::move(handler)](const httplib::Request& req, httplib::Response& res) {
    try {
      res.set_content(handler(req).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace),
                      "application/json");
    } catch (const ApiError& e) {
      sendError(res, e.status, e.what(), e.field);
    } catch (const std::invalid_argument& e) {
      sendError(res, 400, e.what(), "");
    } catch (const std::exception& e) {
      // The library's refusals (a file that cannot be opened, a busy device) conflict
      // with the instrument's state rather than with the request's form.
      sendError(res, 409, e.what(), "");
    }
  };
}

// Compares in time independent of where the strings differ.
bool sameSecret(const std::string& a, const std::string& b) {
  unsigned char differ = a.size() == b.size() ? 0 : 1;
  for (size_t i = 0; i < a.size(); ++i)
    differ |= static_cast<unsigned char>(a[i] ^ (i < b.size() ? b[i] : 0));
  return differ == 0;
}

bool authorized(const httplib::Request& req, const std::string& token) {
  if (token.empty()) return true;
  const std::string header = req.get_header_value("Authorization");
  const std::string bearer = "Bearer ";
  if (header.rfind(bearer, 0) == 0 && sameSecret(header.substr(bearer.size()), token)) return true;
  return req.has_param("token") && sameSecret(req.get_param_value("token"), token);
}

std::string contentType(const std::string& name) {
  const auto ends = [&](const std::string& suffix) {
    return name.size() >= suffix.size() &&
           name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
  };
  if (ends(".html")) return "text/html; charset=utf-8";
  if (ends(".js")) return "text/javascript; charset=utf-8";
  if (ends(".css")) return "text/css; charset=utf-8";
  return "application/octet-stream";
}

// The page's own references carry the token, since a browser does not add it to them.
void servePage(const std::string& token, httplib::Response& res) {
  const Asset* page = findAsset("index.html");
  std::string text(reinterpret_cast<const char*>(page->data), page->size);
  const std::string mark = "{{TOKEN_QUERY}}";
  const std::string query =
      token.empty() ? "" : "?token=" + httplib::detail::encode_query_param(token);
  for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at))
    text.replace(at, mark.size(), query);
  res.set_content(text, "text/html; charset=utf-8");
}

void installStatic(httplib::Server& server, const std::string& token) {
  server.Get("/",
             [token](const httplib::Request&, httplib::Response& res) { servePage(token, res); });
  server.Get("/([A-Za-z0-9_.-]+)", [](const httplib::Request& req, httplib::Response& res) {
    const Asset* asset = findAsset(req.matches[1]);
    if (asset == nullptr || req.matches[1] == "index.html")
      return sendError(res, 404, "not found", "");
    res.set_content(reinterpret_cast<const char*>(asset->data), asset->size,
                    contentType(asset->name));
  });
}

// Pushes keep to a fixed beat however long a snapshot takes; the first goes out at
// once, so a page that opens draws without a wait.
void installEvents(httplib::Server& server, LiveInstrument& instrument) {
  server.Get("/api/events", [&instrument](const httplib::Request&, httplib::Response& res) {
    res.set_header("Cache-Control", "no-cache");
    res.set_chunked_content_provider(
        "text/event-stream", [&instrument, next = std::chrono::steady_clock::now()](
                                 size_t, httplib::DataSink& sink) mutable {
          if (!instrument.waitUntil(next)) return false;
          const auto now = std::chrono::steady_clock::now();
          next = std::max(next + kPushInterval, now);
          const std::string event =
              "data: " +
              instrument.snapshot().dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
              "\n\n";
          return sink.write(event.data(), event.size());
        });
  });
}

int64_t id(const httplib::Request& req) { return pathInteger(req.matches[1], "id"); }

void installApi(httplib::Server& server, LiveInstrument& in) {
  server.Get("/api/rates", json([&](auto&) { return in.rates(); }));
  server.Get("/api/channels", json([&](auto&) { return in.channels(); }));
  server.Post("/api/channels/([^/]+)", json([&](const httplib::Request& req) {
                return in.updateChannel(pathInteger(req.matches[1], "channel"),
                                        parseBody(req.body));
              }));
  server.Get("/api/panels", json([&](auto&) { return in.listPanels(); }));
  server.Post("/api/panels", json([&](const httplib::Request& req) {
                return in.createPanel(parseBody(req.body));
              }));
  server.Get("/api/panels/([^/]+)",
             json([&](const httplib::Request& req) { return in.panel(id(req)); }));
  server.Delete("/api/panels/([^/]+)", json([&](const httplib::Request& req) {
                  in.deletePanel(id(req));
                  return nlohmann::json{{"deleted", id(req)}};
                }));
  server.Post("/api/panels/([^/]+)/clear", json([&](const httplib::Request& req) {
                in.clearPanel(id(req));
                return nlohmann::json{{"cleared", id(req)}};
              }));
  server.Get("/api/configuration", json([&](auto&) { return in.configuration(); }));
  server.Get("/api/health", json([&](auto&) { return in.health(); }));
  server.Get("/api/recording", json([&](auto&) { return in.recording(); }));
  server.Post("/api/recording", json([&](const httplib::Request& req) {
                return in.startRecording(parseBody(req.body));
              }));
  server.Post("/api/recording/stop", json([&](auto&) { return in.stopRecording(); }));
}

}  // namespace

void installRoutes(httplib::Server& server, LiveInstrument& instrument, const std::string& token) {
  server.set_payload_max_length(1 << 16);
  server.set_pre_routing_handler([token](const httplib::Request& req, httplib::Response& res) {
    if (authorized(req, token)) return httplib::Server::HandlerResponse::Unhandled;
    res.set_header("WWW-Authenticate", "Bearer");
    sendError(res, 401, "a valid token is required", "token");
    return httplib::Server::HandlerResponse::Handled;
  });
  server.set_error_handler([](const httplib::Request&, httplib::Response& res) {
    if (res.body.empty())
      sendError(res, res.status, res.status == 404 ? "not found" : "request refused", "");
  });
  server.set_exception_handler(
      [](const httplib::Request&, httplib::Response& res, std::exception_ptr error) {
        try {
          std::rethrow_exception(error);
        } catch (const std::exception& e) {
          sendError(res, 500, e.what(), "");
        } catch (...) {
          sendError(res, 500, "internal error", "");
        }
      });
  installApi(server, instrument);
  installEvents(server, instrument);
  installStatic(server, token);
}

}  // namespace zeptick::cli::serve
