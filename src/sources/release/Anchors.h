#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// Literal strings of which every match of a pattern must contain at least
// one, read from the pattern's own text; none when the pattern guarantees no
// literal (then it must always run). Understands the subset of ICU syntax the
// release patterns use: literals, escapes, classes, groups, alternation,
// look-around and quantifiers. Patterns with a case-insensitive flag must not
// use it: the anchors are case-sensitive.
std::optional<std::vector<std::string>> requiredLiterals(std::string_view pattern);

}  // namespace vt
