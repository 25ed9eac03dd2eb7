#include <gtest/gtest.h>

#include <cmath>

#include "catalog/CatalogStore.h"
#include "catalog/CollectionResolve.h"
#include "catalog/StremioCatalogClient.h"
#include "core/ActivityLog.h"
#include "core/LibraryStore.h"
#include "fakes/FakeCatalogAddon.h"
#include "fakes/FakeCinemeta.h"
#include "sources/ResolverWorld.h"
#include "sources/ranking/RankingSettings.h"

using namespace vt;
using namespace vt::test::resolver;
using test::FakeStreamAddon;

namespace {

std::string idOf(int n) { return "tt07" + std::to_string(10000 + n); }

std::vector<std::string> idsFrom(int from, int count) {
  std::vector<std::string> out;
  for (int i = from; i < from + count; ++i) out.push_back(idOf(i));
  return out;
}

// The resolver's local world with a catalog, a library and a catalog add-on
// for further pages: a collection's resolve runs against real servers.
struct Pass : World {
  StreamResolver titles{services};
  CatalogStore catalog{home.path(), clock};
  LibraryStore library{home.file("library.json"), clock};
  test::FakeCatalogAddon lists;
  StremioCatalogClient client{http, cinemeta.base()};
  ActivityLog activity{std::nullopt, clock};
  ResolvePace pace;
  std::vector<std::string> said;
  std::set<std::string> protectedIds;
  CancelToken token;
  std::function<void(const LibraryTitle&)> onTitle;
  std::function<void(const std::string&)> onLine;

  Pass() {
    test::serveGenerated(cdn, "/films/film.mkv", kFilm);
    torrentio.onPrefix("GET", "/resolve/", [this](const auto&, auto& reply) {
      reply.send(302, {}, {{"Location", cdn.url("/films/film.mkv").toEncoded()}});
    });
  }

  // A film Cinemeta knows; with streams unless told otherwise.
  void film(const std::string& id, bool streams = true) {
    catalog.fillMeta({CatalogMeta{.id = id, .name = "Film " + id, .year = "2015"}});
    cinemeta.addMovie(id, "Film " + id, "2015", "100 min");
    if (streams) torrentio.setReleases("movie", id, {{"Film." + id + ".2015.1080p.WEB.x264-GRP.mkv", kFilm, kHashA}});
  }
  // A film already in the library.
  void held(const std::string& id) {
    catalog.fillMeta({CatalogMeta{.id = id, .name = "Film " + id, .year = "2015"}});
    library.upsert({.name = "Film (2015) {imdb-" + id + "}.mkv", .url = "http://x/" + id});
  }
  // The add-on answers the readiness check: a no-stream verdict is believed.
  void aliveForReadiness() { film(StreamResolver::wellKnownFilms()[0]); }

  CatalogCollection list(std::vector<std::string> items, CollectionSource source, int maxItems = 40) {
    CatalogCollection c{.id = newCollectionId(),
                        .name = "Top",
                        .source = std::move(source),
                        .itemImdbIds = std::move(items),
                        .maxItems = maxItems};
    catalog.upsert(c);
    return c;
  }
  CatalogCollection addonList(std::vector<std::string> items, int maxItems = 40) {
    return list(std::move(items),
                CollectionSource::stremioCatalog(lists.base().toString().toStdString(), "movie", "top"), maxItems);
  }

  CollectionResolveResult resolve(const CatalogCollection& c) {
    CollectionResolveHooks hooks;
    hooks.log = [this](const std::string& line) {
      said.push_back(line);
      if (onLine) onLine(line);
    };
    hooks.onResolved = [this](const std::vector<LibraryTitle>& ts) {
      for (const auto& t : ts) {
        library.upsert(t);
        if (onTitle) onTitle(t);
      }
    };
    CollectionResolve::Services s{&titles, &library, &catalog, &client, &clock, [this] { return rd.key; }, &activity};
    CollectionResolve pass(c, torrentio.base(), rankerFor(QualityLevel::balanced), false, protectedIds, hooks, &pace,
                           s);
    return run(pass.run(token), 30000);
  }
  bool heard(const std::string& line) const { return std::find(said.begin(), said.end(), line) != said.end(); }
  const std::vector<std::string>& members(const CatalogCollection& c) const {
    return catalog.collection(c.id)->itemImdbIds;
  }
  size_t metaRequests(const std::string& id) const {
    size_t n = 0;
    for (const auto& r : cinemeta.requests()) n += r.path.contains(QString::fromStdString(id));
    return n;
  }
};

Json pageRows(const std::vector<std::string>& ids) {
  Json rows = Json::array();
  for (const auto& id : ids) rows.push_back(Json{{"id", id}, {"type", "movie"}, {"name", "Film " + id}});
  return rows;
}

}  // namespace

