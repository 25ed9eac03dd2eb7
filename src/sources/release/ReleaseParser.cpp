#include "sources/release/ReleaseParser.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <deque>
#include <mutex>
#include <set>
#include <unordered_map>

#include "platform/AhoCorasick.h"
#include "platform/IsoDate.h"
#include "platform/JsonWriter.h"
#include "platform/Regex.h"
#include "platform/Text.h"
#include "sources/release/Anchors.h"
#include "sources/release/Resolution.h"

namespace vt {

namespace {

bool anchorsPresent(std::string_view text, int id, const std::vector<std::string>& anchors);
bool nonAscii(std::string_view t);

// A pattern with the literals that any of its matches must contain. When the
// text holds none of them the pattern cannot match, and ICU is not asked;
// this is what makes parsing fast, since most rows of most tables find
// nothing in a given name.
struct Pattern {
  Regex re;
  std::optional<std::vector<std::string>> anchors;
  // A further necessary condition, for patterns whose literals are too common
  // to tell much (a lone "S" before digits, say).
  bool (*guard)(std::string_view) = nullptr;
  bool never = false;  // "(?!)" matches nothing
  int id = -1;         // its bit in the anchor scan, once registered

  // Set when the pattern is nothing but literal words between word
  // boundaries, "\b(?:A|B C)\b": then, on ASCII text, finding a literal with
  // a boundary on each side is the whole match.
  std::optional<std::vector<std::string>> words;

