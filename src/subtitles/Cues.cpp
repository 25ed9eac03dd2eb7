#include "subtitles/Cues.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "platform/Regex.h"
#include "platform/Text.h"

namespace vt {

namespace {

const Regex& blockBreak() {
  static const Regex r("\\n\\s*\\n");
  return r;
}

// The first blank-line break at or after `from`, as a byte range. A break
// starts with a line feed followed by white space, so only such line feeds
// are handed to the pattern; a line feed followed by a visible ASCII
// character (nearly all of them) can't start one.
std::optional<std::pair<size_t, size_t>> nextBlockBreak(std::string_view text, size_t from) {
  for (size_t at = text.find('\n', from); at != std::string_view::npos; at = text.find('\n', at + 1)) {
    if (at + 1 >= text.size()) return std::nullopt;
    const auto next = static_cast<unsigned char>(text[at + 1]);
    if (next > 0x20 && next < 0x7F) continue;
    if (const auto m = blockBreak().matchAt(text, at)) return std::make_pair(m->begin(), m->end());
  }
  return std::nullopt;
}

const Regex& timeLine() {
  static const Regex r(
      "(\\d{1,6}):(\\d{2}):(\\d{2})[,.](\\d{1,3})\\s*-->\\s*(\\d{1,6}):(\\d{2}):(\\d{2})[,.](\\d{1,3})");
  return r;
}

const Regex& soundEffect() {
  static const Regex r("^\\s*[\\[\\(].*[\\]\\)]\\s*$|^\\s*[A-Z][A-Z '\\-]{2,}:");
  return r;
}

// Digits of a time field; only ASCII digits count, so a field written in
// another script's digits leaves the time unreadable.
std::optional<int64_t> asciiNumber(std::string_view digits) {
  int64_t value = 0;
  for (const char c : digits) {
    if (c < '0' || c > '9') return std::nullopt;
    value = value * 10 + (c - '0');
  }
  return value;
}

std::optional<int64_t> timeOf(const Regex::Match& m, size_t first) {
  int64_t fields[4];
  for (size_t i = 0; i < 4; ++i) {
    const auto& span = m.spans[first + i];
    if (!span) return std::nullopt;
    auto digits = m.input.substr(span->first, span->second - span->first);
    std::string padded;
    if (i == 3 && digits.size() < 3) {  // ",5" is 500 ms
      padded = std::string(digits) + std::string(3 - digits.size(), '0');
      digits = padded;
    }
    const auto value = asciiNumber(digits);
    if (!value) return std::nullopt;
    fields[i] = *value;
  }
  return ((fields[0] * 3600 + fields[1] * 60 + fields[2]) * 1000) + fields[3];
}

std::string normalisedLineEnds(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\r') {
      out.push_back(text[i]);
    } else {
      out.push_back('\n');
      if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
    }
  }
  return out;
}

// The lines after the time line that hold more than blanks and tabs, as they
// stand, joined by line feeds.
std::string cueLines(std::string_view rest) {
  rest = trimmedView(rest, "\n");
  std::string out;
  size_t start = 0;
  while (start <= rest.size()) {
    size_t end = rest.find('\n', start);
    if (end == std::string_view::npos) end = rest.size();
    const auto line = rest.substr(start, end - start);
    if (!trimmedView(line, " \t").empty()) {
      if (!out.empty()) out.push_back('\n');
      out.append(line);
    }
    start = end + 1;
  }
  return out;
}

// Deletes what the tag pattern "<[^>]+>|\{\\[^}]*\}" matches (HTML-style tags
// and ASS override blocks), scanned by hand: the pattern is quadratic on runs
// of unclosed "<" or "{\" and would give up on hostile lines with the tags
// still in them. The markers are ASCII, so bytes of UTF-8 text are scanned
// as they are.
std::string withoutMarkup(std::string text) {
  if (text.find_first_of("<{") == std::string::npos) return text;
  std::string out;
  out.reserve(text.size());
  bool closesLeft[2] = {true, true};  // whether a ">" / "}" may still come
  for (size_t i = 0; i < text.size();) {
    const char c = text[i];
    if (c == '<' && closesLeft[0]) {
      const size_t close = text.find('>', i + 1);
      if (close == std::string::npos) closesLeft[0] = false;
      if (close != std::string::npos && close > i + 1) {
        i = close + 1;
        continue;
      }
    } else if (c == '{' && i + 1 < text.size() && text[i + 1] == '\\' && closesLeft[1]) {
      const size_t close = text.find('}', i + 2);
      if (close == std::string::npos) {
        closesLeft[1] = false;
      } else {
        i = close + 1;
        continue;
      }
    }
    out.push_back(c);
    ++i;
  }
  return out;
}

