#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vt {

// Blank, tab, newline, carriage return, form feed and vertical tab.
inline constexpr std::string_view kAsciiWhitespace = " \t\n\r\f\v";

// `text` without the leading and trailing bytes that are in `chars`.
std::string_view trimmedView(std::string_view text, std::string_view chars = kAsciiWhitespace);
std::string trimmed(std::string_view text, std::string_view chars = kAsciiWhitespace);
// `text` without Unicode white space (blanks, line ends, no-break and
// ideographic spaces...) at either end.
std::string_view trimmedUnicodeSpace(std::string_view text);

// The whole of `text` as a decimal int: an optional '-' then ASCII digits,
// nothing else (no blanks, no '+', no digits of other scripts). None when the
// text is anything else or the value does not fit.
std::optional<int> parseAsciiInt(std::string_view text);

// Whether `text` holds at least one of `needles`.
bool containsAny(std::string_view text, const std::vector<std::string>& needles);

// The pieces of `text` between bytes that are in `separators`; empty pieces
// are dropped.
std::vector<std::string> splitAny(std::string_view text, std::string_view separators);

// "%.Nf" in the C locale whatever the process's locale ("1.50", not "1,50").
std::string formatFixed(double value, int decimals);

// The text with every invalid UTF-8 sequence replaced by U+FFFD.
std::string validUtf8(std::string_view text);

// At most `maxBytes` of UTF-8 text, cut before a character that would not fit.
std::string cutUtf8(std::string_view text, size_t maxBytes);

}  // namespace vt