  explicit Pattern(std::string_view p) : re(p), anchors(requiredLiterals(p)), never(p == "(?!)") {
    std::string_view body = p;
    if (!body.starts_with("\\b") || !body.ends_with("\\b")) return;
    body = body.substr(2, body.size() - 4);
    if (body.starts_with("(?:") && body.ends_with(")")) body = body.substr(3, body.size() - 4);
    if (body.empty() || body.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 |") != std::string_view::npos)
      return;
    std::vector<std::string> list;
    size_t start = 0;
    for (size_t i = 0; i <= body.size(); ++i) {
      if (i == body.size() || body[i] == '|') {
        // Each literal must begin and end with a word character for the
        // neighbour test below to equal \b.
        if (i == start || body[start] == ' ' || body[i - 1] == ' ') return;
        list.emplace_back(body.substr(start, i - start));
        start = i + 1;
      }
    }
    words = std::move(list);
  }
  // In reference mode every pattern is tried as it stands, with no shortcut.
  bool possible(std::string_view t, ParseMode mode) const {
    if (mode == ParseMode::reference) return true;
    if (never) return false;
    if (anchors && !anchorsPresent(t, id, *anchors)) return false;
    return !guard || guard(t);
  }
  bool matches(std::string_view t, ParseMode mode) const {
    if (!possible(t, mode)) return false;
    if (words && mode == ParseMode::fast && !nonAscii(t)) return containsWord(t);
    return re.contains(t);
  }
  bool containsWord(std::string_view t) const {
    auto wordChar = [](char c) {
      return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    };
    for (const auto& w : *words) {
      for (size_t at = t.find(w); at != std::string_view::npos; at = t.find(w, at + 1)) {
        // The literal's own ends are word characters, so \b means the
        // neighbours are not.
        const bool left = at == 0 || !wordChar(t[at - 1]);
        const size_t end = at + w.size();
        const bool right = end == t.size() || !wordChar(t[end]);
        if (left && right) return true;
      }
    }
    return false;
  }
  std::optional<Regex::Match> search(std::string_view t, ParseMode mode) const {
    if (!possible(t, mode)) return std::nullopt;
    return re.search(t);
  }
  std::vector<Regex::Match> searchAll(std::string_view t, ParseMode mode) const {
    if (!possible(t, mode)) return {};
    return re.searchAll(t);
  }
  std::string replaceAll(std::string_view t, std::string_view with, ParseMode mode) const {
    if (!possible(t, mode)) return std::string(t);
    return re.replaceAll(t, with);
  }
};

using Row = std::pair<Pattern, const char*>;

// Guards. `\d` also takes digits of other scripts, so a text with any byte
// outside ASCII always passes; for ASCII text each guard is a condition that
// every match of its pattern meets.
bool nonAscii(std::string_view t) {
  return std::any_of(t.begin(), t.end(), [](char c) { return static_cast<unsigned char>(c) >= 0x80; });
}
bool digit(char c) { return c >= '0' && c <= '9'; }
bool letterThenDigit(std::string_view t, char letter) {
  for (size_t i = 0; i + 1 < t.size(); ++i)
    if (t[i] == letter && digit(t[i + 1])) return true;
  return false;
}
bool digitXDigit(std::string_view t) {
  for (size_t i = 1; i + 1 < t.size(); ++i)
    if (t[i] == 'X' && digit(t[i - 1]) && digit(t[i + 1])) return true;
  return false;
}
// S01E02, S01 and "SEASON 1" all need an S right before a digit, or "SEASON ".
bool seasonGuard(std::string_view t) {
  return nonAscii(t) || letterThenDigit(t, 'S') || t.find("SEASON ") != std::string_view::npos;
}
bool crossGuard(std::string_view t) { return nonAscii(t) || digitXDigit(t); }
bool completeGuard(std::string_view t) {
  return nonAscii(t) || letterThenDigit(t, 'S') || t.find("COMPLETE") != std::string_view::npos ||
         t.find("SEASON") != std::string_view::npos;
}
bool sizeGuard(std::string_view t) { return nonAscii(t) || (!t.empty() && digit(t[0])); }
// The group context's literals hold a lone "S" (for S\d{1,2}E?\d*), which
// most names contain; on ASCII text that alternative needs a digit after it.
bool groupContextGuard(std::string_view t);

// One pass over a text tells which patterns can match it.
using AnchorScanner = AhoCorasick<192>;

// Every pattern of the parser, compiled once. They run on upper-cased text,
// so no pattern needs a case option.
struct Patterns {
  std::vector<Row> resolution;
  Pattern dimensions{R"(\b([1-9]\d{2,3})X([1-9]\d{2,3})\b)"};
  std::vector<Row> codec;
  Pattern remux{R"(\bREMUX\b)"};
  std::vector<Row> source;
  std::vector<Row> service;
  std::vector<Row> audio;
  std::vector<Row> hdr;
  Pattern subsPhrase{
      R"(\b(?:NAPISY|NAPI TRANS|NAPI|SUBS?|SUBBED|SUBTITLES?|MULTISUB|MSUB|ESUB)(?: (?:ENG|ITA|FRE|FRA|SPA|ESP|GER|POR|POL|PL|RUS|HUN|CZE|CZ|TUR|JPN|KOR|HIN|LAT|ENGLISH|POLISH|ITALIAN|FRENCH|SPANISH))+\b)"};
  Pattern subsLanguage{
      R"(\b(?:ENGLISH|POLISH|ITALIAN|FRENCH|SPANISH|GERMAN|RUSSIAN|PORTUGUESE|HINDI) (?:SUBS?|SUBBED|SUBTITLES?)\b)"};
  Pattern tailMarker{
      R"(\b(?:(?:19|20)\d{2}|S\d{1,2}(?:E\d{1,3})?|(?:BDR|BD|BR|M)?(?:216[0O]|1[0O]8[0O]|72[0O]|48[0O])[PI]?|4K|UHD|WEB|WEB DL|WEBDL|WEBRIP|BLURAY|BLU RAY|BDRIP|BRRIP|BDREMUX|REMUX|HDTV|HDRIP|DVDRIP|CAM|CAMRIP|HDTS|TS|X26[45]|H ?26[45]|HEVC|AVC|XVID|AC3|EAC3|DDP\d*|DD|AAC|DTS|TRUEHD|ATMOS)\b)"};
  Pattern multi{R"(\bMULTI\d?\b)"};
  std::vector<Row> spelled;
  std::vector<Row> codes;  // the code table, in its order
  Pattern dual{R"(\bDUAL\b)"};
  Pattern bit10{R"(\b(?:10\s?BIT|HI10P?)\b)"};
  Pattern bit8{R"(\b8\s?BIT\b)"};
  Pattern proper{R"(\bPROPER\b)"};
  Pattern repack{R"(\bREPACK\b)"};
  Pattern extended{R"(\bEXTENDED\b)"};
  Pattern directorsCut{R"(\b(?:DIRECTORS? CUT|DC)\b)"};
  Pattern remastered{R"(\bREMASTERED\b)"};
  Pattern upscaled{R"(\b(?:UPSCALED?|AI UPSCALE|AI USCALED?|AI ENHANCED|RIFE|INTERPOLATED)\b|\b(?:72|96|120) ?FPS)"};
  Pattern notTheFilm{R"(\b(?:TRAILER(?! PARK)|TLR|FEATURETTE|FULL MOVIE|FAN ?MADE|RECAP|WATCH .* FREE)\b)"};
  Pattern stereo3D{R"(\b(?:[HF] ?SBS|SBS|H ?OU|(?:HALF|FULL) (?:SBS|OU)|FS3D|STEREO3D|3DHDTV)\b)"};
  Pattern burnedSubs{R"(\b(?:HC|HCSUBS?|HARD ?SUBS?|HARDCODED|KORSUBS?)\b)"};
  Pattern dolbyVision{R"(\b(?:DOLBY VISION|DOVI|DV)\b)"};
  Pattern hdrFallback{R"(\b(?:HDR|HDR10|HDR10P|HDR10PLUS|HDR10X265|HLG)\b)"};
  Pattern dubbed{R"(\b(?:DUBBED|DUB)\b)"};
  Pattern ukr{R"(\bUKR\b)"};
  Pattern seasonEpisode{R"(\bS(\d{1,2})E(\d{1,3})\b)"};
  Pattern crossEpisode{R"(\b(\d{1,2})X(\d{2,3})\b)"};
  Pattern seasonOnly{R"(\b(?:S|SEASON )(\d{1,2})\b)"};
  Pattern complete{R"(\b(?:COMPLETE|S\d{1,2}\s?-\s?S?\d{1,2}|SEASONS?\s+\d\s?-\s?\d)\b)"};
  Pattern bracketTag{R"([\[(]([^\[\]()]+)[\])])"};
  Pattern dashTail{R"(-([A-Za-z0-9_.]{2,20})$)"};
  Pattern groupContext{
      R"(\b(?:2160P?|1080P?|720P?|480P?|4K|UHD|BLURAY|BDRIP|BRRIP|WEB|WEBRIP|WEBDL|HDTV|DVDRIP|REMUX|X26[45]|H\.?26[45]|HEVC|AVC|XVID|DIVX|AV1|CAM|TELESYNC|HDTS|COMPLETE|S\d{1,2}E?\d*)\b)"};
  Pattern sizeWord{R"(^\d+(?:[.,]\d+)?(?:MB|GB|KBPS|BIT|CH)?$)"};
  // The scan list: what explains a word of the technical tail.
  std::vector<const Pattern*> scan;

