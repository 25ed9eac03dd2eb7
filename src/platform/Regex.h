#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <unicode/uversion.h>

U_NAMESPACE_BEGIN
class RegexPattern;
class RegexMatcher;
U_NAMESPACE_END

namespace vt {

// One ICU regular expression, compiled once and used on UTF-8 text. Offsets
// are byte offsets into the UTF-8 input. Invalid UTF-8 is read as U+FFFD and
// never throws. A pattern that does not compile is a programming error and
// aborts with the pattern in the message. Safe to share between threads.
class Regex {
 public:
  enum Flags : unsigned { none = 0, caseInsensitive = 1u << 0, multiline = 1u << 1, dotAll = 1u << 2 };

  explicit Regex(std::string_view pattern, unsigned flags = none);
  ~Regex();
  Regex(Regex&&) noexcept;
  Regex& operator=(Regex&&) noexcept;

  struct Match {
    // Byte ranges [begin, end) per group; group 0 is the whole match. A group
    // that did not take part is none.
    std::vector<std::optional<std::pair<size_t, size_t>>> spans;
    std::string_view input;

    std::optional<std::string> group(size_t i) const;
    size_t begin() const { return spans[0]->first; }
    size_t end() const { return spans[0]->second; }
    std::string text() const { return *group(0); }
  };

  // Whether the pattern matches anywhere (no groups are collected).
  bool contains(std::string_view text) const;
  bool matches(std::string_view text) const { return contains(text); }
  // The first match at or after byte offset `from`.
  std::optional<Match> search(std::string_view text, size_t from = 0) const;
  std::vector<Match> searchAll(std::string_view text) const;
  // A match that starts exactly at byte offset `at` (look-behind still sees
  // the text before it).
  std::optional<Match> matchAt(std::string_view text, size_t at) const;
  // Replaces every match; the template may use $0..$9 and \$ as in ICU.
  // When the pattern engine fails (its time limit, say) the text comes back
  // unchanged; tryReplaceAll says so instead.
  std::string replaceAll(std::string_view text, std::string_view replacement) const;
  std::optional<std::string> tryReplaceAll(std::string_view text, std::string_view replacement) const;
  // True when the whole text matches.
  bool fullMatch(std::string_view text) const;

  const std::string& pattern() const { return source_; }

 private:
  // A matcher borrowed from the pool for one search, returned afterwards, so
  // that a search allocates nothing in the common case.
  class Lease;
  struct Pool;
  template <class R, class Step>
  R withMatcher(std::string_view text, R fallback, Step&& step) const;

  std::string source_;
  std::unique_ptr<icu::RegexPattern> pattern_;
  std::unique_ptr<Pool> pool_;
};

// Upper-cases with full Unicode rules in the root locale ("ß" becomes "SS",
// no Turkish dotted I).
std::string toUpper(std::string_view text);
std::string toLower(std::string_view text);

}  // namespace vt
