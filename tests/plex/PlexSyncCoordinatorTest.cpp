#include <QCoreApplication>
#include <QElapsedTimer>

#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "core/CatalogPort.h"
#include "core/LibraryStore.h"
#include "engine/contract/EngineContract.h"
#include "fakes/FakePlexServer.h"
#include "platform/Http.h"
#include "platform/Settings.h"
#include "plex/PlexSyncCoordinator.h"
#include "support/ListCatalog.h"
#include "support/PauseClock.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;
using vt::test::FakePlexServer;

namespace {

std::string imdb(int i) { return "tt" + std::to_string(1000000 + i); }
std::string filmName(int i) { return "Film " + std::to_string(i) + " (2000) {imdb-" + imdb(i) + "}.mkv"; }

struct Rig {
  test::TestHome home;
  test::PauseClock clock{5};
  FakePlexServer plex{"plex-test-token", clock};
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home.path());
  AppConfig config{*settings};
  LibraryStore library{home.file("library.json"), clock};
  HttpClient http{clock};
  PMSClientFactory clients{config, http};
  test::ListCatalog catalog;
  EngineApplyResult applyResult;
  std::optional<Completion> applyGate;
  std::vector<std::string> controlURLs;
  std::vector<std::string> lines;
  std::unique_ptr<PlexSyncCoordinator> sync;

  std::string movies() const { return home.path() + "/Library"; }
  std::string shows() const { return home.path() + "/Library TV"; }

  Rig() {
    config.setPmsURLString(plex.baseUrl().toString().toStdString());
    config.setToken(plex.token);
    plex.addSection("1", "Vantory", "movie", {movies()});
    PlexSyncOperations ops;
    ops.isRunning = [] { return true; };
    ops.applyEngineConfig = [this]() -> QCoro::Task<EngineApplyResult> {
      if (applyGate) co_await *applyGate;
      co_return applyResult;
    };
    ops.activeControlURLs = [this] { return controlURLs; };
    ops.log = [this](const std::string& line) { lines.push_back(line); };
    sync = std::make_unique<PlexSyncCoordinator>(
        PlexSyncCoordinator::Environment{&config, &library, &clients, &clock, &http, home.path()}, std::move(ops));
    sync->attachCatalog(&catalog);
  }

  void addFilms(int from, int to) {
    for (int i = from; i < to; ++i) library.upsert(test::sampleTitle(filmName(i)));
  }
  // Plex has indexed these films in the movie section.
  void index(int from, int to) {
    for (int i = from; i < to; ++i)
      plex.addItem({.ratingKey = "rk" + std::to_string(i), .sectionKey = "1", .files = {movies() + "/" + filmName(i)}});
  }
  FakePlexServer::Item& stray(const std::string& rk, const std::string& sectionKey = "1") {
    return plex.addItem({.ratingKey = rk, .sectionKey = sectionKey, .files = {"/elsewhere/" + rk + ".mkv"}});
  }

  // Runs passes until the coordinator is idle, sleeping through its polls
  // in virtual time.
  void pass() {
    sync->requestReconcile();
    settle();
  }
  void settle() {
    QElapsedTimer guard;
    guard.start();
    while (sync->isWorking()) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
      if (auto pause = clock.sleeping()) clock.manual.advance(*pause);
      if (guard.elapsed() > 20000) return ADD_FAILURE() << "the pass did not end";
    }
  }
  bool logged(const std::string& line) const { return std::find(lines.begin(), lines.end(), line) != lines.end(); }
  int count(const QByteArray& method, const QString& prefix) const {
    int n = 0;
    for (const auto& r : plex.requests()) n += r.method == method && r.path.startsWith(prefix);
    return n;
  }
  void warmUp() { sync->setWarmupUntil(clock.now() + 120); }
};

}  // namespace

