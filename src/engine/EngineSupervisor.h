#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <QObject>
#include <qcoro/qcorotask.h>

#include "core/EnginePort.h"
#include "core/PlexSyncPort.h"
#include "engine/EngineError.h"
#include "engine/EngineInstance.h"
#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "engine/ManifestPublisher.h"
#include "engine/MountKeeper.h"
#include "platform/Job.h"

namespace vt {

class AppConfig;
class Clock;
class HttpClient;
class LibraryMounter;
class LibraryStore;
struct LibraryTitle;

// What the supervisor needs from around it. The seams at the end stand for
// subsystems that plug in later (the Plex sync coordinator, the play intent
// watcher, staging); empty ones do nothing.
struct EngineSupervisorEnvironment {
  Clock* clock = nullptr;
  HttpClient* http = nullptr;
  LibraryMounter* mounter = nullptr;
  std::string dataDirectory;
  std::string bundledEngine;  // the vtnfs built with the application; empty: missing
  std::string appVersion;     // the application's short version; empty: none
  // Where the supervision's lines go; logLine when none.
  std::function<void(const std::string&)> log;
  // Whether the folder answers an lstat within `limit` seconds; by default a
  // real lstat on a thread of its own, raced against the clock.
  FolderProbe probeFolder;
  // Sets up the Plex library section for an instance's folder once its
  // engine is up, before the instance counts as running.
  std::function<QCoro::Task<>(bool tv, std::string location, CancelToken token)> prepareLibrary;
  // Has Plex read one file of a library folder again; false when there is
  // no server to ask.
  std::function<QCoro::Task<bool>(std::string name, std::string location, CancelToken token)> refreshItem;

  // What keeps the local Plex Media Server from reading a mounted library
  // folder, with its one-time fix; none when it can (or there is no server
  // account to ask about).
  std::function<std::optional<std::string>(const std::string& folder)> mediaServerAccessProblem;

  std::function<bool()> playbackActive;
  std::function<bool(const LibraryTitle&)> isHidden;
  // Makes the Plex sync coordinator, which the supervisor owns and kicks;
  // without one, nothing applies the manifests on its own.
  PlexSyncFactory makePlexSync;
  std::function<void()> startIntentWatcher;
  std::function<void()> stopIntentWatcher;
};

// Keeps each engine instance's process and mount alive: the sequences of
// start, adoption of an engine an earlier application process left running,
// removal of leftovers, stop and restart, over the instances (process, pid
// file, log tail) and their mount keepers (mount, watchdog). Quitting the
// application leaves a healthy engine running for the next one. Main
// thread only.
class EngineSupervisor : public QObject, public EnginePort, private EngineInstances {
  Q_OBJECT
 public:
  static constexpr int kMaxRestarts = 5;
  static constexpr double kReplaceDelay = 60;
  static constexpr int kHealthTries = 50;
  static constexpr double kHealthPause = 0.4;
  static constexpr double kPlexWarmup = 120;

  EngineSupervisor(AppConfig& config, LibraryStore& store, EngineSupervisorEnvironment environment);
  ~EngineSupervisor() override;

  EngineState state() const { return movie_->state; }
  const std::optional<std::string>& lastError() const { return lastError_; }
  const std::set<EngineKind>& stuck() const { return stuck_; }
  // Why Plex can't read an instance's folder, from the check after its last
  // start; none when it can. Not a state: the engine runs either way.
  std::optional<std::string> mediaServerAccessProblem(EngineKind kind) const {
    const auto it = accessProblems_.find(kind);
    return it == accessProblems_.end() ? std::nullopt : std::optional(it->second);
  }
  size_t entryCount() const { return movie_->entryCount; }
  EngineInstance& movie() { return *movie_; }
  EngineInstance* tvInstanceIfAny() { return tv_.get(); }
  EngineInstance& ensureTvInstance();
  ManifestPublisher& publisher() { return *publisher_; }
  PlexSyncPort* plexSync() { return plexSync_.get(); }

  // EnginePort
  void attach(CatalogPort& catalog) override;
  QCoro::Task<> prepare(bool isTestHome) override;
  QCoro::Task<> start() override;
  EngineState movieState() const override { return movie_->state; }
  // Takes the titles out of the library that no published collection wants.
  void pruneOrphans(const std::set<std::string>& protectedIds) override;
  void kickPlexSync() override;
  void measureLink(double) override {}
  void stopLogTails() override;
  void stopPlayIntentHook() override {
    if (env_.stopIntentWatcher) env_.stopIntentWatcher();
  }
  void shutdownForTestHome() override { shutdownAtExit(); }

  QCoro::Task<> startInstance(EngineInstance& instance, std::vector<EngineEntry> entries);
  QCoro::Task<> stopInstance(EngineInstance& instance);
  QCoro::Task<bool> adoptIfRunning(EngineInstance& instance);
  // Synchronous: unmount (blocking) and SIGTERM both engines.
  void shutdownAtExit();

  // The pid of a vtnfs listening on the instance's control port.
  QCoro::Task<std::optional<int>> portHolderPid(const EngineInstance& instance, CancelToken token);
  QCoro::Task<> cleanOrphanFromPidFile(std::string pidFile);
  void pushCacheBudget();

 signals:
  void stateChanged();
  void lastErrorChanged();

 private:
  // EngineInstances, for the publisher.
  EngineInstanceState& movieInstance() override { return *movie_; }
  EngineInstanceState& tvInstance() override { return ensureTvInstance(); }
  EngineInstanceState* existingTvInstance() override { return tv_.get(); }
  QCoro::Task<> startInstance(EngineInstanceState& instance, std::vector<EngineEntry> entries) override;
  QCoro::Task<> stopInstance(EngineInstanceState& instance) override;
  EngineInstance& instanceFor(EngineInstanceState& state);

  std::unique_ptr<EngineInstance> makeInstance(EngineKind kind);
  void setState(EngineInstance& instance, EngineState state);
  void setLastError(std::optional<std::string> text);
  void log(const std::string& line) const;
  std::vector<EngineEntry> entriesFor(const EngineInstance& instance) const;

  QCoro::Task<EngineResult> startSteps(EngineInstance& instance, std::vector<EngineEntry> entries, CancelToken token);
  QCoro::Task<> clearStaleEngine(EngineInstance& instance, CancelToken token);
  QCoro::Task<EngineResult> waitForHealth(EngineInstance& instance, CancelToken token);
  void didBecomeReady(EngineInstance& instance);
  void replaceWhenIdle(EngineInstance& instance, std::string reason);
  void handleExit(EngineInstance& instance, int status, int pid);
  QCoro::Task<> sweepStaleMounts(std::set<std::string> keep, CancelToken token);

  AppConfig& config_;
  LibraryStore& store_;
  EngineSupervisorEnvironment env_;
  EngineStatusClient client_;
  std::unique_ptr<EngineInstance> movie_;
  std::unique_ptr<EngineInstance> tv_;
  std::unique_ptr<ManifestPublisher> publisher_;
  std::unique_ptr<PlexSyncPort> plexSync_;
  CatalogPort* catalog_ = nullptr;
  std::optional<std::string> lastError_;
  std::set<EngineKind> stuck_;
  std::map<EngineKind, std::string> accessProblems_;
  JobScope jobs_;  // last: its jobs end before anything else here goes
};

}  // namespace vt
