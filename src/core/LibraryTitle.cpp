#include "core/LibraryTitle.h"

#include <cstdio>

#include "platform/JsonWriter.h"
#include "platform/Regex.h"
#include "platform/Text.h"
#include "sources/release/Resolution.h"

namespace vt {

std::string_view subtitleStateText(SubtitleState s) { return s == SubtitleState::synced ? "synced" : "auto"; }

namespace {

void writeAlt(JsonWriter& w, const AltStreamVersion& a) {
  w.beginObject();
  w.field("name", a.name);
  w.field("resolveURL", a.resolveURL);
  w.field("size", a.size);
  w.field("sizeVerified", a.sizeVerified);
  w.field("resolvedAt", a.resolvedAt);
  w.endObject();
}

}  // namespace

void writeLibraryTitle(JsonWriter& w, const LibraryTitle& t) {
  w.beginObject();
  w.field("name", t.name);
  w.field("url", t.url);
  w.field("size", t.size);
  w.field("sizeVerified", t.sizeVerified);
  w.field("rdLink", t.rdLink);
  w.field("resolveURL", t.resolveURL);
  w.field("source", t.source);
  w.field("rdFilename", t.rdFilename);
  w.field("subtitlePath", t.subtitlePath);
  w.field("subtitleLang", t.subtitleLang);
  w.field("subtitleLang2", t.subtitleLang2);
  if (t.subtitleState) w.field("subtitleState", subtitleStateText(*t.subtitleState));
  w.field("resolvedAt", t.resolvedAt);
  w.field("seriesImdbId", t.seriesImdbId);
  w.field("season", t.season);
  w.field("episode", t.episode);
  if (t.altVersion) {
    w.key("altVersion");
    writeAlt(w, *t.altVersion);
  }
  if (t.mirrorURLs) {
    w.key("mirrorURLs");
    w.beginArray();
    for (const auto& m : *t.mirrorURLs) w.value(m);
    w.endArray();
  }
  w.endObject();
}

std::string encodeLibraryTitles(const std::vector<const LibraryTitle*>& titles) {
  JsonWriter w(titles.size() * 400 + 16);
  w.beginArray();
  for (const auto* t : titles) writeLibraryTitle(w, *t);
  w.endArray();
  return w.take();
}

std::string safeName(std::string_view title) {
  std::string s;
  s.reserve(title.size() + 8);
  for (char c : title) {
    if (c == '/')
      s += '-';
    else if (c == ':')
      s += " -";
    else
      s += c;
  }
  const auto lead = s.find_first_not_of(". ");
  s.erase(0, lead == std::string::npos ? s.size() : lead);
  return trimmed(s);
}

namespace {
std::string extensionOf(std::string_view releaseFilename) {
  return normaliseReleaseName(releaseFilename).container.value_or("mkv");
}
std::string twoDigits(int n) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%02d", n);
  return buf;
}
std::string stem(std::string_view title, std::string_view year, std::string_view imdbId) {
  return safeName(title) + " (" + std::string(year) + ") {imdb-" + std::string(imdbId) + "}";
}
}  // namespace

std::string filmFileName(std::string_view title, std::string_view year, std::string_view imdbId,
                         std::string_view releaseFilename) {
  return stem(title, year, imdbId) + "." + extensionOf(releaseFilename);
}

std::string companionFileName(std::string_view title, std::string_view year, std::string_view imdbId,
                              std::string_view companionReleaseFilename) {
  return stem(title, year, imdbId) + " - 1080p." + extensionOf(companionReleaseFilename);
}

std::string episodeFileName(std::string_view seriesTitle, std::string_view year, std::string_view imdbId, int season,
                            int episode) {
  return stem(seriesTitle, year, imdbId) + "/Season " + twoDigits(season) + "/" + safeName(seriesTitle) + " (" +
         std::string(year) + ") - s" + twoDigits(season) + "e" + twoDigits(episode) + ".mkv";
}