TEST(CollectionResolve, AStaleKeyIsARealDebridLinkOfAnotherAccount) {
  const auto title = [](std::optional<std::string> link) { return LibraryTitle{.name = "F", .resolveURL = link}; };
  const auto old = title("https://addon.example/resolve/realdebrid/OLDKEY/abc/1/F.mkv");
  EXPECT_TRUE(hasStaleKey(old, "NEWKEY"));
  EXPECT_FALSE(hasStaleKey(old, "OLDKEY"));
  EXPECT_FALSE(hasStaleKey(old, "")) << "with no key nothing is stale";
  EXPECT_FALSE(hasStaleKey(title(std::nullopt), "NEWKEY"));
  EXPECT_FALSE(hasStaleKey(title("https://addon.example/resolve/premiumize/OLDKEY/abc"), "NEWKEY"));
  EXPECT_FALSE(hasStaleKey(title("https://addon.example/resolve/realdebrid"), "NEWKEY")) << "no key component";
  EXPECT_FALSE(hasStaleKey(title("resolve/realdebrid/OLDKEY"), "NEWKEY")) << "not a URL";
  EXPECT_FALSE(hasStaleKey(title("https://addon.example/realdebridx/OLDKEY"), "NEWKEY")) << "whole components only";
}

TEST(CollectionResolve, PendingIdsFollowTheLibraryTheReleaseAndTheSeriesRest) {
  Pass w;
  const Date now = w.clock.now();
  for (const auto& id : {"tt1", "tt2", "tt3", "tt4", "tt5"}) w.catalog.fillMeta({{.id = id, .year = "2015"}});
  w.catalog.fillMeta({{.id = "tt6", .year = "2099", .released = "2099-01-01T00:00:00.000Z"}});
  w.library.upsert({.name = "A (2015) {imdb-tt2}.mkv", .url = "u", .resolveURL = "https://a.x/realdebrid/" + w.rd.key});
  w.library.upsert({.name = "B (2015) {imdb-tt3}.mkv", .url = "u", .resolveURL = "https://a.x/realdebrid/OLD/h"});
  w.catalog.markOnlyInCinemas("tt4");
  const std::vector<std::string> films{"tt1", "tt2", "tt3", "tt4", "tt5", "tt6", "tt9"};
  EXPECT_EQ(pendingIds(films, w.library, w.catalog, {"tt5"}, w.rd.key, now),
            (std::vector<std::string>{"tt1", "tt3", "tt9"}))
      << "missing, stale or unknown; not excluded, not in cinemas, not unreleased";
  EXPECT_EQ(pendingIds(films, w.library, w.catalog, {}, "", now + CatalogStore::kCinemaRest),
            (std::vector<std::string>{"tt1", "tt4", "tt5", "tt9"}))
      << "12 hours after the cinema mark it is back; with no key nothing is stale";

  // Shows: only those a published list holds, while they want an episode or aren't resting.
  w.catalog.fillMeta({{.id = "tt7", .mediaType = "series"}, {.id = "tt8", .mediaType = "series"}});
  const auto lib = w.list({"tt7"}, CollectionSource::library());
  w.catalog.materialise(lib);
  EXPECT_TRUE(pendingIds({"tt7"}, w.library, w.catalog, {}, "", now).empty()) << "the library alone: on demand";
  const auto shows = w.addonList({"tt8"});
  w.catalog.materialise(shows);
  EXPECT_EQ(pendingIds({"tt8"}, w.library, w.catalog, {}, "", now).size(), 1u) << "no episode yet";
  w.library.upsert(
      {.name = episodeFileName("S", "2015", "tt8", 1, 1), .seriesImdbId = "tt8", .season = 1, .episode = 1});
  w.catalog.markSeriesComplete("tt8");
  EXPECT_EQ(pendingIds({"tt8"}, w.library, w.catalog, {}, "", now).size(), 1u) << "an episode without a link";
  w.library.upsert({.name = episodeFileName("S", "2015", "tt8", 1, 1),
                    .url = "u",
                    .seriesImdbId = "tt8",
                    .season = 1,
                    .episode = 1});
  EXPECT_TRUE(pendingIds({"tt8"}, w.library, w.catalog, {}, "", now).empty()) << "complete and resting";
  w.clock.manual.advance(CatalogStore::kSeriesRest);
  EXPECT_EQ(pendingIds({"tt8"}, w.library, w.catalog, {}, "", w.clock.now()).size(), 1u) << "rested";
}

