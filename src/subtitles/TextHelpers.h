#pragma once

#include <string_view>

#include "platform/Text.h"

namespace vt {

// `text` without Unicode white space (blanks, line ends, no-break and
// ideographic spaces...) at either end.
std::string_view trimmedUnicodeSpace(std::string_view text);

}  // namespace vt
