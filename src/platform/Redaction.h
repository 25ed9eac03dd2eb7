#pragma once

#include <string>
#include <string_view>

namespace vt {

// Hides secrets in any text bound for a log: the Real-Debrid key in add-on
// URLs, Real-Debrid download codes, tokens and API keys in queries, and the
// long path segment behind a Comet host. Parameter names stay.
// A line the rules could not finish with (the pattern engine's time limit,
// say) is replaced whole by kRedactionFailed.
std::string redact(std::string_view text);
inline constexpr const char* kRedactionFailed = "[line withheld: it could not be checked for secrets]";

}  // namespace vt
