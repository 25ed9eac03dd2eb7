#pragma once

// What the start-up spine needs of the subsystems it wires together. Each
// subsystem plugs its object in behind one of these interfaces.

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <qcoro/qcorotask.h>

#include "platform/Date.h"

namespace vt {

class AppConfig;

enum class EngineState { stopped, starting, running, stopping, failed };

struct MaterialisedCollection {
  std::string id;
  bool resolvePaused = false;
};

// The catalog of followed lists.
class CatalogApi {
 public:
  virtual ~CatalogApi() = default;
  // Holds the scheduled refreshes back until `until`.
  virtual void deferRefresh(Date until) = 0;
  // The start-up pass over published lists.
  virtual QCoro::Task<> materialiseExisting() = 0;
  // Hands over, and clears, the names of Plex collections to delete.
  virtual std::vector<std::string> takeRetiredPlexGroupings() = 0;
  virtual std::set<std::string> protectedIds() const = 0;
  virtual std::vector<MaterialisedCollection> materialisedCollections() const = 0;
  virtual bool isStaging(const std::string& collectionId) const = 0;
  virtual void finishStaging(const std::string& collectionId) = 0;
};

// The engine supervision.
class EngineSupervisorApi {
 public:
  virtual ~EngineSupervisorApi() = default;
  virtual void attach(CatalogApi& catalog) = 0;
  // Creates the tv instance, adopts running engines, sweeps stale mounts.
  virtual QCoro::Task<> prepare(bool isTestHome) = 0;
  virtual QCoro::Task<> start() = 0;
  virtual EngineState movieState() const = 0;
  virtual void pruneOrphans(const std::set<std::string>& protectedIds) = 0;
  virtual std::vector<std::string> collectionsMissingTitles(CatalogApi& catalog) = 0;
  virtual void resolveAndPublish(const std::vector<std::string>& collectionIds, CatalogApi& catalog,
                                 const std::set<std::string>& protectedIds, bool markPublished) = 0;
  // Marks the Plex sync coordinator dirty and starts it if idle.
  virtual void kickPlexSync() = 0;
  virtual void measureLink(double delaySeconds) = 0;
  // At quit: engines and mounts stay; only the log tails stop.
  virtual void stopLogTails() = 0;
  // At quit under a test home: unmount synchronously and SIGTERM the engines.
  virtual void shutdownForTestHome() = 0;
  // Titles being watched, from the play watcher.
  std::function<void(const std::set<std::string>&)> onWatching;
};

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

// Builds a client from the settings; none when the settings can't make one.
using PlexAccessFactory = std::function<std::unique_ptr<PlexServerAccess>(const AppConfig&)>;

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
