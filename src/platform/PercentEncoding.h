#pragma once

#include <string>
#include <string_view>

namespace vt {

// Percent-encoding of UTF-8 text with one of two sets of characters left as
// they are, whatever the process's locale; every other byte becomes "%XX".
enum class PlainSet {
  ascii,    // ASCII letters and digits and "-._~"
  unicode,  // Unicode letters and digits (whole code points) and "-._~"
};
std::string percentEncode(std::string_view text, PlainSet plain);

}  // namespace vt
