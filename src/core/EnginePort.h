#pragma once

// What the application asks of the engine supervision, and the state every
// engine instance is in.

#include <functional>
#include <set>
#include <string>
#include <vector>

#include <qcoro/qcorotask.h>

#include "core/CatalogPort.h"

namespace vt {

enum class EngineState { stopped, starting, running, stopping, failed };

// The publish passes: what turns published lists into titles in Plex.
class PublishPort {
 public:
  virtual ~PublishPort() = default;
  // Resolves and publishes every published list that misses titles, and
  // goes on with the waves of those still in staging.
  virtual void publishMissing() = 0;
};

// The engine supervision.
class EnginePort {
 public:
  virtual ~EnginePort() = default;
  virtual void attach(CatalogPort& catalog) = 0;
  // Creates the tv instance, adopts running engines, sweeps stale mounts.
  virtual QCoro::Task<> prepare(bool isTestHome) = 0;
  virtual QCoro::Task<> start() = 0;
  virtual EngineState movieState() const = 0;
  virtual void pruneOrphans(const std::set<std::string>& protectedIds) = 0;
  // Marks the Plex sync coordinator dirty and starts it if idle.
  virtual void kickPlexSync() = 0;
  virtual void measureLink(double delaySeconds) = 0;
  // At quit: engines and mounts stay; only the log tails and the play
  // intent hook stop.
  virtual void stopLogTails() = 0;
  virtual void stopPlayIntentHook() = 0;
  // At quit under a test home: unmount synchronously and SIGTERM the engines.
  virtual void shutdownForTestHome() = 0;
  // Titles being watched, from the play watcher.
  std::function<void(const std::set<std::string>&)> onWatching;
};

}  // namespace vt
