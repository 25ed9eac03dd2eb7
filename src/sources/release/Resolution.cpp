#include "sources/release/Resolution.h"

#include <algorithm>
#include <array>

#include "platform/Regex.h"

namespace vt {

namespace {

const std::array<std::string_view, 9> kVideoExtensions = {"mkv", "mp4",  "avi",  "m4v", "mov",
                                                          "wmv", "webm", "m2ts", "mpg"};

}  // namespace

NormalisedReleaseName normaliseReleaseName(std::string_view name, ParseMode mode) {
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
  const bool ascii = std::all_of(base.begin(), base.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
  if (ascii && mode == ParseMode::fast) {
    // Plain ASCII: the same result as the pattern and ICU's upper-casing.
    out.upper.reserve(base.size());
    bool inRun = false;
    for (char c : base) {
      const bool sep = c == '.' || c == '_' || c == '-' || c == '(' || c == ')' || c == '[' || c == ']';
      if (sep) {
        if (!inRun) out.upper += ' ';
        inRun = true;
        continue;
      }
      inRun = false;
      out.upper += (c >= 'a' && c <= 'z') ? static_cast<char>(c - 32) : c;
    }
    return out;
  }
  static const Regex separators(R"([._\-()\[\]]+)");
  out.upper = toUpper(separators.replaceAll(base, " "));
  return out;
}

std::optional<std::string> releaseResolution(std::string_view releaseName) {
  return ReleaseParser::parse(releaseName).resolution;
}

}  // namespace vt