void parseBlock(std::string_view block, std::vector<EngineCue>& cues) {
  auto scanned = scanTimeLine(block);
  const auto m = scanned ? std::move(*scanned) : timeLine().search(block);
  if (!m) return;
  const auto start = timeOf(*m, 1);
  const auto end = timeOf(*m, 5);
  if (!start || !end) return;
  auto text = std::string(trimmedUnicodeSpace(withoutMarkup(cueLines(block.substr(m->end())))));
  if (text.empty() || *start >= *end) return;
  cues.push_back(EngineCue{static_cast<int64_t>(cues.size()) + 1, *start, *end, std::move(text)});
}

// Lower-case substrings that mark a release group's or a site's watermark.
constexpr std::array<std::string_view, 18> kJunk = {
    "opensubtitles", "subscene",  "addic7ed",    "yify",         "yts",         "memory on smoking",
    "افلام",         "ترجمة",     "ترجم",        "字幕组",       "字幕",        "자막 제작",
    "자막제작",      "synced by", "subtitle by", "subtitles by", "hosszupuska", "vod",
};

bool watermarked(std::string_view text) {
  const auto lower = toLower(text);
  for (const auto junk : kJunk)
    if (lower.find(junk) != std::string::npos) return true;
  return false;
}

double roundedToFourPlaces(double value) { return std::round(value * 10000.0) / 10000.0; }

}  // namespace

const Regex& timeLinePattern() { return timeLine(); }

// The time line found as the pattern above finds it, without the pattern's
// per-call cost, for the common case where every character it looks at is
// ASCII: there "\d" is [0-9] and "\s" is tab to carriage return (vertical
// tab included) and blank, and each quantifier's greedy take is the only one that
// can match, so trying each start in turn gives exactly the pattern's first
// match. Outer none: a character outside ASCII was met, and the pattern
// decides; inner none: no time line.
std::optional<std::optional<Regex::Match>> scanTimeLine(std::string_view s) {
  bool unsure = false;
  const auto at = [&](size_t i) -> int {  // the byte, -1 past the end
    if (i >= s.size()) return -1;
    const auto c = static_cast<unsigned char>(s[i]);
    if (c >= 0x80) unsure = true;
    return c;
  };
  const auto digits = [&](size_t i, size_t most) {
    size_t n = 0;
    for (int c; n <= most && (c = at(i + n)) >= '0' && c <= '9';) ++n;
    return n;  // most + 1 when the run is longer than allowed
  };
  const auto blanks = [&](size_t i) {
    size_t n = 0;
    for (int c; (c = at(i + n)) == ' ' || (c >= '\t' && c <= '\r');) ++n;
    return n;
  };
  // One "H:MM:SS,mmm" at i with 1 to `hours` hour digits; the spans of its
  // four fields, and where it ends.
  using Span = std::optional<std::pair<size_t, size_t>>;
  const auto stamp = [&](size_t i, bool last, Span* fields) -> std::optional<size_t> {
    const size_t h = digits(i, 6);
    if (h == 0 || h > 6 || at(i + h) != ':') return std::nullopt;
    fields[0] = std::make_pair(i, i + h);
    size_t p = i + h + 1;
    if (digits(p, 2) != 2 || at(p + 2) != ':') return std::nullopt;
    fields[1] = std::make_pair(p, p + 2);
    p += 3;
    if (digits(p, 2) != 2) return std::nullopt;
    fields[2] = std::make_pair(p, p + 2);
    p += 2;
    if (const int c = at(p); c != ',' && c != '.') return std::nullopt;
    ++p;
    size_t ms = digits(p, 3);
    if (ms == 0 || (ms > 3 && !last)) return std::nullopt;
    ms = std::min<size_t>(ms, 3);
    fields[3] = std::make_pair(p, p + ms);
    return p + ms;
  };
  for (size_t i = 0; i < s.size(); ++i) {
    if (static_cast<unsigned char>(s[i]) >= 0x80) return std::nullopt;
    Regex::Match m;
    m.input = s;
    m.spans.resize(9);
    const auto first = stamp(i, false, &m.spans[1]);
    if (unsure) return std::nullopt;
    if (!first) continue;
    size_t p = *first + blanks(*first);
    if (at(p) != '-' || at(p + 1) != '-' || at(p + 2) != '>') {
      if (unsure) return std::nullopt;
      continue;
    }
    p += 3;
    p += blanks(p);
    const auto second = stamp(p, true, &m.spans[5]);
    if (unsure) return std::nullopt;
    if (!second) continue;
    m.spans[0] = std::make_pair(i, *second);
    return std::optional<Regex::Match>(std::move(m));
  }
  return std::optional<Regex::Match>();
}

