#include "platform/Text.h"

#include <charconv>
#include <cmath>

#include <QString>

#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace vt {

std::string_view trimmedView(std::string_view text, std::string_view chars) {
  const auto b = text.find_first_not_of(chars);
  if (b == std::string_view::npos) return {};
  return text.substr(b, text.find_last_not_of(chars) - b + 1);
}

std::string trimmed(std::string_view text, std::string_view chars) { return std::string(trimmedView(text, chars)); }

std::optional<int> parseAsciiInt(std::string_view text) {
  if (text.empty()) return std::nullopt;
  int value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

bool containsAny(std::string_view text, const std::vector<std::string>& needles) {
  for (const auto& n : needles)
    if (text.find(n) != std::string_view::npos) return true;
  return false;
}

std::vector<std::string> splitAny(std::string_view text, std::string_view separators) {
  std::vector<std::string> out;
  size_t start = 0;
  for (size_t i = 0; i <= text.size(); ++i) {
    if (i == text.size() || separators.find(text[i]) != std::string_view::npos) {
      if (i > start) out.emplace_back(text.substr(start, i - start));
      start = i + 1;
    }
  }
  return out;
}

std::string formatFixed(double value, int decimals) {
  if (!std::isfinite(value)) value = 0;
  char buf[64];
  const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed, decimals);
  if (ec != std::errc()) return "0";
  return std::string(buf, end);
}

std::string validUtf8(std::string_view text) {
  return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())).toUtf8().toStdString();
}

std::string cutUtf8(std::string_view text, size_t maxBytes) {
  if (text.size() <= maxBytes) return std::string(text);
  size_t end = maxBytes;
  // Back off over continuation bytes to the start of the character that was cut.
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return std::string(text.substr(0, end));
}

std::string_view trimmedUnicodeSpace(std::string_view text) {
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  const int64_t length = static_cast<int64_t>(text.size());
  int64_t begin = 0;
  while (begin < length) {
    int64_t next = begin;
    UChar32 c;
    U8_NEXT(s, next, length, c);
    if (c < 0 || !u_isUWhiteSpace(c)) break;
    begin = next;
  }
  int64_t end = length;
  while (end > begin) {
    // The start of the last character: back over at most three continuation bytes.
    int64_t previous = end - 1;
    while (previous > begin && end - previous < 4 && U8_IS_TRAIL(s[previous])) --previous;
    int64_t next = previous;
    UChar32 c;
    U8_NEXT(s, next, end, c);
    if (c < 0 || next != end || !u_isUWhiteSpace(c)) break;
    end = previous;
  }
  return text.substr(static_cast<size_t>(begin), static_cast<size_t>(end - begin));
}

}  // namespace vt
