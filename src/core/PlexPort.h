#pragma once

// What the start-up and the engine ask of the Plex server: the probe of the
// connection poll, the library set-up, and discovery through the account.

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"

namespace vt {

// A probe failure: the server's HTTP status when it answered, and the text
// for `lastError`.
struct PlexProbeFailure {
  std::optional<int> httpStatus;
  std::string description;
};

// What the spine asks of the Plex server.
class PlexServerAccess {
 public:
  virtual ~PlexServerAccess() = default;
  // The server root and the library sections, read in parallel (8 s each).
  // None when both succeeded.
  virtual QCoro::Task<std::optional<PlexProbeFailure>> probe() = 0;
  virtual QCoro::Task<bool> ensureMovieSection(std::string name, std::string location) = 0;
  virtual QCoro::Task<bool> refreshSection(std::string location) = 0;
  virtual QCoro::Task<bool> deleteCollectionNamed(std::string title) = 0;
};

// Builds a client from the current settings, whose requests end when `token`
// is cancelled; none when the settings can't make one.
using PlexAccessFactory = std::function<std::unique_ptr<PlexServerAccess>(CancelToken token)>;

struct DiscoveredServer {
  std::string url;
  std::string name;
};
struct DiscoveryOutcome {
  std::optional<DiscoveredServer> server;
  std::string error;  // when server is none
};
// Finds the user's server through the account service.
using PlexDiscovery = std::function<QCoro::Task<DiscoveryOutcome>(std::string token, std::string clientIdentifier,
                                                                  std::optional<std::string> preferredName)>;

}  // namespace vt
