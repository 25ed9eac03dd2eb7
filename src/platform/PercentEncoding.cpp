#include "platform/PercentEncoding.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace vt {

namespace {

void escape(std::string& out, unsigned char c) {
  static constexpr char hex[] = "0123456789ABCDEF";
  out += '%';
  out += hex[c >> 4];
  out += hex[c & 15];
}

bool unreserved(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

}  // namespace

std::string percentEncode(std::string_view text, PlainSet plain) {
  std::string out;
  out.reserve(text.size() * 3);
  const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
  const int32_t length = static_cast<int32_t>(text.size());
  int32_t i = 0;
  while (i < length) {
    const int32_t start = i;
    UChar32 c = 0;
    U8_NEXT(bytes, i, length, c);
    const bool single = i - start == 1;
    const bool keep = single ? unreserved(bytes[start]) : (plain == PlainSet::unicode && c >= 0 && u_isalnum(c));
    if (keep)
      out.append(text.substr(static_cast<size_t>(start), static_cast<size_t>(i - start)));
    else
      for (int32_t k = start; k < i; ++k) escape(out, bytes[k]);
  }
  return out;
}

}  // namespace vt
