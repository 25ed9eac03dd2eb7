#include "plex/PMSClient.h"

#include "core/AppConfig.h"
#include "platform/Http.h"
#include "platform/Regex.h"

namespace vt {

std::string PMSError::description() const {
  switch (kind) {
    case Kind::badStatus:
      return "PMS returned HTTP " + std::to_string(status);
    case Kind::noToken:
      return "No Plex token configured";
    case Kind::transport:
      return detail.empty() ? std::string("The Plex server could not be reached.") : detail;
    case Kind::undecodable:
      return "The Plex server's reply could not be read.";
  }
  return detail;
}

std::string percentEncodeStrict(std::string_view text) {
  static const char* hex = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += hex[c >> 4];
      out += hex[c & 15];
    }
  }
  return out;
}

namespace {

// Lenient field readers: a missing or wrongly typed value is absent.
std::optional<std::string> text(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  auto it = o.find(key);
  if (it == o.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}
std::optional<int64_t> integer(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  auto it = o.find(key);
  if (it == o.end() || !it->is_number_integer()) return std::nullopt;
  return it->get<int64_t>();
}
std::optional<double> number(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  auto it = o.find(key);
  if (it == o.end() || !it->is_number()) return std::nullopt;
  return it->get<double>();
}
std::optional<bool> boolean(const Json& o, const char* key) {
  if (!o.is_object()) return std::nullopt;
  auto it = o.find(key);
  if (it == o.end() || !it->is_boolean()) return std::nullopt;
  return it->get<bool>();
}
const Json& array(const Json& o, const char* key) {
  static const Json empty = Json::array();
  if (!o.is_object()) return empty;
  auto it = o.find(key);
  return it != o.end() && it->is_array() ? *it : empty;
}
const Json& object(const Json& o, const char* key) {
  static const Json empty = Json::object();
  if (!o.is_object()) return empty;
  auto it = o.find(key);
  return it != o.end() && it->is_object() ? *it : empty;
}

// The container of a reply; none when the body is not a JSON object.
std::optional<Json> container(const QByteArray& body) {
  auto doc = json::parse(std::string_view(body.constData(), static_cast<size_t>(body.size())));
  if (!doc || !doc->is_object()) return std::nullopt;
  return object(*doc, "MediaContainer");
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
}

std::optional<std::vector<PlaySession>> decodeSessions(const QByteArray& body) {
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
  auto mc = container(body);
  if (!mc) return std::nullopt;
  std::vector<PlexCollectionRow> out;
  for (const auto& row : array(*mc, "Metadata")) {
    auto title = text(row, "title");
    auto key = text(row, "ratingKey");
    if (!title || !key) continue;
    const auto it = row.find("smart");
    out.push_back({*title, *key, it != row.end() && decodeSmartFlag(*it)});
  }
  return out;
}

PMSClient::PMSClient(QUrl baseURL, std::string token, std::string clientIdentifier)
    : baseURL_(std::move(baseURL)), token_(std::move(token)), clientIdentifier_(std::move(clientIdentifier)) {
  // A server address typed with a trailing slash means the same server.
  QString path = baseURL_.path();
  while (path.endsWith('/')) path.chop(1);
  baseURL_.setPath(path);
}

std::optional<PMSClient> PMSClient::fromConfig(const AppConfig& config) {
  auto url = config.pmsURL();
  if (!url || config.token().empty()) return std::nullopt;
  return PMSClient(*url, config.token(), config.clientIdentifier());
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
    q += percentEncodeStrict(v);
  }
  return q;
}
}  // namespace

QCoro::Task<PMSResult<QByteArray>> PMSClient::send(QByteArray method, QUrl url, double timeout) const {
  HttpRequest request;
  request.url = std::move(url);
  request.method = std::move(method);
  request.timeoutSeconds = timeout;
  request.headers = {{"Accept", "application/json"},
                     {"X-Plex-Token", QByteArray::fromStdString(token_)},
                     {"X-Plex-Product", "Vantory"},
                     {"X-Plex-Client-Identifier", QByteArray::fromStdString(clientIdentifier_)}};
  auto response = co_await sharedHttpClient().send(std::move(request));
  if (response.failure != HttpFailure::none)
    co_return PMSResult<QByteArray>::failure({PMSError::Kind::transport, 0, response.errorText});
  if (response.status < 200 || response.status > 299)
    co_return PMSResult<QByteArray>::failure({PMSError::Kind::badStatus, response.status, {}});
  co_return PMSResult<QByteArray>{std::move(response.body), std::nullopt};
}

