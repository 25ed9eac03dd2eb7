#pragma once

#include <string>
#include <string_view>

namespace vt {

// Hides secrets in any text bound for a log: the Real-Debrid key in add-on
// URLs, Real-Debrid download codes, tokens and API keys in queries, and the
// long path segment behind a Comet host. Parameter names stay.
std::string redact(std::string_view text);

}  // namespace vt
