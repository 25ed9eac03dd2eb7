#include "sources/release/Resolution.h"

#include <array>
#include <charconv>
#include <utility>

#include "platform/Regex.h"

namespace vt {

namespace {

const std::array<std::string_view, 9> kVideoExtensions = {"mkv", "mp4",  "avi",  "m4v", "mov",
                                                          "wmv", "webm", "m2ts", "mpg"};

// ASCII digits only; anything else leaves the number unreadable.
std::optional<int> asciiInt(const std::optional<std::string>& s) {
  if (!s || s->empty()) return std::nullopt;
  int v = 0;
  auto [p, ec] = std::from_chars(s->data(), s->data() + s->size(), v);
  if (ec != std::errc() || p != s->data() + s->size()) return std::nullopt;
  return v;
}

}  // namespace

NormalisedReleaseName normaliseReleaseName(std::string_view name) {
  NormalisedReleaseName out;
  std::string_view base = name;
  // The path extension: after the last dot of the last path component.
  const auto slash = name.find_last_of('/');
  const auto dot = name.find_last_of('.');
  if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash) && dot + 1 < name.size()) {
    const std::string ext = toLower(name.substr(dot + 1));
    for (auto known : kVideoExtensions) {
      if (ext == known) {
        out.container = ext;
        base = name.substr(0, dot);
        break;
      }
    }
  }
  static const Regex separators(R"([._\-()\[\]]+)");
  out.upper = toUpper(separators.replaceAll(base, " "));
  return out;
}

std::optional<std::string> releaseResolution(std::string_view releaseName) {
  // Only the first line is a name; add-on title cells may hold several.
  const auto lineEnd = releaseName.find('\n');
  const auto firstLine = releaseName.substr(0, lineEnd);
  const auto upper = normaliseReleaseName(firstLine).upper;

  static const std::array<std::pair<Regex, const char*>, 5> table = {{
      {Regex(R"(\b(?:HD|UHD)?216[0O][PI]?(?:HD|HDR|UHD)?\b)"), "4K"},
      {Regex(R"(\b(?:BDR|BD|BR|M|HD|FHD)?1[0O]8[0O][PI]?(?:HD|HDR|FHD)?\b)"), "1080p"},
      {Regex(R"(\b(?:HD)?72[0O][PI](?:HD)?\b)"), "720p"},
      {Regex(R"(\b48[0O][PI]\b)"), "480p"},
      {Regex(R"(\b(?:4K|UHD)(?:HDR)?\b)"), "4K"},
  }};
  for (const auto& [pattern, value] : table)
    if (pattern.matches(upper)) return std::string(value);

  static const Regex dimensions(R"(\b([1-9]\d{2,3})X([1-9]\d{2,3})\b)");
  const auto m = dimensions.search(upper);
  if (!m) return std::nullopt;
  const auto width = asciiInt(m->group(1));
  const auto height = asciiInt(m->group(2));
  if (!width || !height) return std::nullopt;
  if (*width >= 3200) return "4K";
  if (*width >= 1700 || *height >= 1000) return "1080p";
  if (*height >= 700 || *width >= 1180) return "720p";
  return "480p";
}

}  // namespace vt
