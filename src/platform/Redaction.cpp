#include "platform/Redaction.h"

#include <cctype>
#include <vector>

#include "platform/Endpoints.h"
#include "platform/Regex.h"

namespace vt {

namespace {

std::string escapeForPattern(std::string_view host) {
  std::string out;
  for (char c : host) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-') out += '\\';
    out += c;
  }
  return out;
}

struct RedactionTable {
  std::vector<Regex> rules;
  RedactionTable() {
    const auto flags = Regex::caseInsensitive;
    rules.emplace_back(R"((realdebrid[/=])[A-Za-z0-9]+)", flags);
    std::string webLink = "(";
    webLink.append(escapeForPattern(endpoints().realDebridWebHost)).append("/d/)[A-Za-z0-9]+");
    rules.emplace_back(webLink, flags);
    rules.emplace_back(R"(([?&](?:X-Plex-Token|token|apikey|api_key)=)[^&\s"]+)", flags);
    rules.emplace_back(R"((comet\.[A-Za-z0-9.-]+/)[A-Za-z0-9_=-]{16,})", flags);
  }
};

}  // namespace

std::string redact(std::string_view text) {
  static const RedactionTable table;
  std::string out(text);
  for (const auto& rule : table.rules) {
    auto replaced = rule.tryReplaceAll(out, "$1REDACTED");
    // Fails closed: a line the rules could not read is not passed through.
    if (!replaced) return std::string(kRedactionFailed);
    out = std::move(*replaced);
  }
  return out;
}

}  // namespace vt