QCoro::Task<PMSResult<QByteArray>> PMSClient::httpRequest(QByteArray method, std::string path, Query query,
                                                          double timeout) const {
  if (token_.empty()) co_return PMSResult<QByteArray>::failure({PMSError::Kind::noToken});
  QUrl url = urlFor(path);
  if (!query.empty()) url.setQuery(QString::fromStdString(queryString(query)), QUrl::StrictMode);
  co_return co_await send(std::move(method), std::move(url), timeout);
}

QCoro::Task<PMSResult<QByteArray>> PMSClient::putQuery(std::string path, Query query) const {
  query.emplace_back("X-Plex-Token", token_);
  co_return co_await httpRequest("PUT", std::move(path), std::move(query), kWriteTimeout);
}

QCoro::Task<PMSResult<QByteArray>> PMSClient::postQuery(std::string path, Query query) const {
  query.emplace_back("X-Plex-Token", token_);
  co_return co_await httpRequest("POST", std::move(path), std::move(query), kWriteTimeout);
}

// Forwards a failure of another result type.
#define VT_PMS_TRY(result, Type) \
  if (!(result).ok()) co_return PMSResult<Type>::failure(*(result).error);

QCoro::Task<PMSResult<std::pair<std::string, std::optional<std::string>>>> PMSClient::machineInfo() const {
  using R = std::pair<std::string, std::optional<std::string>>;
  auto r = co_await httpRequest("GET", "/", Query(), kReadTimeout);
  VT_PMS_TRY(r, R);
  auto mc = container(*r.value);
  if (!mc) co_return PMSResult<R>::failure({PMSError::Kind::undecodable});
  co_return PMSResult<R>{R{text(*mc, "machineIdentifier").value_or("—"), text(*mc, "myPlexUsername")}, std::nullopt};
}

