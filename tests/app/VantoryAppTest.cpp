#include <gtest/gtest.h>

#include <filesystem>

#include "app/VantoryApp.h"
#include "core/LibraryFolders.h"
#include "platform/Clock.h"
#include "platform/Job.h"
#include "platform/Settings.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

using Calls = std::vector<std::string>;

class RecordingCatalog final : public CatalogPort {
 public:
  explicit RecordingCatalog(Calls& calls) : calls_(calls) {}
  void deferRefresh(Date until) override { calls_.push_back("deferRefresh " + std::to_string(int64_t(until))); }
  QCoro::Task<> materialiseExisting() override {
    calls_.push_back("materialiseExisting");
    co_return;
  }
  std::vector<std::string> takeRetiredPlexGroupings() override {
    calls_.push_back("takeRetired");
    return retired;
  }
  std::set<std::string> protectedIds() const override { return {"tt7"}; }
  std::vector<MaterialisedCollection> materialisedCollections() const override {
    return {{"paused-staging", true}, {"paused-done", true}, {"running", false}};
  }
  bool isStaging(const std::string& id) const override { return id != "paused-done"; }
  void finishStaging(const std::string& id) override { calls_.push_back("finishStaging " + id); }
  std::vector<std::string> retired;

 private:
  Calls& calls_;
};

class RecordingEngine final : public EnginePort {
 public:
  explicit RecordingEngine(Calls& calls) : calls_(calls) {}
  void attach(CatalogPort&) override { calls_.push_back("attach"); }
  QCoro::Task<> prepare(bool isTestHome) override {
    calls_.push_back(std::string("prepare ") + (isTestHome ? "test" : "real"));
    co_return;
  }
  QCoro::Task<> start() override {
    calls_.push_back("start");
    co_return;
  }
  EngineState movieState() const override { return state; }
  void pruneOrphans(const std::set<std::string>& ids) override {
    calls_.push_back("pruneOrphans " + std::to_string(ids.size()));
  }
  std::vector<std::string> collectionsMissingTitles(CatalogPort&) override { return missing; }
  void resolveAndPublish(const std::vector<std::string>& ids, CatalogPort&, const std::set<std::string>&,
                         bool markPublished) override {
    calls_.push_back("resolveAndPublish " + std::to_string(ids.size()) + (markPublished ? " mark" : ""));
  }
  void kickPlexSync() override { calls_.push_back("kickPlexSync"); }
  void measureLink(double delay) override { calls_.push_back("measureLink " + std::to_string(int(delay))); }
  void stopLogTails() override { calls_.push_back("stopLogTails"); }
  void stopPlayIntentHook() override { calls_.push_back("stopPlayIntentHook"); }
  void shutdownForTestHome() override { calls_.push_back("shutdownForTestHome"); }
  EngineState state = EngineState::stopped;
  std::vector<std::string> missing;

 private:
  Calls& calls_;
};

class RecordingPlex final : public PlexServerAccess {
 public:
  explicit RecordingPlex(Calls& calls) : calls_(calls) {}
  QCoro::Task<std::optional<PlexProbeFailure>> probe() override {
    calls_.push_back("probe");
    co_return std::nullopt;
  }
  QCoro::Task<bool> ensureMovieSection(std::string, std::string) override { co_return true; }
  QCoro::Task<bool> refreshSection(std::string) override { co_return true; }
  QCoro::Task<bool> deleteCollectionNamed(std::string title) override {
    calls_.push_back("deleteCollection " + title);
    co_return true;
  }

 private:
  Calls& calls_;
};

struct Rig {
  test::TestHome home;
  ManualClock clock{1000};
  Calls calls;
  RecordingEngine* engine = nullptr;
  RecordingCatalog* catalog = nullptr;
  std::vector<std::string> retired;
  std::vector<std::string> missing;

  std::unique_ptr<VantoryApp> make(bool testHome, bool configured, bool withKey) {
    {
      auto store = testHome ? SettingsStore::openForTestHome(home.path())
                            : std::make_unique<SettingsStore>(home.file("settings.ini"));
      if (configured) {
        store->setString("pmsURLString", "http://127.0.0.1:32400");
        store->setString("token", "plex-token");
      }
      if (withKey) store->setString("rdKey", "rd-key");
    }
    AppWiring w;
    w.paths = AppPaths::forTestHome(home.path());
    if (!testHome) {
      w.paths.homeOverride.reset();
      w.paths.settingsPath = home.file("settings.ini");
    }
    w.clock = &clock;
    w.installHttpCache = false;
    w.makeEngine = [this](AppConfig&, LibraryStore&, const PMSClientFactory&) {
      auto e = std::make_unique<RecordingEngine>(calls);
      e->missing = missing;
      engine = e.get();
      return e;
    };
    w.makeCatalog = [this](const std::string&, AppConfig&) {
      auto c = std::make_unique<RecordingCatalog>(calls);
      c->retired = retired;
      catalog = c.get();
      return c;
    };
    w.plexAccess = [this](CancelToken) { return std::make_unique<RecordingPlex>(calls); };
    return std::make_unique<VantoryApp>(std::move(w));
  }
};

}  // namespace

TEST(VantoryApp, StartsUpInOrderAndStartsTheEngineOnlyWhenEverythingIsSet) {
  Rig rig;
  rig.retired = {"Old list"};
  rig.missing = {"c1", "c2"};
  auto app = rig.make(true, true, true);
  test::runTask(app->bootstrap());
  test::settle(20);
  EXPECT_EQ(rig.calls,
            (Calls{"attach", "deferRefresh 1120", "materialiseExisting", "takeRetired", "deleteCollection Old list",
                   "probe", "prepare test", "pruneOrphans 1", "start", "kickPlexSync", "measureLink 30",
                   "finishStaging paused-staging", "resolveAndPublish 2"}));

  // The activity list and the census live in the data folder.
  ASSERT_EQ(ActivityLog::shared(), &app->activity());
  app->activity().record(ActivityLog::Kind::added, "Film");
  EXPECT_TRUE(std::filesystem::exists(rig.home.file("activity.json")));
  std::vector<std::string> names;
  for (int i = 0; i < 30; ++i) names.push_back("Film " + std::to_string(i) + " 2019 1080p QUUXWORD x264");
  app->releaseWords().record(names);
  EXPECT_TRUE(std::filesystem::exists(rig.home.file("unrecognized-release-words.json")));

  // Without a Real-Debrid key, or without Plex, the engine is not started.
  for (auto [configured, key] : {std::pair{true, false}, std::pair{false, true}}) {
    Rig other;
    auto a = other.make(true, configured, key);
    test::runTask(a->bootstrap());
    EXPECT_EQ(std::count(other.calls.begin(), other.calls.end(), "start"), 0) << configured << key;
    EXPECT_EQ(a->connectGate().mustShowConnect, !configured);
  }
}

TEST(VantoryApp, QuitKeepsEnginesForTheNextLaunchAndTearsThemDownUnderATestHome) {
  for (bool testHome : {false, true}) {
    Rig rig;
    auto app = rig.make(testHome, true, true);
    test::runTask(app->bootstrap());
    rig.calls.clear();
    app->willTerminate();
    app->willTerminate();  // once only, however many ways out there are
    EXPECT_EQ(rig.calls, (Calls{"stopPlayIntentHook", testHome ? "shutdownForTestHome" : "stopLogTails"}));
    EXPECT_FALSE(app->viewModel().isPolling());
  }
}
