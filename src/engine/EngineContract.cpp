#include "engine/EngineContract.h"

#include <algorithm>
#include <filesystem>

#include "core/AppConfig.h"
#include "platform/Crypto.h"
#include "platform/Http.h"
#include "platform/Json.h"
#include "platform/JsonWriter.h"

namespace vt {

EngineInstancePaths EngineInstancePaths::forKind(EngineKind kind, const std::string& dataDirectory,
                                                 const AppConfig& config) {
  namespace fs = std::filesystem;
  const fs::path data(dataDirectory);
  EngineInstancePaths p;
  p.kind = kind;
  const bool tv = kind == EngineKind::tv;
  p.label = tv ? "[tv-supervisor]" : "[supervisor]";
  p.nfsAddress = tv ? "127.0.0.1:12051" : "127.0.0.1:12049";
  p.controlURL = tv ? config.tvControlURL() : config.controlURL();
  p.controlAddress = tv ? config.tvControlAddress() : config.movieControlAddress();
  p.mountPoint = (data / (tv ? "Library TV" : "Library")).string();
  const fs::path folder = tv ? data / "tv" : data;
  p.configURL = (folder / "entries.json").string();
  p.pidFile = (folder / "vtnfs.pid").string();
  p.logFile = (folder / "engine.log").string();
  p.probeCache = (folder / "probe-cache").string();
  return p;
}

std::string encodeEngineConfig(const std::vector<EngineEntry>& entries) {
  JsonWriter w(entries.size() * 320 + 16);
  w.beginObject();
  w.key("entries");
  w.beginArray();
  for (const auto& e : entries) {
    w.beginObject();
    w.field("name", e.name);
    w.field("url", e.url);
    w.field("size", e.size);
    w.field("mtime", e.mtime);
    w.field("rd_link", e.rd_link);
    w.field("resolve_url", e.resolve_url);
    w.field("local", e.local);
    w.field("hidden", e.hidden);
    w.field("size_verified", e.size_verified);
    w.field("lazy", e.lazy);
    if (e.alt_sources) {
      w.key("alt_sources");
      w.beginArray();
      for (const auto& a : *e.alt_sources) {
        w.beginObject();
        w.field("resolve_url", a.resolve_url);
        w.endObject();
      }
      w.endArray();
    }
    w.endObject();
  }
  w.endArray();
  w.endObject();
  return w.take();
}

std::optional<std::vector<EngineEntry>> decodeEngineConfig(std::string_view text) {
  auto doc = json::parse(text);
  if (!doc || !doc->is_object()) return std::nullopt;
  try {
    const auto it = doc->find("entries");
    if (it == doc->end() || !it->is_array()) return std::nullopt;
    std::vector<EngineEntry> out;
    for (const auto& j : *it) {
      EngineEntry e;
      e.name = json::required<std::string>(j, "name");
      e.url = json::required<std::string>(j, "url");
      e.size = json::required<int64_t>(j, "size");
      e.mtime = json::required<int64_t>(j, "mtime");
      e.rd_link = json::required<std::string>(j, "rd_link");
      e.resolve_url = json::required<std::string>(j, "resolve_url");
      e.local = json::required<std::string>(j, "local");
      e.hidden = json::required<bool>(j, "hidden");
      e.size_verified = json::required<bool>(j, "size_verified");
      e.lazy = json::required<bool>(j, "lazy");
      if (auto a = j.find("alt_sources"); a != j.end() && a->is_array()) {
        std::vector<EngineAltSource> alts;
        for (const auto& s : *a) alts.push_back({json::required<std::string>(s, "resolve_url")});
        e.alt_sources = std::move(alts);
      }
      out.push_back(std::move(e));
    }
    return out;
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

std::optional<EngineStatusPayload> decodeEngineStatus(std::string_view text) {
  auto doc = json::parse(text);
  if (!doc || !doc->is_object()) return std::nullopt;
  try {
    const auto it = doc->find("entries");
    if (it == doc->end() || !it->is_array()) return std::nullopt;
    EngineStatusPayload p;
    for (const auto& j : *it) {
      EngineStatusEntry e;
      e.name = json::required<std::string>(j, "name");
      e.size = json::optional<int64_t>(j, "size");
      e.size_verified = json::optional<bool>(j, "size_verified");
      e.warmed = json::optional<bool>(j, "warmed");
      e.probe_ready = json::optional<bool>(j, "probe_ready");
      e.bytes_served = json::optional<int64_t>(j, "bytes_served");
      p.entries.push_back(std::move(e));
    }
    return p;
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

std::string encodeEngineStatus(const EngineStatusPayload& payload) {
  JsonWriter w;
  w.beginObject();
  w.key("entries");
  w.beginArray();
  for (const auto& e : payload.entries) {
    w.beginObject();
    w.field("name", e.name);
    w.field("size", e.size);
    w.field("size_verified", e.size_verified);
    w.field("warmed", e.warmed);
    w.field("probe_ready", e.probe_ready);
    w.field("bytes_served", e.bytes_served);
    w.endObject();
  }
  w.endArray();
  w.endObject();
  return w.take();
}

std::optional<EngineAdoption> decodeEngineAdoption(std::string_view text) {
  auto doc = json::parse(text);
  if (!doc || !doc->is_object()) return std::nullopt;
  try {
    EngineAdoption a;
    a.pid = json::optional<int>(*doc, "pid");
    a.version = json::required<std::string>(*doc, "version");
    a.rd_key_sha256 = json::required<std::string>(*doc, "rd_key_sha256");
    return a;
  } catch (const DecodeError&) {
    return std::nullopt;
  }
}

EngineStatusClient::EngineStatusClient(HttpClient& http) : http_(http) {}

std::string EngineStatusClient::keyHash(std::string_view rdKey) { return sha256Hex(rdKey); }

namespace {

QUrl join(const QUrl& base, const char* path) {
  QUrl url = base;
  QString p = url.path();
  if (!p.endsWith('/')) p += '/';
  url.setPath(p + QString::fromLatin1(path));
  return url;
}

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

QCoro::Task<bool> EngineStatusClient::healthz(std::optional<QUrl> controlURL) const {
  if (!controlURL) co_return false;
  auto r = co_await http_.get(join(*controlURL, "healthz"), kHealthTimeout);
  co_return r.failure == HttpFailure::none&& r.status == 200;
}

QCoro::Task<std::optional<EngineAdoption>> EngineStatusClient::adopt(std::optional<QUrl> controlURL,
                                                                     int32_t pid) const {
  if (!controlURL) co_return std::nullopt;
  Json body;
  body["pid"] = pid;
  auto r = co_await http_.postJson(join(*controlURL, "control/adopt"), body, kAdoptTimeout);
  if (r.failure != HttpFailure::none || r.status != 200) co_return std::nullopt;
  co_return decodeEngineAdoption(bodyView(r));
}

QCoro::Task<std::optional<EngineStatusPayload>> EngineStatusClient::status(std::optional<QUrl> controlURL) const {
  if (!controlURL) co_return std::nullopt;
  auto r = co_await http_.get(join(*controlURL, "status"), kStatusTimeout);
  if (r.failure != HttpFailure::none) co_return std::nullopt;
  co_return decodeEngineStatus(bodyView(r));
}

QCoro::Task<EngineStatusClient::ReloadReply> EngineStatusClient::reload(std::optional<QUrl> controlURL) const {
  ReloadReply reply;
  if (!controlURL) co_return reply;
  HttpRequest request;
  request.url = join(*controlURL, "control/reload");
  request.method = "POST";
  request.timeoutSeconds = kReloadTimeout;
  auto r = co_await http_.send(std::move(request));
  if (r.failure != HttpFailure::none) co_return reply;
  reply.answered = true;
  if (auto doc = json::parse(bodyView(r)); doc && doc->is_object()) {
    if (auto it = doc->find("deferred"); it != doc->end() && it->is_number_integer())
      reply.deferred = it->get<int64_t>();
  }
  co_return reply;
}

QCoro::Task<> EngineStatusClient::postNames(std::optional<QUrl> controlURL, const char* path,
                                            std::vector<std::string> names) const {
  if (!controlURL || names.empty()) co_return;
  Json body;
  body["names"] = sortedNames(std::move(names));
  co_await http_.postJson(join(*controlURL, path), body, kHintTimeout);
}

QCoro::Task<> EngineStatusClient::warmPending(std::optional<QUrl> controlURL, std::vector<std::string> names) const {
  co_await postNames(std::move(controlURL), "control/warm-pending", std::move(names));
}

QCoro::Task<> EngineStatusClient::boost(std::optional<QUrl> controlURL, std::vector<std::string> names) const {
  co_await postNames(std::move(controlURL), "control/boost", std::move(names));
}

QCoro::Task<> EngineStatusClient::touch(std::optional<QUrl> controlURL, std::vector<std::string> names) const {
  co_await postNames(std::move(controlURL), "control/touch", std::move(names));
}

QCoro::Task<> EngineStatusClient::prewarm(std::optional<QUrl> controlURL, std::vector<std::string> names,
                                          std::map<std::string, double> resume) const {
  if (!controlURL || names.empty()) co_return;
  Json body;
  body["names"] = sortedNames(std::move(names));
  Json r = Json::object();
  for (const auto& [name, fraction] : resume) r[name] = fraction;  // std::map: ascending
  body["resume"] = r;
  co_await http_.postJson(join(*controlURL, "control/prewarm"), body, kHintTimeout);
}

QCoro::Task<> EngineStatusClient::expect(std::optional<QUrl> controlURL, std::vector<std::string> names,
                                         int ttl) const {
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
  co_await http_.send(std::move(request));
}

QCoro::Task<> EngineStatusClient::setBudget(std::optional<QUrl> controlURL, double gigabytes) const {
  if (!controlURL) co_return;
  Json body;
  body["cache_gb"] = gigabytes;
  co_await http_.postJson(join(*controlURL, "control/budget"), body, kHintTimeout);
}

QCoro::Task<> EngineStatusClient::setPlayback(std::optional<QUrl> controlURL, bool active) const {
  if (!controlURL) co_return;
  Json body;
  body["active"] = active;
  co_await http_.postJson(join(*controlURL, "control/playback"), body, kHintTimeout);
}

}  // namespace vt
