// The HTTP side of `zeptick serve`: the page, the JSON API and the stream of
// updates, with the token check in front of all of them.
#pragma once

#include <string>

namespace httplib {
class Server;
}

namespace zeptick::cli::serve {

class LiveInstrument;

/// Seconds between two pushes of the update stream (5 per second).
inline constexpr double kPushIntervalSeconds = 0.2;

/// Installs every route of the page and the API on `server`, answering from
/// `instrument` (which must outlive the server). A non-empty `token` must come
/// with every request, as "Authorization: Bearer <token>" or "?token=<token>".
void installRoutes(httplib::Server& server, LiveInstrument& instrument, const std::string& token);

}  // namespace zeptick::cli::serve
