#include "sources/ranking/LanguageTag.h"

#include <algorithm>
#include <map>

namespace vt {

std::string languageTag(const ReleaseInfo& info, const std::optional<std::string>& originalLanguage) {
  const auto& langs = info.languages;
  const auto has = [&](std::string_view l) { return std::find(langs.begin(), langs.end(), l) != langs.end(); };
  if (langs.empty() && info.cyrillic) return originalLanguage == "RUS" ? "" : "RUS";
  if (originalLanguage) {
    if (has(*originalLanguage)) return "";
    if (langs.empty() && info.dubbed) return "DUB";
  }
  if (langs.empty()) return "";
  if (has("ENG") || has("MULTI") || has("DUAL")) return "";
  std::string joined;
  for (const auto& l : langs) joined += (joined.empty() ? "" : "+") + l;
  return joined;
}

std::optional<std::string> dominantTag(const std::vector<std::string>& tags) {
  if (tags.empty()) return std::nullopt;
  std::map<std::string, int> counts;
  std::vector<std::string> order;
  for (const auto& t : tags)
    if (counts[t]++ == 0) order.push_back(t);
  int best = 0;
  for (const auto& [tag, n] : counts) best = std::max(best, n);
  if (counts.count("") && counts[""] == best) return std::string();
  for (const auto& t : order)
    if (counts[t] == best) return t;
  return std::nullopt;
}

}  // namespace vt
