#include "sources/rd/RDClient.h"

#include "platform/Clock.h"
#include "platform/Endpoints.h"
#include "platform/Http.h"
#include "platform/PercentEncoding.h"
#include "platform/Json.h"

namespace vt {

bool RDError::isRefusal() const {
  switch (kind) {
    case Kind::refused:
      return true;
    case Kind::http:
      return status >= 400 && status <= 499 && status != 401 && status != 403 && status != 429;
    default:
      return false;
  }
}

std::string message(const RDError& e) {
  switch (e.kind) {
    case RDError::Kind::http:
      return "RealDebrid returned HTTP " + std::to_string(e.status);
    case RDError::Kind::refused:
      return "RealDebrid refused this release (" + e.detail + ")";
    case RDError::Kind::noKey:
      return "No RealDebrid key set (Settings)";
    case RDError::Kind::transport:
      return e.detail.empty() ? std::string("RealDebrid could not be reached")
                              : "RealDebrid could not be reached: " + e.detail;
    case RDError::Kind::undecodable:
      return "RealDebrid sent a reply that could not be read";
    case RDError::Kind::cancelled:
      return "The RealDebrid request was cancelled";
  }
  return "RealDebrid failed";
}

namespace {

std::optional<Json> parseBody(const QByteArray& body) {
  return json::parse(std::string_view(body.constData(), static_cast<size_t>(body.size())));
}

// Runs a strict decoder; a DecodeError (or any other surprise) is none.
template <class F>
auto strictly(const QByteArray& body, F decode) -> std::optional<decltype(decode(std::declval<const Json&>()))> {
  auto doc = parseBody(body);
  if (!doc || !doc->is_object()) return std::nullopt;
  try {
    return decode(*doc);
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<std::string> lenientText(const Json& row, const char* key) {
  auto it = row.find(key);
  if (it == row.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

const std::vector<std::string> kRefusedStatuses = {"magnet_error", "error", "virus", "dead"};

}  // namespace

std::optional<RDUserInfo> decodeUserInfo(const QByteArray& body) {
  return strictly(body, [](const Json& o) {
    return RDUserInfo{json::required<std::string>(o, "type"), json::required<int64_t>(o, "premium"),
                      json::required<std::string>(o, "expiration")};
  });
}

std::optional<std::string> decodeAddMagnet(const QByteArray& body) {
  return strictly(body, [](const Json& o) { return json::required<std::string>(o, "id"); });
}

std::optional<TorrentInfo> decodeTorrentInfo(const QByteArray& body) {
  return strictly(body, [](const Json& o) {
    TorrentInfo info;
    info.status = json::required<std::string>(o, "status");
    auto files = o.find("files");
    if (files != o.end() && !files->is_null()) {
      if (!files->is_array()) throw DecodeError("\"files\" is not an array");
      std::vector<TorrentFile> list;
      for (const auto& f : *files)
        list.push_back({json::required<int64_t>(f, "id"), json::required<int64_t>(f, "bytes")});
      info.files = std::move(list);
    }
    info.links = json::optional<std::vector<std::string>>(o, "links");
    return info;
  });
}

std::optional<UnrestrictResp> decodeUnrestrict(const QByteArray& body) {
  return strictly(body, [](const Json& o) {
    return UnrestrictResp{json::required<std::string>(o, "download"), json::optional<int64_t>(o, "filesize")};
  });
}

std::optional<std::vector<RDDownload>> decodeDownloads(const QByteArray& body) {
  auto doc = parseBody(body);
  if (!doc || !doc->is_array()) return std::nullopt;
  std::vector<RDDownload> out;
  for (const auto& row : *doc) {
    if (!row.is_object()) continue;
    out.push_back({lenientText(row, "link"), lenientText(row, "download"), lenientText(row, "filename")});
  }
  return out;
}

std::string fileSelection(const std::optional<std::vector<TorrentFile>>& files, bool largestOnly) {
  if (!largestOnly || !files || files->empty()) return "all";
  const TorrentFile* best = &files->front();
  for (const auto& f : *files)
    if (f.bytes >= best->bytes) best = &f;
  return std::to_string(best->id);
}

QByteArray encodeForm(const RDClient::Form& form) {
  QByteArray out;
  for (const auto& [k, v] : form) {
    if (!out.isEmpty()) out += '&';
    out += QByteArray::fromStdString(percentEncode(k, PlainSet::ascii));
    out += '=';
    out += QByteArray::fromStdString(percentEncode(v, PlainSet::ascii));
  }
  return out;
}

QUrl RDClient::defaultBase() {
  std::string host = endpoints().realDebridApi;
  while (!host.empty() && host.back() == '/') host.pop_back();
  return QUrl(QString::fromStdString(host + "/rest/1.0/"));
}

RDClient::RDClient(HttpClient& http, std::string key, QUrl base)
    : http_(&http), key_(std::move(key)), base_(std::move(base)) {
  // Paths are appended to the base, so it ends in exactly one slash.
  QString path = base_.path();
  if (!path.endsWith('/')) base_.setPath(path + '/');
}

QUrl RDClient::urlFor(const std::string& path) const { return QUrl(base_.toString() + QString::fromStdString(path)); }

QCoro::Task<Result<QByteArray, RDError>> RDClient::send(HttpRequest request, CancelToken token) const {
  request.headers.emplace_back("Authorization", "Bearer " + QByteArray::fromStdString(key_));
  auto response = co_await http_->send(std::move(request), token);
  switch (response.failure) {
    case HttpFailure::none:
      break;
    case HttpFailure::cancelled:
      co_return Failure(RDError{RDError::Kind::cancelled, 0, {}});
    case HttpFailure::timeout:
    case HttpFailure::network: {
      // The network's own text names the address at most; the key rides in a
      // header, but a text that echoes it anyway loses it here.
      std::string detail = response.errorText;
      for (size_t at; !key_.empty() && (at = detail.find(key_)) != std::string::npos;)
        detail.replace(at, key_.size(), "REDACTED");
      co_return Failure(RDError{RDError::Kind::transport, 0, std::move(detail)});
    }
  }
  if (response.status < 200 || response.status > 299) co_return Failure(RDError::http(response.status));
  co_return std::move(response.body);
}

QCoro::Task<Result<QByteArray, RDError>> RDClient::request(std::string path, QByteArray method,
                                                           CancelToken token) const {
  if (key_.empty()) co_return Failure(RDError::noKey());
  HttpRequest req;
  req.url = urlFor(path);
  req.method = std::move(method);
  req.timeoutSeconds = kRequestTimeout;
  co_return co_await send(std::move(req), std::move(token));
}

QCoro::Task<Result<QByteArray, RDError>> RDClient::post(std::string path, Form form, CancelToken token) const {
  if (key_.empty()) co_return Failure(RDError::noKey());
  HttpRequest req;
  req.url = urlFor(path);
  req.method = "POST";
  req.headers.emplace_back("Content-Type", "application/x-www-form-urlencoded");
  req.body = encodeForm(form);
  req.timeoutSeconds = kPostTimeout;
  co_return co_await send(std::move(req), std::move(token));
}

namespace {
// A torrent id from a reply goes into a path: it is one path segment, however
// it is spelled.
std::string segment(const std::string& id) { return percentEncode(id, PlainSet::ascii); }
}  // namespace

QCoro::Task<Result<std::string, RDError>> RDClient::addMagnet(std::string hash, CancelToken token) const {
  Form form;
  form["magnet"] = "magnet:?xt=urn:btih:" + hash;
  std::string path = "torrents/addMagnet";
  auto r = co_await post(std::move(path), std::move(form), std::move(token));
  if (!r) co_return Failure(r.error());
  auto id = decodeAddMagnet(*r);
  if (!id) co_return Failure(RDError{RDError::Kind::undecodable, 0, {}});
  co_return std::move(*id);
}

QCoro::Task<Result<void, RDError>> RDClient::selectFiles(std::string id, std::string files, CancelToken token) const {
  Form form;
  form["files"] = std::move(files);
  std::string path = "torrents/selectFiles/" + segment(id);
  auto r = co_await post(std::move(path), std::move(form), std::move(token));
  if (!r) co_return Failure(r.error());
  co_return Result<void, RDError>();
}

QCoro::Task<Result<TorrentInfo, RDError>> RDClient::torrentInfo(std::string id, CancelToken token) const {
  std::string path = "torrents/info/" + segment(id);
  QByteArray method = "GET";
  auto r = co_await request(std::move(path), std::move(method), std::move(token));
  if (!r) co_return Failure(r.error());
  auto info = decodeTorrentInfo(*r);
  if (!info) co_return Failure(RDError{RDError::Kind::undecodable, 0, {}});
  co_return std::move(*info);
}

QCoro::Task<Result<std::optional<std::string>, RDError>> RDClient::pollUntilLink(std::string id, bool largestOnly,
                                                                                 double budgetSeconds,
                                                                                 CancelToken token) const {
  using R = Result<std::optional<std::string>, RDError>;
  Clock& clock = http_->clock();
  const Date started = clock.now();
  const Date deadline = started + budgetSeconds;
  bool selected = false;
  for (;;) {
    auto info = co_await torrentInfo(id, token);
    if (!info) co_return Failure(info.error());
    const std::string& status = info->status;
    if (status == "downloaded") {
      if (info->links && !info->links->empty()) co_return R(std::optional<std::string>(info->links->front()));
      co_return R(std::optional<std::string>());
    }
    if (status == "waiting_files_selection" && !selected) {
      std::string files = fileSelection(info->files, largestOnly);
      // A failed selection is not the end: the next info call tells.
      auto chosen = co_await selectFiles(id, std::move(files), token);
      (void)chosen;
      selected = true;
      continue;
    }
    for (const auto& refused : kRefusedStatuses)
      if (status == refused) co_return Failure(RDError::refused(status));
    if (clock.now() >= deadline) co_return R(std::optional<std::string>());
    const double pause = clock.now() - started < kQuickPhase ? kQuickPause : kSlowPause;
    // A cancelled pause ends early and is no failure of its own; the next
    // request carries the same token and stops the flow.
    const bool slept = co_await clock.sleep(pause, token);
    (void)slept;
  }
}

QCoro::Task<Result<UnrestrictResp, RDError>> RDClient::unrestrict(std::string link, CancelToken token) const {
  Form form;
  form["link"] = std::move(link);
  std::string path = "unrestrict/link";
  auto r = co_await post(std::move(path), std::move(form), std::move(token));
  if (!r) co_return Failure(r.error());
  auto resp = decodeUnrestrict(*r);
  if (!resp) co_return Failure(RDError{RDError::Kind::undecodable, 0, {}});
  co_return std::move(*resp);
}

QCoro::Task<Result<RDUserInfo, RDError>> RDClient::user(CancelToken token) const {
  std::string path = "user";
  QByteArray method = "GET";
  auto r = co_await request(std::move(path), std::move(method), std::move(token));
  if (!r) co_return Failure(r.error());
  auto info = decodeUserInfo(*r);
  if (!info) co_return Failure(RDError{RDError::Kind::undecodable, 0, {}});
  co_return std::move(*info);
}

QCoro::Task<Result<void, RDError>> RDClient::deleteTorrent(std::string id, CancelToken token) const {
  std::string path = "torrents/delete/" + segment(id);
  QByteArray method = "DELETE";
  auto r = co_await request(std::move(path), std::move(method), std::move(token));
  if (!r) co_return Failure(r.error());
  co_return Result<void, RDError>();
}

QCoro::Task<Result<std::vector<RDDownload>, RDError>> RDClient::downloads(CancelToken token) const {
  std::string path = "downloads?limit=50";
  QByteArray method = "GET";
  auto r = co_await request(std::move(path), std::move(method), std::move(token));
  if (!r) co_return Failure(r.error());
  auto rows = decodeDownloads(*r);
  if (!rows) co_return Failure(RDError{RDError::Kind::undecodable, 0, {}});
  co_return std::move(*rows);
}

}  // namespace vt
