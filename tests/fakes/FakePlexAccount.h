#pragma once

#include <optional>
#include <string>
#include <vector>

#include <QByteArray>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// The Plex account service on 127.0.0.1: the `resources` list of the account's
// devices under "/api/v2", refused with 401 without the right X-Plex-Token.
// It also plays the Plex server on this machine (its "/identity") and, under
// "/pms/<name>", the servers that the devices' connections point at.
class FakePlexAccount : public FakeHttpServer {
 public:
  struct Connection {
    std::string uri;
    bool local = false;
  };
  struct Device {
    std::string name;
    std::string provides = "server";
    std::optional<std::string> clientIdentifier;
    std::optional<bool> owned = true;  // none leaves the key out
    std::vector<Connection> connections;
  };

  explicit FakePlexAccount(std::string token = "plex-account-token");

  std::string token;
  std::vector<Device> devices;
  // Answers the list with this status when set.
  std::optional<int> resourcesStatus;
  // Sends this body instead of the devices when set (broken replies).
  std::optional<QByteArray> resourcesBody;
  // Keeps the list request open without an answer.
  bool holdResources = false;

  // The identifier "/identity" gives; none answers 404.
  std::optional<std::string> localMachineIdentifier;
  bool holdIdentity = false;

  // The account API base and the local server's address, for the client.
  std::string accountBase() const;
  std::string localServer() const;

  // A server at "/pms/<name>" that answers `status` to a request with the
  // token (401 without); a status of 0 never answers. Returns its address.
  std::string serverAt(const std::string& name, int status);
  // The names of the servers asked, in order.
  std::vector<std::string> serversAsked() const;
};

// An address on 127.0.0.1 where nothing listens.
std::string refusedAddress();

}  // namespace vt::test
