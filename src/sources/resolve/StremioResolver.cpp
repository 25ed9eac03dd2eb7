#include "sources/resolve/StremioResolver.h"

#include <algorithm>
#include <map>

#include "platform/Crypto.h"
#include "platform/Endpoints.h"
#include "platform/Http.h"
#include "platform/Json.h"
#include "platform/Log.h"
#include "platform/Regex.h"
#include "platform/Text.h"
#include "platform/Url.h"
#include "sources/providers/ProviderRegistry.h"
#include "sources/ranking/LanguageTag.h"
#include "sources/rd/RDClient.h"
#include "sources/release/UnrecognizedReleaseWords.h"
#include "sources/resolve/SeriesSkeletonCache.h"

namespace vt {

std::string message(const ResolveError& error) {
  using K = ResolveError::Kind;
  switch (error.kind) {
    case K::notReleasedYet:
      return "This title hasn't been released yet";
    case K::badLink:
      return "Couldn't find a Stremio title id in that link";
    case K::episodeRequired:
      return "Pick an episode — that link points at the whole show";
    case K::noMeta:
      return "Cinemeta has no record for that title — try a different movie";
    case K::noPlayableStream:
      return "No playable source found for that title";
    case K::metaNetworkError:
      return "Couldn't reach Cinemeta — check your internet connection and try again";
    case K::catalogUnavailable:
      return "The stream catalog is busy — trying again shortly";
    case K::cdnUnavailable:
      return "The stream host isn't serving this right now — trying again shortly";
    case K::stillDownloading:
      return "Real-Debrid is downloading this release. Try it again in a few minutes.";
    case K::onlyRecordings:
      return "Only camera recordings so far. Turn on \"Allow camera recordings\" in Settings → Quality to see them.";
    case K::cancelled:
      return "The resolve was cancelled";
  }
  return "No playable source found for that title";
}

SeriesSkeletonCache& ResolverServices::skeletonCache() const {
  return skeletons ? *skeletons : SeriesSkeletonCache::shared();
}

ResolverServices ResolverServices::standard(HttpClient& http, ResolveCache& cache, ProviderHealth& health,
                                            StreamProviderRegistry& registry, UnrecognizedReleaseWords* releaseWords) {
  const auto& e = endpoints();
  QUrl cinemeta(QString::fromStdString(e.cinemeta + "/"));
  return {http,
          cache,
          health,
          registry,
          releaseWords,
          cinemeta,
          RDClient::defaultBase(),
          e.cometHost,
          e.cometPlaceholderHost,
          e.slateHost};
}

namespace {

using Kind = ResolveError::Kind;
Failure<ResolveError> fail(Kind kind) { return Failure{ResolveError::of(kind)}; }

std::string firstLine(std::string_view text) { return std::string(text.substr(0, text.find('\n'))); }

std::string withBlanksForLineFeeds(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  return text;
}

bool contains(std::string_view text, std::string_view needle) { return text.find(needle) != std::string_view::npos; }

std::string twoDigits(int n) { return n >= 0 && n < 10 ? "0" + std::to_string(n) : std::to_string(n); }

// A text field of an add-on row: strings only, cut at 64 KiB so that no
// later step parses a megabyte name.
std::optional<std::string> textField(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  const auto it = o.find(key);
  if (it == o.end() || !it->is_string()) return std::nullopt;
  const auto& s = it->get_ref<const std::string&>();
  return cutUtf8(s, StremioResolver::kMaxTextBytes);
}

std::optional<int64_t> integerField(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  const auto it = o.find(key);
  if (it == o.end()) return std::nullopt;
  if (it->is_number_integer()) return it->get<int64_t>();
  return std::nullopt;
}

bool isHex40(std::string_view s) {
  return s.size() == 40 &&
         std::all_of(s.begin(), s.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

std::string seconds(double s) { return formatFixed(s, 1) + "s"; }

std::string hostOf(const QUrl& url) { return url.host().isEmpty() ? "?" : url.host().toStdString(); }

// The announced body length; -1 unknown. Repeated headers that Qt joins
// ("N, N") count by their first value.
int64_t contentLength(const HttpResponse& r) {
  const auto header = r.header("Content-Length");
  if (!header) return -1;
  bool ok = false;
  const qlonglong n = header->split(',').front().trimmed().toLongLong(&ok);
  return ok && n >= 0 ? n : -1;
}

// The length a ranged answer gives: the total after the last "/" of
// Content-Range when above 0, else the body's announced length; -1 unknown.
int64_t rangedLength(const HttpResponse& r) {
  if (const auto range = r.header("Content-Range")) {
    const auto slash = range->lastIndexOf('/');
    bool ok = false;
    const qlonglong total = range->mid(slash + 1).trimmed().toLongLong(&ok);
    if (slash >= 0 && ok && total > 0) return total;
  }
  return contentLength(r);
}

// Junk that add-ons list under film names.
const std::set<std::string, std::less<>> kJunkExtensions = {"exe", "msi", "bat", "cmd",     "com", "scr", "lnk", "vbs",
                                                            "js",  "jar", "ps1", "apk",     "dmg", "pkg", "app", "zip",
                                                            "rar", "7z",  "iso", "torrent", "txt", "nfo", "url"};

std::string pathExtension(std::string_view name) {
  const auto slash = name.find_last_of('/');
  const auto base = slash == std::string_view::npos ? name : name.substr(slash + 1);
  const auto dot = base.find_last_of('.');
  if (dot == std::string_view::npos || dot == 0 || dot + 1 == base.size()) return {};
  return toLower(base.substr(dot + 1));
}

bool isRecording(const std::optional<std::string>& source) {
  return source && (*source == "CAM" || *source == "TS" || *source == "TC" || *source == "SCR");
}

bool isCachedRow(const CachedStream& row, StreamProviderKind kind) {
  const std::string name = row.name.value_or("");
  switch (kind) {
    case StreamProviderKind::torrentio:
      return contains(withBlanksForLineFeeds(name), "[RD+]");
    case StreamProviderKind::comet:
      return !contains(name, "⬇️");
    case StreamProviderKind::mediafusion:
      return !contains(name, "⏳");
  }
  return false;
}

std::string rowName(const CachedStream& row) {
  if (row.filename && !row.filename->empty()) return *row.filename;
  if (row.title) return firstLine(*row.title);
  return {};
}

// The years a name mentions: runs of exactly four digits not touching a
// letter, from 1900 to 2099.
std::vector<std::string> yearsIn(std::string_view text) {
  static const Regex years("(?<![\\p{L}0-9])((?:19|20)[0-9]{2})(?![\\p{L}0-9])");
  std::vector<std::string> out;
  for (const auto& m : years.searchAll(text)) out.push_back(*m.group(1));
  return out;
}

bool yearMismatch(const std::string& name, int filmYear, const std::string& title) {
  const std::string line = toLower(firstLine(name));
  std::vector<int> left;
  for (const auto& y : yearsIn(line))
    if (!contains(title, y)) left.push_back(*parseAsciiInt(y));
  if (left.empty()) return false;
  return std::all_of(left.begin(), left.end(), [&](int y) { return std::abs(y - filmYear) > 1; });
}

std::optional<std::string> hashFromUrl(const std::string& url) {
  const QUrl parsed(QString::fromStdString(url));
  for (const auto& part : splitAny(parsed.path().toStdString(), "/"))
    if (isHex40(part)) return toLower(part);
  return std::nullopt;
}

}  // namespace

StremioResolver::StremioResolver(const ResolverServices& services, QUrl addonURL, bool allowTS)
    : services_(services), addonURL_(std::move(addonURL)), allowTS_(allowTS) {}

std::optional<std::string> StremioResolver::addonKey() const { return rdKey(addonURL_); }

std::optional<std::pair<std::string, std::string>> StremioResolver::parseLink(std::string_view text) {
  static const Regex detail("detail/(movie|series)/([^/\\s#?]+)");
  static const Regex episode("tt[0-9]{6,}:[0-9]+:[0-9]+");
  static const Regex film("tt[0-9]{6,}");
  const QByteArray raw(text.data(), static_cast<qsizetype>(text.size()));
  const std::string plain = QByteArray::fromPercentEncoding(raw).toStdString();
  if (const auto m = detail.search(plain)) {
    const auto pieces = splitAny(m->text(), "/");
    if (pieces.size() >= 3) return std::make_pair(pieces[1], pieces[2]);
  }
  if (const auto m = episode.search(plain)) return std::make_pair(std::string("series"), m->text());
  if (const auto m = film.search(plain)) return std::make_pair(std::string("movie"), m->text());
  return std::nullopt;
}

std::optional<int> StremioResolver::runtimeMinutes(std::string_view text) {
  // The digits right before "h" are hours, those right before "m" minutes.
  static const Regex hours("([0-9]+)\\s*h");
  static const Regex minutes("([0-9]+)\\s*m");
  int64_t total = 0;
  if (const auto m = hours.search(text))
    total += std::min<int64_t>(parseAsciiInt(*m->group(1)).value_or(0), 10000) * 60;
  if (const auto m = minutes.search(text)) total += std::min<int64_t>(parseAsciiInt(*m->group(1)).value_or(0), 100000);
  if (total < 1) return std::nullopt;
  return static_cast<int>(total);
}

std::optional<std::string> StremioResolver::originalLanguage(const std::optional<std::string>& country) {
  static const std::map<std::string, std::string, std::less<>> kTable = {
      {"South Korea", "KOR"}, {"Korea", "KOR"},          {"Japan", "JPN"},     {"France", "FRE"},   {"Italy", "ITA"},
      {"Spain", "SPA"},       {"Mexico", "SPA"},         {"Argentina", "SPA"}, {"Colombia", "SPA"}, {"Chile", "SPA"},
      {"Germany", "GER"},     {"Austria", "GER"},        {"Brazil", "POR"},    {"Portugal", "POR"}, {"Russia", "RUS"},
      {"Poland", "POL"},      {"Czech Republic", "CZE"}, {"Czechia", "CZE"},   {"Hungary", "HUN"},  {"Turkey", "TUR"},
      {"Türkiye", "TUR"},     {"Denmark", "DAN"},        {"Ukraine", "UKR"},   {"India", "HIN"}};
  if (!country || contains(*country, ",")) return std::nullopt;
  const auto it = kTable.find(trimmedView(*country));
  if (it == kTable.end()) return std::nullopt;
  return it->second;
}

QCoro::Task<Result<StremioResolver::MetaInfo, ResolveError>> StremioResolver::metaInfo(std::string type, std::string id,
                                                                                       CancelToken token) {
  auto record = co_await fetchMeta(services_.http, services_.cinemeta, std::move(type), std::move(id), token);
  if (!record) co_return Failure{record.error()};
  const Json& meta = *record;
  MetaInfo info;
  info.title = *textField(meta, "name");
  info.year = textField(meta, "year").value_or(textField(meta, "releaseInfo").value_or(""));
  info.released = textField(meta, "released");
  if (const auto runtime = textField(meta, "runtime")) info.runtimeMinutes = runtimeMinutes(*runtime);
  info.country = textField(meta, "country");
  co_return info;
}

QCoro::Task<Result<Json, ResolveError>> StremioResolver::fetchMeta(HttpClient& http, QUrl cinemeta, std::string type,
                                                                   std::string id, CancelToken token) {
  const QUrl url = cinemeta.resolved(QUrl(QString::fromStdString("meta/" + type + "/" + id + ".json")));
  HttpResponse response;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (attempt == 1) {
      const bool slept = co_await http.clock().sleep(kMetaRetryPause, token);
      if (!slept) co_return fail(Kind::cancelled);
    }
    response = co_await http.get(url, kMetaTimeout, token);
    if (response.failure == HttpFailure::cancelled) co_return fail(Kind::cancelled);
    if (response.failure == HttpFailure::none && (response.status == 200 || response.status == 404)) break;
  }
  if (response.failure != HttpFailure::none || (response.status != 200 && response.status != 404))
    co_return fail(Kind::metaNetworkError);
  if (response.status == 404) co_return fail(Kind::noMeta);
  const auto body = response.json();
  if (!body || !body->is_object()) co_return fail(Kind::noMeta);
  const auto metaIt = body->find("meta");
  if (metaIt == body->end() || !metaIt->is_object()) co_return fail(Kind::noMeta);
  if (!textField(*metaIt, "name")) co_return fail(Kind::noMeta);
  Json meta = *metaIt;
  co_return meta;
}

std::optional<std::vector<CachedStream>> StremioResolver::decodeStreams(std::string_view body,
                                                                        std::string_view provider) {
  auto root = json::parse(body);
  // Names of any bytes: a row with broken UTF-8 costs its characters, not
  // the whole answer.
  if (!root) root = json::parse(validUtf8(body));
  if (!root || !root->is_object()) return std::nullopt;
  std::vector<CachedStream> rows;
  const auto list = root->find("streams");
  if (list == root->end() || !list->is_array()) return rows;
  const bool comet = streamProviderKindFromRaw(provider) == StreamProviderKind::comet;
  for (const auto& row : *list) {
    if (!row.is_object()) continue;
    CachedStream s;
    s.name = textField(row, "name");
    s.title = textField(row, "title");
    if (!s.title) s.title = textField(row, "description");
    s.url = textField(row, "url");
    s.provider = std::string(provider);
    if (const auto hints = row.find("behaviorHints"); hints != row.end() && hints->is_object()) {
      s.filename = textField(*hints, "filename");
      s.bytes = integerField(*hints, "videoSize");
      if (comet) {
        const std::string binge = textField(*hints, "bingeGroup").value_or("");
        const auto bar = binge.find_last_of('|');
        const std::string tail = bar == std::string::npos ? binge : binge.substr(bar + 1);
        if (isHex40(tail)) s.infoHash = toLower(tail);
      }
    }
    rows.push_back(std::move(s));
  }
  return rows;
}

bool StremioResolver::isPlayable(const CachedStream& row) const {
  if (!row.url || row.url->empty()) return false;
  switch (streamProviderKindFromRaw(row.provider.value_or(""))) {
    case StreamProviderKind::torrentio: {
      const std::string name = withBlanksForLineFeeds(row.name.value_or(""));
      return contains(name, "[RD+]") || contains(name, "[RD download]");
    }
    case StreamProviderKind::comet:
      // No placeholder host configured: nothing to compare against (an empty needle matches every link).
      return (services_.cometPlaceholderHost.empty() || !contains(*row.url, services_.cometPlaceholderHost)) &&
             row.filename && !row.filename->empty();
    case StreamProviderKind::mediafusion:
      return true;
  }
  return false;
}

QCoro::Task<StremioResolver::Asked> StremioResolver::ask(StreamProvider provider, std::string type, std::string id,
                                                         CancelToken token) {
  Clock& clock = services_.http.clock();
  const Date start = clock.now();
  const std::string name(displayName(provider.kind));
  const QUrl url = provider.streamsURL(type, id);
  HttpResponse response = co_await services_.http.get(url, streamRequestTimeLimit(provider.kind), token);
  const std::string took = seconds(clock.now() - start);
  Asked asked;
  // A cancelled request says nothing about the add-on's health.
  if (response.failure == HttpFailure::cancelled) co_return asked;
  if (response.failure != HttpFailure::none) {
    services_.health.record(provider.kind, false);
    logLine("[resolve] " + name + " " + id + ": no response after " + took);
    co_return asked;
  }
  std::optional<std::vector<CachedStream>> rows;
  if (response.status == 200)
    rows = decodeStreams(std::string_view(response.body.constData(), response.body.size()), rawValue(provider.kind));
  if (!rows) {
    services_.health.record(provider.kind, false);
    logLine("[resolve] " + name + " " + id + ": http " + std::to_string(response.status) + " after " + took);
    co_return asked;
  }
  services_.health.record(provider.kind, true);
  logLine("[resolve] " + name + " " + id + " ok: " + std::to_string(rows->size()) + " streams in " + took);
  asked.answered = true;
  asked.rows = std::move(*rows);
  co_return asked;
}

QCoro::Task<Result<std::vector<CachedStream>, ResolveError>> StremioResolver::streamPool(std::string type,
                                                                                         std::string id,
                                                                                         CancelToken token) {
  const std::string key = type + "/" + id;
  std::optional<std::vector<CachedStream>> fresh;
  if (!liveOnly_) fresh = co_await services_.cache.fresh(key);
  if (fresh) {
    logLine("[resolve] " + key + " cache-fresh " + std::to_string(fresh->size()) + " streams");
    co_return std::move(*fresh);
  }
  const auto playableOf = [this](const std::vector<CachedStream>& rows) {
    std::vector<CachedStream> out;
    for (const auto& r : rows)
      if (isPlayable(r)) out.push_back(r);
    return out;
  };

  bool allAnswered = true;
  bool anyAnswered = false;
  for (const auto& provider : providersInOrder(addonURL_, services_.registry, services_.health)) {
    Asked asked = co_await ask(provider, type, id, token);
    if (token.isCancelled()) co_return fail(Kind::cancelled);
    if (!asked.answered) {
      allAnswered = false;
      continue;
    }
    anyAnswered = true;
    auto playable = playableOf(asked.rows);
    if (!playable.empty()) {
      co_await services_.cache.store(key, playable);
      co_return playable;
    }
    logLine("[resolve] " + key + " " + std::string(displayName(provider.kind)) + ": " +
            std::to_string(asked.rows.size()) + " streams, none debrid-playable");
  }

  if (anyAnswered) {
    // Last resort: Comet without its cached-only filter shows what Real-Debrid
    // could fetch.
    const auto key_ = addonKey();
    const auto comet = key_ ? StreamProvider::comet(*key_, services_.cometHost, false) : std::nullopt;
    if (comet) {
      Asked asked = co_await ask(*comet, type, id, token);
      if (token.isCancelled()) co_return fail(Kind::cancelled);
      auto playable = playableOf(asked.rows);
      if (!playable.empty()) {
        logLine("[resolve] " + key + " nothing cached — " + std::to_string(playable.size()) +
                " uncached row(s) from Comet");
        co_await services_.cache.store(key, playable);
        co_return playable;
      }
    }
    if (allAnswered) {
      co_await services_.cache.store(key, {});
      co_return std::vector<CachedStream>{};
    }
    logLine("[resolve] " + key + " barren, but an addon never answered — not a no-source verdict");
  }

  std::optional<ResolveCache::Entry> remembered;
  if (!liveOnly_) remembered = co_await services_.cache.entry(key);
  if (remembered) {
    logLine("[resolve] " + key + " no addon answered — serving " + std::to_string(remembered->streams.size()) +
            " remembered streams");
    co_return std::move(remembered->streams);
  }
  logLine("[resolve] " + key + " no addon answered and never cached");
  co_return fail(Kind::catalogUnavailable);
}

StremioResolver::Candidates StremioResolver::candidates(const std::vector<CachedStream>& rows,
                                                        const std::optional<std::string>& year,
                                                        const std::optional<std::string>& title) const {
  Candidates out;
  if (services_.releaseWords) {
    std::vector<std::string> names;
    names.reserve(rows.size());
    for (const auto& r : rows) names.push_back(rowName(r));
    services_.releaseWords->record(names);
  }

  // H.264 releases first: they play everywhere without transcoding.
  std::vector<const CachedStream*> ordered;
  ordered.reserve(rows.size());
  for (const auto& r : rows) ordered.push_back(&r);
  std::stable_partition(ordered.begin(), ordered.end(), [](const CachedStream* r) {
    const std::string f = toLower(r->filename.value_or(""));
    return contains(f, "h264") || contains(f, "x264") || contains(f, "avc");
  });

  static const Regex sizeInTitle("💾\\s*([0-9.]+\\s*(?:TB|GB|MB))");
  static const Regex seedersInTitle("👤\\s*([0-9]+)");
  int sources = 0;
  std::vector<StreamCandidate> kept;
  for (const CachedStream* row : ordered) {
    if (!isPlayable(*row)) continue;
    const std::string name = rowName(*row);
    if (kJunkExtensions.count(pathExtension(name))) {
      ++out.fakes;
      continue;
    }
    const auto kind = streamProviderKindFromRaw(row->provider.value_or(""));
    const ReleaseInfo info = ReleaseParser::parse(name);
    if (isRecording(info.source)) {
      ++out.recordings;
      if (info.group && !info.group->empty()) out.recordingGroups.insert(toUpper(*info.group));
      if (!allowTS_) {
        if (isCachedRow(*row, kind)) out.droppedRecordings.push_back(info);
        continue;
      }
    } else if (info.source) {
      ++sources;
    }

    StreamCandidate c;
    c.id = newUuid();
    c.filename = name.empty() ? "stream" : name;
    c.url = row->url.value_or("");
    const std::string rowTitle = row->title.value_or("");
    if (row->bytes && *row->bytes >= 1)
      c.size = formatFixed(static_cast<double>(*row->bytes) / 1e9, 2) + " GB";
    else if (const auto m = sizeInTitle.search(rowTitle))
      c.size = trimmed(*m->group(1));
    c.isCached = isCachedRow(*row, kind);
    c.infoHash = row->infoHash;
    c.provider = kind;
    if (const auto m = seedersInTitle.search(rowTitle))
      if (const auto n = parseAsciiInt(*m->group(1))) c.seeders = *n;
    kept.push_back(std::move(c));
  }

  const auto filmYear = year ? parseAsciiInt(*year) : std::nullopt;
  if (filmYear) {
    const std::string titleText = title.value_or("");
    std::vector<StreamCandidate> matching;
    for (const auto& c : kept)
      if (!yearMismatch(c.filename, *filmYear, titleText)) matching.push_back(c);
    // A filter that would leave nothing is wrong about this title, not the rows.
    if (!matching.empty()) kept = std::move(matching);
  }
  out.streams = std::move(kept);
  out.earlyRelease = out.recordings >= 3 && sources * 4 <= out.recordings;
  return out;
}

std::vector<StreamCandidate> StremioResolver::Resolution::pickable() const {
  std::vector<StreamCandidate> rows;
  for (const auto& c : streams) {
    if (earlyRelease) {
      const auto group = ReleaseParser::parse(c.filename).group;
      if (group && recordingGroups.count(toUpper(*group))) continue;
    }
    rows.push_back(c);
  }
  std::vector<std::string> tags;
  std::vector<std::string> rowTags;
  for (const auto& c : rows) {
    const ReleaseInfo info = ReleaseParser::parse(firstLine(c.filename));
    rowTags.push_back(languageTag(info, originalLanguage));
    // Other films and 3D cuts don't get a say in the film's language.
    if (c.isCached && !info.notTheFilm && !info.stereo3D) tags.push_back(rowTags.back());
  }
  const auto dominant = dominantTag(tags);
  if (!dominant) return rows;
  std::vector<StreamCandidate> out;
  for (size_t i = 0; i < rows.size(); ++i)
    if (rowTags[i] == *dominant) out.push_back(rows[i]);
  return out;
}

QCoro::Task<Result<StremioResolver::Resolution, ResolveError>> StremioResolver::resolve(std::string link,
                                                                                        CancelToken token) {
  const auto parsed = parseLink(link);
  if (!parsed) co_return fail(Kind::badLink);
  const auto& [type, id] = *parsed;
  if (type == "series") {
    const auto parts = splitAny(id, ":");
    const auto season = parts.size() == 3 ? parseAsciiInt(parts[1]) : std::nullopt;
    const auto episode = parts.size() == 3 ? parseAsciiInt(parts[2]) : std::nullopt;
    if (!season || !episode) co_return fail(Kind::episodeRequired);
    auto skeleton = co_await services_.skeletonCache().skeleton(parts[0], services_.cinemeta, services_.http, token);
    if (!skeleton) {
      logLine("[resolve] series/" + parts[0] + " metadata lookup failed: " + message(skeleton.error()));
      co_return Failure{skeleton.error()};
    }
    co_return co_await resolveEpisode(parts[0], *season, *episode, std::move(*skeleton), token);
  }

  const std::string key = type + "/" + id;
  auto meta = co_await metaInfo(type, id, token);
  if (!meta) {
    logLine("[resolve] " + key + " metadata lookup failed: " + message(meta.error()));
    co_return Failure{meta.error()};
  }
  if (ReleaseParser::releaseState(meta->released, meta->year, services_.http.clock().now()) ==
      ReleaseState::unreleased) {
    logLine("[resolve] " + key + " " + meta->title + " not released yet (" + meta->released.value_or(meta->year) + ")");
    co_return Failure{ResolveError{Kind::notReleasedYet, meta->released, meta->year}};
  }
  auto rows = co_await streamPool(type, id, token);
  if (!rows) co_return Failure{rows.error()};
  Candidates found = candidates(*rows, meta->year, meta->title);
  Resolution r;
  r.title = meta->title;
  r.year = meta->year;
  r.id = id;
  r.streams = std::move(found.streams);
  r.rawStreamCount = static_cast<int>(rows->size());
  r.runtimeMinutes = meta->runtimeMinutes;
  r.recordings = found.recordings;
  r.earlyRelease = found.earlyRelease;
  r.recordingGroups = std::move(found.recordingGroups);
  r.droppedRecordings = std::move(found.droppedRecordings);
  r.fakes = found.fakes;
  r.originalLanguage = originalLanguage(meta->country);
  co_return r;
}

QCoro::Task<Result<StremioResolver::Resolution, ResolveError>> StremioResolver::resolveEpisode(std::string seriesId,
                                                                                               int season, int episode,
                                                                                               SeriesSkeleton skeleton,
                                                                                               CancelToken token) {
  if (const EpisodeMeta* e = skeleton.find(season, episode); e && e->released) {
    if (ReleaseParser::releaseState(e->released, "", services_.http.clock().now()) == ReleaseState::unreleased)
      co_return Failure{ResolveError{Kind::notReleasedYet, e->released, skeleton.year}};
  }
  const std::string id = episodeKey(seriesId, season, episode);
  auto rows = co_await streamPool("series", id, token);
  if (!rows) co_return Failure{rows.error()};
  Candidates found = candidates(*rows, std::nullopt, std::nullopt);
  Resolution r;
  r.title = skeleton.title + " - S" + twoDigits(season) + "E" + twoDigits(episode);
  r.showTitle = skeleton.title;
  r.year = skeleton.year;
  r.id = seriesId;
  r.streams = std::move(found.streams);
  r.rawStreamCount = static_cast<int>(rows->size());
  r.recordings = found.recordings;
  r.earlyRelease = found.earlyRelease;
  r.recordingGroups = std::move(found.recordingGroups);
  r.droppedRecordings = std::move(found.droppedRecordings);
  r.fakes = found.fakes;
  // As for a film, from the meta: the ranker reads a release's bit rate by
  // the running time, and an episode is not a two-hour film.
  r.runtimeMinutes = skeleton.runtimeMinutes;
  r.originalLanguage = originalLanguage(skeleton.country);
  co_return r;
}

QCoro::Task<Result<bool, ResolveError>> StremioResolver::seasonHasSource(std::string seriesId, int season, int episode,
                                                                         CancelToken token) {
  auto rows = co_await streamPool("series", episodeKey(seriesId, season, episode), token);
  if (!rows) co_return Failure{rows.error()};
  const bool any = std::any_of(rows->begin(), rows->end(), [this](const CachedStream& r) { return isPlayable(r); });
  co_return any;
}

QCoro::Task<Result<StremioResolver::Probe, ResolveError>> StremioResolver::probe(std::string url, CancelToken token) {
  const auto parsed = parseUrl(url);
  if (!parsed) co_return fail(Kind::noPlayableStream);
  logLine("[resolve] probing " + hostOf(*parsed));

  const auto placeholder = [this](const QUrl& u) {
    const std::string lower = toLower(u.toString().toStdString());
    return contains(lower, "/videos/") ||
           (!services_.slateHost.empty() && contains(lower, toLower(services_.slateHost)));
  };
  HttpResponse head = co_await services_.http.head(*parsed, kProbeTimeout, token);
  if (head.failure == HttpFailure::cancelled) co_return fail(Kind::cancelled);
  if (head.failure != HttpFailure::none) co_return fail(Kind::cdnUnavailable);
  const QUrl finalURL = head.finalUrl.isEmpty() ? *parsed : head.finalUrl;
  if (placeholder(finalURL)) {
    logLine("[resolve] probe landed on a placeholder: " + hostOf(finalURL) + " " + finalURL.fileName().toStdString());
    co_return fail(Kind::noPlayableStream);
  }

  const int status = head.status;
  if (status == 405 || status == 501) {
    HttpResponse r = co_await rangedProbe(finalURL, kRangedProbeTimeout, token);
    if (r.failure == HttpFailure::cancelled) co_return fail(Kind::cancelled);
    if (r.failure != HttpFailure::none) co_return fail(Kind::cdnUnavailable);
    const QUrl landed = r.finalUrl.isEmpty() ? finalURL : r.finalUrl;
    const int64_t length = rangedLength(r);
    if (placeholder(landed) || length <= kMinFilmBytes) co_return fail(Kind::noPlayableStream);
    co_return Probe{landed, length};
  }
  if (status == 429 || (status >= 500 && status <= 599)) co_return fail(Kind::cdnUnavailable);
  if (status < 200 || status > 399) {
    logLine("[resolve] probe got " + std::to_string(status) + " from " + hostOf(finalURL));
    co_return fail(Kind::cdnUnavailable);
  }

  int64_t length = contentLength(head);
  if (length < 0) {
    HttpResponse r = co_await rangedProbe(finalURL, kProbeTimeout, token);
    if (r.failure == HttpFailure::cancelled) co_return fail(Kind::cancelled);
    const int64_t usable = r.failure == HttpFailure::none ? rangedLength(r) : -1;
    if (usable < 0) co_return Probe{finalURL, std::nullopt};
    length = usable;
  }
  if (length > kMinFilmBytes) co_return Probe{finalURL, length};
  logLine("[resolve] probe returned " + std::to_string(length) + " bytes — too small to be the film");
  co_return fail(Kind::noPlayableStream);
}

// A ranged read of one byte. The body is never read past a little, so a host
// that answers with the whole film costs nothing.
QCoro::Task<HttpResponse> StremioResolver::rangedProbe(QUrl url, double timeout, CancelToken token) {
  HttpRequest request;
  request.url = std::move(url);
  request.range = std::make_pair(int64_t{0}, std::optional<int64_t>(0));
  request.timeoutSeconds = timeout;
  request.maxBodyBytes = 64 * 1024;
  co_return co_await services_.http.send(std::move(request), token);
}

QCoro::Task<std::optional<std::string>> StremioResolver::stableLink(QUrl finalURL, std::string filename,
                                                                    CancelToken token) {
  const auto key = addonKey();
  if (!key) co_return std::nullopt;
  RDClient rd(services_.http, *key, services_.rdBase);
  auto list = co_await rd.downloads(token);
  if (!list) co_return std::nullopt;
  // Compared as the host gave it: a decoded form would turn "%20" into a blank and never match.
  const std::string target = finalURL.toString(QUrl::FullyEncoded).toStdString();
  for (const auto& d : *list)
    if (d.download == target) co_return std::optional<std::string>(d.link);
  for (const auto& d : *list)
    if (d.filename == filename) co_return std::optional<std::string>(d.link);
  co_return std::nullopt;
}

// Straight from Real-Debrid: add the magnet, wait up to `budget` seconds for
// its link, unrestrict it. A title with only `url`, `size` and `rdLink` set.
// The first try of a candidate logs its misses and refusals and tells them
// apart (a refusal of an uncached candidate: noPlayableStream; its miss:
// stillDownloading; anything of a cached one: cdnUnavailable, so that its
// add-on link is tried); the fallback after a failed probe is quiet.
QCoro::Task<Result<LibraryTitle, ResolveError>> StremioResolver::fromDebrid(StreamCandidate candidate, std::string hash,
                                                                            double budget, DebridTry kind,
                                                                            CancelToken token) {
  const bool uncached = kind == DebridTry::uncached;
  const bool quiet = kind == DebridTry::fallback;
  RDClient rd(services_.http, addonKey().value_or(""), services_.rdBase);
  const auto refused = [&](const RDError& e) -> Result<LibraryTitle, ResolveError> {
    if (!quiet) logLine("[resolve] RD refused " + candidate.filename + ": " + message(e));
    return fail(uncached ? Kind::noPlayableStream : Kind::cdnUnavailable);
  };
  const auto miss = [&]() -> Result<LibraryTitle, ResolveError> {
    if (uncached) {
      logLine("[resolve] RD still fetching " + candidate.filename + " after " +
              std::to_string(static_cast<int>(kUncachedDebridBudget)) + "s");
      return fail(Kind::stillDownloading);
    }
    if (!quiet) logLine("[resolve] debrid-direct miss for " + candidate.filename + " — falling back to addon url");
    return fail(Kind::cdnUnavailable);
  };

  auto id = co_await rd.addMagnet(hash, token);
  if (token.isCancelled()) co_return fail(Kind::cancelled);
  if (!id) co_return id.error().isRefusal() ? refused(id.error()) : miss();
  auto link = co_await rd.pollUntilLink(*id, true, budget, token);
  if (token.isCancelled()) co_return fail(Kind::cancelled);
  if (!link) co_return link.error().isRefusal() ? refused(link.error()) : miss();
  if (!*link) co_return miss();
  auto direct = co_await rd.unrestrict(**link, token);
  if (token.isCancelled()) co_return fail(Kind::cancelled);
  if (!direct) co_return miss();
  LibraryTitle t;
  t.url = direct->download;
  t.size = direct->filesize.value_or(0);
  t.rdLink = **link;
  co_return t;
}

QCoro::Task<Result<LibraryTitle, ResolveError>> StremioResolver::materialise(StreamCandidate candidate,
                                                                             Resolution resolution, CancelToken token) {
  const ReleaseInfo info = ReleaseParser::parse(candidate.filename);
  LibraryTitle title;
  title.name = safeName(resolution.title) + " (" + resolution.year + ") {imdb-" + resolution.id + "}." +
               info.container.value_or("mkv");

  const auto key = addonKey();
  std::optional<std::string> hash = candidate.infoHash;
  if (hash && hash->empty()) hash.reset();
  if (!hash) hash = hashFromUrl(candidate.url);

  std::optional<LibraryTitle> built;
  const bool uncached = !candidate.isCached;
  if ((candidate.provider == StreamProviderKind::comet || uncached) && hash && key) {
    const double budget = uncached ? kUncachedDebridBudget : kCachedDebridBudget;
    const DebridTry kind = uncached ? DebridTry::uncached : DebridTry::cached;
    auto direct = co_await fromDebrid(candidate, *hash, budget, kind, token);
    if (direct) {
      logLine("[resolve] debrid-direct resolved " + candidate.filename + " (" + std::to_string(direct->size) +
              " bytes)");
      built = std::move(*direct);
    } else if (uncached || direct.error().kind == Kind::cancelled) {
      co_return Failure{direct.error()};
    }
    // A cached candidate goes on to its add-on link.
  }

  if (!built) {
    auto probed = co_await probe(candidate.url, token);
    if (probed) {
      LibraryTitle t;
      t.url = probed->finalURL.toString(QUrl::FullyEncoded).toStdString();
      t.size = probed->bytes.value_or(0);
      t.rdLink = co_await stableLink(probed->finalURL, candidate.filename, token);
      // The downloads list reads a cancel as "no link"; the resolve itself must still stop.
      if (token.isCancelled()) co_return fail(Kind::cancelled);
      built = std::move(t);
    } else {
      const Kind k = probed.error().kind;
      const bool retriable = k == Kind::noPlayableStream || k == Kind::metaNetworkError ||
                             k == Kind::catalogUnavailable || k == Kind::cdnUnavailable || k == Kind::stillDownloading;
      if (!retriable || !hash || !key) co_return Failure{probed.error()};
      auto direct = co_await fromDebrid(candidate, *hash, kCachedDebridBudget, DebridTry::fallback, token);
      if (!direct) co_return Failure{direct.error().kind == Kind::cancelled ? direct.error() : probed.error()};
      logLine("[resolve] addon link " + std::string(k == Kind::noPlayableStream ? "was a placeholder" : "unreachable") +
              " — took " + candidate.filename + " straight from RD");
      built = std::move(*direct);
    }
  }

  title.url = built->url;
  title.size = built->size;
  title.rdLink = built->rdLink;
  if (title.size > 0) title.sizeVerified = true;
  title.resolveURL = candidate.url;
  title.source = "stremio";
  title.rdFilename = candidate.filename;
  title.resolvedAt = services_.http.clock().now();
  co_return title;
}

QCoro::Task<Result<LibraryTitle, ResolveError>> StremioResolver::refresh(StreamCandidate candidate,
                                                                         LibraryTitle existing, Resolution resolution,
                                                                         CancelToken token) {
  auto fresh = co_await materialise(std::move(candidate), std::move(resolution), token);
  if (!fresh) co_return fresh;
  fresh->name = existing.name;
  fresh->seriesImdbId = existing.seriesImdbId;
  fresh->season = existing.season;
  fresh->episode = existing.episode;
  co_return fresh;
}

std::optional<std::vector<std::string>> StremioResolver::alternates(const StreamCandidate& winner,
                                                                    const std::vector<StreamCandidate>& pool) {
  std::vector<std::string> urls{winner.url};
  for (const auto& c : pool) {
    if (!c.isCached || c.provider == StreamProviderKind::comet || winner.filename.empty() ||
        c.filename != winner.filename)
      continue;
    if (std::find(urls.begin(), urls.end(), c.url) == urls.end()) urls.push_back(c.url);
  }
  if (urls.size() <= 1) return std::nullopt;
  if (urls.size() > kMaxMirrors) urls.resize(kMaxMirrors);
  return urls;
}

}  // namespace vt
