#include <gtest/gtest.h>

#include "app/Publishing.h"
#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineSupervisor.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "platform/Mounts.h"
#include "platform/NetworkReach.h"
#include "platform/Settings.h"
#include "plex/PMSClient.h"
#include "sources/StreamProviders.h"
#include "sources/providers/ProviderRegistry.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

namespace {

class NoMounts : public LibraryMounter {
 public:
  QCoro::Task<MountResult> mount(int, std::string, CancelToken) override { co_return MountResult(); }
  QCoro::Task<MountResult> unmount(std::string, CancelToken) override { co_return MountResult(); }
  MountResult unmountNow(const std::string&) override { return MountResult(); }
};

// The application's publishing parts over a test home, with an engine that
// is never started (so no pass a follow-up asks for runs).
struct Rig {
  test::TestHome home;
  ManualClock clock{800000000};
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home.path());
  AppConfig config{*settings};
  LibraryStore library{home.file("library.json"), clock};
  CatalogStore catalog{home.path(), clock, &config};
  HttpClient http{clock, HttpClient::Session::ephemeral};
  PMSClientFactory plex{config, http};
  NoMounts mounter;
  std::unique_ptr<EngineSupervisor> engine;
  std::unique_ptr<Publishing> publishing;
  std::vector<std::string> lines;
  ScopedLogSink sink{[this](std::string_view line) { lines.emplace_back(line); }};

  Rig() {
    config.setRdKey("KEY1");
    config.setStreamAddonOverride("http://127.0.0.1:9/");  // no add-on answers here
    syncStreamProviders(config);
    EngineSupervisorEnvironment env;
    env.clock = &clock;
    env.http = &http;
    env.mounter = &mounter;
    env.dataDirectory = home.path();
    engine = std::make_unique<EngineSupervisor>(config, library, std::move(env));
    publishing = std::make_unique<Publishing>(Publishing::Parts{.clock = &clock,
                                                                .http = &http,
                                                                .config = &config,
                                                                .library = &library,
                                                                .catalog = &catalog,
                                                                .engine = engine.get(),
                                                                .plex = &plex,
                                                                .dataDirectory = home.path()});
  }
  ~Rig() { syncStreamProviders(AppConfig(*SettingsStore::openForTestHome(home.path() + "/none"))); }

  CatalogCollection list(std::vector<std::string> ids, CollectionSource source) {
    CatalogCollection c{.id = newCollectionId(),
                        .name = "List " + std::to_string(catalog.collections().size()),
                        .source = std::move(source),
                        .itemImdbIds = std::move(ids)};
    catalog.upsert(c);
    catalog.materialise(c);
    catalog.finishStaging(c.id);
    return *catalog.collection(c.id);
  }
  static CollectionSource addon() { return CollectionSource::stremioCatalog("http://127.0.0.1:9/", "movie", "top"); }
  void film(const std::string& id, const std::string& resolveURL = "") {
    auto t = test::sampleTitle("Film (2000) {imdb-" + id + "}.mkv");
    if (!resolveURL.empty()) t.resolveURL = resolveURL;
    library.upsert(t);
  }
  bool logged(const std::string& line) const { return std::find(lines.begin(), lines.end(), line) != lines.end(); }
};

}  // namespace

