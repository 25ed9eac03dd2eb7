#pragma once

// The seam between the engine supervision and the Plex sync coordinator: the
// supervision makes the coordinator, hands it what it needs of the engines,
// and asks for passes.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <qcoro/qcorotask.h>

#include "platform/Date.h"

namespace vt {

class CatalogPort;

// What one application of the manifests changed, for the Plex sync.
struct EngineApplyResult {
  bool movieVisibleChanged = false;
  bool tvVisibleChanged = false;
  bool tvActive = false;
  bool operator==(const EngineApplyResult&) const = default;
};

// What the coordinator asks of the engine supervision.
struct PlexSyncOperations {
  // Brings both engines' manifests up to date with the library.
  std::function<QCoro::Task<EngineApplyResult>()> applyEngineConfig;
  // Whether the film engine runs.
  std::function<bool()> isRunning;
  // The control addresses of the running engine instances.
  std::function<std::vector<std::string>()> activeControlURLs;
  std::function<void(const std::string&)> log;
};

class PlexSyncPort {
 public:
  virtual ~PlexSyncPort() = default;
  // Asks for a pass; returns at once. Requests during a pass cost one more pass.
  virtual void requestReconcile() = 0;
  // Until then Plex's view of the library counts as still forming.
  virtual void setWarmupUntil(Date until) = 0;
  // The catalog whose published lists become Plex collections; null detaches.
  virtual void attachCatalog(CatalogPort* catalog) = 0;
};

using PlexSyncFactory = std::function<std::unique_ptr<PlexSyncPort>(PlexSyncOperations)>;

}  // namespace vt