std::vector<EngineCue> Cues::parse(std::string_view input) {
  const std::string text = normalisedLineEnds(input);
  std::vector<EngineCue> cues;
  cues.reserve(text.size() / 48);
  size_t from = 0;
  while (from <= text.size()) {
    const auto gap = nextBlockBreak(text, from);
    const size_t end = gap ? gap->first : text.size();
    parseBlock(std::string_view(text).substr(from, end - from), cues);
    if (!gap) break;
    // A break always holds two line feeds, so the search moves on.
    from = gap->second;
  }
  return cues;
}

bool Cues::isSoundEffect(std::string_view text) { return soundEffect().matchAt(text, 0).has_value(); }

bool Cues::isSpeech(const EngineCue& cue) {
  return isDialogue(cue) && cue.text.find("\u266A") == std::string::npos &&
         cue.text.find("\u266B") == std::string::npos;
}

double Cues::watermarkRate(const std::vector<EngineCue>& cues, int64_t limit) {
  const size_t taken = limit <= 0 ? 0 : std::min(cues.size(), static_cast<size_t>(limit));
  if (taken == 0) return 0.0;
  size_t count = 0;
  for (size_t i = 0; i < taken; ++i)
    if (watermarked(cues[i].text)) ++count;
  return roundedToFourPlaces(static_cast<double>(count) / static_cast<double>(taken));
}

std::optional<std::string> Cues::shapeGate(const std::vector<EngineCue>& cues, double filmSeconds) {
  if (cues.size() < kMinimumCues) return "only " + std::to_string(cues.size()) + " cues (forced track?)";
  if (filmSeconds > 0) {
    const double coverage = static_cast<double>(cues.back().endMs) / (filmSeconds * 1000.0);
    const double shown = roundedToFourPlaces(coverage);
    const bool acceptable = coverage >= kMinimumCoverage && coverage <= kMaximumCoverage;
    if (!acceptable && shown != 0.0) return "coverage " + shortestDecimal(shown) + " (partial or wrong film)";
  }
  const double rate = watermarkRate(cues, kWatermarkWindow);
  if (rate > kMaximumWatermarkRate) return "junk watermark rate " + shortestDecimal(rate);
  return std::nullopt;
}

std::string Cues::timestamp(int64_t ms) {
  if (ms < 0) ms = 0;
  char buf[48];
  std::snprintf(buf, sizeof buf, "%02lld:%02lld:%02lld,%03lld", static_cast<long long>(ms / 3600000),
                static_cast<long long>(ms / 60000 % 60), static_cast<long long>(ms / 1000 % 60),
                static_cast<long long>(ms % 1000));
  return buf;
}

std::string shortestDecimal(double value) {
  char buf[400];
  const auto [end, ec] = std::to_chars(buf, buf + sizeof buf, value, std::chars_format::fixed);
  if (ec != std::errc()) return "0.0";
  std::string out(buf, end);
  if (std::isfinite(value) && out.find('.') == std::string::npos) out += ".0";
  return out;
}

}  // namespace vt
