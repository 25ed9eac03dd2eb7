#include <gtest/gtest.h>

#include <sstream>

#include "app/VantoryApp.h"
#include "catalog/CatalogStore.h"
#include "cli/Cli.h"
#include "cli/Verbs.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineSupervisor.h"
#include "fakes/FakeCatalogAddon.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "platform/Settings.h"
#include "platform/Clock.h"
#include "platform/SerialFileWriter.h"
#include "support/PauseClock.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::catalogfile;

namespace {

// What the start-up asked of the engine and of Plex.
struct Recorder {
  std::set<std::string> pruneKept;
  std::vector<std::string> deleted;
};

struct EngineHandle final : EnginePort {
  Recorder& r;
  explicit EngineHandle(Recorder& rec) : r(rec) {}
  void attach(CatalogPort&) override {}
  QCoro::Task<> prepare(bool) override { co_return; }
  QCoro::Task<> start() override { co_return; }
  EngineState movieState() const override { return EngineState::stopped; }
  void pruneOrphans(const std::set<std::string>& ids) override { r.pruneKept = ids; }
  void kickPlexSync() override {}
  void measureLink(double) override {}
  void stopLogTails() override {}
  void stopPlayIntentHook() override {}
  void shutdownForTestHome() override {}
};

struct PlexHandle final : PlexServerAccess {
  Recorder& r;
  explicit PlexHandle(Recorder& rec) : r(rec) {}
  QCoro::Task<std::optional<PlexProbeFailure>> probe() override { co_return std::nullopt; }
  QCoro::Task<bool> ensureMovieSection(std::string, std::string) override { co_return true; }
  QCoro::Task<bool> refreshSection(std::string) override { co_return true; }
  QCoro::Task<bool> deleteCollectionNamed(std::string name) override {
    r.deleted.push_back(name);
    co_return true;
  }
};

CatalogCollection collectionOf(std::string name, CollectionSource source, std::vector<std::string> items) {
  return {
      .id = newCollectionId(), .name = std::move(name), .source = std::move(source), .itemImdbIds = std::move(items)};
}

// A data folder with a published catalog, an unpublished one, a published
// manual list to fold and repeated ids.
struct Home {
  test::TestHome home;
  CatalogCollection published =
      collectionOf("Popular movies", CollectionSource::stremioCatalog("u", "movie", "top"), {"tt1", "tt2", "tt1"});
  CatalogCollection quiet = collectionOf("Quiet", CollectionSource::stremioCatalog("u", "movie", "year"), {"tt3"});
  CatalogCollection manual = collectionOf("Old picks", CollectionSource::manual(), {"tt4"});

  Home() {
    writeFileAtomically(home.file(kCollections), encodeCollections({published, quiet, manual}));
    writeFileAtomically(home.file(kMaterialised), encodeUuidList({published.id, manual.id}));
    writeFileAtomically(home.file(kStaging), encodeUuidSet({published.id}));
  }
};

}  // namespace

TEST(CatalogInTheApp, TheStartUpProtectsPublishedMembersAndRetiresFoldedLists) {
  Home data;
  ManualClock clock{1000};
  Recorder recorder;
  AppWiring w;
  w.paths = AppPaths::forTestHome(data.home.path());
  w.clock = &clock;
  w.installHttpCache = false;
  w.makeEngine = [&](auto&&...) { return std::make_unique<EngineHandle>(recorder); };
  w.plexAccess = [&](auto&&...) { return std::make_unique<PlexHandle>(recorder); };
  CatalogStore* store = nullptr;
  w.makeCatalog = [&](const std::string& directory, AppConfig& config) {
    auto made = std::make_unique<CatalogStore>(directory, clock, &config);
    store = made.get();
    return made;
  };
  VantoryApp app(std::move(w));
  ASSERT_NE(store, nullptr);
  test::runTask(app.bootstrap());
  test::settle(20);

  // The folded list made the library published, so its ids are protected
  // too; the start-up pass published the quiet list, in waves.
  EXPECT_EQ(recorder.pruneKept, (std::set<std::string>{"tt1", "tt2", "tt3", "tt4"}));
  EXPECT_EQ(recorder.deleted, (std::vector<std::string>{"Old picks"}));
  EXPECT_EQ(store->refreshDeferredUntil(), 1120.0);
  ASSERT_EQ(app.catalog().materialisedCollections().size(), 3u);
  EXPECT_TRUE(app.catalog().isStaging(data.published.id));
  EXPECT_TRUE(app.catalog().isStaging(data.quiet.id));
  store->waitForSaves();
}

