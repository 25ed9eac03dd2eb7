#include "fakes/FakePlexAccount.h"

#include <QTcpServer>

namespace vt::test {

FakePlexAccount::FakePlexAccount(std::string tokenValue) : token(std::move(tokenValue)) {
  on("GET", "/api/v2/resources", [this](const Request& r, Reply& reply) {
    if (r.header("X-Plex-Token") != QByteArray::fromStdString(token))
      return reply.send(401, R"({"errors":[{"code":1001,"message":"User could not be authenticated"}]})", {},
                        "application/json");
    if (holdResources) return reply.hold();
    if (resourcesStatus) return reply.send(*resourcesStatus, "", {}, "application/json");
    if (resourcesBody) return reply.send(200, *resourcesBody, {}, "application/json");
    Json list = Json::array();
    for (const auto& d : devices) {
      Json device;
      device["name"] = d.name;
      device["product"] = "Plex Media Server";
      device["provides"] = d.provides;
      if (d.clientIdentifier) device["clientIdentifier"] = *d.clientIdentifier;
      if (d.owned) device["owned"] = *d.owned;
      Json connections = Json::array();
      for (const auto& c : d.connections) {
        Json connection;
        connection["protocol"] = c.uri.starts_with("https") ? "https" : "http";
        connection["uri"] = c.uri;
        connection["local"] = c.local;
        connection["relay"] = false;
        connections.push_back(std::move(connection));
      }
      device["connections"] = std::move(connections);
      list.push_back(std::move(device));
    }
    reply.json(list);
  });
  on("GET", "/identity", [this](const Request&, Reply& reply) {
    if (holdIdentity) return reply.hold();
    if (!localMachineIdentifier) return reply.send(404, "", {}, "text/plain");
    Json mc;
    mc["size"] = 0;
    mc["claimed"] = true;
    mc["machineIdentifier"] = *localMachineIdentifier;
    mc["version"] = "1.40.0.0000";
    Json body;
    body["MediaContainer"] = std::move(mc);
    reply.json(body);
  });
}

std::string FakePlexAccount::accountBase() const { return url("/api/v2").toString().toStdString(); }

std::string FakePlexAccount::localServer() const { return baseUrl().toString().toStdString(); }

std::string FakePlexAccount::serverAt(const std::string& name, int status) {
  const QString path = QString::fromStdString("/pms/" + name);
  on("GET", path, [this, status](const Request& r, Reply& reply) {
    if (r.header("X-Plex-Token") != QByteArray::fromStdString(token)) return reply.send(401, "", {}, "text/html");
    if (status == 0) return reply.hold();
    std::vector<std::pair<QByteArray, QByteArray>> headers;
    if (status >= 300 && status < 400) headers.emplace_back("Location", "/web/index.html");
    reply.send(status, "", std::move(headers), "text/plain");
  });
  return url(path).toString().toStdString();
}

std::vector<std::string> FakePlexAccount::serversAsked() const {
  std::vector<std::string> names;
  for (const auto& r : requests())
    if (r.path.startsWith("/pms/")) names.push_back(r.path.mid(5).toStdString());
  return names;
}

std::string refusedAddress() {
  QTcpServer s;
  s.listen(QHostAddress::LocalHost, 0);
  const auto port = s.serverPort();
  s.close();
  return "http://127.0.0.1:" + std::to_string(port);
}

}  // namespace vt::test