TEST(PlexSyncCoordinator, TheStalePurgeWaitsForAnIndexHalfCompleteOrNinetyPercentDuringWarmUp) {
  struct Case {
    int indexed;
    bool warm;
    bool purges;
  };
  for (const Case c : {Case{49, false, false}, Case{50, false, true}, Case{89, true, false}, Case{90, true, true}}) {
    SCOPED_TRACE(std::to_string(c.indexed) + (c.warm ? " warm" : ""));
    Rig rig;
    rig.addFilms(0, 100);
    rig.index(0, c.indexed);
    rig.stray("stale");
    if (c.warm) rig.warmUp();
    const Date start = rig.clock.now();
    rig.pass();
    EXPECT_EQ(rig.plex.items.count("stale") == 0, c.purges);
    // The missing files never come, so the pass waited the whole deadline.
    EXPECT_GE(rig.clock.now() - start, PlexSyncCoordinator::kIndexDeadline);
    EXPECT_TRUE(rig.logged("[sync] requested Plex library scan for " + rig.movies() + " (" +
                           std::to_string(100 - c.indexed) + " missing from index)"));
    const auto deferred = "[sync] Plex index incomplete for " + rig.movies() + " (" + std::to_string(c.indexed) +
                          "/100 wanted indexed) — deferring stale purge";
    EXPECT_EQ(rig.logged(deferred), !c.purges);
    EXPECT_EQ(rig.logged("[sync] removed 1 stale item(s) from " + rig.movies()), c.purges);
    EXPECT_TRUE(rig.logged("[sync] reconciled — retry pending"));
  }
}

TEST(PlexSyncCoordinator, AnIndexThatNeverCompletesIsTriedAgainFifteenSecondsLaterAndTheTickComesEveryTwoMinutes) {
  Rig rig;
  rig.clock.manual.advance(PlexSyncCoordinator::kSafetyTick - 0.5);
  EXPECT_EQ(rig.sync->passCount(), 0u);
  rig.clock.manual.advance(0.5);
  rig.settle();
  EXPECT_EQ(rig.sync->passCount(), 1u) << "the safety tick";

  rig.addFilms(0, 3);
  rig.pass();
  EXPECT_EQ(rig.sync->passCount(), 2u);
  EXPECT_EQ(rig.lines.back(), "[sync] reconciled — retry pending");
  rig.clock.manual.advance(PlexSyncCoordinator::kRetryBackoff - 0.5);
  EXPECT_EQ(rig.sync->passCount(), 2u);
  rig.index(0, 3);
  rig.clock.manual.advance(0.5);
  rig.settle();
  EXPECT_EQ(rig.sync->passCount(), 3u);
  EXPECT_EQ(rig.lines.back(), "[sync] reconciled");
}

TEST(PlexSyncCoordinator, AMountChangeScansWithoutWaitingAndTwoRequestsDuringAPassGiveOneMore) {
  Rig rig;
  rig.addFilms(0, 2);
  rig.index(0, 2);
  rig.applyResult.movieVisibleChanged = true;
  rig.applyGate.emplace();
  rig.sync->requestReconcile();
  rig.sync->requestReconcile();
  rig.sync->requestReconcile();
  const Date start = rig.clock.now();
  rig.applyGate->fire();
  rig.settle();
  EXPECT_EQ(rig.sync->passCount(), 2u);
  EXPECT_EQ(rig.clock.now(), start) << "nothing was missing, so no pass waited";
  EXPECT_TRUE(rig.logged("[sync] requested Plex library scan for " + rig.movies() + " (mount changed)"));
  EXPECT_EQ(rig.plex.sections["1"].refreshes, 2);
}

