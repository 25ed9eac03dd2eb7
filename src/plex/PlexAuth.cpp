#include "plex/PlexAuth.h"

#include <algorithm>
#include <utility>

#include "platform/Endpoints.h"
#include "platform/Http.h"
#include "platform/Json.h"
#include "platform/Url.h"

namespace vt {

std::string message(const PlexAuth::AuthError& e) {
  using Kind = PlexAuth::AuthError::Kind;
  switch (e.kind) {
    case Kind::http:
      return "Plex returned HTTP " + std::to_string(e.status);
    case Kind::timeout:
      return "Sign-in timed out — try again.";
    case Kind::noServer:
      return "No Plex Media Server found on your account.";
    case Kind::noReachableServer:
      return "Found servers but none are reachable from this machine.";
    case Kind::transport:
      return e.detail.empty() ? std::string("The Plex account service could not be reached.") : e.detail;
  }
  return e.detail;
}

namespace {

std::optional<std::string> text(const Json& o, const char* key) {
  auto it = o.find(key);
  if (it == o.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}
std::optional<bool> boolean(const Json& o, const char* key) {
  auto it = o.find(key);
  if (it == o.end() || !it->is_boolean()) return std::nullopt;
  return it->get<bool>();
}

// A transport's text may quote what was sent; the token never leaves in it.
std::string withoutSecret(std::string detail, const std::string& secret) {
  if (secret.empty()) return detail;
  for (auto at = detail.find(secret); at != std::string::npos; at = detail.find(secret, at))
    detail.replace(at, secret.size(), "<token>");
  return detail;
}

bool isEmpty(const std::optional<std::string>& name) { return !name || name->empty(); }

}  // namespace

PlexAuth::PlexAuth(HttpClient& http) : PlexAuth(http, endpoints().plexAccount, endpoints().plexLocalServer) {}

PlexAuth::PlexAuth(HttpClient& http, std::string plexTV, std::string localServer)
    : plexTV(std::move(plexTV)), localServer(std::move(localServer)), http_(&http) {}

std::vector<PlexAuth::Device> PlexAuth::decodeDevices(const QByteArray& body) {
  std::vector<Device> devices;
  const auto doc = json::parse(std::string_view(body.constData(), static_cast<size_t>(body.size())));
  if (!doc || !doc->is_array()) return devices;
  for (const auto& row : *doc) {
    if (!row.is_object()) continue;
    auto name = text(row, "name");
    auto provides = text(row, "provides");
    if (!name || !provides) continue;
    Device d;
    d.name = std::move(*name);
    d.provides = std::move(*provides);
    d.clientIdentifier = text(row, "clientIdentifier");
    d.owned = boolean(row, "owned");
    if (auto it = row.find("connections"); it != row.end() && it->is_array()) {
      for (const auto& c : *it) {
        if (!c.is_object()) continue;
        auto uri = text(c, "uri");
        if (!uri) continue;
        d.connections.push_back({std::move(*uri), boolean(c, "local").value_or(false)});
      }
    }
    devices.push_back(std::move(d));
  }
  return devices;
}

std::vector<PlexAuth::Connection> PlexAuth::rankConnections(std::vector<Connection> connections) {
  auto rank = [](const Connection& c) { return (c.uri.starts_with("https") ? 0 : 2) + (c.local ? 0 : 1); };
  std::stable_sort(connections.begin(), connections.end(),
                   [&rank](const Connection& a, const Connection& b) { return rank(a) < rank(b); });
  return connections;
}

QCoro::Task<std::optional<std::string>> PlexAuth::localMachineIdentifier(CancelToken cancel) const {
  auto base = parseUrl(localServer);
  if (!base) co_return std::nullopt;
  HttpRequest request;
  request.url = QUrl(QString::fromStdString(localServer + "/identity"));
  request.headers = {{"Accept", "application/json"}};
  request.timeoutSeconds = kLocalIdentityTimeout;
  const auto reply = co_await http_->send(std::move(request), cancel);
  if (!reply.ok()) co_return std::nullopt;
  const auto doc = reply.json();
  if (!doc || !doc->is_object()) co_return std::nullopt;
  auto mc = doc->find("MediaContainer");
  if (mc == doc->end() || !mc->is_object()) co_return std::nullopt;
  auto id = text(*mc, "machineIdentifier");
  if (!id || id->empty()) co_return std::nullopt;
  co_return id;
}

QCoro::Task<Result<DiscoveredServer, PlexAuth::AuthError>> PlexAuth::discover(std::string token, std::string clientId,
                                                                              std::optional<std::string> preferredName,
                                                                              bool onlyPreferred,
                                                                              CancelToken cancel) const {
  const QByteArray tokenHeader = QByteArray::fromStdString(token);

  HttpRequest resources;
  resources.url = QUrl(QString::fromStdString(plexTV + "/resources?includeHttps=1&includeRelay=1"));
  resources.headers = {{"X-Plex-Product", "Vantory"},
                       {"X-Plex-Client-Identifier", QByteArray::fromStdString(clientId)},
                       {"Accept", "application/json"},
                       {"X-Plex-Token", tokenHeader}};
  resources.timeoutSeconds = kAccountTimeout;
  const auto reply = co_await http_->send(std::move(resources), cancel);
  if (reply.failure != HttpFailure::none) {
    AuthError failed{AuthError::Kind::transport, 0, withoutSecret(reply.errorText, token)};
    co_return Failure(std::move(failed));
  }
  if (reply.status < 200 || reply.status > 299) {
    auto refused = AuthError::httpStatus(reply.status);
    co_return Failure(std::move(refused));
  }

  std::vector<Device> devices;
  for (auto& d : decodeDevices(reply.body)) {
    if (d.provides.find("server") == std::string::npos) continue;
    if (d.owned == false) continue;
    devices.push_back(std::move(d));
  }
  if (onlyPreferred && !isEmpty(preferredName))
    std::erase_if(devices, [&](const Device& d) { return d.name != *preferredName; });
  if (devices.empty()) {
    AuthError none{AuthError::Kind::noServer, 0, {}};
    co_return Failure(std::move(none));
  }

  if (!isEmpty(preferredName))
    std::stable_partition(devices.begin(), devices.end(), [&](const Device& d) { return d.name == *preferredName; });

  // A server on this machine goes ahead of every other, the preferred one too.
  const auto localId = co_await localMachineIdentifier(cancel);
  if (localId) {
    std::stable_partition(devices.begin(), devices.end(),
                          [&](const Device& d) { return d.clientIdentifier == *localId; });
  }

  for (const auto& device : devices) {
    for (const auto& connection : rankConnections(device.connections)) {
      if (cancel.isCancelled()) {
        AuthError cancelled{AuthError::Kind::transport, 0, "cancelled"};
        co_return Failure(std::move(cancelled));
      }
      const auto url = parseUrl(connection.uri);
      if (!url) continue;
      HttpRequest probe;
      probe.url = *url;
      probe.headers = {{"X-Plex-Token", tokenHeader}};
      probe.timeoutSeconds = kConnectionTimeout;
      // A redirect is an answer: the server is there.
      probe.followRedirects = false;
      const auto answer = co_await http_->send(std::move(probe), cancel);
      if (answer.failure == HttpFailure::none && answer.status >= 200 && answer.status <= 399) {
        DiscoveredServer found{connection.uri, device.name};
        co_return found;
      }
    }
  }
  AuthError unreachable{AuthError::Kind::noReachableServer, 0, {}};
  co_return Failure(std::move(unreachable));
}

namespace {
// A coroutine of its own, so that nothing it needs lives in the caller's lambda.
QCoro::Task<DiscoveryOutcome> rediscover(PlexAuth auth, std::string token, std::string clientIdentifier,
                                         std::optional<std::string> preferredName) {
  auto found = co_await auth.discover(std::move(token), std::move(clientIdentifier), std::move(preferredName), true);
  DiscoveryOutcome outcome;
  if (found)
    outcome.server = *found;
  else
    outcome.error = message(found.error());
  co_return outcome;
}
}  // namespace

PlexDiscovery plexDiscovery(PlexAuth auth) {
  return [auth = std::move(auth)](std::string token, std::string clientIdentifier,
                                  std::optional<std::string> preferredName) {
    return rediscover(auth, std::move(token), std::move(clientIdentifier), std::move(preferredName));
  };
}

PlexDiscovery plexDiscovery(HttpClient& http) { return plexDiscovery(PlexAuth(http)); }

}  // namespace vt
