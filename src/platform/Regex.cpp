#include "platform/Regex.h"

#include <unicode/locid.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <cstdio>
#include <cstdlib>

namespace vt {

namespace {

struct UTextCloser {
  void operator()(UText* t) const { utext_close(t); }
};
using UTextPtr = std::unique_ptr<UText, UTextCloser>;

UTextPtr openUtf8(std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  // ICU takes a length of int64; an empty view may have a null pointer.
  static const char empty = 0;
  UText* t = utext_openUTF8(nullptr, text.empty() ? &empty : text.data(), static_cast<int64_t>(text.size()), &status);
  if (U_FAILURE(status)) return nullptr;
  return UTextPtr(t);
}

[[noreturn]] void badPattern(const std::string& source, UErrorCode status) {
  std::fprintf(stderr, "invalid regular expression /%s/: %s\n", source.c_str(), u_errorName(status));
  std::abort();
}

}  // namespace

Regex::Regex(std::string_view pattern, unsigned flags) : source_(pattern) {
  uint32_t icuFlags = 0;
  if (flags & caseInsensitive) icuFlags |= UREGEX_CASE_INSENSITIVE;
  if (flags & multiline) icuFlags |= UREGEX_MULTILINE;
  if (flags & dotAll) icuFlags |= UREGEX_DOTALL;
  UErrorCode status = U_ZERO_ERROR;
  UParseError parseError;
  pattern_.reset(icu::RegexPattern::compile(icu::UnicodeString::fromUTF8(source_), icuFlags, parseError, status));
  if (U_FAILURE(status) || !pattern_) badPattern(source_, status);
}

Regex::~Regex() = default;
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;

std::optional<std::string> Regex::Match::group(size_t i) const {
  if (i >= spans.size() || !spans[i]) return std::nullopt;
  return std::string(input.substr(spans[i]->first, spans[i]->second - spans[i]->first));
}

namespace {

Regex::Match captureMatch(icu::RegexMatcher& m, std::string_view text) {
  UErrorCode status = U_ZERO_ERROR;
  Regex::Match match;
  match.input = text;
  const int32_t groups = m.groupCount();
  match.spans.resize(static_cast<size_t>(groups) + 1);
  for (int32_t g = 0; g <= groups; ++g) {
    const int64_t b = m.start64(g, status);
    const int64_t e = m.end64(g, status);
    if (U_SUCCESS(status) && b >= 0 && e >= b) match.spans[g] = std::make_pair(size_t(b), size_t(e));
    status = U_ZERO_ERROR;
  }
  return match;
}

}  // namespace

std::optional<Regex::Match> Regex::search(std::string_view text, size_t from) const {
  if (from > text.size()) return std::nullopt;
  auto ut = openUtf8(text);
  if (!ut) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> m(pattern_->matcher(status));
  if (U_FAILURE(status)) return std::nullopt;
  m->reset(ut.get());
  // Matching is bounded so that a hostile input can't hang a caller.
  m->setTimeLimit(2000, status);
  status = U_ZERO_ERROR;
  const bool found = from == 0 ? m->find(status) : m->find(static_cast<int64_t>(from), status);
  if (U_FAILURE(status) || !found) return std::nullopt;
  return captureMatch(*m, text);
}

std::vector<Regex::Match> Regex::searchAll(std::string_view text) const {
  std::vector<Match> out;
  auto ut = openUtf8(text);
  if (!ut) return out;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> m(pattern_->matcher(status));
  if (U_FAILURE(status)) return out;
  m->reset(ut.get());
  m->setTimeLimit(2000, status);
  status = U_ZERO_ERROR;
  while (m->find(status) && U_SUCCESS(status)) out.push_back(captureMatch(*m, text));
  return out;
}

bool Regex::fullMatch(std::string_view text) const {
  auto ut = openUtf8(text);
  if (!ut) return false;
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::RegexMatcher> m(pattern_->matcher(status));
  if (U_FAILURE(status)) return false;
  m->reset(ut.get());
  m->setTimeLimit(2000, status);
  status = U_ZERO_ERROR;
  const bool ok = m->matches(status);
  return U_SUCCESS(status) && ok;
}

std::string Regex::replaceAll(std::string_view text, std::string_view replacement) const {
  UErrorCode status = U_ZERO_ERROR;
  const auto input = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  std::unique_ptr<icu::RegexMatcher> m(pattern_->matcher(input, status));
  if (U_FAILURE(status)) return std::string(text);
  m->setTimeLimit(2000, status);
  status = U_ZERO_ERROR;
  const auto rep =
      icu::UnicodeString::fromUTF8(icu::StringPiece(replacement.data(), static_cast<int32_t>(replacement.size())));
  const auto result = m->replaceAll(rep, status);
  if (U_FAILURE(status)) return std::string(text);
  std::string out;
  result.toUTF8String(out);
  return out;
}

std::string toUpper(std::string_view text) {
  auto s = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  s.toUpper(icu::Locale::getRoot());
  std::string out;
  s.toUTF8String(out);
  return out;
}

std::string toLower(std::string_view text) {
  auto s = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  s.toLower(icu::Locale::getRoot());
  std::string out;
  s.toUTF8String(out);
  return out;
}

}  // namespace vt
