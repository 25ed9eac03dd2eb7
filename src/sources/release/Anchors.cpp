#include "sources/release/Anchors.h"

#include <algorithm>

namespace vt {

namespace {

using Set = std::optional<std::vector<std::string>>;

// Recursive descent over the pattern. Each function returns the anchor set of
// what it parsed: any match of it contains one of the strings.
class Reader {
 public:
  explicit Reader(std::string_view p) : p_(p) {}

  Set alternation() {
    std::vector<std::string> all;
    bool anyNone = false;
    while (true) {
      Set branch = sequence();
      if (!branch)
        anyNone = true;
      else
        all.insert(all.end(), branch->begin(), branch->end());
      if (i_ < p_.size() && p_[i_] == '|') {
        ++i_;
        continue;
      }
      break;
    }
    if (anyNone) return std::nullopt;
    return all;
  }

  bool ok() const { return ok_; }
  bool atEnd() const { return i_ >= p_.size(); }

 private:
  static size_t score(const Set& s) {
    if (!s || s->empty()) return 0;
    size_t m = SIZE_MAX;
    for (const auto& a : *s) m = std::min(m, a.size());
    return m;
  }

  // Skips a quantifier after an item; returns whether the item may be absent.
  bool quantifier(bool& quantified) {
    quantified = false;
    if (i_ >= p_.size()) return false;
    const char c = p_[i_];
    if (c == '?' || c == '*') {
      ++i_;
      quantified = true;
      if (i_ < p_.size() && (p_[i_] == '?' || p_[i_] == '+')) ++i_;
      return true;
    }
    if (c == '+') {
      ++i_;
      quantified = true;
      if (i_ < p_.size() && (p_[i_] == '?' || p_[i_] == '+')) ++i_;
      return false;
    }
    if (c == '{') {
      const auto close = p_.find('}', i_);
      if (close == std::string_view::npos) {
        ok_ = false;
        return true;
      }
      const bool zero = p_[i_ + 1] == '0';
      i_ = close + 1;
      quantified = true;
      if (i_ < p_.size() && (p_[i_] == '?' || p_[i_] == '+')) ++i_;
      return zero;
    }
    return false;
  }

  Set sequence() {
    Set best;  // the strongest anchor set among the mandatory items
    // The literal runs being read: several when a small class such as [0O]
    // stood in the run (each spelling is one alternative).
    std::vector<std::string> runs{std::string()};
    auto endRun = [&] {
      if (!runs.front().empty()) {
        Set s = runs;
        if (score(s) > score(best)) best = s;
      }
      runs.assign(1, std::string());
    };
    while (i_ < p_.size() && p_[i_] != '|' && p_[i_] != ')') {
      const char c = p_[i_];
      if (c == '(') {
        endRun();
        ++i_;
        bool lookaround = false;
        if (p_.substr(i_, 2) == "?:") {
          i_ += 2;
        } else if (p_.substr(i_, 2) == "?=" || p_.substr(i_, 2) == "?!") {
          i_ += 2;
          lookaround = true;
        } else if (p_.substr(i_, 3) == "?<=" || p_.substr(i_, 3) == "?<!") {
          i_ += 3;
          lookaround = true;
        } else if (i_ < p_.size() && p_[i_] == '?') {
          ok_ = false;  // a group kind the reader does not know
          return std::nullopt;
        }
        Set inner = alternation();
        if (i_ >= p_.size() || p_[i_] != ')') {
          ok_ = false;
          return std::nullopt;
        }
        ++i_;
        bool quantified;
        const bool optional = quantifier(quantified);
        if (!lookaround && !optional && score(inner) > score(best)) best = inner;
        continue;
      }
      if (c == '[') {
        // A small class of plain characters multiplies the runs; anything
        // else ends them.
        const size_t open = i_;
        ++i_;
        bool negated = false;
        if (i_ < p_.size() && p_[i_] == '^') negated = true, ++i_;
        if (i_ < p_.size() && p_[i_] == ']') ++i_;
        while (i_ < p_.size() && p_[i_] != ']') i_ += p_[i_] == '\\' ? 2 : 1;
        const std::string_view body = p_.substr(open + 1 + (negated ? 1 : 0), i_ - open - 1 - (negated ? 1 : 0));
        ++i_;
        bool quantified;
        const bool optional = quantifier(quantified);
        const bool plain =
            !negated && !body.empty() && body.size() <= 4 && body.find_first_of("\\-^[]") == std::string_view::npos;
        if (optional || !plain || runs.size() * body.size() > 16) {
          endRun();
          continue;
        }
        std::vector<std::string> grown;
        for (const auto& r : runs)
          for (char k : body) grown.push_back(r + k);
        runs = std::move(grown);
        if (quantified) endRun();
        continue;
      }
      if (c == '\\') {
        endRun();
        i_ += 2;
        bool quantified;
        quantifier(quantified);
        continue;
      }
      if (c == '.' || c == '^' || c == '$') {
        endRun();
        ++i_;
        bool quantified;
        quantifier(quantified);
        continue;
      }
      // A literal character.
      ++i_;
      bool quantified;
      const bool optional = quantifier(quantified);
      if (optional) {
        endRun();
        continue;
      }
      for (auto& r : runs) r += c;
      if (quantified) endRun();
    }
    endRun();
    return best;
  }

  std::string_view p_;
  size_t i_ = 0;
  bool ok_ = true;
};

}  // namespace

std::optional<std::vector<std::string>> requiredLiterals(std::string_view pattern) {
  Reader r(pattern);
  Set s = r.alternation();
  if (!r.ok() || !r.atEnd() || !s || s->empty()) return std::nullopt;
  for (const auto& a : *s)
    if (a.empty()) return std::nullopt;
  return s;
}

}  // namespace vt