  Patterns() {
    auto rows = [](std::initializer_list<std::pair<const char*, const char*>> list) {
      std::vector<Row> out;
      for (const auto& [p, v] : list) out.emplace_back(Pattern(p), v);
      return out;
    };
    resolution = rows({{R"(\b(?:HD|UHD)?216[0O][PI]?(?:HD|HDR|UHD)?\b)", "4K"},
                       {R"(\b(?:BDR|BD|BR|M|HD|FHD)?1[0O]8[0O][PI]?(?:HD|HDR|FHD)?\b)", "1080p"},
                       {R"(\b(?:HD)?72[0O][PI](?:HD)?\b)", "720p"},
                       {R"(\b48[0O][PI]\b)", "480p"},
                       {R"(\b(?:4K|UHD)(?:HDR)?\b)", "4K"}});
    codec = rows({{R"(\b(?:X265|H ?265|HEVC)\b)", "H.265"},
                  {R"(\b(?:X264|H ?264|AVC)\b)", "H.264"},
                  {R"(\bAV1\b)", "AV1"},
                  {R"(\bVP9\b)", "VP9"},
                  {R"(\b(?:XVID|DIVX)\b)", "XviD"}});
    source =
        rows({{R"(\b(?:WEB DL|WEBDL)\b)", "WEB-DL"},
              {R"(\b(?:BLURAY|BLU RAY|BDRIP|BRRIP)\b)", "Blu-ray"},
              {R"(\bHDTV\b)", "HDTV"},
              {R"(\b(?:(?:HD|HQ|NEW|T|HDT)?CAM(?:RIP|HD)?|CAM RIP|PREDVD|PRE DVD|PRE ?HD|HQ PRE|KINO ?RIP)\b)", "CAM"},
              {R"(\b(?:TELESYNCH?|TELE SYNCH?|HDTS|TS|HDTSCR|TSSCR|TSSCREENER)\b)", "TS"},
              {R"(\b(?:TELECINE|TELE CINE|TC|HDTC)\b)", "TC"},
              {R"(\b(?:DVDSCR|DVDSCREENER|SCREENER|HDSCR|SCR)\b)", "SCR"},
              {R"(\b(?:WEB|WEBRIP)\b)", "WEB"}});
    service = rows({{R"(\b(?:NF|NETFLIX)\b)", "Netflix"},
                    {R"(\b(?:AMZN|AMAZON)\b)", "Amazon"},
                    {R"(\bHMAX\b)", "HBO Max"},
                    {R"(\bDSNP\b)", "Disney+"},
                    {R"(\bATVP\b)", "Apple TV+"},
                    {R"(\b(?:PCOK|PEACOCK)\b)", "Peacock"},
                    {R"(\b(?:PMTP|PARAMOUNT)\b)", "Paramount+"}});
    audio = rows({{R"(\bATMOS\b)", "Atmos"},
                  {R"(\bTRUEHD\b)", "TrueHD"},
                  {R"(\bDTS HD\b)", "DTS-HD"},
                  {R"(\bDTS\b)", "DTS"},
                  {R"(\b(?:DDP\d*|EAC3)\b)", "DD+"},
                  {R"(\bAC3\b)", "AC3"},
                  {R"(\bAAC\b)", "AAC"},
                  {R"(\bFLAC\b)", "FLAC"}});
    hdr = rows({{R"(\b(?:DOLBY VISION|DOVI|DV)\b)", "Dolby Vision"}, {R"(\bHDR10\b)", "HDR10"}, {R"(\bHDR\b)", "HDR"}});
    for (const auto& [row, label] :
         std::initializer_list<std::pair<const char*, const char*>>{{"FRENCH|TRUEFRENCH", "FRE"},
                                                                    {"CASTELLANO|SPANISH", "SPA"},
                                                                    {"DAN|DANISH", "DAN"},
                                                                    {"UKRAINIAN", "UKR"},
                                                                    {"DUBLADO", "POR"},
                                                                    {"LATINO", "LAT"},
                                                                    {"CZECH", "CZE"},
                                                                    {"RUSSIAN", "RUS"},
                                                                    {"POLISH", "POL"},
                                                                    {"HUNGARIAN", "HUN"},
                                                                    {"TURKISH", "TUR"},
                                                                    {"HINDI", "HIN"},
                                                                    {"TAMIL", "TAM"},
                                                                    {"TELUGU", "TEL"},
                                                                    {"JAPANESE", "JPN"},
                                                                    {"KOREAN", "KOR"},
                                                                    {"ENGLISH", "ENG"},
                                                                    {"ITALIAN", "ITA"},
                                                                    {"GERMAN", "GER"},
                                                                    {"PORTUGUESE", "POR"}})
      spelled.emplace_back(Pattern(std::string(R"(\b(?:)") + row + R"()\b)"), label);
    codes = rows({{R"(\bITA\b)", "ITA"},
                  {R"(\bENG\b)", "ENG"},
                  {R"(\b(?:FRE|FRA|VFF|VF2|VFQ|VFI)\b)", "FRE"},
                  {R"(\b(?:SPA|ESP)\b)", "SPA"},
                  {R"(\b(?:GER|DEU)\b)", "GER"},
                  {R"(\bPOR\b)", "POR"},
                  {R"(\bLAT\b)", "LAT"},
                  {R"(\b(?:CZ|CZE)\b)", "CZE"},
                  {R"(\b\d?RUS\b)", "RUS"},
                  {R"(\bUKR\b)", "UKR"},
                  {R"((?!))", "DAN"},
                  {R"(\b(?:POL|PLDUB)\b|(?<!NAPISY )\bPL\b)", "POL"},
                  {R"(\b(?:HUN)\b)", "HUN"},
                  {R"(\b(?:TUR)\b)", "TUR"},
                  {R"(\b(?:HIN)\b)", "HIN"},
                  {R"(\b(?:TAM)\b)", "TAM"},
                  {R"(\b(?:TEL)\b)", "TEL"},
                  {R"(\b(?:JPN)\b)", "JPN"},
                  {R"(\b(?:KOR)\b)", "KOR"}});

    seasonEpisode.guard = seasonGuard;
    seasonOnly.guard = seasonGuard;
    crossEpisode.guard = crossGuard;
    dimensions.guard = crossGuard;
    complete.guard = completeGuard;
    sizeWord.guard = sizeGuard;
    groupContext.guard = groupContextGuard;

    for (const auto& r : resolution) scan.push_back(&r.first);
    scan.push_back(&dimensions);
    for (const Pattern* r : {&notTheFilm, &stereo3D, &burnedSubs, &dubbed, &ukr}) scan.push_back(r);
    for (const auto& r : codec) scan.push_back(&r.first);
    for (const auto& r : source) scan.push_back(&r.first);
    for (const auto& r : service) scan.push_back(&r.first);
    for (const auto& r : audio) scan.push_back(&r.first);
    for (const auto& r : hdr) scan.push_back(&r.first);
    scan.push_back(&multi);
    for (const auto& [r, label] : codes)
      if (std::string_view(label) != "UKR" && std::string_view(label) != "DAN") scan.push_back(&r);
    for (const Pattern* r : {&dual, &remux, &bit10, &bit8, &proper, &repack, &extended, &directorsCut, &remastered,
                             &upscaled, &seasonEpisode, &crossEpisode, &seasonOnly, &complete})
      scan.push_back(r);

    // Every pattern with anchors gets a bit; one pass over a text finds the
    // anchors of all of them at once.
    std::vector<Pattern*> all;
    for (auto* table : {&resolution, &codec, &source, &service, &audio, &hdr, &spelled, &codes})
      for (auto& row : *table) all.push_back(&row.first);
    for (Pattern* p : {&dimensions,   &remux,       &subsPhrase, &subsLanguage, &tailMarker,    &multi,
                       &dual,         &bit10,       &bit8,       &proper,       &repack,        &extended,
                       &directorsCut, &remastered,  &upscaled,   &notTheFilm,   &stereo3D,      &burnedSubs,
                       &dolbyVision,  &hdrFallback, &dubbed,     &ukr,          &seasonEpisode, &crossEpisode,
                       &seasonOnly,   &complete,    &bracketTag, &dashTail,     &groupContext,  &sizeWord})
      all.push_back(p);
    for (Pattern* p : all) {
      if (!p->anchors || next >= kMaxAnchored) continue;
      p->id = next++;
      for (const auto& a : *p->anchors) scanner.add(a, static_cast<size_t>(p->id));
    }
    scanner.build();
  }