TEST(PlexSyncCoordinator, RefusedDeletesFallBackToTheTrashAndAnEmptyLibraryEmptiesTheSection) {
  Rig rig;
  rig.addFilms(0, 2);
  rig.index(0, 1);
  // One item, two versions: the wanted one keeps the other from being stale.
  rig.plex.addItem(
      {.ratingKey = "both", .sectionKey = "1", .files = {rig.movies() + "/" + filmName(1), "/old/cut.mkv"}});
  rig.stray("old");
  rig.plex.onPrefix("DELETE", "/library/metadata/", [](auto&, auto& reply) { reply.send(500); });
  rig.pass();
  EXPECT_TRUE(
      rig.logged("[sync] direct delete refused for 1/1 stale item(s) in " + rig.movies() + " — PMS returned HTTP 500"));
  EXPECT_TRUE(rig.logged("[sync] emptied trash for " + rig.movies() + " to clear 1 undeletable item(s)"));
  EXPECT_EQ(rig.count("PUT", "/library/sections/1/emptyTrash"), 1);
  EXPECT_EQ(rig.count("DELETE", "/library/metadata/both"), 0);

  // With nothing wanted the guard has nothing to protect: every item goes,
  // and the trash is left alone.
  Rig empty;
  empty.index(0, 3);
  empty.stray("other");
  empty.stray("theirs", "9");  // another section is never looked at
  empty.pass();
  EXPECT_EQ(empty.plex.items.size(), 1u);
  EXPECT_TRUE(empty.plex.items.count("theirs"));
  EXPECT_EQ(empty.count("PUT", "/library/sections/1/emptyTrash"), 0);
  EXPECT_TRUE(empty.logged("[sync] removed 4 stale item(s) from " + empty.movies()));
}

TEST(PlexSyncCoordinator, UnreadableListsAndAnUnreachableServerDeleteNothing) {
  Rig rig;
  rig.addFilms(0, 4);
  rig.index(0, 4);
  rig.stray("stale");
  rig.catalog.lists = {{.id = "L", .name = "Noir", .members = std::vector<std::string>{imdb(0)}}};
  rig.plex.addItem(
      {.ratingKey = "rk0", .sectionKey = "1", .files = {rig.movies() + "/" + filmName(0)}, .labels = {"Noir"}});
  // A section listing that does not parse reads as empty: nothing is stale.
  rig.plex.on("GET", "/library/sections/1/all", [](auto&, auto& reply) { reply.send(200, "{\"MediaContainer\":"); });
  rig.pass();
  EXPECT_EQ(rig.count("DELETE", "/library/metadata/"), 0);
  EXPECT_TRUE(rig.plex.items.count("stale"));

  // A section list that does not parse looks like no section: one is made,
  // and when it still can't be found nothing goes on.
  rig.plex.on("GET", "/library/sections", [](auto&, auto& reply) { reply.send(200, "<html>"); });
  rig.lines.clear();
  rig.clock.manual.advance(PlexSyncCoordinator::kRetryBackoff);
  rig.settle();
  EXPECT_TRUE(rig.logged("[sync] no Plex section matches " + rig.movies() + " yet — will retry"));
  EXPECT_EQ(rig.count("DELETE", "/library/metadata/"), 0);

  rig.plex.forcedStatus = 503;
  rig.lines.clear();
  rig.clock.manual.advance(PlexSyncCoordinator::kRetryBackoff);
  rig.settle();
  EXPECT_TRUE(rig.logged("[sync] Plex unreachable — will retry: PMS returned HTTP 503"));
  EXPECT_EQ(rig.count("DELETE", "/library/metadata/"), 0);
}

TEST(PlexSyncCoordinator, ASectionThatWentIsMadeAgainForTitlesOnly) {
  Rig rig;
  rig.plex.sections.clear();
  rig.pass();
  EXPECT_EQ(rig.count("POST", "/library/sections"), 0) << "no titles, no section";
  rig.addFilms(0, 1);
  rig.pass();
  ASSERT_EQ(rig.plex.sections.size(), 1u);
  EXPECT_EQ(rig.plex.sections.begin()->second.title, "Vantory");
  EXPECT_EQ(rig.plex.sections.begin()->second.prefs["enableBIFGeneration"], "0");
  EXPECT_TRUE(rig.logged("[sync] recreated the Plex library for " + rig.movies() + " — it had gone from Plex"));
}