TEST(CatalogInTheApp, TheToolListsTheCollectionsAndChangesNothing) {
  Home data;
  const auto before = readFile(data.home.file(kCollections));
  std::istringstream in;
  std::ostringstream out, err;
  cli::Io io{in, out, err};
  ASSERT_EQ(cli::run({"catalog", "--home", data.home.path()}, io), 0) << err.str();

  std::vector<std::string> lines;
  std::istringstream rows(out.str());
  for (std::string line; std::getline(rows, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 4u) << out.str();
  EXPECT_NE(lines[0].find(R"("name":"Plex Watchlist","source":{"kind":"watchlist"},"items":[],"pinned":[],)"
                          R"("materialised":false,"staged":false})"),
            std::string::npos)
      << lines[0];
  EXPECT_EQ(lines[1],
            R"({"id":")" + data.published.id +
                R"(","name":"Popular movies","source":{"kind":"stremioCatalog","addonBaseURL":"u","type":"movie",)"
                R"("catalogId":"top"},"items":["tt1","tt2"],"pinned":[],"materialised":true,"staged":true})");
  EXPECT_NE(lines[2].find(R"("name":"Quiet")"), std::string::npos);
  EXPECT_NE(lines[3].find(R"("name":"All titles","source":{"kind":"library"},"items":["tt4"],"pinned":[],)"
                          R"("materialised":true,"staged":false})"),
            std::string::npos)
      << lines[3];
  EXPECT_EQ(err.str(), "[CatalogStore] deduped \"Popular movies\": 3 → 2 item(s)\n");

  EXPECT_EQ(readFile(data.home.file(kCollections)), before) << "a look only: the dedup is not written back";
}

TEST(CatalogInTheApp, TheEngineManifestHidesWhatStagingHoldsBack) {
  Home data;
  ManualClock clock{1000};
  SettingsStore settings(data.home.file("settings.ini"));
  AppConfig config(settings);
  LibraryStore library(data.home.file("library.json"), clock);
  for (const std::string id : {"tt1", "tt3"})
    library.upsert({.name = "Film (2001) {imdb-" + id + "}.mkv", .url = "https://cdn/" + id});
  HttpClient http(clock, HttpClient::Session::ephemeral);
  LinuxLibraryMounter mounter;  // never asked: nothing starts here, but a supervisor needs one
  EngineSupervisor engine(config, library,
                          {.clock = &clock, .http = &http, .mounter = &mounter, .dataDirectory = data.home.path()});
  CatalogStore store(data.home.path(), clock, &config);
  engine.attach(store);
  auto hidden = [&] {
    std::map<std::string, bool> out;
    for (const auto& e : engine.publisher().buildEntries().movie) out[e.name] = e.hidden;
    return out;
  };

  // "Popular movies" is staged and has revealed nothing; "Quiet" isn't published.
  EXPECT_EQ(hidden(),
            (std::map<std::string, bool>{{"Film (2001) {imdb-tt1}.mkv", true}, {"Film (2001) {imdb-tt3}.mkv", false}}));
  store.noteRevealed({"tt1"}, data.published.id);
  EXPECT_FALSE(hidden().at("Film (2001) {imdb-tt1}.mkv"));
  store.waitForSaves();
}

TEST(CatalogInTheApp, TheToolFetchesACatalogPageByPageAsARefreshWould) {
  test::FakeCatalogAddon addon("cfg");
  Json rows = Json::array();
  for (int i = 0; i < 7; ++i) rows.push_back(Json{{"id", "tt" + std::to_string(4000000 + i % 5)}});
  addon.setCatalog("movie", "top", "Science Fiction", rows);
  addon.pageSize = 4;
  test::PauseClock clock{5};  // the retry pause; not the request limits
  HttpClient http(clock, HttpClient::Session::ephemeral);
  StremioCatalogClient client(http, addon.base());
  std::ostringstream out;
  EXPECT_EQ(test::drive(clock, cli::fetchCatalog(client, addon.base(), "movie", "top", "Science Fiction", 50, out)), 0);
  EXPECT_EQ(out.str(),
            "{\"skip\":0,\"ids\":[\"tt4000000\",\"tt4000001\",\"tt4000002\",\"tt4000003\"]}\n"
            "{\"skip\":4,\"ids\":[\"tt4000004\",\"tt4000000\",\"tt4000001\"]}\n"
            "{\"skip\":7,\"ids\":[]}\n"
            "{\"ids\":[\"tt4000000\",\"tt4000001\",\"tt4000002\",\"tt4000003\",\"tt4000004\"]}\n");
  EXPECT_EQ(addon.catalogRequests().front(), "movie/top/genre=Science%20Fiction.json");

  // The verb itself takes TYPE and ID after its flags.
  std::stringstream in, verbOut, verbErr;
  cli::Io io{in, verbOut, verbErr};
  EXPECT_EQ(cli::run({"catalog", "--fetch", addon.base().toString().toStdString(), "movie", "top", "--genre",
                      "Science Fiction", "--limit", "3"},
                     io),
            0)
      << verbErr.str();
  EXPECT_EQ(verbOut.str().substr(verbOut.str().rfind("{\"ids\"")),
            "{\"ids\":[\"tt4000000\",\"tt4000001\",\"tt4000002\"]}\n");

  addon.failingSkips = {4};
  std::ostringstream failed;
  EXPECT_EQ(test::drive(clock, cli::fetchCatalog(client, addon.base(), "movie", "top", "Science Fiction", 50, failed)),
            1);
  EXPECT_NE(failed.str().find("{\"error\":"), std::string::npos);
}