// The IMDb tag pattern. Names are read on every load and upsert, so the
// common all-ASCII case is decided by a scan that gives exactly what the
// pattern gives; the pattern itself runs only where the scan meets other
// characters (a digit of another script, say). Tests hold both to agreement.
static constexpr const char* kImdbTagPattern = R"((?<=\{imdb-)tt\d+(?=\}))";

std::optional<std::string> imdbIdOf(std::string_view name) {
  // The look-behind means a match can only start right after a "{imdb-".
  static constexpr std::string_view kTag = "{imdb-";
  for (size_t pos = name.find(kTag); pos != std::string_view::npos; pos = name.find(kTag, pos + 1)) {
    const size_t start = pos + kTag.size();
    size_t i = start;
    if (name.substr(i, 2) != "tt") continue;
    i += 2;
    while (i < name.size() && name[i] >= '0' && name[i] <= '9') ++i;
    if (i < name.size() && static_cast<unsigned char>(name[i]) >= 0x80) {
      static const Regex pattern(kImdbTagPattern);
      if (auto m = pattern.matchAt(name, start)) return m->text();
      continue;
    }
    if (i > start + 2 && i < name.size() && name[i] == '}') return std::string(name.substr(start, i - start));
  }
  return std::nullopt;
}

namespace {

// The episode marker "[sS](\d{2})[eE](\d{2})(?=\.[^./]+$)" on the last path
// component: its look-ahead pins the marker to the six characters before the
// last dot, and only ASCII digits make a readable number, so checking those
// bytes is the whole test.
std::optional<std::string> episodeKeyFor(std::string_view name, const std::string& imdbId) {
  const auto slash = name.find_last_of('/');
  const auto last = slash == std::string_view::npos ? name : name.substr(slash + 1);
  const auto dot = last.find_last_of('.');
  if (dot == std::string_view::npos || dot < 6 || dot + 1 >= last.size()) return std::nullopt;
  const auto m = last.substr(dot - 6, 6);
  auto digit = [](char c) { return c >= '0' && c <= '9'; };
  if ((m[0] != 's' && m[0] != 'S') || (m[3] != 'e' && m[3] != 'E') || !digit(m[1]) || !digit(m[2]) || !digit(m[4]) ||
      !digit(m[5]))
    return std::nullopt;
  const int season = (m[1] - '0') * 10 + (m[2] - '0');
  const int episode = (m[4] - '0') * 10 + (m[5] - '0');
  return imdbId + ":" + std::to_string(season) + ":" + std::to_string(episode);
}

}  // namespace

std::optional<std::string> episodeKeyOf(std::string_view name) {
  auto id = imdbIdOf(name);
  if (!id) return std::nullopt;
  return episodeKeyFor(name, *id);
}

std::optional<std::string> episodeKeyOf(std::string_view name, const std::string& imdbId) {
  return episodeKeyFor(name, imdbId);
}

std::optional<std::string> seriesIdOf(std::string_view key) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (true) {
    const auto colon = key.find(':', start);
    parts.push_back(key.substr(start, colon == std::string_view::npos ? std::string_view::npos : colon - start));
    if (colon == std::string_view::npos) break;
    start = colon + 1;
  }
  if (parts.size() != 3 || !parts[0].starts_with("tt")) return std::nullopt;
  if (!parseAsciiInt(parts[1]) || !parseAsciiInt(parts[2])) return std::nullopt;
  return std::string(parts[0]);
}

std::optional<std::string> titleIdOf(std::string_view name) {
  if (auto key = episodeKeyOf(name)) return key;
  return imdbIdOf(name);
}

bool companionIsValid(const LibraryTitle& t) {
  if (!t.altVersion) return true;
  if (t.resolveURL && *t.resolveURL == t.altVersion->resolveURL) return false;
  if (t.rdFilename) {
    const auto resolution = releaseResolution(*t.rdFilename);
    if (!resolution || *resolution != "4K") return false;
  }
  return true;
}

}  // namespace vt