TEST(PlexSyncCoordinator, ListsBecomeLabelsAndSmartCollectionsInOnePass) {
  Rig rig;
  rig.addFilms(0, 3);
  rig.index(0, 3);
  rig.catalog.lists = {
      {.id = "A", .name = "Noir", .members = std::vector<std::string>{imdb(0), imdb(1), "tt404"}},
      {.id = "B", .name = "Staged", .members = std::nullopt},
  };
  // A plain collection of the staged list's name stays as it is.
  rig.plex.collections["c1"] = {.ratingKey = "c1", .sectionKey = "1", .title = "Staged", .smart = false};
  rig.pass();
  EXPECT_EQ(rig.plex.itemsWithLabel("1", "Noir").size(), 2u);
  EXPECT_TRUE(rig.logged("[sync] labelled 2 title(s) into \"Noir\""));
  EXPECT_TRUE(rig.logged("[sync] created smart collection \"Noir\""));
  ASSERT_TRUE(rig.catalog.lists[0].plexRatingKey);
  const auto& made = rig.plex.collections.at(*rig.catalog.lists[0].plexRatingKey);
  EXPECT_TRUE(made.smart);
  EXPECT_EQ(made.labelId, rig.plex.labelId("Noir"));
  EXPECT_EQ(rig.catalog.owned, std::set<std::string>{"Noir"});
  EXPECT_TRUE(rig.plex.collections.count("c1"));
  EXPECT_TRUE(rig.logged("[sync] reconciled 2 collection(s) in " + rig.movies()));

  // A member leaves the list: its label goes, and Plex scans so the smart
  // collection follows. A second pass changes nothing more.
  rig.catalog.lists[0].members = std::vector<std::string>{imdb(0)};
  rig.pass();
  EXPECT_TRUE(rig.logged("[sync] unlabelled 1 title(s) from \"Noir\""));
  EXPECT_EQ(rig.plex.itemsWithLabel("1", "Noir").size(), 1u);
  const size_t before = rig.plex.requests().size();
  rig.lines.clear();
  rig.pass();
  EXPECT_EQ(rig.count("POST", "/library/collections"), 1);
  EXPECT_FALSE(rig.logged("[sync] unlabelled 1 title(s) from \"Noir\""));
  EXPECT_GT(rig.plex.requests().size(), before);
}

TEST(PlexSyncCoordinator, ALabelWaitsForItsFilesAndIsNeverTakenOffWhileOnesAreMissing) {
  Rig rig;
  rig.addFilms(0, 3);
  rig.catalog.lists = {{.id = "A", .name = "Noir", .members = std::vector<std::string>{imdb(0), imdb(1)}}};
  rig.pass();  // nothing indexed: no label, so no collection yet
  EXPECT_EQ(rig.count("POST", "/library/collections"), 0);
  rig.index(0, 1);  // one of two members indexed
  rig.clock.manual.advance(PlexSyncCoordinator::kRetryBackoff);
  rig.settle();
  EXPECT_TRUE(rig.plex.items["rk0"].labels.count("Noir"));
  EXPECT_EQ(rig.count("POST", "/library/collections"), 1) << "labelled and made in the same pass";
  // A title Plex labelled that the list doesn't want keeps the label while a
  // member's file is still missing.
  rig.plex.addItem({.ratingKey = "x", .sectionKey = "1", .files = {"/elsewhere/x.mkv"}, .labels = {"Noir"}});
  rig.pass();
  EXPECT_EQ(rig.count("PUT", "/library/metadata/x"), 0);
  EXPECT_TRUE(rig.plex.items["x"].labels.count("Noir"));
}

