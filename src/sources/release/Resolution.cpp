#include "sources/release/Resolution.h"

#include <array>
#include <charconv>
#include <utility>

#include "platform/Regex.h"
#include "sources/release/ReleaseParser.h"

namespace vt {

namespace {

const std::array<std::string_view, 9> kVideoExtensions = {"mkv", "mp4",  "avi",  "m4v", "mov",
                                                          "wmv", "webm", "m2ts", "mpg"};


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
  return ReleaseParser::parse(releaseName).resolution;
}

}  // namespace vt
