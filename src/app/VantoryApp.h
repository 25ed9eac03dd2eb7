#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <qcoro/qcorotask.h>

#include "app/BridgeViewModel.h"
#include "app/ControlSocket.h"
#include "app/WatchNowService.h"
#include "core/CatalogPort.h"
#include "core/EnginePort.h"
#include "core/PlexPort.h"
#include "core/ActivityLog.h"
#include "core/AppConfig.h"
#include "core/EngineLog.h"
#include "core/LibraryStore.h"
#include "platform/Job.h"
#include "platform/Notifier.h"
#include "platform/Paths.h"
#include "platform/Settings.h"
#include "plex/PMSClient.h"
#include "sources/ranking/PickHistory.h"
#include "sources/release/UnrecognizedReleaseWords.h"

namespace vt {

class Clock;
class HttpClient;
class VantoryApp;

// Whether the first-run connect sheet must show, and what to do after it.
class ConnectGate {
 public:
  bool mustShowConnect = false;
  std::function<void()> pendingAction;
};

// How the application is put together. The subsystems not built yet are
// plugged in here by their factories; a missing factory gives the stand-in
// that reports the subsystem as absent.
struct AppWiring {
  AppPaths paths = appPaths();
  Clock* clock = nullptr;      // the system clock when none
  HttpClient* http = nullptr;  // the shared client when none
  bool installHttpCache = true;
  AppConfig::RegistrySync registrySync;
  std::function<std::unique_ptr<EnginePort>(AppConfig&, LibraryStore&, const PMSClientFactory&)> makeEngine;
  std::function<std::unique_ptr<CatalogPort>(const std::string& directory, AppConfig&)> makeCatalog;
  // The publish passes, over the engine and the catalog made above; none
  // leaves published lists as they are.
  std::function<std::unique_ptr<PublishPort>(VantoryApp&)> makePublishing;
  // The start-up's view of the Plex server; by default a probe over the
  // application's Plex clients.
  PlexAccessFactory plexAccess;
  // The watch button, over the engine, catalog and publishing made above;
  // none leaves the application without it.
  std::function<std::unique_ptr<WatchNowService>(VantoryApp&)> makeWatchNow;
  // Where notifications go; none: the desktop's notification service, and
  // where none answers, the activity list and the log.
  Notifier* notifier = nullptr;
  // Takes vantory-cli's requests on the socket in the data folder.
  bool controlSocket = true;
  PlexDiscovery plexDiscovery;
  std::function<void(const std::string&)> console;
};

// The application: creates the long-lived objects once, in order, runs the
// first-launch sequence, and decides what survives a quit.
class VantoryApp {
 public:
  explicit VantoryApp(AppWiring wiring);
  ~VantoryApp();

  // The first-launch sequence; run once when the root view first shows.
  QCoro::Task<> bootstrap();
  // At quit, however the event loop ends (once; later calls do nothing):
  // engines and mounts stay alive unless this is a test home.
  void willTerminate();

  AppConfig& config() { return *config_; }
  LibraryStore& library() { return *library_; }
  EnginePort& engine() { return *engine_; }
  CatalogPort& catalog() { return *catalog_; }
  PublishPort* publishing() { return publishing_.get(); }
  BridgeViewModel& viewModel() { return *viewModel_; }
  ConnectGate& connectGate() { return *connectGate_; }
  WatchNowService* watchNow() { return watchNow_.get(); }
  Notifier& notifier() { return *notifier_; }
  Clock& clock() { return clock_; }
  HttpClient& http();
  const PMSClientFactory& plexClients() const { return *plexClients_; }
  EngineLog& engineLog() { return engineLog_; }
  ActivityLog& activity() { return *activity_; }
  UnrecognizedReleaseWords& releaseWords() { return *releaseWords_; }
  PickHistory& pickHistory() { return *pickHistory_; }
  const AppPaths& paths() const { return wiring_.paths; }

 private:
  // Says once what the application waits for and how to give it.
  void reportWhatIsMissing();

  AppWiring wiring_;
  Clock& clock_;
  std::unique_ptr<SettingsStore> settings_;
  std::unique_ptr<AppConfig> config_;
  std::unique_ptr<PickHistory> pickHistory_;
  std::unique_ptr<PMSClientFactory> plexClients_;
  std::unique_ptr<LibraryStore> library_;
  std::unique_ptr<ActivityLog> activity_;
  std::unique_ptr<UnrecognizedReleaseWords> releaseWords_;
  std::unique_ptr<EnginePort> engine_;
  std::unique_ptr<CatalogPort> catalog_;
  std::unique_ptr<PublishPort> publishing_;
  std::unique_ptr<BridgeViewModel> viewModel_;
  std::unique_ptr<ConnectGate> connectGate_;
  std::unique_ptr<Notifier> ownNotifier_;
  Notifier* notifier_ = nullptr;
  std::unique_ptr<WatchNowService> watchNow_;
  std::unique_ptr<ControlRequests> controlRequests_;
  std::unique_ptr<ControlServer> controlServer_;
  EngineLog engineLog_;
  bool terminated_ = false;
  JobScope jobs_;  // last: its jobs end before anything else here goes
};

}  // namespace vt