TEST(PlexSyncCoordinator, PlainCollectionsAreReplacedSmartOnesAdoptedAndOnlyOwnedOrphansRetired) {
  Rig rig;
  rig.addFilms(0, 2);
  rig.index(0, 2);
  rig.catalog.lists = {
      {.id = "A", .name = "Plain", .members = std::vector<std::string>{imdb(0)}},
      {.id = "B", .name = "Theirs", .members = std::vector<std::string>{imdb(1)}},
  };
  auto& plex = rig.plex;
  plex.collections["p"] = {.ratingKey = "p", .sectionKey = "1", .title = "Plain", .smart = false};
  plex.collections["t"] = {.ratingKey = "t", .sectionKey = "1", .title = "Theirs", .smart = true};
  // Two orphans with labels: one we made, one the user made.
  plex.items["rk1"].labels = {"Old Ours", "Old Users", "Old Plain", "Theirs"};
  plex.collections["o1"] = {.ratingKey = "o1", .sectionKey = "1", .title = "Old Ours", .smart = true};
  plex.collections["o2"] = {.ratingKey = "o2", .sectionKey = "1", .title = "Old Users", .smart = true};
  plex.collections["o3"] = {.ratingKey = "o3", .sectionKey = "1", .title = "Old Plain", .smart = false};
  plex.collections["o4"] = {.ratingKey = "o4", .sectionKey = "1", .title = "Old Bare", .smart = true};
  rig.catalog.owned = {"Old Ours", "Old Plain", "Old Bare"};

  rig.warmUp();
  rig.pass();
  EXPECT_TRUE(plex.collections.count("o1")) << "nothing is retired during the warm-up";
  rig.clock.manual.advance(120);
  rig.settle();
  rig.pass();

  EXPECT_FALSE(plex.collections.count("p"));
  EXPECT_TRUE(rig.logged("[sync] replaced plain collection \"Plain\" with a smart one"));
  EXPECT_EQ(rig.catalog.lists[1].plexRatingKey, "t");
  EXPECT_EQ(rig.catalog.owned.count("Theirs"), 0u) << "adopted, not owned";
  EXPECT_EQ(rig.catalog.owned.count("Plain"), 1u);
  EXPECT_FALSE(plex.collections.count("o1"));
  EXPECT_TRUE(rig.logged("[sync] retired orphaned collection \"Old Ours\" — nothing here claims it"));
  EXPECT_TRUE(rig.logged("[sync] stripped \"Old Ours\" from 1 title(s)"));
  EXPECT_EQ(rig.catalog.owned.count("Old Ours"), 0u);
  EXPECT_TRUE(plex.collections.count("o2"));
  EXPECT_TRUE(plex.collections.count("o3")) << "only smart collections are retired";
  EXPECT_TRUE(plex.collections.count("o4") && rig.catalog.owned.count("Old Bare")) << "no title carries its label";
  EXPECT_TRUE(plex.items["rk1"].labels.count("Old Users"));
}

TEST(PlexSyncCoordinator, TheWarmUpHoldsBackUnlabellingAnalysisAndShellPurges) {
  Rig rig;
  rig.plex.addSection("2", "Vantory TV", "show", {rig.shows()});
  rig.addFilms(0, 2);
  rig.index(0, 2);
  rig.catalog.lists = {{.id = "A", .name = "Noir", .members = std::vector<std::string>{imdb(0)}}};
  rig.plex.items["rk1"].labels = {"Noir"};
  rig.plex.items["rk0"].addedAt = static_cast<int64_t>(unixSecondsFromDate(rig.clock.now())) - 3600;  // no duration
  rig.plex.addItem({.ratingKey = "show", .sectionKey = "2", .type = "show"});
  rig.warmUp();
  rig.pass();
  EXPECT_TRUE(rig.plex.items["rk1"].labels.count("Noir"));
  EXPECT_EQ(rig.count("PUT", "/library/metadata/rk0/analyze"), 0);
  EXPECT_TRUE(rig.plex.items.count("show"));
  EXPECT_TRUE(rig.logged("[sync] reconciled — retry pending"));

  rig.clock.manual.advance(120);
  rig.settle();
  rig.pass();
  EXPECT_FALSE(rig.plex.items["rk1"].labels.count("Noir"));
  EXPECT_EQ(rig.count("PUT", "/library/metadata/rk0/analyze"), 1);
  EXPECT_TRUE(rig.logged("[sync] asked Plex to analyze item rk0 again: a version of it has no duration"));
  EXPECT_FALSE(rig.plex.items.count("show"));
  EXPECT_TRUE(rig.logged("[sync] removed 1 orphan show shell(s) from " + rig.shows()));
}

