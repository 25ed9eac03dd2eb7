#pragma once

// The application as main() makes it, on a test clock, with the real engine
// and its FUSE mount, in front of a local Plex server that scans the mounted
// films' folder.

#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>
#include <functional>
#include <memory>
#include <string>

#include "app/StandardWiring.h"
#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "engine/EngineSupervisor.h"
#include "fakes/FakePlexServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "platform/Notifier.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

namespace vt::test {

inline bool canMountWithFuse() {
  return !QStandardPaths::findExecutable("fusermount3").isEmpty() && QFile::exists("/dev/fuse");
}

// Lets the services and the engine answer in real time, then moves the
// application's clock on by `step`, until `done` or `limitMs` of real time.
inline bool drive(ManualClock& clock, const std::function<bool()>& done, int limitMs = 60000, double step = 0.1) {
  QElapsedTimer t;
  t.start();
  while (!done()) {
    if (t.elapsed() > limitMs) return false;
    settle(2);
    if (!done()) clock.advance(step);
  }
  return true;
}

struct AppWorld {
  // `configure` sets what a test needs beyond the engine and Plex.
  AppWorld(const TestHome& home, Clock& clock, FakePlexServer& plex,
           const std::function<void(AppConfig&)>& configure = {})
      : movies(home.path() + "/Library") {
    // Reading a file would ask the engine for bytes from a host this very
    // thread serves; Plex only needs to see the file.
    plex.canRead = [](const std::string&) { return true; };
    plex.addSection("1", "Vantory", "movie", {movies});
    {
      const auto settings = SettingsStore::openForTestHome(home.path());
      AppConfig config(*settings);
      config.setControlURLString("http://127.0.0.1:" + std::to_string(freePort()));
      config.setRdKey("rd-key-1");
      config.setPmsURLString(plex.baseUrl().toString().toStdString());
      config.setToken(plex.token);
      if (configure) configure(config);
    }
    QFile(QString::fromStdString(home.file("fstab"))).open(QIODevice::WriteOnly);
    mounter = std::make_unique<LinuxLibraryMounter>(VT_VTNFS_MOUNT_BINARY, home.file("fstab"));
    http = std::make_unique<HttpClient>(clock, HttpClient::Session::ephemeral);
    AppWiring wiring;
    wiring.paths = AppPaths::forTestHome(home.path());
    wiring.notifier = &notifier;
    wiring.installHttpCache = false;
    wireStandardParts(wiring, {.clock = &clock,
                               .http = http.get(),
                               .mounter = mounter.get(),
                               .bundledEngine = VT_VTNFS_BINARY,
                               .appVersion = "test"});
    app = std::make_unique<VantoryApp>(std::move(wiring));
    supervisor = &dynamic_cast<EngineSupervisor&>(app->engine());
    catalog = &dynamic_cast<CatalogStore&>(app->catalog());
    supervisor->movie().paths.nfsAddress = "127.0.0.1:" + std::to_string(freePort());
  }
  // Unmounts and ends the engines, as a test home's quit does.
  ~AppWorld() { app->willTerminate(); }

  std::string movies;
  RecordingNotifier notifier;
  std::unique_ptr<LinuxLibraryMounter> mounter;
  std::unique_ptr<HttpClient> http;
  std::unique_ptr<VantoryApp> app;
  EngineSupervisor* supervisor = nullptr;
  CatalogStore* catalog = nullptr;
};

}  // namespace vt::test
