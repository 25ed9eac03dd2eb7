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
using Ids = std::set<std::string>;

// One recorder stands in for the engine, the catalog and the Plex server: every call lands in one list.
class Recorder final : public CatalogPort, public EnginePort, public PlexServerAccess {
 public:
  Recorder(Calls& calls, Calls r, Calls m) : c(calls), retired(std::move(r)), missing(std::move(m)) {}
  void deferRefresh(Date until) override { c.push_back("deferRefresh " + std::to_string(int64_t(until))); }
  QCoro::Task<> materialiseExisting() override { co_return c.push_back("materialiseExisting"); }
  Calls takeRetiredPlexGroupings() override { return c.push_back("takeRetired"), retired; }
  Ids protectedIds() const override { return {"tt7"}; }
  std::vector<MaterialisedCollection> materialisedCollections() const override {
    return {{"paused-staging", true}, {"paused-done", true}, {"running", false}};
  }
  bool isStaging(const std::string& id) const override { return id != "paused-done"; }
  void finishStaging(const std::string& id) override { c.push_back("finishStaging " + id); }
  void attach(CatalogPort&) override { c.push_back("attach"); }
  QCoro::Task<> prepare(bool test) override { co_return c.push_back(test ? "prepare test" : "prepare real"); }
  QCoro::Task<> start() override { co_return c.push_back("start"); }
  EngineState movieState() const override { return EngineState::stopped; }
  void pruneOrphans(const Ids& ids) override { c.push_back("pruneOrphans " + std::to_string(ids.size())); }
  void kickPlexSync() override { c.push_back("kickPlexSync"); }
  void measureLink(double delay) override { c.push_back("measureLink " + std::to_string(int(delay))); }
  void stopLogTails() override { c.push_back("stopLogTails"); }
  void stopPlayIntentHook() override { c.push_back("stopPlayIntentHook"); }
  void shutdownForTestHome() override { c.push_back("shutdownForTestHome"); }
  QCoro::Task<std::optional<PlexProbeFailure>> probe() override { co_return (c.push_back("probe"), std::nullopt); }
  QCoro::Task<bool> ensureMovieSection(std::string, std::string) override { co_return true; }
  QCoro::Task<bool> refreshSection(std::string) override { co_return true; }
  QCoro::Task<bool> deleteCollectionNamed(std::string t) override { co_return (c.push_back("delete " + t), true); }
  Calls& c;
  Calls retired, missing;
};

struct PublishRecorder final : PublishPort {
  explicit PublishRecorder(Calls& calls) : c(calls) {}
  void publishMissing() override { c.push_back("publishMissing"); }
  Calls& c;
};

struct Rig {
  test::TestHome home;
  ManualClock clock{1000};
  Calls calls, retired{"Old list"}, missing{"c1", "c2"};
  std::unique_ptr<VantoryApp> make(bool testHome, bool configured, bool withKey) {
    {
      auto store = testHome ? SettingsStore::openForTestHome(home.path())
                            : std::make_unique<SettingsStore>(home.file("settings.ini"));
      if (configured) store->setString("pmsURLString", "http://127.0.0.1:32400"), store->setString("token", "tok");
      if (withKey) store->setString("rdKey", "rd-key");
    }
    AppWiring w;
    w.paths = AppPaths::forTestHome(home.path());
    if (!testHome) w.paths.homeOverride.reset();
    if (!testHome) w.paths.settingsPath = home.file("settings.ini");
    w.clock = &clock;
    w.installHttpCache = false;
    w.makeEngine = [this](auto&&...) { return std::make_unique<Recorder>(calls, retired, missing); };
    w.makeCatalog = [this](auto&&...) { return std::make_unique<Recorder>(calls, retired, missing); };
    w.plexAccess = [this](auto&&...) { return std::make_unique<Recorder>(calls, retired, missing); };
    w.makePublishing = [this](auto&&...) { return std::make_unique<PublishRecorder>(calls); };
    return std::make_unique<VantoryApp>(std::move(w));
  }
};

}  // namespace

TEST(VantoryApp, StartsUpInOrderAndStartsTheEngineOnlyWhenEverythingIsSet) {
  Rig rig;
  auto app = rig.make(true, true, true);
  test::runTask(app->bootstrap());
  test::settle(20);
  EXPECT_EQ(rig.calls, (Calls{"attach", "deferRefresh 1120", "materialiseExisting", "takeRetired", "delete Old list",
                              "probe", "prepare test", "pruneOrphans 1", "start", "kickPlexSync", "measureLink 30",
                              "finishStaging paused-staging", "publishMissing"}));
  app->activity().record(ActivityLog::Kind::added, "Film");
  EXPECT_TRUE(std::filesystem::exists(rig.home.file("activity.json")));
  EXPECT_EQ(PickHistory::shared(), &app->pickHistory()) << "every picker shares the application's history";
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
  }
}
