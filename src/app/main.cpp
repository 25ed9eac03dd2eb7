#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <variant>

#include "app/SingleInstance.h"
#include "app/VantoryApp.h"
#include "catalog/CatalogStore.h"
#include "catalog/CatalogSync.h"
#include "core/WatchlistPort.h"
#include "engine/EngineSupervisor.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "core/LibraryFolders.h"
#include "core/LogFile.h"
#include "platform/Clock.h"
#include "platform/Endpoints.h"
#include "plex/PlexAuth.h"
#include "plex/PlexLibrarySetup.h"
#include "plex/PlexSyncCoordinator.h"
#include "sources/StreamProviders.h"
#include "platform/Job.h"
#include "platform/FolderAccess.h"
#include "platform/Log.h"
#include "platform/Signals.h"

namespace {

constexpr const char* kUsage =
    "Usage: vantory [--headless]\n"
    "Puts films and series from your catalogs into your Plex Media Server.\n"
    "\n"
    "  --headless   run without a window; log lines go to standard output\n"
    "  --help       show this text and exit\n"
    "  --version    show the version and exit\n"
    "\n"
    "Settings: vantory-cli config show (vantory-cli --help lists every tool).\n"
    "Data folder: $XDG_DATA_HOME/Vantory, or the folder in VT_UITEST_HOME.\n";

struct Options {
  bool headless = false;
};

// The command line: what to do, or the exit status when it is answered here.
std::variant<Options, int> readOptions(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--headless") {
      options.headless = true;
    } else if (arg == "--help" || arg == "-h") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (arg == "--version") {
      std::printf("vantory %s\n", VT_APP_VERSION);
      return 0;
    } else {
      std::fprintf(stderr, "vantory: unknown option '%s'; see 'vantory --help'\n", arg.c_str());
      return 2;
    }
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  const auto parsed = readOptions(argc, argv);
  if (const int* exitStatus = std::get_if<int>(&parsed)) return *exitStatus;
  const Options options = std::get<Options>(parsed);

  QCoreApplication qapp(argc, argv);
  QCoreApplication::setApplicationName("Vantory");

  // Hosting unit tests: a bare event loop, nothing of the application.
  if (std::getenv("XCTestConfigurationFilePath")) return qapp.exec();

  if (!options.headless) {
    std::fprintf(stderr, "vantory: the window is not part of this build yet; running headless\n");
  }

  // Installed before anything else: a signal during start-up is handled once
  // the event loop runs, instead of killing the process half-way.
  vt::VantoryApp* running = nullptr;
  vt::onTerminationSignal([&running] {
    if (running) running->willTerminate();
    vt::logLine("[Vantory] quitting");
    QCoreApplication::quit();
  });

  const auto& paths = vt::appPaths();
  std::unique_ptr<vt::SingleInstance> instance;
  if (!paths.isTestHome()) {
    const auto name = vt::SingleInstance::defaultName();
    if (vt::SingleInstance::activateRunningInstance(name)) {
      std::printf("[Vantory] already running; asked it to come forward\n");
      return 0;
    }
    instance = std::make_unique<vt::SingleInstance>(
        name, [] { vt::logLine("[Vantory] another launch asked for the window"); });
  }

  // Every log line goes, redacted, to logs/vantory.log; headless, to standard output too.
  paths.ensureDataDirectory();
  vt::LogFile logFile(paths.data("logs"), [] { return vt::systemClock().now(); });
  vt::ScopedLogSink fileSink([&logFile](std::string_view line) { logFile.write(line); });
  vt::ScopedLogSink consoleSink([](std::string_view line) {
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
  });

  vt::AppWiring wiring;
  wiring.paths = paths;
  wiring.registrySync = [](const vt::AppConfig& config) { vt::syncStreamProviders(config); };
  // The engine: the vtnfs built with the application, mounted through the
  // kernel's NFS client where this user may mount, else the FUSE helper.
  vt::LinuxLibraryMounter mounter;
  wiring.makeEngine = [&paths, &mounter](vt::AppConfig& config, vt::LibraryStore& library,
                                         const vt::PMSClientFactory& plex) {
    vt::EngineSupervisorEnvironment env;
    env.clock = &vt::systemClock();
    env.http = &vt::sharedHttpClient();
    env.mounter = &mounter;
    env.dataDirectory = paths.dataDirectory;
    env.bundledEngine = vt::findHelperProgram("vtnfs");
    env.appVersion = VT_APP_VERSION;
    env.mediaServerAccessProblem = [](const std::string& folder) -> std::optional<std::string> {
      const auto account = vt::mediaServerAccount();
      if (!account) return std::nullopt;
      const auto problem = vt::readProblem(folder, *account);
      if (!problem) return std::nullopt;
      return problem->describe(*account);
    };
    // Once an engine is up, Plex gets its section for the folder.
    env.prepareLibrary = vt::libraryPreparer(plex, library, [](const std::string& line) { vt::logLine(line); });
    env.refreshItem = [&plex](std::string name, std::string location, vt::CancelToken) -> QCoro::Task<bool> {
      auto client = plex.make();
      if (!client) co_return false;
      auto refreshed = co_await client->refreshItem(std::move(name), std::move(location));
      (void)refreshed;  // a hint: the next scan catches up anyway
      co_return true;
    };
    // Plex follows what the engines publish: scans, stale items, labels and
    // the lists' smart collections.
    env.makePlexSync = [&paths, &config, &library, &plex](vt::PlexSyncOperations ops) {
      vt::PlexSyncCoordinator::Environment sync{.config = &config,
                                                .store = &library,
                                                .plex = &plex,
                                                .clock = &vt::systemClock(),
                                                .http = &vt::sharedHttpClient(),
                                                .dataDirectory = paths.dataDirectory};
      return std::make_unique<vt::PlexSyncCoordinator>(std::move(sync), std::move(ops));
    };
    return std::make_unique<vt::EngineSupervisor>(config, library, std::move(env));
  };
  // The catalog of followed lists, loaded from the data folder at creation.
  // Its lists follow their sources from two minutes after start; the Plex
  // Watchlist is a stand-in that fails until its client exists, so the
  // Watchlist collection keeps its members.
  static vt::UnavailableWatchlist watchlist;
  wiring.makeCatalog = [](const std::string& directory, vt::AppConfig& config) {
    auto store = std::make_unique<vt::CatalogStore>(directory, vt::systemClock(), &config);
    vt::StremioCatalogClient client(vt::sharedHttpClient(), QUrl(QString::fromStdString(vt::endpoints().cinemeta)));
    store->startFollowing(std::make_unique<vt::CatalogSync>(*store, client, watchlist, vt::systemClock(), &config));
    return store;
  };
  // The poller finds a moved server again through the account. Its probes
  // carry the token, so they go without the shared cache and cookies.
  vt::HttpClient discoveryHttp(vt::systemClock(), vt::HttpClient::Session::ephemeral);
  wiring.plexDiscovery = vt::plexDiscovery(discoveryHttp);
  vt::VantoryApp app(std::move(wiring));
  vt::logLine("[Vantory] started; " + std::to_string(app.library().size()) + " titles in the library");

  running = &app;

  // Every way out of the event loop runs the clean-up, not only the signals.
  QObject::connect(&qapp, &QCoreApplication::aboutToQuit, [&app] { app.willTerminate(); });
  auto boot = vt::Job::start([&app](vt::CancelToken) -> QCoro::Task<> { co_await app.bootstrap(); });
  const int rc = qapp.exec();
  boot.cancel();
  app.willTerminate();
  running = nullptr;
  app.library().waitForSaves();
  logFile.flush();
  return rc;
}
