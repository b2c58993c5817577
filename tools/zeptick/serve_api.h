// The HTTP side of `zeptick serve`: the page, the JSON API and the stream of
// updates, with the token check in front of all of them.
#pragma once

#include <chrono>
#include <string>

namespace httplib {
class Server;
}

namespace zeptick::cli::serve {

class LiveInstrument;

/// Time between two pushes of the update stream (5 per second).
inline constexpr std::chrono::milliseconds kPushInterval{200};

/// Installs every route of the page and the API on `server`, answering from
/// `instrument` (which must outlive the server). A non-empty `token` must come
/// with every request, as "Authorization: Bearer <token>" or "?token=<token>".
void installRoutes(httplib::Server& server, LiveInstrument& instrument, const std::string& token);

}  // namespace zeptick::cli::serve
