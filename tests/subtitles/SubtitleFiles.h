#pragma once

// Subtitle files written by the tests: SRT text and legacy-encoded bytes.
#include <unicode/ucnv.h>
#include <unicode/unistr.h>

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "subtitles/Cues.h"

namespace vt::test {

// UTF-8 text in a legacy code page, by ICU converter name; throws when the
// text has a character the page lacks, so a test can't silently use "?".
inline std::string encodedAs(const std::string& utf8, const char* converterName) {
  UErrorCode status = U_ZERO_ERROR;
  UConverter* c = ucnv_open(converterName, &status);
  if (U_FAILURE(status)) throw std::runtime_error(std::string("no converter ") + converterName);
  ucnv_setFromUCallBack(c, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
  const auto text = icu::UnicodeString::fromUTF8(utf8);
  std::string out(static_cast<size_t>(text.length()) * 4 + 8, '\0');
  const int32_t n =
      ucnv_fromUChars(c, out.data(), static_cast<int32_t>(out.size()), text.getBuffer(), text.length(), &status);
  ucnv_close(c);
  if (U_FAILURE(status)) throw std::runtime_error(std::string("not encodable in ") + converterName + ": " + utf8);
  out.resize(static_cast<size_t>(n));
  return out;
}

// One SRT block with the given times (ms) and text.
inline std::string srtBlock(int number, int64_t startMs, int64_t endMs, const std::string& text,
                            const std::string& eol = "\n") {
  std::string s = std::to_string(number) + eol + Cues::timestamp(startMs) + " --> " + Cues::timestamp(endMs) + eol;
  for (char c : text) {
    if (c == '\n')
      s += eol;
    else
      s += c;
  }
  return s + eol + eol;
}

// `count` cues of two seconds every three seconds, with the text `line(i)`.
inline std::string srtFile(int count, const std::function<std::string(int)>& line, const std::string& eol = "\n") {
  std::string s;
  for (int i = 0; i < count; ++i) s += srtBlock(i + 1, 1000 + 3000LL * i, 3000 + 3000LL * i, line(i), eol);
  return s;
}

inline std::vector<EngineCue> cuesEnding(int count, int64_t lastEndMs, const std::function<std::string(int)>& line) {
  std::vector<EngineCue> cues;
  for (int i = 0; i < count; ++i) cues.push_back({i + 1, 1000LL * i, 1000LL * i + 500, line(i)});
  if (!cues.empty()) cues.back().endMs = lastEndMs;
  return cues;
}

}  // namespace vt::test

namespace vt {
inline void PrintTo(const EngineCue& c, std::ostream* os) {
  *os << "{" << c.n << ", " << c.startMs << ", " << c.endMs << ", \"" << c.text << "\"}";
}
}  // namespace vt
