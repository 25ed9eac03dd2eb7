// The whole publish loop on one machine: the library changes, the real engine
// serves the change in its mounted folder, and a local Plex server that scans
// that folder ends up showing exactly the published titles, labelled and
// gathered into the list's smart collection.

#include <signal.h>

#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>

#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "core/CatalogPort.h"
#include "core/LibraryStore.h"
#include "engine/EngineSupervisor.h"
#include "fakes/FakePlexServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "platform/Settings.h"
#include "plex/PlexLibrarySetup.h"
#include "plex/PlexSyncCoordinator.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

namespace {

class OneList : public CatalogPort {
 public:
  std::vector<PlexGrouping> lists;
  std::set<std::string> owned;
  std::set<std::string> heldBack;

  void deferRefresh(Date) override {}
  QCoro::Task<> materialiseExisting() override { co_return; }
  std::vector<std::string> takeRetiredPlexGroupings() override { return {}; }
  std::set<std::string> protectedIds() const override { return {}; }
  std::vector<MaterialisedCollection> materialisedCollections() const override { return {}; }
  bool isStaging(const std::string&) const override { return false; }
  void finishStaging(const std::string&) override {}
  bool holdsBack(const LibraryTitle& t) const override { return heldBack.count(t.name) > 0; }
  std::vector<PlexGrouping> plexGroupings() const override { return lists; }
  const std::set<std::string>& ownedGroupings() const override { return owned; }
  void setPlexRatingKey(std::optional<std::string> key, const std::string& id) override {
    for (auto& l : lists)
      if (l.id == id) l.plexRatingKey = key;
  }
  void addOwnedGrouping(const std::string& name) override { owned.insert(name); }
  void removeOwnedGrouping(const std::string& name) override { owned.erase(name); }
};

std::string film(int i) { return "Film " + std::to_string(i) + " (2000) {imdb-tt10" + std::to_string(i) + "}.mkv"; }

bool canMountWithFuse() {
  return !QStandardPaths::findExecutable("fusermount3").isEmpty() && QFile::exists("/dev/fuse");
}

}  // namespace

TEST(PlexFollowsLibrary, PublishedTitlesReachPlexWithTheirListAndRemovedOnesLeave) {
  if (!canMountWithFuse()) GTEST_SKIP() << "no FUSE on this machine";
  test::TestHome home;
  ManualClock clock;
  test::FakePlexServer plex("plex-token", clock);
  plex.scanDelay = 3;
  // Reading a file would ask the engine for bytes from a host this very
  // thread serves; Plex only needs to see the file.
  plex.canRead = [](const std::string&) { return true; };
  const std::string movies = home.path() + "/Library";
  plex.addSection("1", "Vantory", "movie", {movies});

  QFile(QString::fromStdString(home.file("fstab"))).open(QIODevice::WriteOnly);
  LinuxLibraryMounter mounter(VT_VTNFS_MOUNT_BINARY, home.file("fstab"));
  SettingsStore settings(home.file("settings.ini"));
  AppConfig config(settings);
  const quint16 control = test::freePort();
  config.setControlURLString("http://127.0.0.1:" + std::to_string(control));
  config.setRdKey("rd-key-1");
  config.setPmsURLString(plex.baseUrl().toString().toStdString());
  config.setToken(plex.token);
  LibraryStore library(home.file("library.json"), clock);
  HttpClient http(clock, HttpClient::Session::ephemeral);
  PMSClientFactory clients(config, http);
  std::vector<std::string> lines;

  EngineSupervisorEnvironment env;
  env.clock = &clock;
  env.http = &http;
  env.mounter = &mounter;
  env.dataDirectory = home.path();
  env.bundledEngine = VT_VTNFS_BINARY;
  env.appVersion = "test";
  env.log = [&lines](const std::string& line) { lines.push_back(line); };
  env.probeFolder = [](std::string, double) -> QCoro::Task<bool> { co_return true; };
  env.makePlexSync = [&](PlexSyncOperations ops) {
    return std::make_unique<PlexSyncCoordinator>(
        PlexSyncCoordinator::Environment{&config, &library, &clients, &clock, &http, home.path()}, std::move(ops));
  };
  EngineSupervisor supervisor(config, library, std::move(env));
  supervisor.movie().paths.nfsAddress = "127.0.0.1:" + std::to_string(test::freePort());
  OneList catalog;
  catalog.lists = {{.id = "L", .name = "Noir", .members = std::vector<std::string>{"tt101", "tt102", "tt103"}}};
  catalog.heldBack = {film(3)};  // staged: not revealed yet
  supervisor.attach(catalog);

  auto drive = [&](const std::function<bool()>& done) {
    QElapsedTimer t;
    t.start();
    while (!done()) {
      if (t.elapsed() > 60000) return false;
      test::settle(2);
      if (!done()) clock.advance(0.1);
    }
    return true;
  };
  struct Stop {
    EngineSupervisor& s;
    ~Stop() { s.shutdownAtExit(); }
  } stop{supervisor};

  Job::start([&](CancelToken) { return supervisor.start(); });
  ASSERT_TRUE(drive([&] { return supervisor.state() == EngineState::running; }));
  const auto fs = mountedFileSystem(movies);
  if (!fs) GTEST_SKIP() << "the library folder could not be mounted here";

  // Changes reach Plex through the flush, well before the safety tick would.
  Date changedAt = clock.now();
  for (int i = 1; i <= 3; ++i) library.upsert(test::sampleTitle(film(i), "http://127.0.0.1:9/f" + std::to_string(i)));
  auto inPlex = [&](int i) { return plex.itemForFile(movies + "/" + film(i)) != nullptr; };
  auto labelled = [&] { return plex.itemsWithLabel("1", "Noir").size() == 2; };
  auto smartNoir = [&] {
    return std::any_of(plex.collections.begin(), plex.collections.end(),
                       [](const auto& c) { return c.second.title == "Noir" && c.second.smart; });
  };
  ASSERT_TRUE(drive([&] { return inPlex(1) && inPlex(2) && labelled() && smartNoir(); }));
  EXPECT_LT(clock.now() - changedAt, PlexSyncCoordinator::kSafetyTick);
  EXPECT_EQ(catalog.owned, std::set<std::string>{"Noir"});

  changedAt = clock.now();
  library.remove(film(2));
  ASSERT_TRUE(drive([&] { return !inPlex(2); }));
  EXPECT_LT(clock.now() - changedAt, PlexSyncCoordinator::kSafetyTick);
  auto* sync = static_cast<PlexSyncCoordinator*>(supervisor.plexSync());
  ASSERT_TRUE(drive([&] { return !sync->isWorking(); }));
  EXPECT_TRUE(inPlex(1));
  EXPECT_EQ(plex.itemsWithLabel("1", "Noir").size(), 1u);
  EXPECT_FALSE(inPlex(3)) << "a staged title never reaches Plex";
  for (const auto& [key, item] : plex.items)
    for (const auto& f : item.files) EXPECT_EQ(f.find(film(3)), std::string::npos);
}
