#include "engine/EngineStatusClient.h"

#include "platform/Url.h"

#include <QUrlQuery>
#include <algorithm>

#include "platform/Http.h"
#include "platform/Json.h"

namespace vt {

EngineStatusClient::EngineStatusClient(HttpClient& http) : http_(http) {}

namespace {

QUrl join(const QUrl& base, const char* path) { return withPathAppended(base, path); }

Json sortedNames(std::vector<std::string> names) {
  std::sort(names.begin(), names.end());
  Json arr = Json::array();
  for (auto& n : names) arr.push_back(std::move(n));
  return arr;
}

std::string_view bodyView(const HttpResponse& r) {
  return std::string_view(r.body.constData(), static_cast<size_t>(r.body.size()));
}

}  // namespace

QCoro::Task<bool> EngineStatusClient::healthz(std::optional<QUrl> controlURL, CancelToken token) const {
  if (!controlURL) co_return false;
  auto r = co_await http_.get(join(*controlURL, "healthz"), kHealthTimeout, token);
  co_return r.failure == HttpFailure::none&& r.status == 200;
}

QCoro::Task<std::optional<EngineAdoption>> EngineStatusClient::adopt(std::optional<QUrl> controlURL, int32_t pid,
                                                                     CancelToken token) const {
  if (!controlURL) co_return std::nullopt;
  Json body;
  body["pid"] = pid;
  auto r = co_await http_.postJson(join(*controlURL, "control/adopt"), body, kAdoptTimeout, token);
  if (r.failure != HttpFailure::none || r.status != 200) co_return std::nullopt;
  co_return decodeEngineAdoption(bodyView(r));
}

QCoro::Task<std::optional<EngineStatusPayload>> EngineStatusClient::status(std::optional<QUrl> controlURL,
                                                                           CancelToken token) const {
  if (!controlURL) co_return std::nullopt;
  auto r = co_await http_.get(join(*controlURL, "status"), kStatusTimeout, token);
  if (r.failure != HttpFailure::none) co_return std::nullopt;
  co_return decodeEngineStatus(bodyView(r));
}

QCoro::Task<EngineStatusClient::ReloadReply> EngineStatusClient::reload(std::optional<QUrl> controlURL,
                                                                        CancelToken token) const {
  ReloadReply reply;
  if (!controlURL) co_return reply;
  HttpRequest request;
  request.url = join(*controlURL, "control/reload");
  request.method = "POST";
  request.timeoutSeconds = kReloadTimeout;
  auto r = co_await http_.send(std::move(request), token);
  if (r.failure != HttpFailure::none) co_return reply;
  reply.answered = true;
  if (auto doc = json::parse(bodyView(r)); doc && doc->is_object()) {
    if (auto it = doc->find("deferred"); it != doc->end() && it->is_number_integer())
      reply.deferred = it->get<int64_t>();
  }
  co_return reply;
}

QCoro::Task<> EngineStatusClient::postNames(std::optional<QUrl> controlURL, const char* path,
                                            std::vector<std::string> names, CancelToken token) const {
  if (!controlURL || names.empty()) co_return;
  Json body;
  body["names"] = sortedNames(std::move(names));
  co_await http_.postJson(join(*controlURL, path), body, kHintTimeout, token);
}

QCoro::Task<> EngineStatusClient::warmPending(std::optional<QUrl> controlURL, std::vector<std::string> names,
                                              CancelToken token) const {
  co_await postNames(std::move(controlURL), "control/warm-pending", std::move(names), token);
}

QCoro::Task<> EngineStatusClient::boost(std::optional<QUrl> controlURL, std::vector<std::string> names,
                                        CancelToken token) const {
  co_await postNames(std::move(controlURL), "control/boost", std::move(names), token);
}

QCoro::Task<> EngineStatusClient::touch(std::optional<QUrl> controlURL, std::vector<std::string> names,
                                        CancelToken token) const {
  co_await postNames(std::move(controlURL), "control/touch", std::move(names), token);
}

QCoro::Task<> EngineStatusClient::prewarm(std::optional<QUrl> controlURL, std::vector<std::string> names,
                                          std::map<std::string, double> resume, CancelToken token) const {
  if (!controlURL || names.empty()) co_return;
  Json body;
  body["names"] = sortedNames(std::move(names));
  Json r = Json::object();
  for (const auto& [name, fraction] : resume) r[name] = fraction;  // std::map: ascending
  body["resume"] = r;
  co_await http_.postJson(join(*controlURL, "control/prewarm"), body, kHintTimeout, token);
}

QCoro::Task<> EngineStatusClient::expect(std::optional<QUrl> controlURL, std::vector<std::string> names, int ttl,
                                         CancelToken token) const {
  if (!controlURL || names.empty()) co_return;
  std::sort(names.begin(), names.end());
  QUrl url = join(*controlURL, "control/expect");
  QUrlQuery query;
  for (const auto& n : names) query.addQueryItem("name", QString::fromStdString(n));
  query.addQueryItem("ttl", QString::number(ttl));
  url.setQuery(query);
  HttpRequest request;
  request.url = std::move(url);
  request.method = "POST";
  request.timeoutSeconds = kHintTimeout;
  co_await http_.send(std::move(request), token);
}

QCoro::Task<> EngineStatusClient::setBudget(std::optional<QUrl> controlURL, double gigabytes, CancelToken token) const {
  if (!controlURL) co_return;
  Json body;
  body["cache_gb"] = gigabytes;
  co_await http_.postJson(join(*controlURL, "control/budget"), body, kHintTimeout, token);
}

QCoro::Task<> EngineStatusClient::setPlayback(std::optional<QUrl> controlURL, bool active, CancelToken token) const {
  if (!controlURL) co_return;
  Json body;
  body["active"] = active;
  co_await http_.postJson(join(*controlURL, "control/playback"), body, kHintTimeout, token);
}

}  // namespace vt
