// Feeds arbitrary text to the request checks of `zeptick serve`, which take text from the network:
// bodies read field by field as the handlers do, path segments and recording names. Every
// refusal is an ApiError naming a field; an accepted name stays inside the recording directory.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "serve_request.h"

namespace {

using namespace zeptick::cli::serve;

// Runs one check; anything but success or an ApiError with a status is a defect.
template <class Check>
void expectAnswer(Check check) {
  try {
    check();
  } catch (const ApiError& error) {
    if (error.status < 400 || error.status > 499) std::abort();
  }
}

void readBody(const nlohmann::json& body) {
  // The handlers look a field up only when it is there.
  for (const char* field : {"binwidth", "range", "input_delay", "dead_time"}) {
    if (body.contains(field)) expectAnswer([&] { (void)timeField(body, field); });
  }
  if (body.contains("trigger_level"))
    expectAnswer([&] { (void)numberField(body, "trigger_level"); });
  if (body.contains("enabled")) expectAnswer([&] { (void)boolField(body, "enabled"); });
  if (body.contains("id")) expectAnswer([&] { (void)integerField(body, "id"); });
  expectAnswer([&] { rejectUnknownFields(body, {"kind", "channels", "binwidth", "range"}); });
  if (body.contains("name") && body["name"].is_string()) {
    expectAnswer([&] {
      const std::string name = recordingFileName(body["name"].get<std::string>());
      if (name.find_first_of("/\\") != std::string::npos || name.front() == '.' || name == "..")
        std::abort();
    });
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  expectAnswer([&] { readBody(parseBody(text)); });
  expectAnswer([&] { (void)pathInteger(text, "id"); });
  expectAnswer([&] { (void)recordingFileName(text); });
  return 0;
}
