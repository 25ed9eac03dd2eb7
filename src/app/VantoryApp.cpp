#include "app/VantoryApp.h"

#include <QPointer>

#include "app/Absent.h"
#include "core/LibraryFolders.h"
#include "plex/PlexServerProbe.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "platform/Log.h"
#include "platform/Url.h"

namespace vt {

QCoro::Task<> AbsentCatalog::materialiseExisting() {
  logLine("[CatalogStore] following lists is not part of this build yet; no list is followed");
  co_return;
}

QCoro::Task<> AbsentEngineSupervisor::start() {
  logLine("[supervisor] the engine supervision is not part of this build; nothing started");
  co_return;
}

VantoryApp::VantoryApp(AppWiring wiring)
    : wiring_(std::move(wiring)), clock_(wiring_.clock ? *wiring_.clock : systemClock()) {
  // 1. The shared HTTP cache: 48 MB in memory, 200 MB on disk.
  if (wiring_.installHttpCache)
    installSharedHttpCache(48'000'000, 200'000'000, QString::fromStdString(wiring_.paths.httpCacheDirectory));

  // 2. Settings.
  settings_ = wiring_.paths.isTestHome() ? SettingsStore::openForTestHome(*wiring_.paths.homeOverride)
                                         : std::make_unique<SettingsStore>(wiring_.paths.settingsPath);
  config_ = std::make_unique<AppConfig>(*settings_, wiring_.registrySync);
  // The one pick history every picker records into and every ranker reads.
  pickHistory_ = std::make_unique<PickHistory>(*settings_);
  PickHistory::setShared(pickHistory_.get());
  // The one door to Plex: every part that talks to the server gets its
  // clients from here.
  plexClients_ = std::make_unique<PMSClientFactory>(*config_, wiring_.http ? *wiring_.http : sharedHttpClient());
  if (!wiring_.plexAccess)
    wiring_.plexAccess = PlexServerProbe::factory(*plexClients_, wiring_.paths.data(kMovieFolderName));

  // 3. The data folder; a failure here is not fatal.
  wiring_.paths.ensureDataDirectory();
  const auto libraryPath = wiring_.paths.data("library.json");

  // 4. The title library, loaded synchronously.
  library_ = std::make_unique<LibraryStore>(libraryPath, clock_);
  LibraryStore::releaseLoadMemory();  // loaded once: the parser's buffers would only sit there

  // The user's activity list and the census of unknown release words, kept
  // in the data folder for everything that records into them.
  activity_ = std::make_unique<ActivityLog>(wiring_.paths.data("activity.json"), clock_);
  ActivityLog::setShared(activity_.get());
  releaseWords_ = std::make_unique<UnrecognizedReleaseWords>(wiring_.paths.data("unrecognized-release-words.json"));

  // 5. Engine supervision.
  engine_ = wiring_.makeEngine ? wiring_.makeEngine(*config_, *library_, *plexClients_) : nullptr;
  if (!engine_) engine_ = std::make_unique<AbsentEngineSupervisor>();

  // 6. The catalog, with the data folder as its directory.
  catalog_ = wiring_.makeCatalog ? wiring_.makeCatalog(wiring_.paths.dataDirectory, *config_) : nullptr;
  if (!catalog_) catalog_ = std::make_unique<AbsentCatalog>();
  if (wiring_.makePublishing) publishing_ = wiring_.makePublishing(*this);

  // 7. The server connection state.
  viewModel_ =
      std::make_unique<BridgeViewModel>(*config_, clock_, wiring_.plexAccess, wiring_.plexDiscovery, wiring_.console);
  viewModel_->setEngine(engine_.get());

  // 8. The connect gate.
  connectGate_ = std::make_unique<ConnectGate>();
  connectGate_->mustShowConnect = !config_->isConfigured();

  // 9. The watch button, told what the play watcher sees playing. The poster
  // actions plug in after it when their subsystem lands.
  notifier_ = wiring_.notifier;
  if (!notifier_) {
    ownNotifier_ = std::make_unique<DesktopNotifier>(DesktopNotifier::Hooks{
        .unavailable =
            [activity = activity_.get()](const Notification& n) {
              // No notification service: the activity list and the log carry it.
              activity->record(ActivityLog::Kind::finished, n.title, n.body);
              logLine("[Vantory] " + n.title + ": " + n.body + (n.openURL ? " " + *n.openURL : std::string()));
            },
        .opener = {}});
    notifier_ = ownNotifier_.get();
  }
  if (wiring_.makeWatchNow) watchNow_ = wiring_.makeWatchNow(*this);
  if (watchNow_) {
    engine_->onWatching = [service = QPointer<WatchNowService>(watchNow_.get())](const std::set<std::string>& names) {
      if (service) service->onWatching(names);
    };
  }

  // vantory-cli reaches the running application through its data folder.
  if (wiring_.controlSocket) {
    controlRequests_ = std::make_unique<ControlRequests>(*this);
    controlServer_ = std::make_unique<ControlServer>(
        wiring_.paths.controlSocket(), [requests = controlRequests_.get()](const Json& request, ControlReply reply) {
          requests->handle(request, reply);
        });
  }
}

HttpClient& VantoryApp::http() { return wiring_.http ? *wiring_.http : sharedHttpClient(); }

VantoryApp::~VantoryApp() {
  // The engine supervision, with the Plex sync it owns, goes before the
  // catalog it reads.
  controlServer_.reset();
  controlRequests_.reset();
  viewModel_.reset();
  if (engine_) engine_->onWatching = {};
  watchNow_.reset();
  publishing_.reset();
  engine_.reset();
  catalog_.reset();
  if (ActivityLog::shared() == activity_.get()) ActivityLog::setShared(nullptr);
  if (PickHistory::shared() == pickHistory_.get()) PickHistory::setShared(nullptr);
}

void VantoryApp::reportWhatIsMissing() {
  // Settings are read at start, so each hint ends with the restart.
  if (!parseUrl(config_->pmsURLString()) || config_->token().empty())
    logLine(
        "[Vantory] waiting for the Plex server: set its address and token with 'vantory-cli config set "
        "pmsURLString http://HOST:32400' and 'vantory-cli config set token -' (the token on standard input), "
        "then start Vantory again");
  if (config_->rdKey().empty())
    logLine(
        "[Vantory] waiting for a Real-Debrid key: the engine starts once 'vantory-cli config set rdKey -' has "
        "read it from standard input and Vantory starts again");
}

QCoro::Task<> VantoryApp::bootstrap() {
  reportWhatIsMissing();

  auto& engine = *engine_;
  auto& catalog = *catalog_;

  engine.attach(catalog);

  catalog.deferRefresh(clock_.now() + 120);
  co_await catalog.materialiseExisting();

  auto retired = catalog.takeRetiredPlexGroupings();
  if (!retired.empty() && wiring_.plexAccess) {
    jobs_.start([this, retired](CancelToken token) -> QCoro::Task<> {
      for (const auto& title : retired) {
        auto client = wiring_.plexAccess(token);
        if (!client) co_return;
        co_await client->deleteCollectionNamed(title);
        if (token.isCancelled()) co_return;
      }
    });
  }

  viewModel_->startPolling();

  co_await engine.prepare(wiring_.paths.isTestHome());

  // Against the stand-in every title would look orphaned.
  if (!dynamic_cast<AbsentCatalog*>(&catalog)) engine.pruneOrphans(catalog.protectedIds());

  if (engine.movieState() == EngineState::stopped && config_->isConfigured() && !config_->rdKey().empty())
    co_await engine.start();

  engine.kickPlexSync();
  engine.measureLink(30);

  for (const auto& c : catalog.materialisedCollections())
    if (c.resolvePaused && catalog.isStaging(c.id)) catalog.finishStaging(c.id);

  if (publishing_) publishing_->publishMissing();
}

void VantoryApp::willTerminate() {
  if (terminated_) return;
  terminated_ = true;
  jobs_.cancelAll();
  viewModel_->stopPolling();
  engine_->stopPlayIntentHook();
  if (wiring_.paths.isTestHome()) {
    engine_->shutdownForTestHome();
  } else {
    // Engines and their mounts stay up so playback goes on; the next launch adopts them.
    engine_->stopLogTails();
  }
}

}  // namespace vt
