#include "platform/Json.h"

namespace vt::json {

std::optional<Json> parse(std::string_view text) {
  Json value = Json::parse(text.begin(), text.end(), nullptr, /*allow_exceptions=*/false);
  if (value.is_discarded()) return std::nullopt;
  return value;
}

std::string encode(const Json& value) { return value.dump(-1, ' ', false, Json::error_handler_t::replace); }

}  // namespace vt::json