TEST(CollectionResolve, FilmsAndShowsResolveWithOnePaceAndOneActivityEntryCountsThem) {
  Pass w;
  const auto ids = idsFrom(0, 3);
  for (const auto& id : ids) w.film(id);
  w.catalog.fillMeta(
      {{.id = "tt0900001", .name = "Show One", .mediaType = "series"}, {.id = "tt0900002", .mediaType = "series"}});
  // Show One has two episodes out; Cinemeta has no record of the other show.
  Json videos = Json::array();
  for (int e = 1; e <= 2; ++e) {
    videos.push_back(test::FakeCinemeta::video("tt0900001", 1, e, "2015-01-0" + std::to_string(e) + "T00:00:00.000Z"));
    w.torrentio.setReleases("series", "tt0900001:1:" + std::to_string(e),
                            {{"Show.One.S01E0" + std::to_string(e) + ".1080p.WEB.x264-GRP.mkv", kFilm, kHashA}});
  }
  w.cinemeta.addSeries("tt0900001", "Show One", "2015", videos);
  auto c = w.addonList({ids[0], "tt0900001", ids[1], "tt0900002", ids[2]}, 5);
  w.catalog.materialise(c);
  w.pace.delay = 2.0;
  const auto out = w.resolve(c);

  ASSERT_EQ(out.titles.size(), 5u);
  EXPECT_EQ(out.titles[0].name, "Film " + ids[0] + " (2015) {imdb-" + ids[0] + "}.mkv");
  EXPECT_EQ(out.titles[3].name, "Show One (2015) {imdb-tt0900001}/Season 01/Show One (2015) - s01e01.mkv");
  for (const auto& id : ids) EXPECT_TRUE(w.catalog.isVetted(id)) << id;
  EXPECT_TRUE(w.catalog.isVetted("tt0900001")) << "a show that made progress";
  EXPECT_NE(w.library.titleByEpisodeKey("tt0900001:1:2"), nullptr);
  EXPECT_EQ(out.totalFailed, 0);
  EXPECT_TRUE(w.heard("[supervisor] resolve \"Top\": 5 pending"));
  EXPECT_TRUE(w.heard("[resolve] series 1/2: Show One"));
  EXPECT_TRUE(w.heard("[resolve] series 2/2: tt0900002")) << "no name: the id";
  EXPECT_TRUE(w.heard("[resolve] series no-listing verdict(s) in \"Top\": tt0900002"));
  EXPECT_TRUE(w.heard("[supervisor] \"Top\" done — 5 resolved, 0 extra pages"));
  EXPECT_EQ(w.members(c).size(), 5u) << "a show without a record stays while the provider can't confirm";
  EXPECT_TRUE(w.lists.catalogRequests().empty()) << "the list is full";
  // Films and episodes share one pace: six definite answers (three films, the
  // season's probe, two episodes; none for the missing show) ease it.
  EXPECT_NEAR(w.pace.delay, 2.0 * std::pow(0.92, 6), 1e-9);
  ASSERT_EQ(w.activity.events().size(), 1u);
  EXPECT_EQ(w.activity.events()[0].kind, ActivityLog::Kind::added);
  EXPECT_EQ(w.activity.events()[0].title, "5 titles added to Plex");
  EXPECT_EQ(w.activity.events()[0].detail, "Top");
}