  static constexpr int kMaxAnchored = 192;
  int next = 0;
  AnchorScanner scanner;
};

const Patterns& patterns() {
  static const Patterns p;
  return p;
}

bool groupContextGuard(std::string_view t) {
  if (nonAscii(t) || letterThenDigit(t, 'S')) return true;
  for (const auto& a : *patterns().groupContext.anchors)
    if (a != "S" && t.find(a) != std::string_view::npos) return true;
  return false;
}

// The texts of one parse are few and each is asked about many patterns, so
// the scan of the last few texts is kept, keyed by their content.
bool anchorsPresent(std::string_view text, int id, const std::vector<std::string>& anchors) {
  if (id < 0) return containsAny(text, anchors);
  struct Entry {
    std::string text;
    AnchorScanner::Hits bits;
  };
  thread_local std::array<Entry, 6> cache;
  thread_local size_t nextSlot = 0;
  thread_local bool filled[6] = {};
  for (size_t i = 0; i < cache.size(); ++i)
    if (filled[i] && cache[i].text == text) return cache[i].bits.test(static_cast<size_t>(id));
  auto& e = cache[nextSlot];
  filled[nextSlot] = true;
  nextSlot = (nextSlot + 1) % cache.size();
  e.text.assign(text);
  e.bits = patterns().scanner.scan(text);
  return e.bits.test(static_cast<size_t>(id));
}

std::optional<std::string> firstRow(const std::vector<Row>& table, std::string_view text, ParseMode mode) {
  for (const auto& [pattern, value] : table)
    if (pattern.matches(text, mode)) return std::string(value);
  return std::nullopt;
}

// A captured number: ASCII digits only, any other digit leaves it unreadable.
std::optional<int> asciiNumber(const std::optional<std::string>& s) { return s ? parseAsciiInt(*s) : std::nullopt; }

std::string withoutSubtitlePhrases(std::string text, ParseMode mode) {
  const auto& P = patterns();
  text = P.subsPhrase.replaceAll(text, " ", mode);
  return P.subsLanguage.replaceAll(text, " ", mode);
}

std::string technicalTail(const std::string& upper, ParseMode mode) {
  const auto& marker = patterns().tailMarker;
  size_t from = 0;
  if (mode == ParseMode::fast && marker.anchors) {
    // Every alternative of the marker starts at most four bytes before one of
    // its literals, so no match starts earlier than four bytes before the
    // first literal in the text: the search can begin there.
    size_t first = std::string::npos;
    const bool ascii = !nonAscii(upper);
    for (const auto& a : *marker.anchors) {
      if (a == "S" && ascii) {
        // "S" stands for S\d{1,2}: on ASCII text only an S before a digit.
        for (size_t i = 0; i + 1 < upper.size() && i < first; ++i)
          if (upper[i] == 'S' && digit(upper[i + 1])) first = i;
        continue;
      }
      first = std::min(first, upper.find(a));
    }
    if (first == std::string::npos) return upper;
    from = first > 4 ? first - 4 : 0;
  }
  auto m = marker.re.search(upper, from);
  return m ? upper.substr(m->begin()) : upper;
}

std::string_view firstLine(std::string_view name) { return name.substr(0, name.find('\n')); }

// Code points of UTF-8 text, invalid bytes read as U+FFFD.
template <class F>
void forEachCodePoint(std::string_view s, F&& f) {
  int32_t i = 0;
  const auto n = static_cast<int32_t>(s.size());
  while (i < n) {
    UChar32 c;
    U8_NEXT(s.data(), i, n, c);
    f(c < 0 ? 0xFFFD : c);
  }
}

size_t characterCount(std::string_view s) {
  size_t n = 0;
  forEachCodePoint(s, [&](UChar32) { ++n; });
  return n;
}

const std::set<std::string>& rejectList() {
  static const std::set<std::string> words = {
      "WWW",      "COM",      "ORG",      "NET",   "THE",        "BY",      "AND",         "OF",         "MKV",
      "MP4",      "AVI",      "TEAM",     "WORLD", "HD",         "FHD",     "SD",          "SDR",        "DLRIP",
      "WEBDLRIP", "HDRIP",    "DV",       "DUB",   "DUBBED",     "DUBLADO", "LEGENDADO",   "NACIONAL",   "SUB",
      "SUBS",     "ESUB",     "ESUBS",    "MSUBS", "SURROUND",   "STEREO",  "MONO",        "IPHONE",     "CLEAN",
      "HQ",       "NEW",      "FINAL",    "V2",    "V3",         "LAT",     "LATINO",      "CASTELLANO", "SAMPLE",
      "TRAILER",  "ENG",      "ENGLISH",  "RIP",   "DL",         "MULTI",   "DUAL",        "AUDIO",      "FILM",
      "MOVIE",    "COMPLETE", "EXTRAS",   "NL",    "EN",         "FR",      "DE",          "ES",         "IT",
      "PT",       "PL",       "RU",       "CZ",    "HU",         "TR",      "JP",          "KR",         "CN",
      "BR",       "CLUB",     "NNM-CLUB", "1XBET", "VEGAMOVIES", "BLUDV",   "CINECALIDAD", "TORRENT911", "BOLLY4U",
      "WOLFMAX4K"};
  return words;
}

std::optional<std::string> validateGroup(std::string_view candidate, ParseMode mode) {
  const auto& P = patterns();
  const std::string s = trimmed(candidate, " .-_[]()");
  if (s.find('.') != std::string::npos) {
    for (const auto& piece : splitAny(toUpper(s), "."))
      if (piece == "YTS" || piece == "YIFY") return std::string("YTS");
    return std::nullopt;
  }
  const std::string r = trimmed(candidate, " .-[]()");
  if (!r.empty() && r[0] == '_') return std::nullopt;
  if (characterCount(r) == 11) {
    bool upper = false, lower = false, digit = false;
    forEachCodePoint(r, [&](UChar32 c) {
      upper = upper || u_isupper(c);
      lower = lower || u_islower(c);
      digit = digit || u_isdigit(c);
    });
    if (upper && lower && digit) return std::nullopt;  // a video identifier
  }
  const size_t length = characterCount(s);
  bool letter = false;
  forEachCodePoint(s, [&](UChar32 c) { letter = letter || u_isalpha(c); });
  if (length < 2 || length > 20 || !letter) return std::nullopt;
  const std::string upperS = toUpper(s);
  if (rejectList().count(upperS)) return std::nullopt;
  for (const Pattern* r : P.scan)
    if (r->matches(upperS, mode)) return std::nullopt;
  for (const auto& [r, label] : P.spelled)
    if (r.matches(upperS, mode)) return std::nullopt;
  if (P.groupContext.matches(upperS, mode) || P.sizeWord.matches(upperS, mode)) return std::nullopt;
  return s;
}

bool isHex8(std::string_view w) {
  return w.size() == 8 &&
         std::all_of(w.begin(), w.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

const std::set<std::string>& domainEndings() {
  static const std::set<std::string> endings = {"com",  "org",  "net", "to",   "tw",    "ro",   "lt",  "me",  "cc",
                                                "io",   "co",   "mx",  "bz",   "gg",    "am",   "ag",  "in",  "ws",
                                                "info", "club", "xyz", "site", "rocks", "land", "one", "pro", "vip",
                                                "sx",   "ru",   "pl",  "es",   "fr",    "it",   "de",  "nl"};
  return endings;
}

// The memo: whole input to result, at most 500 entries, oldest out first.
class Memo {
 public:
  std::optional<ReleaseInfo> get(std::string_view key) {
    std::lock_guard lock(mutex_);
    auto it = map_.find(std::string(key));
    if (it == map_.end()) return std::nullopt;
    ++hits_;
    return it->second;
  }
  bool holds(std::string_view key) {
    std::lock_guard lock(mutex_);
    return map_.count(std::string(key)) > 0;
  }
  size_t size() {
    std::lock_guard lock(mutex_);
    return map_.size();
  }
  uint64_t hits() {
    std::lock_guard lock(mutex_);
    return hits_;
  }
  void put(std::string key, const ReleaseInfo& info) {
    std::lock_guard lock(mutex_);
    if (map_.count(key)) return;
    order_.push_back(key);
    map_.emplace(std::move(key), info);
    while (order_.size() > kCapacity) {
      map_.erase(order_.front());
      order_.pop_front();
    }
  }
  static constexpr size_t kCapacity = 500;

 private:
  std::mutex mutex_;
  std::unordered_map<std::string, ReleaseInfo> map_;
  std::deque<std::string> order_;
  uint64_t hits_ = 0;
};

Memo& memo() {
  static Memo m;
  return m;
}

}  // namespace

std::optional<std::string> ReleaseParser::extractGroup(std::string_view base, ParseMode mode) {
  const auto& P = patterns();
  const std::string t = trimmed(base);
  if (t.empty()) return std::nullopt;

  if (t.back() == ']' || t.back() == ')') {
    auto tags = P.bracketTag.searchAll(t, mode);
    for (auto it = tags.rbegin(); it != tags.rend(); ++it) {
      const std::string tag = *it->group(1);
      const auto words = splitAny(tag, " -_");
      const std::string s = trimmed(tag);
      if ((words.size() == 2 || words.size() == 3) && characterCount(s) <= 20 && s.find('.') == std::string::npos &&
          std::all_of(words.begin(), words.end(), [mode](const std::string& w) {
            const auto u = toUpper(w);
            return u == "THE" || u == "OF" || u == "AND" || validateGroup(w, mode).has_value();
          }))
        return s;
      if (words.empty()) continue;
      auto valid = validateGroup(words.back(), mode);
      if (!valid) continue;
      if (isHex8(words.back())) continue;  // a checksum
      return valid;
    }
  }

  // "-([A-Za-z0-9_.]{2,20})$": the dash must stand right before the trailing
  // run of those characters (a dash is not one of them), so reading the run
  // from the end gives the same capture as the pattern.
  std::optional<std::string> dashTail;
  if (mode == ParseMode::reference) {
    if (auto m = P.dashTail.search(t, mode)) dashTail = m->group(1);
  } else {
    auto tailChar = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '.'; };
    size_t k = 0;
    while (k < t.size() && k <= 20 && static_cast<unsigned char>(t[t.size() - 1 - k]) < 0x80 &&
           tailChar(t[t.size() - 1 - k]))
      ++k;
    if (k >= 2 && k <= 20 && t.size() > k && t[t.size() - 1 - k] == '-') dashTail = t.substr(t.size() - k);
  }
  if (dashTail) {
    if (auto valid = validateGroup(*dashTail, mode)) return valid;
  }

  const auto tokens = splitAny(t, "_ ");
  if (tokens.empty()) return std::nullopt;
  if (!P.groupContext.matches(normaliseReleaseName(t, mode).upper, mode)) return std::nullopt;
  auto pieces = splitAny(tokens.back(), ".");
  if (pieces.size() > 1 && domainEndings().count(toLower(pieces.back()))) pieces.pop_back();
  if (pieces.empty()) return std::nullopt;
  const auto& candidate = pieces.back();
  if (P.groupContext.matches(toUpper(candidate), mode)) return std::nullopt;
  return validateGroup(candidate, mode);
}

ReleaseInfo ReleaseParser::parseUncached(std::string_view name, ParseMode mode) {
  const auto& P = patterns();
  ReleaseInfo info;
  const auto line = firstLine(name);
  const auto normalised = normaliseReleaseName(line, mode);
  info.container = normalised.container;
  const std::string& upper = normalised.upper;
  const std::string_view base = info.container ? line.substr(0, line.size() - info.container->size() - 1) : line;

  info.resolution = firstRow(P.resolution, upper, mode);
  if (!info.resolution) {
    if (auto m = P.dimensions.search(upper, mode)) {
      const auto w = asciiNumber(m->group(1));
      const auto h = asciiNumber(m->group(2));
      if (w && h) {
        if (*w >= 3200)
          info.resolution = "4K";
        else if (*w >= 1700 || *h >= 1000)
          info.resolution = "1080p";
        else if (*h >= 700 || *w >= 1180)
          info.resolution = "720p";
        else
          info.resolution = "480p";
      }
    }
  }
  info.codec = firstRow(P.codec, upper, mode);
  if (P.remux.matches(upper, mode)) {
    info.source = "REMUX";
    info.isRemux = true;
  } else {
    info.source = firstRow(P.source, upper, mode);
  }
  info.service = firstRow(P.service, upper, mode);
  info.audio = firstRow(P.audio, upper, mode);
  info.hdr = firstRow(P.hdr, upper, mode);

  const std::string noSubs = withoutSubtitlePhrases(upper, mode);
  const std::string tailNoSubs = withoutSubtitlePhrases(technicalTail(upper, mode), mode);
  if (P.multi.matches(noSubs, mode)) {
    info.languages = {"MULTI"};
  } else {
    std::set<std::string> spelled;
    for (const auto& [r, label] : P.spelled)
      if (r.matches(tailNoSubs, mode)) spelled.insert(label);
    for (const auto& [r, label] : P.codes) {
      if (std::find(info.languages.begin(), info.languages.end(), label) != info.languages.end()) continue;
      if (spelled.count(label) || r.matches(noSubs, mode)) info.languages.emplace_back(label);
    }
    if (P.dual.matches(noSubs, mode)) info.languages.insert(info.languages.begin(), "DUAL");
  }

  forEachCodePoint(base, [&](UChar32 c) { info.cyrillic = info.cyrillic || (c >= 0x0400 && c <= 0x04FF); });

  if (P.bit10.matches(upper, mode))
    info.bitDepth = 10;
  else if (P.bit8.matches(upper, mode))
    info.bitDepth = 8;

  info.proper = P.proper.matches(upper, mode);
  info.repack = P.repack.matches(upper, mode);
  info.extended = P.extended.matches(upper, mode);
  info.directorsCut = P.directorsCut.matches(upper, mode);
  info.remastered = P.remastered.matches(upper, mode);
  info.upscaled = P.upscaled.matches(upper, mode);
  info.notTheFilm = P.notTheFilm.matches(upper, mode);
  info.stereo3D = P.stereo3D.matches(upper, mode);
  info.burnedSubs = P.burnedSubs.matches(upper, mode);
  info.dolbyVisionOnly = P.dolbyVision.matches(upper, mode) && !P.hdrFallback.matches(upper, mode);
  info.dubbed = P.dubbed.matches(upper, mode);

  if (auto m = P.seasonEpisode.search(upper, mode)) {
    info.season = asciiNumber(m->group(1));
    info.episode = asciiNumber(m->group(2));
  } else if (auto x = P.crossEpisode.search(upper, mode)) {
    info.season = asciiNumber(x->group(1));
    info.episode = asciiNumber(x->group(2));
  } else if (auto s = P.seasonOnly.search(upper, mode)) {
    info.season = asciiNumber(s->group(1));
  }
  info.isComplete = P.complete.matches(upper, mode) || (info.season && !info.episode);
  info.group = extractGroup(base, mode);
  return info;
}

ReleaseParser::MemoState ReleaseParser::memoState(std::string_view name) {
  return MemoState{memo().holds(name), memo().size(), memo().hits()};
}

ReleaseInfo ReleaseParser::parse(std::string_view name) {
  if (auto hit = memo().get(name)) return *hit;
  auto info = parseUncached(name);
  memo().put(std::string(name), info);
  return info;
}

std::vector<std::string> ReleaseParser::unrecognizedWords(std::string_view name, ParseMode mode) {
  const auto& P = patterns();
  std::string text = technicalTail(normaliseReleaseName(name, mode).upper, mode);
  for (const Pattern* r : P.scan) text = r->replaceAll(text, " ", mode);
  for (const auto& [r, label] : P.spelled) text = r.replaceAll(text, " ", mode);
  // The reference reading stays off the memo, so that it owes nothing to the
  // fast path.
  const auto group = mode == ParseMode::fast ? parse(name).group : parseUncached(name, mode).group;
  const std::string upperGroup = group ? toUpper(*group) : std::string();
  static const std::set<std::string> ignored = {"WWW", "COM",  "ORG",   "NET", "THE", "BY",  "AND",
                                                "OF",  "YTS",  "MX",    "AM",  "AG",  "LT",  "GG",
                                                "BZ",  "YIFY", "RARBG", "TGX", "MKV", "MP4", "AVI"};
  std::vector<std::string> out;
  for (const auto& word : splitAny(text, " ")) {
    if (characterCount(word) < 2 || (group && word == upperGroup) || ignored.count(word)) continue;
    bool letter = false;
    forEachCodePoint(word, [&](UChar32 c) { letter = letter || u_isalpha(c); });
    if (!letter || P.sizeWord.matches(word, mode)) continue;
    out.push_back(word);
  }
  return out;
}

ReleaseState ReleaseParser::releaseState(const std::optional<std::string>& released, std::string_view year, Date now) {
  if (released) {
    if (auto date = parseIsoDate(*released)) {
      const double nowUnix = unixSecondsFromDate(now);
      const double startOfToday = std::floor(nowUnix / 86400.0) * 86400.0;
      return unixSecondsFromDate(*date) > startOfToday ? ReleaseState::unreleased : ReleaseState::released;
    }
  }
  const auto y = parseAsciiInt(year.substr(0, 4));
  if (!y || *y <= 1900) return ReleaseState::unknown;
  const time_t t = static_cast<time_t>(unixSecondsFromDate(now));
  std::tm local{};
  localtime_r(&t, &local);
  const int current = local.tm_year + 1900;
  if (*y > current) return ReleaseState::unreleased;
  if (*y < current) return ReleaseState::released;
  return ReleaseState::unknown;
}

std::string releaseInfoJson(const ReleaseInfo& i) {
  JsonWriter w;
  w.beginObject();
  w.field("resolution", i.resolution);
  w.field("codec", i.codec);
  w.field("source", i.source);
  w.field("service", i.service);
  w.field("audio", i.audio);
  w.field("hdr", i.hdr);
  w.key("languages");
  w.beginArray();
  for (const auto& l : i.languages) w.value(l);
  w.endArray();
  w.field("container", i.container);
  w.field("group", i.group);
  w.field("season", i.season);
  w.field("episode", i.episode);
  w.field("isComplete", i.isComplete);
  w.field("bitDepth", i.bitDepth);
  w.field("isRemux", i.isRemux);
  w.field("proper", i.proper);
  w.field("repack", i.repack);
  w.field("extended", i.extended);
  w.field("directorsCut", i.directorsCut);
  w.field("remastered", i.remastered);
  w.field("upscaled", i.upscaled);
  w.field("notTheFilm", i.notTheFilm);
  w.field("stereo3D", i.stereo3D);
  w.field("cyrillic", i.cyrillic);
  w.field("burnedSubs", i.burnedSubs);
  w.field("dolbyVisionOnly", i.dolbyVisionOnly);
  w.field("dubbed", i.dubbed);
  w.endObject();
  return w.take();
}

}  // namespace vt
