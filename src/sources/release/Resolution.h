#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sources/release/ReleaseParser.h"

namespace vt {

// The resolution a release name tells ("4K", "1080p", "720p", "480p"), or
// none: the release parser's reading, through its memo.
std::optional<std::string> releaseResolution(std::string_view releaseName);

// The shared normalisation of release names: the video extension (lowercased)
// when it is a known one, and the rest of the name with runs of "._-()[]"
// turned into one blank and upper-cased.
struct NormalisedReleaseName {
  std::optional<std::string> container;
  std::string upper;
};
// The reference mode takes the ICU path even for plain ASCII names.
NormalisedReleaseName normaliseReleaseName(std::string_view name, ParseMode mode = ParseMode::fast);

}  // namespace vt
