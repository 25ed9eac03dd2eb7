#include "platform/Text.h"

#include <charconv>

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

}  // namespace vt