TEST(CollectionResolve, ADeadAddOnRemovesNothingAndTransientsAreDeferredAfterThreeTries) {
  // The add-on answers with nothing at all, also for the films every working add-on has.
  Pass w;
  const auto ids = idsFrom(0, 3);
  for (const auto& id : ids) w.film(id, false);
  auto c = w.addonList(ids, 3);
  const auto dead = w.resolve(c);
  EXPECT_TRUE(dead.titles.empty());
  EXPECT_EQ(dead.totalFailed, 0);
  EXPECT_EQ(w.members(c), ids) << "nothing removed";
  for (const auto& id : ids) EXPECT_FALSE(w.catalog.isCooling(id));
  EXPECT_TRUE(w.heard("[resolve] holding 3 no-source verdict(s) in \"Top\" — the source provider is not answering"));
  EXPECT_TRUE(w.heard("[resolve] no-stream verdict(s) in \"Top\" — " + ids[0] + ":saw0 " + ids[1] + ":saw0 " + ids[2] +
                      ":saw0"));
  EXPECT_TRUE(
      w.heard("[supervisor] \"Top\": 3 title(s) held for a later pass (0 service-busy, 3 unconfirmed "
              "no-stream) — kept in collection"));

  // Cinemeta down: no verdict at all, three tries in this run, then deferred.
  Pass t;
  t.film(ids[0]);
  t.cinemeta.forcedStatus = 502;
  auto busy = t.addonList({ids[0]}, 1);
  const auto out = t.resolve(busy);
  EXPECT_TRUE(out.titles.empty());
  const std::string retry = "[supervisor] 1 transient failure(s) in \"Top\" — backing off, will retry";
  EXPECT_EQ(std::count(t.said.begin(), t.said.end(), retry), 2) << "a fourth try would log a fourth failure";
  EXPECT_TRUE(t.heard("[supervisor] 1 transient failure(s) in \"Top\" — 1 deferred to next pass"));
  EXPECT_TRUE(t.heard("[supervisor] pausing 4s before retry (service busy)"));
  EXPECT_TRUE(t.heard("[supervisor] pausing 8s before retry (service busy)"));
  EXPECT_FALSE(t.heard("[supervisor] pausing 16s before retry (service busy)")) << "deferred: nothing left to wait for";
  EXPECT_TRUE(
      t.heard("[supervisor] \"Top\": 1 title(s) held for a later pass (1 service-busy, 0 unconfirmed "
              "no-stream) — kept in collection"));
  EXPECT_EQ(t.members(busy), std::vector<std::string>{ids[0]});
}

TEST(CollectionResolve, AListThatLosesTitlesIsRefilledFromTheNextPages) {
  // 35 of the list's 40 are in the library, 5 have no source; the add-on's
  // catalog goes on with `more` on its next page.
  const auto first = idsFrom(0, 40);
  const auto losing = [&](Pass& p, std::vector<std::string> more) {
    p.aliveForReadiness();
    for (int i = 0; i < 35; ++i) p.held(first[i]);
    for (int i = 35; i < 40; ++i) p.film(first[i], false);
    more.insert(more.begin(), first.begin(), first.end());
    p.lists.pageSize = 40;
    p.lists.setCatalog("movie", "top", std::nullopt, pageRows(more));
    return p.addonList(first);
  };
  Pass w;
  const auto next = idsFrom(40, 10);
  for (const auto& id : next) {
    w.cinemeta.addMovie(id, "Film " + id, "2015", "100 min");
    w.torrentio.setReleases("movie", id, {{"Film." + id + ".2015.1080p.WEB.x264-GRP.mkv", kFilm, kHashA}});
  }
  auto c = losing(w, next);
  const auto out = w.resolve(c);
  EXPECT_EQ(out.totalFailed, 5);
  EXPECT_TRUE(w.heard("[supervisor] removed 5 title(s) from \"Top\" — no source found"));
  EXPECT_EQ(w.lists.catalogRequests(), std::vector<std::string>{"movie/top/skip=40.json"});
  EXPECT_TRUE(w.heard("[supervisor] backfill page 1: +5 in \"Top\""));
  ASSERT_EQ(out.titles.size(), 5u);
  std::vector<std::string> expected(first.begin(), first.begin() + 35);
  expected.insert(expected.end(), next.begin(), next.begin() + 5);
  EXPECT_EQ(w.members(c), expected);
  EXPECT_EQ(w.catalog.meta(next[0])->name, "Film " + next[0]) << "the new ids' records";
  EXPECT_FALSE(w.catalog.meta(next[5])) << "only the ids taken";
  EXPECT_TRUE(w.heard("[supervisor] \"Top\" done — 5 resolved, 1 extra pages"));

  // A page of known ids only (the lost ones too): the list ends short.
  Pass k;
  auto known = losing(k, first);
  k.resolve(known);
  EXPECT_EQ(k.members(known).size(), 35u);
  EXPECT_EQ(k.lists.catalogRequests(), std::vector<std::string>{"movie/top/skip=40.json"});
  EXPECT_TRUE(k.heard("[supervisor] \"Top\" done — 0 resolved, 1 extra pages"));
}

