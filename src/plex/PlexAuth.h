#pragma once

// The Plex account service: finding a server of the user's that answers from
// this machine.

#include <optional>
#include <string>
#include <vector>

#include <QByteArray>
#include <qcoro/qcorotask.h>

#include "core/PlexPort.h"
#include "platform/Cancellation.h"
#include "platform/Result.h"

namespace vt {

class HttpClient;

class PlexAuth {
 public:
  // Why the account service gave no usable answer.
  struct AuthError {
    enum class Kind {
      http,               // the account service answered outside 200..299
      timeout,            // the sign-in was not finished in time
      noServer,           // no owned server on the account
      noReachableServer,  // servers, but none answered from here
      transport,          // the account service could not be asked at all
    };
    Kind kind = Kind::transport;
    int status = 0;      // for http
    std::string detail;  // for transport: the network's own text, never the token

    static AuthError httpStatus(int status) { return {Kind::http, status, {}}; }
    bool operator==(const AuthError&) const = default;
  };

  // Wire records of the account's `resources` reply.
  struct Connection {
    std::string uri;
    bool local = false;
    bool operator==(const Connection&) const = default;
  };
  struct Device {
    std::string name;
    std::string provides;
    std::vector<Connection> connections;
    std::optional<std::string> clientIdentifier;
    std::optional<bool> owned;
  };

  // Time limits of discovery, in seconds.
  static constexpr double kAccountTimeout = 15.0;
  static constexpr double kLocalIdentityTimeout = 3.0;
  static constexpr double kConnectionTimeout = 5.0;

  // `plexTV` is the account API base (ending in "/api/v2"); `localServer` the
  // address of a Plex server on this machine. Both default to the endpoint table.
  explicit PlexAuth(HttpClient& http);
  PlexAuth(HttpClient& http, std::string plexTV, std::string localServer);

  std::string plexTV;
  std::string localServer;

  // The first connection of an owned server that answers: (uri, device name).
  // A non-empty `preferredName` goes first, and with `onlyPreferred` it is the
  // only candidate; a server on this machine goes ahead of everything.
  QCoro::Task<Result<DiscoveredServer, AuthError>> discover(std::string token, std::string clientId,
                                                            std::optional<std::string> preferredName,
                                                            bool onlyPreferred,
                                                            CancelToken cancel = CancelToken::none()) const;

  // The devices of a `resources` reply; a reply that doesn't decode reads as
  // none, and a device or connection without its required fields is left out.
  static std::vector<Device> decodeDevices(const QByteArray& body);
  // The order connections are tried in: https before http, local before
  // remote, stable otherwise.
  static std::vector<Connection> rankConnections(std::vector<Connection> connections);

 private:
  QCoro::Task<std::optional<std::string>> localMachineIdentifier(CancelToken cancel) const;

  HttpClient* http_;
};

std::string message(const PlexAuth::AuthError& e);

// Re-discovery for the status poller: only the preferred server when a name is
// given; the outcome carries the error's text on failure. The first form asks
// the addresses of the endpoint table.
PlexDiscovery plexDiscovery(HttpClient& http);
PlexDiscovery plexDiscovery(PlexAuth auth);

}  // namespace vt
