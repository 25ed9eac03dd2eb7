#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <qcoro/qcorotask.h>

#include "core/EnginePort.h"
#include "core/PlexSyncPort.h"
#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "engine/Manifest.h"
#include "platform/Date.h"
#include "platform/Job.h"

namespace vt {

class AppConfig;
class Clock;
class LibraryStore;
struct LibraryTitle;

// The manifest side of one engine instance.
struct EngineInstanceState {
  EngineInstancePaths paths;
  EngineState state = EngineState::stopped;
  std::optional<std::string> lastConfigFingerprint;
  std::optional<std::string> lastVisibleConfigFingerprint;
  bool resendScheduled = false;
  bool scanWhenApplied = false;
  size_t entryCount = 0;
};

// The engine instances as the publisher sees them. The tv instance is
// created on first use.
class EngineInstances {
 public:
  virtual ~EngineInstances() = default;
  virtual EngineInstanceState& movieInstance() = 0;
  virtual EngineInstanceState& tvInstance() = 0;
  virtual EngineInstanceState* existingTvInstance() = 0;
  // Starts an instance with these entries (writes the manifest itself).
  virtual QCoro::Task<> startInstance(EngineInstanceState& instance, std::vector<EngineEntry> entries) = 0;
  virtual QCoro::Task<> stopInstance(EngineInstanceState& instance) = 0;
};

// Brings the engines' manifests up to date with the library with as little
// disturbance as possible: a debounced flush, a fingerprint of each manifest
// and of what it shows, and a resend of changes the engine put off while a
// title played. Main thread only.
class ManifestPublisher {
 public:
  // What the publisher needs from around it; empty ones do nothing.
  struct Hooks {
    // Asks the Plex sync coordinator for an application (returns at once).
    std::function<void()> applyConfig;
    // Whether a playback is active right now.
    std::function<bool()> playbackActive;
    // Whether staging holds a title back; none: nothing is hidden.
    std::function<bool(const LibraryTitle&)> isHidden;
    // Has Plex read one file of a library folder again; false when there is
    // no server to ask.
    std::function<QCoro::Task<bool>(std::string name, std::string location, CancelToken token)> refreshItem;
    // Where lines go; logLine when none.
    std::function<void(const std::string&)> log;
  };

  static constexpr int kFlushBatch = 8;
  static constexpr double kFlushWindow = 5.0;
  static constexpr double kResendDelay = 60.0;

  ManifestPublisher(LibraryStore& library, AppConfig& config, Clock& clock, EngineStatusClient& client,
                    EngineInstances& instances, Hooks hooks);
  ~ManifestPublisher();

  ManifestEntries buildEntries() const;
  // True when Plex has to scan this instance's folder. `entries` is read
  // before the first suspension only.
  QCoro::Task<bool> sendConfig(const std::vector<EngineEntry>& entries, EngineInstanceState& instance);
  QCoro::Task<EngineApplyResult> applyEngineConfig();

  void requestFlush(int count);
  void flushNow();
  // Has Plex look at one title again after its subtitle file changed, after
  // `delaySeconds` (so that the new entry stands in the folder by then).
  void requestSubtitleReimport(const LibraryTitle& title, double delaySeconds);
  int pendingFlushCount() const { return pendingFlushCount_; }

 private:
  void log(const std::string& line) const;

  LibraryStore& library_;
  AppConfig& config_;
  Clock& clock_;
  EngineStatusClient& client_;
  EngineInstances& instances_;
  Hooks hooks_;
  int pendingFlushCount_ = 0;
  // The last build and the last manifest's bytes: the next flush reuses their
  // storage, which spares a large library's allocations on every flush.
  ManifestEntries built_;
  std::string manifestText_;
  Date lastFlushAt_ = kDistantPast;
  bool flushScheduled_ = false;
  JobScope flushes_;
  JobScope jobs_;  // last: its jobs end before anything else here goes
};

}  // namespace vt
