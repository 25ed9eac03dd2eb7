#include "app/core/LibraryTitle.h"

#include <charconv>
#include <cstdio>

#include "platform/JsonWriter.h"
#include "platform/Regex.h"
#include "sources/release/Resolution.h"

namespace vt {

std::string_view subtitleStateText(SubtitleState s) { return s == SubtitleState::synced ? "synced" : "auto"; }

namespace {

std::optional<SubtitleState> decodeSubtitleState(const Json& j) {
  auto text = json::optional<std::string>(j, "subtitleState");
  if (!text) return std::nullopt;
  if (*text == "auto") return SubtitleState::automatic;
  if (*text == "synced") return SubtitleState::synced;
  throw DecodeError("unknown subtitleState \"" + *text + "\"");
}

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

AltStreamVersion decodeAltStreamVersion(const Json& j) {
  AltStreamVersion a;
  a.name = json::required<std::string>(j, "name");
  a.resolveURL = json::required<std::string>(j, "resolveURL");
  a.size = json::required<int64_t>(j, "size");
  a.sizeVerified = json::optional<bool>(j, "sizeVerified");
  a.resolvedAt = json::optional<double>(j, "resolvedAt");
  return a;
}

LibraryTitle decodeLibraryTitle(const Json& j) {
  LibraryTitle t;
  t.name = json::required<std::string>(j, "name");
  t.url = json::required<std::string>(j, "url");
  t.size = json::required<int64_t>(j, "size");
  t.sizeVerified = json::optional<bool>(j, "sizeVerified");
  t.rdLink = json::optional<std::string>(j, "rdLink");
  t.resolveURL = json::optional<std::string>(j, "resolveURL");
  t.source = json::required<std::string>(j, "source");
  t.rdFilename = json::optional<std::string>(j, "rdFilename");
  t.subtitlePath = json::optional<std::string>(j, "subtitlePath");
  t.subtitleLang = json::optional<std::string>(j, "subtitleLang");
  t.subtitleLang2 = json::optional<std::string>(j, "subtitleLang2");
  t.subtitleState = decodeSubtitleState(j);
  t.resolvedAt = json::optional<double>(j, "resolvedAt");
  t.seriesImdbId = json::optional<std::string>(j, "seriesImdbId");
  t.season = json::optional<int>(j, "season");
  t.episode = json::optional<int>(j, "episode");
  if (auto it = j.find("altVersion"); it != j.end() && !it->is_null()) t.altVersion = decodeAltStreamVersion(*it);
  t.mirrorURLs = json::optional<std::vector<std::string>>(j, "mirrorURLs");
  return t;
}

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
  const char* ws = " \t\n\r\f\v";
  const auto b = s.find_first_not_of(ws);
  if (b == std::string::npos) return {};
  return s.substr(b, s.find_last_not_of(ws) - b + 1);
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

namespace {

// ASCII digits only; other digits make the number unreadable.
std::optional<int> parseInt(std::string_view s) {
  if (s.empty()) return std::nullopt;
  int v = 0;
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || p != s.data() + s.size()) return std::nullopt;
  return v;
}

}  // namespace

std::optional<std::string> imdbIdOf(std::string_view name) {
  // Cheap pre-check: most callers ask about names that do carry the tag.
  if (name.find("{imdb-tt") == std::string_view::npos) return std::nullopt;
  static const Regex pattern(R"((?<=\{imdb-)tt\d+(?=\}))");
  auto m = pattern.search(name);
  if (!m) return std::nullopt;
  return m->text();
}

std::optional<std::string> episodeKeyOf(std::string_view name) {
  auto id = imdbIdOf(name);
  if (!id) return std::nullopt;
  const auto slash = name.find_last_of('/');
  const auto last = slash == std::string_view::npos ? name : name.substr(slash + 1);
  static const Regex pattern(R"([sS](\d{2})[eE](\d{2})(?=\.[^./]+$))");
  auto m = pattern.search(last);
  if (!m) return std::nullopt;
  const auto season = parseInt(*m->group(1));
  const auto episode = parseInt(*m->group(2));
  if (!season || !episode) return std::nullopt;
  return *id + ":" + std::to_string(*season) + ":" + std::to_string(*episode);
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
  if (!parseInt(parts[1]) || !parseInt(parts[2])) return std::nullopt;
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
