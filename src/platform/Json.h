#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/Date.h"

namespace vt {

// Key order is part of our file formats and fingerprints, so keys are never sorted.
using Json = nlohmann::ordered_json;

// Thrown by the decoding helpers when a record lacks a required key or a value
// has the wrong type. The message names the key.
class DecodeError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

namespace json {

// Parses text; none when it is not JSON. Never throws.
std::optional<Json> parse(std::string_view text);

// Compact encoding, keys in insertion order, invalid UTF-8 replaced rather than thrown.
std::string encode(const Json& value);

// Typed reads with strict types: an integer must be a JSON integer, a Boolean a
// JSON Boolean. `required` throws DecodeError when the key is missing or null;
// `optional` gives none for a missing or null key and throws on a wrong type.
template <class T>
T as(const Json& value, std::string_view key);

template <class T>
T required(const Json& object, std::string_view key) {
  if (!object.is_object()) throw DecodeError("expected an object");
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) throw DecodeError("missing key \"" + std::string(key) + "\"");
  return as<T>(*it, key);
}

template <class T>
std::optional<T> optional(const Json& object, std::string_view key) {
  if (!object.is_object()) throw DecodeError("expected an object");
  auto it = object.find(key);
  if (it == object.end() || it->is_null()) return std::nullopt;
  return as<T>(*it, key);
}

// Writes the key only when the value is present.
template <class T>
void put(Json& object, const char* key, const std::optional<T>& value) {
  if (value) object[key] = *value;
}

template <>
inline std::string as<std::string>(const Json& v, std::string_view key) {
  if (!v.is_string()) throw DecodeError("\"" + std::string(key) + "\" is not a string");
  return v.get<std::string>();
}
template <>
inline bool as<bool>(const Json& v, std::string_view key) {
  if (!v.is_boolean()) throw DecodeError("\"" + std::string(key) + "\" is not a Boolean");
  return v.get<bool>();
}
template <>
inline int64_t as<int64_t>(const Json& v, std::string_view key) {
  if (v.is_number_integer()) return v.get<int64_t>();
  throw DecodeError("\"" + std::string(key) + "\" is not an integer");
}
template <>
inline int as<int>(const Json& v, std::string_view key) {
  if (v.is_number_integer()) {
    const auto n = v.get<int64_t>();
    if (n >= INT32_MIN && n <= INT32_MAX) return static_cast<int>(n);
  }
  throw DecodeError("\"" + std::string(key) + "\" is not an integer");
}
template <>
inline double as<double>(const Json& v, std::string_view key) {
  if (!v.is_number()) throw DecodeError("\"" + std::string(key) + "\" is not a number");
  return v.get<double>();
}
template <>
inline std::vector<std::string> as<std::vector<std::string>>(const Json& v, std::string_view key) {
  if (!v.is_array()) throw DecodeError("\"" + std::string(key) + "\" is not an array");
  std::vector<std::string> out;
  out.reserve(v.size());
  for (const auto& item : v) out.push_back(as<std::string>(item, key));
  return out;
}

}  // namespace json
}  // namespace vt
