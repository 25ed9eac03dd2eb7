#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <QObject>
#include <QProcess>
#include <qcoro/qcorotask.h>

#include "core/EnginePort.h"
#include "core/Logging.h"
#include "engine/EngineContract.h"
#include "engine/ManifestPublisher.h"
#include "platform/Job.h"

namespace vt {

class AppConfig;
class Clock;
class HttpClient;
class LibraryMounter;
class LibraryStore;
class PMSClient;
class ProcessExitWatch;
struct LibraryTitle;

// One engine process and its mount: `movie` or `tv`.
struct EngineInstance : EngineInstanceState {
  int generation = 0;  // raised by every stop; a start that sees it change gives up
  std::optional<std::string> launchedRDKey;
  QProcess* process = nullptr;  // launched by this application process
  std::optional<int32_t> adoptedPID;
  ProcessExitWatch* exitSource = nullptr;  // watches an adopted engine
  uint64_t logOffset = 0;
  std::string logBuffer;  // a partial last line of engine.log
  Job logTask;
  int restartAttempts = 0;
  Job restartTask;
  Job stableTask;
  Job mountWatchdogTask;

  EngineKind kind() const { return paths.kind; }
  const std::string& label() const { return paths.label; }
  // The pid of the engine this application process knows of, if any.
  std::optional<int> runningPid() const;
};

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
  LogFile* logFile = nullptr;
  bool logToStandardError = true;
  // A PMSClient from the settings, or none.
  std::function<std::optional<PMSClient>(const AppConfig&)> plexClient;
  // Whether the folder answers an lstat within `limit` seconds; by default a
  // real lstat on a worker thread, raced against the clock.
  std::function<QCoro::Task<bool>(std::string folder, double limit)> probeFolder;

  std::function<bool()> playbackActive;
  std::function<bool(const LibraryTitle&)> isHidden;
  std::function<void()> requestReconcile;
  std::function<void(Date)> setWarmupUntil;
  std::function<void()> startIntentWatcher;
  std::function<void()> stopIntentWatcher;
};

// Keeps each engine instance's process and mount alive: launch, adoption of
// an engine an earlier application process left running, removal of
// leftovers, the mount, the liveness watchdog and the restart policy.
// Quitting the application leaves a healthy engine running for the next
// one. Main thread only.
class EngineSupervisor : public QObject, public EnginePort {
  Q_OBJECT
 public:
  static constexpr int kMaxRestarts = 5;
  static constexpr double kStableSeconds = 30;
  static constexpr double kReplaceDelay = 60;
  static constexpr int kHealthTries = 50;
  static constexpr double kHealthPause = 0.4;
  static constexpr double kWatchdogPeriod = 20;
  static constexpr double kWatchdogLimit = 8.0;
  static constexpr double kLogTailPeriod = 0.5;

  EngineSupervisor(AppConfig& config, LibraryStore& store, EngineSupervisorEnvironment environment);
  ~EngineSupervisor() override;

  EngineState state() const { return movie_.state; }
  const std::optional<std::string>& lastError() const { return lastError_; }
  const std::set<EngineKind>& stuck() const { return stuck_; }
  size_t entryCount() const { return movie_.entryCount; }
  EngineLog& log() { return log_; }
  EngineInstance& movie() { return movie_; }
  EngineInstance* tvInstance() { return tv_.get(); }
  EngineInstance& ensureTvInstance();
  ManifestPublisher& publisher() { return *publisher_; }

  // EnginePort
  void attach(CatalogPort& catalog) override { catalog_ = &catalog; }
  QCoro::Task<> prepare(bool isTestHome) override;
  QCoro::Task<> start() override;
  EngineState movieState() const override { return movie_.state; }
  void pruneOrphans(const std::set<std::string>&) override {}
  std::vector<std::string> collectionsMissingTitles(CatalogPort&) override { return {}; }
  void resolveAndPublish(const std::vector<std::string>&, CatalogPort&, const std::set<std::string>&, bool) override {}
  void kickPlexSync() override;
  void measureLink(double) override {}
  void stopLogTails() override;
  void shutdownForTestHome() override { shutdownAtExit(); }

  QCoro::Task<> startInstance(EngineInstance& instance, std::vector<EngineEntry> entries);
  QCoro::Task<> stopInstance(EngineInstance& instance);
  QCoro::Task<bool> adoptIfRunning(EngineInstance& instance);
  // Synchronous: unmount (blocking) and SIGTERM both engines.
  void shutdownAtExit();

  // The pid of a vtnfs listening on the instance's control port.
  QCoro::Task<std::optional<int>> portHolderPid(const EngineInstance& instance);
  QCoro::Task<> cleanOrphanFromPidFile(std::string pidFile);
  void pushCacheBudget();

 signals:
  void stateChanged();
  void lastErrorChanged();

 private:
  void setState(EngineInstance& instance, EngineState state);
  void setLastError(std::optional<std::string> text);
  void append(const std::string& line) { log_.append(line); }
  std::vector<EngineEntry> entriesFor(const EngineInstance& instance) const;

  QCoro::Task<std::optional<std::string>> startSteps(EngineInstance& instance, std::vector<EngineEntry> entries);
  QCoro::Task<> clearStaleEngine(EngineInstance& instance);
  std::optional<std::string> prepareEngineFiles();
  std::optional<std::string> launchEngine(EngineInstance& instance);
  QCoro::Task<std::optional<std::string>> waitForHealth(EngineInstance& instance);
  QCoro::Task<std::optional<std::string>> connectLibraryFolder(EngineInstance& instance);
  QCoro::Task<> ensurePlexLibrary(EngineInstance& instance);
  void didBecomeReady(EngineInstance& instance);
  void replaceWhenIdle(EngineInstance& instance, std::string reason);
  void handleExit(EngineInstance& instance, int status, int pid);
  void startMountWatchdog(EngineInstance& instance);
  void startLogTail(EngineInstance& instance, uint64_t offset);
  void readLogTail(EngineInstance& instance);
  void watchAdopted(EngineInstance& instance, int pid);
  void clearExitSource(EngineInstance& instance);
  void releaseProcess(EngineInstance& instance);
  void removePidFileIfHolds(const EngineInstance& instance, int pid);
  void signalEngine(EngineInstance& instance, int signal);
  QCoro::Task<> sweepStaleMounts(bool isTestHome, std::set<std::string> keep);
  std::string logOffsetKey(const EngineInstance& instance) const;

  AppConfig& config_;
  LibraryStore& store_;
  EngineSupervisorEnvironment env_;
  EngineLog log_;
  EngineStatusClient client_;
  EngineInstance movie_;
  std::unique_ptr<EngineInstance> tv_;
  std::unique_ptr<ManifestPublisher> publisher_;
  CatalogPort* catalog_ = nullptr;
  std::optional<std::string> lastError_;
  std::set<EngineKind> stuck_;
  std::vector<Job> replaceTasks_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace vt