TEST(PlexSyncCoordinator, AnalysisIsAskedForFourItemsPerTenMinutesAndOnceInSixHours) {
  Rig rig;
  rig.addFilms(0, 6);
  rig.index(0, 6);
  for (auto& [rk, item] : rig.plex.items)
    item.addedAt = static_cast<int64_t>(unixSecondsFromDate(rig.clock.now())) - 3600;
  rig.pass();
  EXPECT_EQ(rig.count("PUT", "/library/metadata/"), 4);
  rig.clock.manual.advance(PlexSyncCoordinator::kReanalyzeInterval);  // not more than ten minutes yet
  rig.settle();
  rig.pass();
  EXPECT_EQ(rig.count("PUT", "/library/metadata/"), 4);
  rig.clock.manual.advance(1);
  rig.settle();
  rig.pass();
  EXPECT_EQ(rig.count("PUT", "/library/metadata/"), 6) << "the two not asked yet; the first four wait six hours";
}

TEST(PlexSyncCoordinator, ShowShellsGoOnlyWhenTheEpisodeMapVouchesForTheWantedShows) {
  Rig rig;
  rig.plex.addSection("2", "Vantory TV", "show", {rig.shows()});
  LibraryTitle episode = test::sampleTitle("Show (2001) {imdb-tt77}/Season 01/Show (2001) - s01e01.mkv");
  episode.seriesImdbId = "tt77";
  episode.season = 1;
  episode.episode = 1;
  rig.library.upsert(episode);
  rig.plex.addItem({.ratingKey = "s1", .sectionKey = "2", .type = "show"});
  rig.plex.addItem({.ratingKey = "s2", .sectionKey = "2", .type = "show"});
  rig.plex.addItem({.ratingKey = "e1",
                    .sectionKey = "2",
                    .type = "episode",
                    .grandparentRatingKey = "s1",
                    .files = {rig.shows() + "/" + episode.name}});
  // The map names another episode's show but not the wanted one's: nothing
  // is deleted.
  rig.plex.on("GET", "/library/sections/2/all", [&](const auto& r, auto& reply) {
    if (r.query("type") == "4") {
      Json row{
          {"ratingKey", "e1"},
          {"Media", Json::array({Json{{"Part", Json::array({Json{{"file", rig.shows() + "/" + episode.name}}})}}})}};
      Json other{{"ratingKey", "e2"}, {"grandparentRatingKey", "s2"}};
      return reply.json(Json{{"MediaContainer", Json{{"Metadata", Json::array({row, other})}}}});
    }
    reply.json(Json{
        {"MediaContainer", Json{{"Metadata", Json::array({Json{{"ratingKey", "s1"}}, Json{{"ratingKey", "s2"}}})}}}});
  });
  rig.pass();
  EXPECT_TRUE(rig.plex.items.count("s1") && rig.plex.items.count("s2"));
  EXPECT_TRUE(rig.logged("[sync] deferring show-shell purge for " + rig.shows() + " — episode→show map incomplete"));

  Rig full;
  full.plex.addSection("2", "Vantory TV", "show", {full.shows()});
  full.library.upsert(episode);
  for (const auto& [rk, item] : rig.plex.items) full.plex.items[rk] = item;
  full.pass();
  EXPECT_TRUE(full.plex.items.count("s1"));
  EXPECT_FALSE(full.plex.items.count("s2"));
}

TEST(PlexSyncCoordinator, SizesTheEnginesProvedAreKept) {
  Rig rig;
  rig.addFilms(0, 2);
  rig.index(0, 2);
  test::FakeHttpServer engine;
  engine.on("GET", "/status", [](auto&, auto& reply) {
    EngineStatusPayload status;
    status.entries = {{.name = filmName(0), .size = 5'000'000'000, .size_verified = true},
                      {.name = filmName(1), .size = 7, .size_verified = false}};
    reply.send(200, QByteArray::fromStdString(encodeEngineStatus(status)), {}, "application/json");
  });
  rig.controlURLs = {engine.baseUrl().toString().toStdString(), "not a url"};
  rig.pass();
  EXPECT_EQ(rig.library.titleNamed(filmName(0))->size, 5'000'000'000);
  EXPECT_EQ(rig.library.titleNamed(filmName(1))->size, 1000);
  EXPECT_TRUE(rig.logged("[sync] persisted CDN-verified sizes"));
  EXPECT_FALSE(engine.requests().front().header("X-Plex-Token"));
}
