#include "plex/PMSClient.h"

#include "platform/PercentEncoding.h"

#include "core/LibraryTitle.h"

#include "core/AppConfig.h"
#include "platform/Http.h"
#include "platform/Regex.h"

namespace vt {

std::string message(const PMSError& e) {
  switch (e.kind) {
    case PMSError::Kind::badStatus:
      return "PMS returned HTTP " + std::to_string(e.status);
    case PMSError::Kind::noToken:
      return "No Plex token configured";
    case PMSError::Kind::transport:
      return e.detail.empty() ? std::string("The Plex server could not be reached.") : e.detail;
    case PMSError::Kind::undecodable:
      return "The Plex server's reply could not be read.";
  }
  return e.detail;
}

std::string percentEncodeStrict(std::string_view text) { return percentEncode(text, PlainSet::unicode); }

namespace {

// Field readers of a plain decoder: an absent field (or null) is absent, a
// field of the wrong type fails the whole reply (DecodeError).
const Json* field(const Json& o, const char* key) {
  if (!o.is_object()) throw DecodeError(std::string("not an object around ") + key);
  auto it = o.find(key);
  if (it == o.end() || it->is_null()) return nullptr;
  return &*it;
}
std::optional<std::string> text(const Json& o, const char* key) {
  const Json* v = field(o, key);
  if (!v) return std::nullopt;
  if (!v->is_string()) throw DecodeError(std::string(key) + " is not text");
  return v->get<std::string>();
}
std::optional<int64_t> integer(const Json& o, const char* key) {
  const Json* v = field(o, key);
  if (!v) return std::nullopt;
  if (!v->is_number_integer()) throw DecodeError(std::string(key) + " is not an integer");
  return v->get<int64_t>();
}
std::optional<double> number(const Json& o, const char* key) {
  const Json* v = field(o, key);
  if (!v) return std::nullopt;
  if (!v->is_number()) throw DecodeError(std::string(key) + " is not a number");
  return v->get<double>();
}
std::optional<bool> boolean(const Json& o, const char* key) {
  const Json* v = field(o, key);
  if (!v) return std::nullopt;
  if (!v->is_boolean()) throw DecodeError(std::string(key) + " is not a Boolean");
  return v->get<bool>();
}
const Json& array(const Json& o, const char* key) {
  static const Json empty = Json::array();
  const Json* v = field(o, key);
  if (!v) return empty;
  if (!v->is_array()) throw DecodeError(std::string(key) + " is not a list");
  return *v;
}
const Json& object(const Json& o, const char* key) {
  static const Json empty = Json::object();
  const Json* v = field(o, key);
  if (!v) return empty;
  if (!v->is_object()) throw DecodeError(std::string(key) + " is not an object");
  return *v;
}
// The one lenient reader, for the collection rows' title and rating key:
// a wrongly typed value is absent.
std::optional<std::string> lenientText(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  auto it = o.find(key);
  if (it == o.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

// The container of a reply; none when the body is not a JSON object.
std::optional<Json> container(const QByteArray& body) {
  auto doc = json::parse(std::string_view(body.constData(), static_cast<size_t>(body.size())));
  if (!doc || !doc->is_object()) return std::nullopt;
  return object(*doc, "MediaContainer");
}

// Runs a decoder; none when the reply does not decode.
template <class F>
auto decoded(F fn) -> decltype(fn()) {
  try {
    return fn();
  } catch (const DecodeError&) {
    return std::nullopt;
  } catch (const Json::exception&) {
    return std::nullopt;
  }
}

std::vector<PlexMedia> decodeMedia(const Json& row) {
  std::vector<PlexMedia> out;
  for (const auto& m : array(row, "Media")) {
    PlexMedia media;
    media.duration = integer(m, "duration");
    for (const auto& p : array(m, "Part")) media.parts.push_back({text(p, "file")});
    out.push_back(std::move(media));
  }
  return out;
}

}  // namespace

std::optional<std::vector<PlexItem>> decodeSectionItems(const QByteArray& body) {
  return decoded([&]() -> std::optional<std::vector<PlexItem>> {
    auto mc = container(body);
    if (!mc) return std::nullopt;
    std::vector<PlexItem> items;
    for (const auto& row : array(*mc, "Metadata")) {
      PlexItem it;
      it.ratingKey = text(row, "ratingKey");
      it.title = text(row, "title");
      it.year = integer(row, "year");
      it.thumb = text(row, "thumb");
      it.grandparentRatingKey = text(row, "grandparentRatingKey");
      it.viewOffset = integer(row, "viewOffset");
      it.duration = integer(row, "duration");
      it.addedAt = integer(row, "addedAt");
      it.media = decodeMedia(row);
      items.push_back(std::move(it));
    }
    return items;
  });
}

std::optional<std::vector<PlaySession>> decodeSessions(const QByteArray& body) {
  return decoded([&]() -> std::optional<std::vector<PlaySession>> {
    auto mc = container(body);
    if (!mc) return std::nullopt;
    std::vector<PlaySession> out;
    for (const auto& row : array(*mc, "Metadata")) {
      PlaySession s;
      s.sessionKey = text(row, "sessionKey");
      s.title = text(row, "title");
      for (const auto& m : decodeMedia(row)) {
        for (const auto& p : m.parts)
          if (!s.file && p.file) s.file = p.file;
      }
      s.viewOffsetMs = integer(row, "viewOffset");
      s.durationMs = integer(row, "duration");
      const auto& player = object(row, "Player");
      s.playerState = text(player, "state");
      s.playerProduct = text(player, "product");
      s.playerTitle = text(player, "title");
      const auto& tc = object(row, "TranscodeSession");
      s.transcodeSpeed = number(tc, "speed");
      s.transcodeThrottled = boolean(tc, "throttled");
      s.transcodeProtocol = text(tc, "protocol");
      s.transcodeVideoDecision = text(tc, "videoDecision");
      out.push_back(std::move(s));
    }
    return out;
  });
}

bool decodeSmartFlag(const Json& v) {
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number_integer()) return v.get<int64_t>() != 0;
  if (v.is_string()) {
    const auto s = v.get<std::string>();
    return s == "1" || s == "true";
  }
  return false;
}

std::optional<std::vector<PlexCollectionRow>> decodeCollections(const QByteArray& body) {
  return decoded([&]() -> std::optional<std::vector<PlexCollectionRow>> {
    auto mc = container(body);
    if (!mc) return std::nullopt;
    std::vector<PlexCollectionRow> out;
    for (const auto& row : array(*mc, "Metadata")) {
      auto title = lenientText(row, "title");
      auto key = lenientText(row, "ratingKey");
      if (!title || !key) continue;
      const auto it = row.find("smart");
      out.push_back({*title, *key, it != row.end() && decodeSmartFlag(*it)});
    }
    return out;
  });
}

PMSClient::PMSClient(HttpClient& http, QUrl baseURL, std::string token, std::string clientIdentifier)
    : http_(&http),
      baseURL_(std::move(baseURL)),
      token_(std::move(token)),
      clientIdentifier_(std::move(clientIdentifier)) {
  // A server address typed with a trailing slash means the same server.
  QString path = baseURL_.path();
  while (path.endsWith('/')) path.chop(1);
  baseURL_.setPath(path);
}

std::optional<PMSClient> PMSClient::fromConfig(const AppConfig& config, HttpClient& http) {
  auto url = config.pmsURL();
  if (!url || config.token().empty()) return std::nullopt;
  return PMSClient(http, *url, config.token(), config.clientIdentifier());
}

QUrl PMSClient::urlFor(const std::string& path) const {
  QUrl url = baseURL_;
  url.setPath(baseURL_.path() + QString::fromStdString(path.empty() || path[0] == '/' ? path : "/" + path));
  return url;
}

namespace {
std::string queryString(const PMSClient::Query& query) {
  std::string q;
  for (const auto& [k, v] : query) {
    if (!q.empty()) q += '&';
    q += k;
    q += '=';
    q += percentEncode(v, PlainSet::ascii);
  }
  return q;
}
}  // namespace

QCoro::Task<Result<QByteArray, PMSError>> PMSClient::send(QByteArray method, QUrl url, double timeout) const {
  HttpRequest request;
  request.url = std::move(url);
  request.method = std::move(method);
  request.timeoutSeconds = timeLimit_ ? std::min(timeout, *timeLimit_) : timeout;
  request.headers = {{"Accept", "application/json"},
                     {"X-Plex-Token", QByteArray::fromStdString(token_)},
                     {"X-Plex-Product", "Vantory"},
                     {"X-Plex-Client-Identifier", QByteArray::fromStdString(clientIdentifier_)}};
  auto response = co_await http_->send(std::move(request), cancel_);
  if (response.failure != HttpFailure::none)
    co_return Failure(PMSError{PMSError::Kind::transport, 0, response.errorText});
  if (response.status < 200 || response.status > 299)
    co_return Failure(PMSError{PMSError::Kind::badStatus, response.status, {}});
  co_return Result<QByteArray, PMSError>(std::move(response.body));
}

QCoro::Task<Result<QByteArray, PMSError>> PMSClient::httpRequest(QByteArray method, std::string path, Query query,
                                                                 double timeout) const {
  if (token_.empty()) co_return Failure(PMSError{PMSError::Kind::noToken});
  QUrl url = urlFor(path);
  if (!query.empty()) url.setQuery(QString::fromStdString(queryString(query)), QUrl::StrictMode);
  co_return co_await send(std::move(method), std::move(url), timeout);
}

QCoro::Task<Result<QByteArray, PMSError>> PMSClient::putQuery(std::string path, Query query) const {
  query.emplace_back("X-Plex-Token", token_);
  co_return co_await httpRequest("PUT", std::move(path), std::move(query), kWriteTimeout);
}

QCoro::Task<Result<QByteArray, PMSError>> PMSClient::postQuery(std::string path, Query query) const {
  query.emplace_back("X-Plex-Token", token_);
  co_return co_await httpRequest("POST", std::move(path), std::move(query), kWriteTimeout);
}

QCoro::Task<Result<std::pair<std::string, std::optional<std::string>>, PMSError>> PMSClient::machineInfo() const {
  using R = std::pair<std::string, std::optional<std::string>>;
  auto r = co_await httpRequest("GET", "/", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  const auto info = decoded([&]() -> std::optional<R> {
    auto mc = container(*r);
    if (!mc) return std::nullopt;
    return R{text(*mc, "machineIdentifier").value_or("—"), text(*mc, "myPlexUsername")};
  });
  if (!info) co_return Failure(PMSError{PMSError::Kind::undecodable});
  co_return Result<R, PMSError>(*info);
}

QCoro::Task<Result<std::optional<PlexSection>, PMSError>> PMSClient::sectionForLocation(std::string location) const {
  using R = std::optional<PlexSection>;
  auto r = co_await httpRequest("GET", "/library/sections", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  // A reply that does not decode lists no section.
  const auto found = decoded([&]() -> std::optional<PlexSection> {
    auto mc = container(*r);
    if (!mc) return std::nullopt;
    for (const auto& dir : array(*mc, "Directory")) {
      for (const auto& loc : array(dir, "Location")) {
        if (text(loc, "path") == location) {
          auto key = text(dir, "key");
          if (!key) break;
          return PlexSection{*key, text(dir, "type").value_or("")};
        }
      }
    }
    return std::nullopt;
  });
  co_return Result<R, PMSError>(R{found});
}

QCoro::Task<Result<void, PMSError>> PMSClient::createSection(std::string name, bool isShow,
                                                             std::string location) const {
  auto existing = co_await sectionForLocation(location);
  if (!existing) co_return Failure(existing.error());
  if (*existing) co_return Result<void, PMSError>();
  Query q = {{"name", name},
             {"type", isShow ? "show" : "movie"},
             {"agent", isShow ? "tv.plex.agents.series" : "tv.plex.agents.movie"},
             {"scanner", isShow ? "Plex TV Series" : "Plex Movie"},
             {"language", "en-US"},
             {"location", location}};
  auto r = co_await postQuery("/library/sections", std::move(q));
  if (!r) co_return Failure(r.error());
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<void, PMSError>> PMSClient::disableAnalysisJobs(std::string location) const {
  auto section = co_await sectionForLocation(location);
  if (!section) co_return Failure(section.error());
  if (!*section) co_return Result<void, PMSError>();
  // gcc 12 needs braced lists outside co_await expressions.
  Query sectionPrefs = {{"enableBIFGeneration", "0"},
                        {"enableCreditsMarkerGeneration", "0"},
                        {"enableVoiceActivityGeneration", "0"},
                        {"enableAdMarkerGeneration", "0"}};
  auto r = co_await putQuery("/library/sections/" + (*section)->key + "/prefs", std::move(sectionPrefs));
  if (!r) co_return Failure(r.error());
  Query serverPrefs = {{"ButlerTaskDeepMediaAnalysis", "0"}};
  auto s = co_await putQuery("/:/prefs", std::move(serverPrefs));
  if (!s) co_return Failure(s.error());
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<void, PMSError>> PMSClient::refreshSection(std::string location) const {
  auto section = co_await sectionForLocation(location);
  if (!section) co_return Failure(section.error());
  if (!*section) co_return Result<void, PMSError>();
  auto r = co_await httpRequest("GET", "/library/sections/" + (*section)->key + "/refresh", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<std::vector<PlexItem>, PMSError>> PMSClient::sectionItems(std::string location) const {
  using R = std::vector<PlexItem>;
  auto section = co_await sectionForLocation(location);
  if (!section) co_return Failure(section.error());
  if (!*section) co_return Result<R, PMSError>(R{});
  Query q;
  if ((*section)->type == "show") q.emplace_back("type", "4");
  auto r = co_await httpRequest("GET", "/library/sections/" + (*section)->key + "/all", std::move(q), kReadTimeout);
  if (!r) co_return Failure(r.error());
  co_return Result<R, PMSError>(decodeSectionItems(*r).value_or(R{}));
}

namespace {
std::string lastPathComponent(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}
}  // namespace

QCoro::Task<Result<std::map<std::string, PlexItem>, PMSError>> PMSClient::fileIndex(std::string location) const {
  using R = std::map<std::string, PlexItem>;
  auto items = co_await sectionItems(std::move(location));
  if (!items) co_return Failure(items.error());
  R index;
  for (const auto& item : *items)
    for (const auto& m : item.media)
      for (const auto& p : m.parts)
        if (p.file) index[lastPathComponent(*p.file)] = item;
  co_return Result<R, PMSError>(std::move(index));
}

QCoro::Task<Result<std::map<std::string, PlexImdbEntry>, PMSError>> PMSClient::imdbIndex(std::string location) const {
  using R = std::map<std::string, PlexImdbEntry>;
  auto section = co_await sectionForLocation(location);
  if (!section) co_return Failure(section.error());
  if (!*section) co_return Result<R, PMSError>(R{});
  auto r = co_await httpRequest("GET", "/library/sections/" + (*section)->key + "/all", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  R index;
  for (const auto& item : decodeSectionItems(*r).value_or(std::vector<PlexItem>{})) {
    std::optional<std::string> firstFile;
    for (const auto& m : item.media)
      for (const auto& p : m.parts)
        if (p.file && !firstFile) firstFile = p.file;
    if (!firstFile) continue;
    const auto found = imdbIdOf(*firstFile);
    if (!found) continue;
    const auto& id = *found;
    index[id] = PlexImdbEntry{item.title.value_or(id), item.year ? std::to_string(*item.year) : "", item.thumb};
  }
  co_return Result<R, PMSError>(std::move(index));
}

QCoro::Task<Result<void, PMSError>> PMSClient::refreshItem(std::string file, std::string location) const {
  auto index = co_await fileIndex(std::move(location));
  if (!index) co_return Failure(index.error());
  auto it = index->find(lastPathComponent(file));
  if (it == index->end() || !it->second.ratingKey) co_return Result<void, PMSError>();
  auto r =
      co_await httpRequest("GET", "/library/metadata/" + *it->second.ratingKey + "/refresh", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<std::optional<PlexItemDetails>, PMSError>> PMSClient::itemDetails(std::string ratingKey) const {
  using R = std::optional<PlexItemDetails>;
  auto r = co_await httpRequest("GET", "/library/metadata/" + ratingKey, Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  for (const auto& item : decodeSectionItems(*r).value_or(std::vector<PlexItem>{})) {
    for (const auto& m : item.media)
      for (const auto& p : m.parts)
        if (p.file && !p.file->empty())
          co_return Result<R, PMSError>(R{PlexItemDetails{*p.file, item.viewOffset, item.duration}});
  }
  co_return Result<R, PMSError>(R{});
}

QCoro::Task<Result<std::vector<PlaySession>, PMSError>> PMSClient::sessions() const {
  using R = std::vector<PlaySession>;
  auto r = co_await httpRequest("GET", "/status/sessions", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  co_return Result<R, PMSError>(decodeSessions(*r).value_or(R{}));
}

QCoro::Task<Result<void, PMSError>> PMSClient::emptyTrash(std::string sectionKey) const {
  auto r = co_await putQuery("/library/sections/" + sectionKey + "/emptyTrash", Query());
  if (!r) co_return Failure(r.error());
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<void, PMSError>> PMSClient::addLabel(std::string sectionKey, std::vector<std::string> ratingKeys,
                                                        std::string label) const {
  if (token_.empty()) co_return Failure(PMSError{PMSError::Kind::noToken});
  constexpr size_t kChunk = 50;
  for (size_t start = 0; start < ratingKeys.size(); start += kChunk) {
    std::string ids;
    for (size_t i = start; i < std::min(ratingKeys.size(), start + kChunk); ++i) {
      if (!ids.empty()) ids += ',';
      ids += ratingKeys[i];
    }
    Query q = {{"type", "1"}, {"id", ids}, {"label[0].tag.tag", label}, {"label.locked", "1"}};
    auto r = co_await putQuery("/library/sections/" + sectionKey + "/all", std::move(q));
    if (!r) co_return Failure(r.error());
  }
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<void, PMSError>> PMSClient::removeLabel(std::vector<std::string> ratingKeys,
                                                           std::string label) const {
  if (token_.empty()) co_return Failure(PMSError{PMSError::Kind::noToken});
  for (const auto& key : ratingKeys) {
    Query q = {{"type", "1"}, {"label[0].tag.tag-", label}, {"label.locked", "1"}};
    auto r = co_await putQuery("/library/metadata/" + key, std::move(q));
    if (!r) co_return Failure(r.error());
  }
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<std::map<std::string, std::string>, PMSError>> PMSClient::sectionLabels(
    std::string sectionKey) const {
  using R = std::map<std::string, std::string>;
  auto r = co_await httpRequest("GET", "/library/sections/" + sectionKey + "/label", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  auto labels = decoded([&]() -> std::optional<R> {
    R out;
    auto mc = container(*r);
    if (!mc) return std::nullopt;
    for (const auto& row : array(*mc, "Directory")) {
      auto key = text(row, "key");
      auto title = text(row, "title");
      if (!key || !title) continue;
      const auto eq = key->find_last_of('=');
      out[*title] = eq == std::string::npos ? *key : key->substr(eq + 1);
    }
    return out;
  });
  co_return Result<R, PMSError>(labels.value_or(R{}));
}

QCoro::Task<Result<std::set<std::string>, PMSError>> PMSClient::labelledKeys(std::string sectionKey,
                                                                             std::string labelId) const {
  using R = std::set<std::string>;
  Query q = {{"type", "1"}, {"label", labelId}};
  auto r = co_await httpRequest("GET", "/library/sections/" + sectionKey + "/all", std::move(q), kReadTimeout);
  if (!r) co_return Failure(r.error());
  R keys;
  for (const auto& item : decodeSectionItems(*r).value_or(std::vector<PlexItem>{}))
    if (item.ratingKey) keys.insert(*item.ratingKey);
  co_return Result<R, PMSError>(std::move(keys));
}

QCoro::Task<Result<std::vector<PlexCollectionRow>, PMSError>> PMSClient::sectionCollections(
    std::string sectionKey) const {
  using R = std::vector<PlexCollectionRow>;
  auto r = co_await httpRequest("GET", "/library/sections/" + sectionKey + "/collections", Query(), kReadTimeout);
  if (!r) co_return Failure(r.error());
  co_return Result<R, PMSError>(decodeCollections(*r).value_or(R{}));
}

QCoro::Task<Result<std::optional<std::string>, PMSError>> PMSClient::createSmartCollection(
    std::string title, std::string labelId, std::string sectionKey, std::string machineIdentifier) const {
  using R = std::optional<std::string>;
  if (token_.empty()) co_return Failure(PMSError{PMSError::Kind::noToken});
  const std::string inner = "/library/sections/" + sectionKey + "/all?type=1&label=" + labelId + "&sort=addedAt%3Adesc";
  const std::string uri = "server://" + machineIdentifier + "/com.plexapp.plugins.library" + inner;
  const std::string query = "type=1&title=" + percentEncodeStrict(title) +
                            "&smart=1&sectionId=" + percentEncodeStrict(sectionKey) +
                            "&uri=" + percentEncodeStrict(uri) + "&X-Plex-Token=" + percentEncodeStrict(token_);
  QUrl url = urlFor("/library/collections");
  url.setQuery(QString::fromStdString(query), QUrl::StrictMode);
  auto r = co_await send("POST", std::move(url), kWriteTimeout);
  if (!r) co_return Failure(r.error());
  const auto key = decoded([&]() -> R {
    auto mc = container(*r);
    if (!mc) return std::nullopt;
    const auto& rows = array(*mc, "Metadata");
    return rows.empty() ? std::nullopt : text(rows[0], "ratingKey");
  });
  co_return Result<R, PMSError>(R{key});
}

QCoro::Task<Result<void, PMSError>> PMSClient::deleteCollection(std::string ratingKey) const {
  auto r = co_await httpRequest("DELETE", "/library/collections/" + ratingKey, Query(), kWriteTimeout);
  if (!r) co_return Failure(r.error());
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<void, PMSError>> PMSClient::deleteCollectionNamed(std::string title, std::string location) const {
  auto section = co_await sectionForLocation(std::move(location));
  if (!section) co_return Failure(section.error());
  if (!*section) co_return Result<void, PMSError>();
  auto rows = co_await sectionCollections((*section)->key);
  if (!rows) co_return Failure(rows.error());
  for (const auto& row : *rows) {
    if (row.title != title) continue;
    auto r = co_await deleteCollection(row.ratingKey);
    if (!r) co_return Failure(r.error());
    break;
  }
  co_return Result<void, PMSError>();
}

QCoro::Task<Result<std::vector<std::string>, PMSError>> PMSClient::itemsWithoutDuration(std::string location,
                                                                                        Date before) const {
  using R = std::vector<std::string>;
  auto items = co_await sectionItems(std::move(location));
  if (!items) co_return Failure(items.error());
  const double beforeUnix = unixSecondsFromDate(before);
  R keys;
  for (const auto& item : *items) {
    if (!item.ratingKey || !item.addedAt || static_cast<double>(*item.addedAt) >= beforeUnix) continue;
    bool missing = false;
    for (const auto& m : item.media) missing = missing || !m.duration;
    if (missing) keys.push_back(*item.ratingKey);
  }
  co_return Result<R, PMSError>(std::move(keys));
}

QCoro::Task<Result<std::set<std::string>, PMSError>> PMSClient::showKeys(std::string location) const {
  using R = std::set<std::string>;
  auto section = co_await sectionForLocation(std::move(location));
  if (!section) co_return Failure(section.error());
  if (!*section || (*section)->type != "show") co_return Result<R, PMSError>(R{});
  Query q = {{"type", "2"}};
  auto r = co_await httpRequest("GET", "/library/sections/" + (*section)->key + "/all", std::move(q), kReadTimeout);
  if (!r) co_return Failure(r.error());
  R keys;
  for (const auto& item : decodeSectionItems(*r).value_or(std::vector<PlexItem>{}))
    if (item.ratingKey) keys.insert(*item.ratingKey);
  co_return Result<R, PMSError>(std::move(keys));
}

QCoro::Task<Result<std::map<std::string, std::string>, PMSError>> PMSClient::episodeShowMap(
    std::string location) const {
  using R = std::map<std::string, std::string>;
  auto section = co_await sectionForLocation(std::move(location));
  if (!section) co_return Failure(section.error());
  if (!*section || (*section)->type != "show") co_return Result<R, PMSError>(R{});
  Query q = {{"type", "4"}};
  auto r = co_await httpRequest("GET", "/library/sections/" + (*section)->key + "/all", std::move(q), kReadTimeout);
  if (!r) co_return Failure(r.error());
  R map;
  for (const auto& item : decodeSectionItems(*r).value_or(std::vector<PlexItem>{}))
    if (item.ratingKey && item.grandparentRatingKey) map[*item.ratingKey] = *item.grandparentRatingKey;
  co_return Result<R, PMSError>(std::move(map));
}

}  // namespace vt
