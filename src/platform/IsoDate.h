#pragma once

#include <optional>
#include <string_view>

#include "platform/Date.h"

namespace vt {

// An ISO 8601 timestamp, "yyyy-MM-ddTHH:mm:ss" with optional fractional
// seconds and a zone of "Z" or "±hhmm", as a Date. Blanks around it are
// ignored; anything else that does not fit the form gives none.
std::optional<Date> parseIsoDate(std::string_view text);

}  // namespace vt
