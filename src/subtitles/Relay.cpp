#include "subtitles/Relay.h"

#include <algorithm>

#include <QString>

#include "platform/Endpoints.h"
#include "platform/PercentEncoding.h"
#include "platform/Text.h"
#include "platform/Url.h"

namespace vt {

namespace {

// The first `n` bytes of a body as text; a character cut in half or any
// other invalid UTF-8 becomes U+FFFD.
std::string leading(const QByteArray& body, qsizetype n) {
  return validUtf8(std::string_view(body.constData(), static_cast<size_t>(std::min(n, body.size()))));
}

}  // namespace

std::string message(const RelayError& error) {
  if (error.kind == RelayError::Kind::budget) return "this month's subtitle allowance is used up";
  return "relay " + std::to_string(error.status) + ": " + error.text;
}

Json Relay::Shared::toJson() const {
  Json j = Json::object();
  if (asset) j["asset"] = asset->toJson();
  Json t = Json::object();
  for (const auto& [target, entry] : translations) t[target] = entry.toJson();
  j["translations"] = std::move(t);
  return j;
}

Relay::Shared Relay::Shared::fromJson(const Json& j) {
  if (!j.is_object()) throw DecodeError("expected an object");
  Shared out;
  if (auto it = j.find("asset"); it != j.end() && !it->is_null()) out.asset = AssetEntry::fromJson(*it);
  if (auto it = j.find("translations"); it != j.end() && !it->is_null()) {
    if (!it->is_object()) throw DecodeError("\"translations\" is not an object");
    for (const auto& [target, entry] : it->items()) out.translations.emplace(target, TranslationEntry::fromJson(entry));
  }
  return out;
}

Json Relay::lookupRecord(const std::string& asset, const std::vector<std::string>& targets) {
  Json j = Json::object();
  j["asset"] = asset;
  j["targets"] = targets;
  return j;
}

Json Relay::storeAssetRecord(const std::string& asset, const AssetEntry& entry) {
  Json j = Json::object();
  j["asset"] = asset;
  j["entry"] = entry.toJson();
  return j;
}

Json Relay::storeTranslationRecord(const std::string& fileId, const std::string& target,
                                   const TranslationEntry& entry) {
  Json j = Json::object();
  j["fileId"] = fileId;
  j["target"] = target;
  j["entry"] = entry.toJson();
  return j;
}

Relay::Relay(HttpClient& http, std::optional<QUrl> base, Headers auth)
    : http_(&http), base_(std::move(base)), auth_(std::move(auth)) {
  if (base_ && !base_->isValid()) base_.reset();
}

std::optional<QUrl> Relay::defaultBase() { return parseUrl(endpoints().subtitleService); }

HttpRequest Relay::request(const std::string& route, Query query, double timeout) const {
  QUrl url = base_.value_or(QUrl());
  std::string path = url.path(QUrl::FullyEncoded).toStdString();
  while (!path.empty() && path.back() == '/') path.pop_back();
  size_t at = 0;
  while (at <= route.size()) {
    const size_t slash = std::min(route.find('/', at), route.size());
    if (slash > at)
      path.append("/").append(percentEncode(std::string_view(route).substr(at, slash - at), PlainSet::ascii));
    at = slash + 1;
  }
  url.setPath(QString::fromStdString(path), QUrl::StrictMode);
  std::stable_sort(query.begin(), query.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  std::string q;
  for (const auto& [name, value] : query) {
    if (!q.empty()) q.push_back('&');
    q.append(percentEncode(name, PlainSet::ascii)).append("=").append(percentEncode(value, PlainSet::ascii));
  }
  if (!q.empty()) url.setQuery(QString::fromStdString(q), QUrl::StrictMode);

  HttpRequest req;
  req.url = url;
  req.timeoutSeconds = timeout;
  // The service's own headers go to the service only, never to where a redirect points.
  req.followRedirects = false;
  req.headers.emplace_back("Accept", "application/json");
  for (const auto& header : auth_) req.headers.push_back(header);
  return req;
}

Result<void, RelayError> Relay::check(const HttpResponse& reply) {
  if (reply.failure != HttpFailure::none) {
    const std::string text = reply.failure == HttpFailure::timeout     ? "timed out"
                             : reply.failure == HttpFailure::cancelled ? "cancelled"
                                                                       : reply.errorText;
    return Failure(RelayError::http(0, text));
  }
  if (reply.status >= 200 && reply.status <= 299) return {};
  if (reply.status == 429 && reply.body.left(200).contains("budget")) return Failure(RelayError::budget());
  return Failure(RelayError::http(reply.status, leading(reply.body, 300)));
}

QCoro::Task<Result<QByteArray, RelayError>> Relay::send(HttpRequest request, CancelToken token) {
  if (!available()) co_return Failure(RelayError::http(0, "no subtitle service"));
  auto reply = co_await http_->send(std::move(request), token);
  if (auto checked = check(reply); !checked) co_return Failure(checked.error());
  co_return std::move(reply.body);
}

QCoro::Task<Result<QByteArray, RelayError>> Relay::post(std::string route, Json body, double timeout,
                                                        CancelToken token) {
  HttpRequest req = request(route, {}, timeout);
  req.method = "POST";
  req.headers.emplace_back("Content-Type", "application/json");
  req.body = QByteArray::fromStdString(json::encode(body));
  auto result = co_await send(std::move(req), token);
  co_return result;
}

QCoro::Task<Relay::Shared> Relay::lookup(std::string asset, std::vector<std::string> targets, CancelToken token) {
  if (!available()) co_return Shared{};
  Json record = lookupRecord(asset, targets);
  std::string route = "lookup";
  auto reply = co_await post(std::move(route), std::move(record), kLookupTimeout, token);
  if (!reply) co_return Shared{};
  const auto parsed = json::parse(std::string_view(reply->constData(), reply->size()));
  if (!parsed) co_return Shared{};
  try {
    Shared shared = Shared::fromJson(*parsed);
    co_return shared;
  } catch (const std::exception&) {
    co_return Shared{};
  }
}

QCoro::Task<bool> Relay::storeAsset(std::string asset, AssetEntry entry, CancelToken token) {
  if (!available() || !entry.timing || !entry.timing->settled) co_return false;
  Json record = storeAssetRecord(asset, entry);
  std::string route = "store/asset";
  auto reply = co_await post(std::move(route), std::move(record), kStoreTimeout, token);
  co_return reply.has_value();
}

QCoro::Task<bool> Relay::storeTranslation(std::string fileId, std::string target, TranslationEntry entry,
                                          CancelToken token) {
  if (!available()) co_return false;
  Json record = storeTranslationRecord(fileId, target, entry);
  std::string route = "store/translation";
  auto reply = co_await post(std::move(route), std::move(record), kStoreTimeout, token);
  co_return reply.has_value();
}

}  // namespace vt