TEST(Publishing, AListMissesTitlesThatAreAbsentOrMadeForAnotherAccountButNotOnesNotOutYet) {
  Rig rig;
  rig.film("tt1");
  rig.film("tt2", "https://addon/realdebrid/KEY0/tt2/1");  // the old account's link
  rig.film("tt3", "https://addon/realdebrid/KEY1/tt3/1");
  rig.catalog.fillMeta({{.id = "tt5", .name = "Soon", .year = "2999"}});
  const auto c = rig.list({"tt1", "tt2", "tt3", "tt4", "tt5"}, Rig::addon());
  EXPECT_EQ(rig.publishing->missingIds(c), (std::vector<std::string>{"tt2", "tt4"}));

  // A failed id cools: an add-on list wants a pass for it anyway (a later
  // page may replace it), a list of the user's own doesn't.
  rig.film("tt4");
  rig.catalog.markFailed("tt2");  // takes it off the add-on list; the list gets it back
  auto back = *rig.catalog.collection(c.id);
  back.itemImdbIds.push_back("tt2");
  rig.catalog.upsert(back);
  const auto own = rig.list({"tt1", "tt2"}, CollectionSource::manual());
  EXPECT_TRUE(rig.publishing->missingIds(*rig.catalog.collection(c.id)).empty());
  EXPECT_TRUE(rig.publishing->wantsPass(*rig.catalog.collection(c.id)));
  EXPECT_FALSE(rig.publishing->wantsPass(own));
  // Paused and staged lists are left to their own passes.
  const CatalogCollection staged{
      .id = newCollectionId(), .name = "Staged", .source = Rig::addon(), .itemImdbIds = {"tt9"}};
  rig.catalog.upsert(staged);
  rig.catalog.materialise(staged);
  auto paused = rig.list({"tt8"}, Rig::addon());
  rig.catalog.setResolvePaused(true, paused.id);
  std::vector<std::string> ids;
  for (const auto& m : rig.publishing->collectionsMissingTitles()) ids.push_back(m.id);
  EXPECT_EQ(ids, std::vector<std::string>{c.id});
}

TEST(Publishing, FollowUpsComeAfter75Then180Then480SecondsAndProgressStartsThemAfresh) {
  Rig rig;
  const auto c = rig.list({"tt1"}, Rig::addon());
  const auto progress = std::map<std::string, int>{{c.id, 1}};
  for (const char* delay : {"75", "180", "480"}) {
    rig.publishing->scheduleFollowUp({c}, {}, {});
    EXPECT_EQ(rig.lines.back(),
              std::string("[supervisor] 1 collection(s) still missing titles — retrying in ") + delay + "s");
  }
  rig.lines.clear();
  rig.publishing->scheduleFollowUp({c}, {}, {});
  EXPECT_TRUE(rig.lines.empty()) << "three barren passes end the follow-ups";
  rig.publishing->scheduleFollowUp({c}, progress, {});
  EXPECT_EQ(rig.lines.back(), "[supervisor] 1 collection(s) still missing titles — retrying in 75s");
  rig.lines.clear();
  rig.publishing->scheduleFollowUp({c}, {}, {c.id});
  EXPECT_TRUE(rig.lines.empty()) << "a list given up is not followed up";
  rig.film("tt1");
  rig.publishing->scheduleFollowUp({c}, {}, {});
  EXPECT_TRUE(rig.lines.empty()) << "nothing missing";
}

TEST(Publishing, ARefreshedListAndTheNetworkComingBackStartPassesForListsThatMissTitles) {
  Rig rig;
  const auto c = rig.list({"tt1"}, Rig::addon());
  auto paused = rig.list({"tt2"}, Rig::addon());
  rig.catalog.setResolvePaused(true, paused.id);
  const CatalogCollection staged{
      .id = newCollectionId(), .name = "Staged", .source = Rig::addon(), .itemImdbIds = {"tt3"}};
  rig.catalog.upsert(staged);
  rig.catalog.materialise(staged);

  auto& resolving = rig.publishing->passes().resolvingIds();
  rig.publishing->onPublishedCatalogSynced(paused.id);
  rig.publishing->onPublishedCatalogSynced(staged.id);
  EXPECT_TRUE(resolving.empty()) << "paused and staged lists have passes of their own";
  rig.publishing->onPublishedCatalogSynced(c.id);
  EXPECT_EQ(resolving, std::set<std::string>{c.id});

  // The network comes back: the follow-up count starts afresh and the lists
  // not being resolved get a pass.
  for (int i = 0; i < 3; ++i) rig.publishing->scheduleFollowUp({c}, {}, {});
  rig.lines.clear();
  auto other = rig.list({"tt4"}, Rig::addon());
  NetworkReach::shared().setOnline(false);
  NetworkReach::shared().setOnline(true);
  test::settle(20);
  EXPECT_TRUE(rig.logged("[supervisor] network back — retrying 1 collection(s) with missing titles"));
  EXPECT_TRUE(resolving.count(other.id));
  rig.publishing->scheduleFollowUp({c}, {}, {});
  EXPECT_EQ(rig.lines.back(), "[supervisor] 1 collection(s) still missing titles — retrying in 75s");
}
