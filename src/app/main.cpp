#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <variant>

#include "app/SingleInstance.h"
#include "app/StandardWiring.h"
#include "app/VantoryApp.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "core/LogFile.h"
#include "platform/Clock.h"
#include "plex/PlexAuth.h"
#include "platform/Job.h"
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
  // The engine: the vtnfs built with the application, mounted through the
  // kernel's NFS client where this user may mount, else the FUSE helper.
  vt::LinuxLibraryMounter mounter;
  vt::wireStandardParts(wiring, {.clock = &vt::systemClock(),
                                 .http = &vt::sharedHttpClient(),
                                 .mounter = &mounter,
                                 .bundledEngine = vt::findHelperProgram("vtnfs"),
                                 .appVersion = VT_APP_VERSION});
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