TEST(CollectionResolve, NoMoreThanFiveExtraPagesWhateverTheDeficit) {
  Pass w;
  w.aliveForReadiness();
  // Every id the add-on offers has no source: each page replaces one loss with the next.
  const auto ids = idsFrom(0, 8);
  for (const auto& id : ids) w.film(id, false);
  w.lists.pageSize = 1;
  w.lists.setCatalog("movie", "top", std::nullopt, pageRows(ids));
  auto c = w.addonList({ids[0]}, 10);
  const auto out = w.resolve(c);
  EXPECT_EQ(w.lists.catalogRequests().size(), 5u);
  EXPECT_EQ(w.lists.catalogRequests().back(), "movie/top/skip=5.json");
  EXPECT_EQ(out.totalFailed, 6);
  EXPECT_TRUE(w.members(c).empty());
  EXPECT_TRUE(w.heard("[supervisor] \"Top\" done — 0 resolved, 5 extra pages"));
}

TEST(CollectionResolve, WatchlistsKeepFailedIdsAndProtectedIdsAreNeverMarkedFailed) {
  Pass w;
  w.aliveForReadiness();
  const auto ids = idsFrom(0, 2);
  for (const auto& id : ids) w.film(id, false);
  auto watch = w.list(ids, CollectionSource::watchlist(), 10);
  const auto out = w.resolve(watch);
  EXPECT_EQ(out.totalFailed, 2);
  EXPECT_EQ(w.members(watch), ids);
  EXPECT_TRUE(w.catalog.isCooling(ids[0]));
  EXPECT_TRUE(
      w.heard("[supervisor] 2 title(s) in \"Top\" have no source — kept, shown as \"No playable source "
              "found\""));
  EXPECT_TRUE(w.lists.catalogRequests().empty()) << "only an add-on list is refilled";

  Pass p;
  p.aliveForReadiness();
  for (const auto& id : ids) p.film(id, false);
  p.protectedIds = {ids[1]};
  auto c = p.addonList(ids);
  const auto guarded = p.resolve(c);
  EXPECT_EQ(guarded.protectedFailed, std::set<std::string>{ids[1]});
  EXPECT_EQ(guarded.totalFailed, 1);
  EXPECT_EQ(p.members(c), std::vector<std::string>{ids[1]}) << "the protected id stays";
  EXPECT_FALSE(p.catalog.isCooling(ids[1]));
  EXPECT_TRUE(p.catalog.isCooling(ids[0]));
  EXPECT_TRUE(
      p.heard("[supervisor] \"Top\": 1 title(s) held for a later pass (0 service-busy, 1 unconfirmed "
              "no-stream) — kept in collection"));
}

TEST(CollectionResolve, UnreleasedFilmsAreHeldAndACancelledRunReportsWhatItHas) {
  Pass w;
  const auto ids = idsFrom(0, 3);
  // Out by its date, yet only a recording exists: in cinemas for 12 hours.
  w.catalog.fillMeta({CatalogMeta{.id = ids[0], .name = "Cam", .year = "2019"}});
  w.cinemeta.addMovie(ids[0], "Cam", "2019", "100 min", "2019-01-01T00:00:00.000Z");
  w.torrentio.setReleases("movie", ids[0], {{"Cam.2019.HDCAM.x264-AAA.mkv", kFilm, kHashA}});
  w.film(ids[1]);
  w.film(ids[2]);
  auto c = w.addonList(ids);
  w.onTitle = [&](const LibraryTitle&) { w.token.cancel(); };
  const auto out = w.resolve(c);

  EXPECT_EQ(out.titles.size(), 1u) << "the first title came in, then the cancel";
  EXPECT_TRUE(w.catalog.meta(ids[0])->onlyInCinemasAt);
  EXPECT_TRUE(w.catalog.isHeldByRelease(ids[0]));
  EXPECT_EQ(w.metaRequests(ids[2]), 0u) << "the third film was never asked";
  EXPECT_EQ(w.activity.events().at(0).title, "1 title added to Plex");
  EXPECT_EQ(w.members(c), ids);
}

TEST(CollectionResolve, ACancelDuringTheBackOffEndsTheRunAtOnce) {
  Pass w;
  w.film(idOf(0));
  w.cinemeta.forcedStatus = 502;
  auto c = w.addonList({idOf(0)}, 1);
  w.onLine = [&](const std::string& line) {
    if (line.starts_with("[supervisor] pausing")) w.clock.schedule(1, [&] { w.token.cancel(); });
  };
  const Date start = w.clock.now();
  const auto out = w.resolve(c);
  EXPECT_TRUE(out.titles.empty());
  EXPECT_LT(w.clock.now() - start, 4) << "the 4 s pause was cut short";
  EXPECT_FALSE(w.heard("[supervisor] pausing 8s before retry (service busy)"));
  EXPECT_TRUE(w.heard("[supervisor] \"Top\" done — 0 resolved, 0 extra pages"));
}
