#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sources/release/ReleaseParser.h"

namespace vt {

// The language a release is in, as far as choosing between releases goes:
// "" for the film's own language or an English or multi-language release,
// "RUS" for an unlabelled Cyrillic name, "DUB" for an unlabelled dub, else the
// labels joined with "+". `originalLanguage` is the film's own label, if known.
std::string languageTag(const ReleaseInfo& info, const std::optional<std::string>& originalLanguage);

// The tag most cached releases carry; a tie for the top goes to "". None
// when no tag was given.
std::optional<std::string> dominantTag(const std::vector<std::string>& tags);

}  // namespace vt