QCoro::Task<PMSResult<std::optional<PlexSection>>> PMSClient::sectionForLocation(std::string location) const {
  using R = std::optional<PlexSection>;
  auto r = co_await httpRequest("GET", "/library/sections", Query(), kReadTimeout);
  VT_PMS_TRY(r, R);
  auto mc = container(*r.value);
  if (mc) {
    for (const auto& dir : array(*mc, "Directory")) {
      for (const auto& loc : array(dir, "Location")) {
        if (text(loc, "path") == location) {
          auto key = text(dir, "key");
          if (!key) break;
          co_return PMSResult<R>{R{PlexSection{*key, text(dir, "type").value_or("")}}, std::nullopt};
        }
      }
    }
  }
  co_return PMSResult<R>{R{}, std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::createSection(std::string name, bool isShow, std::string location) const {
  auto existing = co_await sectionForLocation(location);
  VT_PMS_TRY(existing, Done);
  if (*existing.value) co_return PMSResult<Done>{Done{}, std::nullopt};
  Query q = {{"name", name},
             {"type", isShow ? "show" : "movie"},
             {"agent", isShow ? "tv.plex.agents.series" : "tv.plex.agents.movie"},
             {"scanner", isShow ? "Plex TV Series" : "Plex Movie"},
             {"language", "en-US"},
             {"location", location}};
  auto r = co_await postQuery("/library/sections", std::move(q));
  VT_PMS_TRY(r, Done);
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::disableAnalysisJobs(std::string location) const {
  auto section = co_await sectionForLocation(location);
  VT_PMS_TRY(section, Done);
  if (!*section.value) co_return PMSResult<Done>{Done{}, std::nullopt};
  // gcc 12 needs braced lists outside co_await expressions.
  Query sectionPrefs = {{"enableBIFGeneration", "0"},
                        {"enableCreditsMarkerGeneration", "0"},
                        {"enableVoiceActivityGeneration", "0"},
                        {"enableAdMarkerGeneration", "0"}};
  auto r = co_await putQuery("/library/sections/" + (*section.value)->key + "/prefs", std::move(sectionPrefs));
  VT_PMS_TRY(r, Done);
  Query serverPrefs = {{"ButlerTaskDeepMediaAnalysis", "0"}};
  auto s = co_await putQuery("/:/prefs", std::move(serverPrefs));
  VT_PMS_TRY(s, Done);
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::refreshSection(std::string location) const {
  auto section = co_await sectionForLocation(location);
  VT_PMS_TRY(section, Done);
  if (!*section.value) co_return PMSResult<Done>{Done{}, std::nullopt};
  auto r =
      co_await httpRequest("GET", "/library/sections/" + (*section.value)->key + "/refresh", Query(), kReadTimeout);
  VT_PMS_TRY(r, Done);
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<std::vector<PlexItem>>> PMSClient::sectionItems(std::string location) const {
  using R = std::vector<PlexItem>;
  auto section = co_await sectionForLocation(location);
  VT_PMS_TRY(section, R);
  if (!*section.value) co_return PMSResult<R>{R{}, std::nullopt};
  Query q;
  if ((*section.value)->type == "show") q.emplace_back("type", "4");
  auto r =
      co_await httpRequest("GET", "/library/sections/" + (*section.value)->key + "/all", std::move(q), kReadTimeout);
  VT_PMS_TRY(r, R);
  co_return PMSResult<R>{decodeSectionItems(*r.value).value_or(R{}), std::nullopt};
}

namespace {
std::string lastPathComponent(const std::string& path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}
}  // namespace

QCoro::Task<PMSResult<std::map<std::string, PlexItem>>> PMSClient::fileIndex(std::string location) const {
  using R = std::map<std::string, PlexItem>;
  auto items = co_await sectionItems(std::move(location));
  VT_PMS_TRY(items, R);
  R index;
  for (const auto& item : *items.value)
    for (const auto& m : item.media)
      for (const auto& p : m.parts)
        if (p.file) index[lastPathComponent(*p.file)] = item;
  co_return PMSResult<R>{std::move(index), std::nullopt};
}

QCoro::Task<PMSResult<std::map<std::string, PlexImdbEntry>>> PMSClient::imdbIndex(std::string location) const {
  using R = std::map<std::string, PlexImdbEntry>;
  auto section = co_await sectionForLocation(location);
  VT_PMS_TRY(section, R);
  if (!*section.value) co_return PMSResult<R>{R{}, std::nullopt};
  auto r = co_await httpRequest("GET", "/library/sections/" + (*section.value)->key + "/all", Query(), kReadTimeout);
  VT_PMS_TRY(r, R);
  static const Regex imdbTag(R"((?<=\{imdb-)tt\d+(?=\}))");
  R index;
  for (const auto& item : decodeSectionItems(*r.value).value_or(std::vector<PlexItem>{})) {
    std::optional<std::string> firstFile;
    for (const auto& m : item.media)
      for (const auto& p : m.parts)
        if (p.file && !firstFile) firstFile = p.file;
    if (!firstFile) continue;
    auto m = imdbTag.search(*firstFile);
    if (!m) continue;
    const auto id = m->text();
    index[id] = PlexImdbEntry{item.title.value_or(id), item.year ? std::to_string(*item.year) : "", item.thumb};
  }
  co_return PMSResult<R>{std::move(index), std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::refreshItem(std::string file, std::string location) const {
  auto index = co_await fileIndex(std::move(location));
  VT_PMS_TRY(index, Done);
  auto it = index.value->find(lastPathComponent(file));
  if (it == index.value->end() || !it->second.ratingKey) co_return PMSResult<Done>{Done{}, std::nullopt};
  auto r =
      co_await httpRequest("GET", "/library/metadata/" + *it->second.ratingKey + "/refresh", Query(), kReadTimeout);
  VT_PMS_TRY(r, Done);
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<std::optional<PlexItemDetails>>> PMSClient::itemDetails(std::string ratingKey) const {
  using R = std::optional<PlexItemDetails>;
  auto r = co_await httpRequest("GET", "/library/metadata/" + ratingKey, Query(), kReadTimeout);
  VT_PMS_TRY(r, R);
  for (const auto& item : decodeSectionItems(*r.value).value_or(std::vector<PlexItem>{})) {
    for (const auto& m : item.media)
      for (const auto& p : m.parts)
        if (p.file && !p.file->empty())
          co_return PMSResult<R>{R{PlexItemDetails{*p.file, item.viewOffset, item.duration}}, std::nullopt};
  }
  co_return PMSResult<R>{R{}, std::nullopt};
}

QCoro::Task<PMSResult<std::vector<PlaySession>>> PMSClient::sessions() const {
  using R = std::vector<PlaySession>;
  auto r = co_await httpRequest("GET", "/status/sessions", Query(), kReadTimeout);
  VT_PMS_TRY(r, R);
  co_return PMSResult<R>{decodeSessions(*r.value).value_or(R{}), std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::emptyTrash(std::string sectionKey) const {
  auto r = co_await putQuery("/library/sections/" + sectionKey + "/emptyTrash", Query());
  VT_PMS_TRY(r, Done);
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::addLabel(std::string sectionKey, std::vector<std::string> ratingKeys,
                                                 std::string label) const {
  if (token_.empty()) co_return PMSResult<Done>::failure({PMSError::Kind::noToken});
  constexpr size_t kChunk = 50;
  for (size_t start = 0; start < ratingKeys.size(); start += kChunk) {
    std::string ids;
    for (size_t i = start; i < std::min(ratingKeys.size(), start + kChunk); ++i) {
      if (!ids.empty()) ids += ',';
      ids += ratingKeys[i];
    }
    Query q = {{"type", "1"}, {"id", ids}, {"label[0].tag.tag", label}, {"label.locked", "1"}};
    auto r = co_await putQuery("/library/sections/" + sectionKey + "/all", std::move(q));
    VT_PMS_TRY(r, Done);
  }
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::removeLabel(std::vector<std::string> ratingKeys, std::string label) const {
  if (token_.empty()) co_return PMSResult<Done>::failure({PMSError::Kind::noToken});
  for (const auto& key : ratingKeys) {
    Query q = {{"type", "1"}, {"label[0].tag.tag-", label}, {"label.locked", "1"}};
    auto r = co_await putQuery("/library/metadata/" + key, std::move(q));
    VT_PMS_TRY(r, Done);
  }
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<std::map<std::string, std::string>>> PMSClient::sectionLabels(std::string sectionKey) const {
  using R = std::map<std::string, std::string>;
  auto r = co_await httpRequest("GET", "/library/sections/" + sectionKey + "/label", Query(), kReadTimeout);
  VT_PMS_TRY(r, R);
  R labels;
  if (auto mc = container(*r.value)) {
    for (const auto& row : array(*mc, "Directory")) {
      auto key = text(row, "key");
      auto title = text(row, "title");
      if (!key || !title) continue;
      const auto eq = key->find_last_of('=');
      labels[*title] = eq == std::string::npos ? *key : key->substr(eq + 1);
    }
  }
  co_return PMSResult<R>{std::move(labels), std::nullopt};
}

QCoro::Task<PMSResult<std::set<std::string>>> PMSClient::labelledKeys(std::string sectionKey,
                                                                      std::string labelId) const {
  using R = std::set<std::string>;
  Query q = {{"type", "1"}, {"label", labelId}};
  auto r = co_await httpRequest("GET", "/library/sections/" + sectionKey + "/all", std::move(q), kReadTimeout);
  VT_PMS_TRY(r, R);
  R keys;
  for (const auto& item : decodeSectionItems(*r.value).value_or(std::vector<PlexItem>{}))
    if (item.ratingKey) keys.insert(*item.ratingKey);
  co_return PMSResult<R>{std::move(keys), std::nullopt};
}

QCoro::Task<PMSResult<std::vector<PlexCollectionRow>>> PMSClient::sectionCollections(std::string sectionKey) const {
  using R = std::vector<PlexCollectionRow>;
  auto r = co_await httpRequest("GET", "/library/sections/" + sectionKey + "/collections", Query(), kReadTimeout);
  VT_PMS_TRY(r, R);
  co_return PMSResult<R>{decodeCollections(*r.value).value_or(R{}), std::nullopt};
}

QCoro::Task<PMSResult<std::optional<std::string>>> PMSClient::createSmartCollection(
    std::string title, std::string labelId, std::string sectionKey, std::string machineIdentifier) const {
  using R = std::optional<std::string>;
  if (token_.empty()) co_return PMSResult<R>::failure({PMSError::Kind::noToken});
  const std::string inner = "/library/sections/" + sectionKey + "/all?type=1&label=" + labelId + "&sort=addedAt%3Adesc";
  const std::string uri = "server://" + machineIdentifier + "/com.plexapp.plugins.library" + inner;
  const std::string query = "type=1&title=" + percentEncodeStrict(title) +
                            "&smart=1&sectionId=" + percentEncodeStrict(sectionKey) +
                            "&uri=" + percentEncodeStrict(uri) + "&X-Plex-Token=" + percentEncodeStrict(token_);
  QUrl url = urlFor("/library/collections");
  url.setQuery(QString::fromStdString(query), QUrl::StrictMode);
  auto r = co_await send("POST", std::move(url), kWriteTimeout);
  VT_PMS_TRY(r, R);
  R key;
  if (auto mc = container(*r.value)) {
    const auto& rows = array(*mc, "Metadata");
    if (!rows.empty()) key = text(rows[0], "ratingKey");
  }
  co_return PMSResult<R>{R{key}, std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::deleteCollection(std::string ratingKey) const {
  auto r = co_await httpRequest("DELETE", "/library/collections/" + ratingKey, Query(), kWriteTimeout);
  VT_PMS_TRY(r, Done);
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<Done>> PMSClient::deleteCollectionNamed(std::string title, std::string location) const {
  auto section = co_await sectionForLocation(std::move(location));
  VT_PMS_TRY(section, Done);
  if (!*section.value) co_return PMSResult<Done>{Done{}, std::nullopt};
  auto rows = co_await sectionCollections((*section.value)->key);
  VT_PMS_TRY(rows, Done);
  for (const auto& row : *rows.value) {
    if (row.title != title) continue;
    auto r = co_await deleteCollection(row.ratingKey);
    VT_PMS_TRY(r, Done);
    break;
  }
  co_return PMSResult<Done>{Done{}, std::nullopt};
}

QCoro::Task<PMSResult<std::vector<std::string>>> PMSClient::itemsWithoutDuration(std::string location,
                                                                                 Date before) const {
  using R = std::vector<std::string>;
  auto items = co_await sectionItems(std::move(location));
  VT_PMS_TRY(items, R);
  const double beforeUnix = unixSecondsFromDate(before);
  R keys;
  for (const auto& item : *items.value) {
    if (!item.ratingKey || !item.addedAt || static_cast<double>(*item.addedAt) >= beforeUnix) continue;
    bool missing = false;
    for (const auto& m : item.media) missing = missing || !m.duration;
    if (missing) keys.push_back(*item.ratingKey);
  }
  co_return PMSResult<R>{std::move(keys), std::nullopt};
}

QCoro::Task<PMSResult<std::set<std::string>>> PMSClient::showKeys(std::string location) const {
  using R = std::set<std::string>;
  auto section = co_await sectionForLocation(std::move(location));
  VT_PMS_TRY(section, R);
  if (!*section.value || (*section.value)->type != "show") co_return PMSResult<R>{R{}, std::nullopt};
  Query q = {{"type", "2"}};
  auto r =
      co_await httpRequest("GET", "/library/sections/" + (*section.value)->key + "/all", std::move(q), kReadTimeout);
  VT_PMS_TRY(r, R);
  R keys;
  for (const auto& item : decodeSectionItems(*r.value).value_or(std::vector<PlexItem>{}))
    if (item.ratingKey) keys.insert(*item.ratingKey);
  co_return PMSResult<R>{std::move(keys), std::nullopt};
}

QCoro::Task<PMSResult<std::map<std::string, std::string>>> PMSClient::episodeShowMap(std::string location) const {
  using R = std::map<std::string, std::string>;
  auto section = co_await sectionForLocation(std::move(location));
  VT_PMS_TRY(section, R);
  if (!*section.value || (*section.value)->type != "show") co_return PMSResult<R>{R{}, std::nullopt};
  Query q = {{"type", "4"}};
  auto r =
      co_await httpRequest("GET", "/library/sections/" + (*section.value)->key + "/all", std::move(q), kReadTimeout);
  VT_PMS_TRY(r, R);
  R map;
  for (const auto& item : decodeSectionItems(*r.value).value_or(std::vector<PlexItem>{}))
    if (item.ratingKey && item.grandparentRatingKey) map[*item.ratingKey] = *item.grandparentRatingKey;
  co_return PMSResult<R>{std::move(map), std::nullopt};
}

}  // namespace vt
