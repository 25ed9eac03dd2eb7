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
  for (const auto& t : tags) ++counts[t];
  int best = 0;
  int leaders = 0;
  std::string leader;
  for (const auto& [tag, n] : counts) {
    if (n > best) {
      best = n;
      leaders = 1;
      leader = tag;
    } else if (n == best) {
      ++leaders;
    }
  }
  return leaders > 1 ? std::string() : leader;
}

}  // namespace vt
