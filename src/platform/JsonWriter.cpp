#include "platform/JsonWriter.h"

#include <charconv>
#include <cmath>
#include <cstring>

namespace vt {

void JsonWriter::separate() {
  if (needComma_) out_ += ',';
  needComma_ = true;
}

void JsonWriter::open(char c) {
  separate();
  out_ += c;
  needComma_ = false;
}

void JsonWriter::close(char c) {
  out_ += c;
  needComma_ = true;
}

void JsonWriter::key(std::string_view k) {
  value(k);
  out_ += ':';
  needComma_ = false;
}

namespace {

// Length of the valid UTF-8 sequence at s[i], or 0 when it is invalid.
size_t utf8Length(std::string_view s, size_t i) {
  const auto c = static_cast<unsigned char>(s[i]);
  size_t n;
  uint32_t cp;
  if (c < 0x80) return 1;
  if ((c & 0xE0) == 0xC0) {
    n = 2;
    cp = c & 0x1F;
  } else if ((c & 0xF0) == 0xE0) {
    n = 3;
    cp = c & 0x0F;
  } else if ((c & 0xF8) == 0xF0) {
    n = 4;
    cp = c & 0x07;
  } else {
    return 0;
  }
  if (i + n > s.size()) return 0;
  for (size_t k = 1; k < n; ++k) {
    const auto cc = static_cast<unsigned char>(s[i + k]);
    if ((cc & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (cc & 0x3F);
  }
  // Overlong forms, surrogates and values past U+10FFFF are invalid.
  if ((n == 2 && cp < 0x80) || (n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10FFFF ||
      (cp >= 0xD800 && cp <= 0xDFFF))
    return 0;
  return n;
}

// True when none of the eight bytes at p needs escaping or is non-ASCII.
inline bool plainWord(const char* p) {
  uint64_t x;
  std::memcpy(&x, p, 8);
  constexpr uint64_t ones = 0x0101010101010101ULL;
  constexpr uint64_t highs = 0x8080808080808080ULL;
  auto hasZero = [](uint64_t v) { return (v - ones) & ~v & highs; };
  const uint64_t control = (x - ones * 0x20) & ~x & highs;  // a byte below 0x20
  return ((x & highs) | control | hasZero(x ^ (ones * '"')) | hasZero(x ^ (ones * '\\'))) == 0;
}

}  // namespace

void JsonWriter::value(std::string_view s) {
  separate();
  out_ += '"';
  static const char* hex = "0123456789abcdef";
  for (size_t i = 0; i < s.size();) {
    // Runs of plain ASCII go out in one piece; eight bytes are tested at once.
    size_t run = i;
    while (run + 8 <= s.size() && plainWord(s.data() + run)) run += 8;
    while (run < s.size()) {
      const auto b = static_cast<unsigned char>(s[run]);
      if (b < 0x20 || b >= 0x80 || b == '"' || b == '\\') break;
      ++run;
    }
    if (run > i) {
      out_.append(s.data() + i, run - i);
      i = run;
      continue;
    }
    const auto c = static_cast<unsigned char>(s[i]);
    if (c == '"' || c == '\\') {
      out_ += '\\';
      out_ += static_cast<char>(c);
      ++i;
    } else if (c < 0x20) {
      switch (c) {
        case '\n':
          out_ += "\\n";
          break;
        case '\r':
          out_ += "\\r";
          break;
        case '\t':
          out_ += "\\t";
          break;
        case '\b':
          out_ += "\\b";
          break;
        case '\f':
          out_ += "\\f";
          break;
        default:
          out_ += "\\u00";
          out_ += hex[c >> 4];
          out_ += hex[c & 15];
      }
      ++i;
    } else if (c < 0x80) {
      out_ += static_cast<char>(c);
      ++i;
    } else {
      const size_t n = utf8Length(s, i);
      if (n == 0) {
        out_ += "\xEF\xBF\xBD";
        ++i;
      } else {
        out_.append(s.substr(i, n));
        i += n;
      }
    }
  }
  out_ += '"';
}

void JsonWriter::value(int64_t n) {
  separate();
  char buf[24];
  auto [p, ec] = std::to_chars(buf, buf + sizeof buf, n);
  out_.append(buf, p);
}

void JsonWriter::value(double d) {
  separate();
  if (!std::isfinite(d)) {
    out_ += "null";  // JSON has no NaN or infinity
    return;
  }
  char buf[32];
  auto [p, ec] = std::to_chars(buf, buf + sizeof buf, d);
  out_.append(buf, p);
}

void JsonWriter::value(bool b) {
  separate();
  out_ += b ? "true" : "false";
}

void JsonWriter::null() {
  separate();
  out_ += "null";
}

}  // namespace vt
