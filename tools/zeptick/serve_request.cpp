#include "serve_request.h"

#include <charconv>
#include <cmath>

#include "units.h"

namespace zeptick::cli::serve {

namespace {
[[noreturn]] void refuse(const char* field, const std::string& message) {
  throw ApiError(400, field, std::string(field) + " " + message);
}
}  // namespace

nlohmann::json parseBody(const std::string& body) {
  if (body.empty()) return nlohmann::json::object();
  nlohmann::json parsed = nlohmann::json::parse(body, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object())
    throw ApiError(400, "body", "the request body must be a JSON object");
  return parsed;
}

void rejectUnknownFields(const nlohmann::json& body, std::initializer_list<const char*> known) {
  for (const auto& item : body.items()) {
    bool found = false;
    for (const char* name : known) found = found || item.key() == name;
    if (!found) throw ApiError(400, item.key(), "unknown field '" + item.key() + "'");
  }
}

int64_t timeField(const nlohmann::json& body, const char* field) {
  const nlohmann::json& value = body.at(field);
  if (value.is_number_integer()) return value.get<int64_t>();
  if (value.is_number_float()) {
    const double ps = value.get<double>();
    // The range first: converting a double beyond int64_t is undefined.
    if (ps > -9e18 && ps < 9e18 && ps == std::trunc(ps)) return static_cast<int64_t>(ps);
    refuse(field, "must be whole picoseconds or a string with a unit such as \"1.5ns\"");
  }
  if (!value.is_string()) refuse(field, "must be picoseconds or a string such as \"1.5ns\"");
  try {
    return parseTime(value.get<std::string>());
  } catch (const std::exception& e) {
    throw ApiError(400, field, std::string(field) + ": " + e.what());
  }
}

double numberField(const nlohmann::json& body, const char* field) {
  const nlohmann::json& value = body.at(field);
  if (!value.is_number()) refuse(field, "must be a number");
  return value.get<double>();
}

bool boolField(const nlohmann::json& body, const char* field) {
  const nlohmann::json& value = body.at(field);
  if (!value.is_boolean()) refuse(field, "must be true or false");
  return value.get<bool>();
}

int64_t integerField(const nlohmann::json& body, const char* field) {
  const nlohmann::json& value = body.at(field);
  if (!value.is_number_integer()) refuse(field, "must be an integer");
  return value.get<int64_t>();
}

int64_t pathInteger(const std::string& text, const char* field) {
  int64_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || text.empty())
    refuse(field, "must be an integer, not '" + text + "'");
  return value;
}

std::string recordingFileName(const std::string& name) {
  if (name.empty()) refuse("name", "must not be empty");
  if (name.size() > 200) refuse("name", "must be at most 200 characters");
  if (name.find_first_of("/\\") != std::string::npos || name.find("..") != std::string::npos ||
      name.front() == '.')
    refuse("name", "must be a plain file name, without a path, '..' or a leading dot");
  for (unsigned char c : name)
    if (c < 0x20 || c == 0x7f) refuse("name", "must not contain control characters");
  const std::string suffix = ".ztbin";
  const bool has_suffix = name.size() > suffix.size() &&
                          name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
  return has_suffix ? name : name + suffix;
}

}  // namespace zeptick::cli::serve
