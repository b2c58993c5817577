// Checking what a client of `zeptick serve` sends. Every refusal is an ApiError
// that names the offending field, so the page can point at the right input.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>

namespace zeptick::cli::serve {

/// A refused request: HTTP status, message and the field it is about ("" for none).
class ApiError : public std::runtime_error {
 public:
  ApiError(int status, std::string field, const std::string& message)
      : std::runtime_error(message), status(status), field(std::move(field)) {}
  int status;
  std::string field;
};

/// The request body as a JSON object; an empty body is an empty object.
/// Throws ApiError 400 (field "body") if it is not a JSON object.
nlohmann::json parseBody(const std::string& body);

/// Throws ApiError 400 naming the first key of `body` not in `known`, since an
/// unknown key is almost always a typing error that would otherwise do nothing.
void rejectUnknownFields(const nlohmann::json& body, std::initializer_list<const char*> known);

/// A time in picoseconds: an integer, or a string with a unit ("1.5ns").
/// Throws ApiError 400 naming `field`.
int64_t timeField(const nlohmann::json& body, const char* field);

/// A number, a boolean or an integer; each throws ApiError 400 naming `field`.
double numberField(const nlohmann::json& body, const char* field);
bool boolField(const nlohmann::json& body, const char* field);
int64_t integerField(const nlohmann::json& body, const char* field);

/// An integer taken from a URL path segment; throws ApiError 400 naming `field`.
int64_t pathInteger(const std::string& text, const char* field);

/// `name` as a file name inside the recording directory, with ".ztbin" added if
/// missing. A path separator, "..", a leading dot or an empty name is refused
/// (400, field "name"): the client never reaches beyond that directory.
std::string recordingFileName(const std::string& name);

}  // namespace zeptick::cli::serve
