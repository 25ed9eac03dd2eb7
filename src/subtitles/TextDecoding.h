#pragma once

// The legacy code pages behind Cues::decode, one at a time.
#include <optional>
#include <string>
#include <string_view>

#include <unicode/umachine.h>

namespace vt {

// `bytes` read as the code page with this label ("cp1251", "gb18030",
// "latin-1"...) as UTF-8, or none when the page refuses a byte sequence or no
// decoder is known by that label. When `script` is given, `*scriptSeen` tells
// whether any character of the text passed it.
std::optional<std::string> decodeCodePage(std::string_view bytes, std::string_view label,
                                          bool (*script)(UChar32) = nullptr, bool* scriptSeen = nullptr);

}  // namespace vt
