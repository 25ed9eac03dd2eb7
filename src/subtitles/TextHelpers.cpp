#include "subtitles/TextHelpers.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

namespace vt {

std::string_view trimmedUnicodeSpace(std::string_view text) {
  const auto* s = reinterpret_cast<const uint8_t*>(text.data());
  const int64_t length = static_cast<int64_t>(text.size());
  int64_t begin = 0;
  while (begin < length) {
    int64_t next = begin;
    UChar32 c;
    U8_NEXT(s, next, length, c);
    if (c < 0 || !u_isUWhiteSpace(c)) break;
    begin = next;
  }
  int64_t end = length;
  while (end > begin) {
    // The start of the last character: back over at most three continuation bytes.
    int64_t previous = end - 1;
    while (previous > begin && end - previous < 4 && U8_IS_TRAIL(s[previous])) --previous;
    int64_t next = previous;
    UChar32 c;
    U8_NEXT(s, next, end, c);
    if (c < 0 || next != end || !u_isUWhiteSpace(c)) break;
    end = previous;
  }
  return text.substr(static_cast<size_t>(begin), static_cast<size_t>(end - begin));
}

}  // namespace vt
