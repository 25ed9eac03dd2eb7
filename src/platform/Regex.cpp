#include "platform/Regex.h"

#include <unicode/locid.h>
#include <unicode/regex.h>
#include <unicode/unistr.h>
#include <unicode/utext.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <vector>

namespace vt {

namespace {

// A UTF-8 UText on the stack over the caller's bytes.
class Utf8Text {
 public:
  explicit Utf8Text(std::string_view text) {
    static const char empty = 0;
    UErrorCode status = U_ZERO_ERROR;
    utext_openUTF8(&ut_, text.empty() ? &empty : text.data(), static_cast<int64_t>(text.size()), &status);
    ok_ = U_SUCCESS(status);
  }
  ~Utf8Text() { utext_close(&ut_); }
  Utf8Text(const Utf8Text&) = delete;
  Utf8Text& operator=(const Utf8Text&) = delete;
  UText* get() { return ok_ ? &ut_ : nullptr; }

 private:
  UText ut_ = UTEXT_INITIALIZER;
  bool ok_ = false;
};

// Matching is bounded so that a hostile input can't hang a caller (about
// two seconds of work).
constexpr int32_t kTimeLimitSteps = 2000;

[[noreturn]] void badPattern(const std::string& source, UErrorCode status) {
  std::fprintf(stderr, "invalid regular expression /%s/: %s\n", source.c_str(), u_errorName(status));
  std::abort();
}

}  // namespace

struct Regex::Pool {
  std::mutex mutex;
  std::vector<std::unique_ptr<icu::RegexMatcher>> idle;
};

class Regex::Lease {
 public:
  explicit Lease(const Regex& r) : regex_(r) {
    {
      std::lock_guard lock(r.pool_->mutex);
      if (!r.pool_->idle.empty()) {
        matcher_ = std::move(r.pool_->idle.back());
        r.pool_->idle.pop_back();
      }
    }
    if (!matcher_) {
      UErrorCode status = U_ZERO_ERROR;
      matcher_.reset(r.pattern_->matcher(status));
      if (U_FAILURE(status)) matcher_.reset();
      if (matcher_) {
        matcher_->setTimeLimit(kTimeLimitSteps, status);
      }
    }
  }
  ~Lease() {
    if (!matcher_) return;
    // Drop the reference to the caller's text before the matcher is pooled.
    static const icu::UnicodeString kEmpty;
    matcher_->reset(kEmpty);
    std::lock_guard lock(regex_.pool_->mutex);
    regex_.pool_->idle.push_back(std::move(matcher_));
  }
  icu::RegexMatcher* get() { return matcher_.get(); }

 private:
  const Regex& regex_;
  std::unique_ptr<icu::RegexMatcher> matcher_;
};

Regex::Regex(std::string_view pattern, unsigned flags) : source_(pattern), pool_(std::make_unique<Pool>()) {
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

// Runs `step` with a pooled matcher reset to `text`; `fallback` when the text
// or the matcher can't be had.
template <class R, class Step>
R Regex::withMatcher(std::string_view text, R fallback, Step&& step) const {
  Utf8Text ut(text);
  Lease lease(*this);
  auto* m = lease.get();
  if (!ut.get() || !m) return fallback;
  m->reset(ut.get());
  return step(*m);
}

std::optional<Regex::Match> Regex::search(std::string_view text, size_t from) const {
  if (from > text.size()) return std::nullopt;
  return withMatcher<std::optional<Match>>(text, std::nullopt, [&](icu::RegexMatcher& m) -> std::optional<Match> {
    UErrorCode status = U_ZERO_ERROR;
    const bool found = from == 0 ? m.find(status) : m.find(static_cast<int64_t>(from), status);
    if (U_FAILURE(status) || !found) return std::nullopt;
    return captureMatch(m, text);
  });
}

bool Regex::contains(std::string_view text) const {
  return withMatcher<bool>(text, false, [](icu::RegexMatcher& m) {
    UErrorCode status = U_ZERO_ERROR;
    const bool found = m.find(status);
    return U_SUCCESS(status) && found;
  });
}

std::optional<Regex::Match> Regex::matchAt(std::string_view text, size_t at) const {
  if (at > text.size()) return std::nullopt;
  return withMatcher<std::optional<Match>>(text, std::nullopt, [&](icu::RegexMatcher& m) -> std::optional<Match> {
    UErrorCode status = U_ZERO_ERROR;
    const bool found = m.lookingAt(static_cast<int64_t>(at), status);
    if (U_FAILURE(status) || !found) return std::nullopt;
    return captureMatch(m, text);
  });
}

std::vector<Regex::Match> Regex::searchAll(std::string_view text) const {
  return withMatcher<std::vector<Match>>(text, {}, [&](icu::RegexMatcher& m) {
    std::vector<Match> out;
    UErrorCode status = U_ZERO_ERROR;
    while (m.find(status) && U_SUCCESS(status)) out.push_back(captureMatch(m, text));
    return out;
  });
}

bool Regex::fullMatch(std::string_view text) const {
  return withMatcher<bool>(text, false, [](icu::RegexMatcher& m) {
    UErrorCode status = U_ZERO_ERROR;
    const bool ok = m.matches(status);
    return U_SUCCESS(status) && ok;
  });
}

std::string Regex::replaceAll(std::string_view text, std::string_view replacement) const {
  auto out = tryReplaceAll(text, replacement);
  return out ? std::move(*out) : std::string(text);
}

std::optional<std::string> Regex::tryReplaceAll(std::string_view text, std::string_view replacement) const {
  UErrorCode status = U_ZERO_ERROR;
  if (text.size() > static_cast<size_t>(INT32_MAX)) return std::nullopt;
  const auto input = icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  std::unique_ptr<icu::RegexMatcher> m(pattern_->matcher(input, status));
  if (U_FAILURE(status)) return std::nullopt;
  m->setTimeLimit(kTimeLimitSteps, status);
  if (U_FAILURE(status)) return std::nullopt;
  const auto rep =
      icu::UnicodeString::fromUTF8(icu::StringPiece(replacement.data(), static_cast<int32_t>(replacement.size())));
  // Found match by match: replaceAll would hide a time-out behind a
  // half-replaced text.
  icu::UnicodeString result;
  while (m->find(status)) {
    m->appendReplacement(result, rep, status);
    if (U_FAILURE(status)) return std::nullopt;
  }
  if (U_FAILURE(status)) return std::nullopt;
  m->appendTail(result);
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
