#pragma once

#include <string>
#include <string_view>

namespace vt {

// SHA-256 of the bytes, as 64 lowercase hexadecimal digits.
std::string sha256Hex(std::string_view bytes);
// A new random UUID, upper case, without braces, as our files hold them.
std::string newUuid();

}  // namespace vt
