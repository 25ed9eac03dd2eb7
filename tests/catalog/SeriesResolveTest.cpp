#include <gtest/gtest.h>

#include "catalog/CatalogStore.h"
#include "catalog/SeriesResolve.h"
#include "core/LibraryStore.h"
#include "sources/ResolverWorld.h"
#include "sources/ranking/RankingSettings.h"

using namespace vt;
using namespace vt::test::resolver;
using test::FakeCinemeta;
using test::FakeStreamAddon;
using SK = SeriesResolve::Outcome::Kind;

namespace {

const std::string kShow = "tt0000601";
const std::string kPast = "2020-01-01T00:00:00.000Z";
const std::string kFuture = "2099-01-01T00:00:00.000Z";

// The resolver's world with a catalog that follows one show on a published
// list, and a library that takes each episode as it comes in.
struct Shows : World {
  StreamResolver titles{services};
  CatalogStore catalog{home.path(), clock};
  LibraryStore library{home.file("library.json"), clock};
  ResolvePace pace;
  std::vector<std::string> said;
  std::function<void(const LibraryTitle&)> onTitle;
  CatalogCollection list;

  Shows() {
    test::serveGenerated(cdn, "/films/film.mkv", kFilm);
    torrentio.onPrefix("GET", "/resolve/", [this](const auto&, auto& reply) {
      reply.send(302, {}, {{"Location", cdn.url("/films/film.mkv").toEncoded()}});
    });
    list = CatalogCollection{.id = newCollectionId(),
                             .name = "Shows",
                             .source = CollectionSource::stremioCatalog("http://127.0.0.1:9/", "series", "top"),
                             .itemImdbIds = {kShow},
                             .maxItems = 10};
    catalog.upsert(list);
    catalog.materialise(list);
  }

  // Cinemeta's record: each season with its episodes' release dates.
  void show(const std::vector<std::pair<int, std::vector<std::string>>>& seasons) {
    Json videos = Json::array();
    for (const auto& [season, dates] : seasons)
      for (size_t i = 0; i < dates.size(); ++i)
        videos.push_back(FakeCinemeta::video(kShow, season, static_cast<int>(i + 1), dates[i]));
    cinemeta.addSeries(kShow, "Show", "2020", videos);
  }
  void rows(int season, int episode) {
    const std::string tag = "S0" + std::to_string(season) + "E0" + std::to_string(episode);
    torrentio.setReleases("series", key(season, episode), {{"Show." + tag + ".1080p.WEB.x264-GRP.mkv", kFilm, kHashA}});
  }
  void busy(int season, int episode) {
    torrentio.setFault("series", key(season, episode), FakeStreamAddon::Fault::serverError);
  }
  // The add-on has streams for the films the readiness check asks for.
  void alive() {
    const std::string film = StreamResolver::wellKnownFilms()[0];
    cinemeta.addMovie(film, "Pulp Fiction", "1994", "154 min");
    torrentio.setReleases("movie", film, {{"Pulp.Fiction.1994.1080p.BluRay.x264-GRP.mkv", kFilm, kHashB}});
  }
  static std::string key(int season, int episode) { return episodeKey(kShow, season, episode); }

  SeriesResolve::Outcome walk() {
    SeriesResolve::Services s{.titles = &titles, .catalog = &catalog, .store = &library, .clock = &clock};
    SeriesResolve series(
        kShow, torrentio.base(), rankerFor(QualityLevel::balanced), false, &pace, {},
        [this](const LibraryTitle& t) {
          library.upsert(t);
          if (onTitle) onTitle(t);
        },
        [this](const std::string& l) { said.push_back(l); }, s);
    return run(series.run(), 30000);
  }
  // Stream requests for the show's episodes, as "season:episode".
  std::vector<std::string> asked() const {
    std::vector<std::string> out;
    const std::string prefix = "series/" + kShow + ":";
    for (const auto& r : torrentio.streamRequests())
      if (r.rfind(prefix, 0) == 0) out.push_back(r.substr(prefix.size()));
    return out;
  }
  bool heard(const std::string& line) const { return std::find(said.begin(), said.end(), line) != said.end(); }
  std::vector<std::string> titleKeys(const SeriesResolve::Outcome& o) const {
    std::vector<std::string> out;
    for (const auto& t : o.titles) out.push_back(std::to_string(*t.season) + ":" + std::to_string(*t.episode));
    return out;
  }
};

}  // namespace

TEST(SeriesResolve, WalksReleasedEpisodesSeasonBySeasonAndRestsTheShowWhenDone) {
  Shows w;
  // Specials in season 0, episode 3 listed by its number only, season 2 not out at all.
  Json videos = Json::array();
  videos.push_back(FakeCinemeta::video(kShow, 0, 1, kPast));
  videos.push_back(FakeCinemeta::video(kShow, 1, 1, kPast));
  videos.push_back(FakeCinemeta::video(kShow, 1, 2, ""));
  Json third{{"season", 1}, {"number", 3}, {"released", kPast}};
  videos.push_back(third);
  videos.push_back(FakeCinemeta::video(kShow, 2, 1, kFuture));
  videos.push_back(FakeCinemeta::video(kShow, 2, 2, kFuture));
  w.cinemeta.addSeries(kShow, "Show", "2020", videos);
  for (int e = 1; e <= 3; ++e) w.rows(1, e);
  w.rows(0, 1);
  w.rows(2, 1);
  w.catalog.markSeriesComplete(kShow);

  const auto out = w.walk();
  ASSERT_EQ(out.kind, SK::done);
  EXPECT_EQ(w.titleKeys(out), (std::vector<std::string>{"1:1", "1:2", "1:3"}));
  EXPECT_EQ(out.titles[2].name, "Show (2020) {imdb-" + kShow + "}/Season 01/Show (2020) - s01e03.mkv");
  EXPECT_EQ(w.asked(), (std::vector<std::string>{"1:1", "1:2", "1:3"}))
      << "no specials, nothing of the unreleased season; the probe's rows serve episode 1";
  EXPECT_TRUE(w.catalog.isVetted(seasonKey(kShow, 1)));
  EXPECT_FALSE(w.catalog.isVetted(seasonKey(kShow, 2)));
  EXPECT_FALSE(w.catalog.isCooling(seasonKey(kShow, 2)));
  for (int e = 1; e <= 3; ++e) EXPECT_TRUE(w.catalog.isVetted(Shows::key(1, e)));
  EXPECT_TRUE(w.catalog.isSeriesResting(kShow)) << "the unreleased season doesn't keep the show open";
  EXPECT_TRUE(w.heard("[resolve] " + kShow + ": all released episodes resolved or resting"));
  // A probe and three episodes, each a definite answer: the pace eases four times.
  EXPECT_NEAR(w.pace.delay, 0.7 * 0.92 * 0.92 * 0.92 * 0.92, 1e-9);

  // The next run finds everything in the library and asks nothing.
  const auto again = w.walk();
  EXPECT_EQ(again.kind, SK::noProgress);
  EXPECT_EQ(w.asked().size(), 3u);
}

TEST(SeriesResolve, ShowsWithoutEpisodesOrWithoutARecord) {
  Shows w;
  w.show({{0, {kPast, kPast}}});
  EXPECT_EQ(w.walk().kind, SK::noProgress) << "only specials: no seasons";
  EXPECT_TRUE(w.asked().empty());

  Shows gone;
  EXPECT_EQ(gone.walk().kind, SK::noListing);
  Shows down;
  down.cinemeta.forcedStatus = 503;
  EXPECT_EQ(down.walk().kind, SK::transient);
  EXPECT_FALSE(down.catalog.isCooling(kShow));
}

TEST(SeriesResolve, ASeasonWithoutSourceIsSkippedWholeAndAVettedSeasonIsNeverProbed) {
  Shows w;
  w.alive();
  w.show({{1, {kPast, kPast, kPast}}, {2, {kPast, kPast}}, {3, {kPast, kPast}}});
  // Season 1: its first episode has no row, the later ones would have.
  w.rows(1, 2);
  w.rows(1, 3);
  w.rows(2, 1);
  w.rows(2, 2);
  // Season 3 is vetted: its first episode lost its source, the second has one.
  w.catalog.markVetted(seasonKey(kShow, 3));
  w.rows(3, 2);
  // A title without a link for the episode that has no source any more.
  w.library.upsert(
      {.name = episodeFileName("Show", "2020", kShow, 3, 1), .seriesImdbId = kShow, .season = 3, .episode = 1});

  const auto out = w.walk();
  ASSERT_EQ(out.kind, SK::done);
  EXPECT_EQ(w.titleKeys(out), (std::vector<std::string>{"2:1", "2:2", "3:2"}));
  EXPECT_EQ(w.asked(), (std::vector<std::string>{"1:1", "2:1", "2:2", "3:1", "3:2"}))
      << "season 1 is skipped after its probe; season 3 is not probed";
  EXPECT_TRUE(w.catalog.isCooling(seasonKey(kShow, 1)));
  EXPECT_FALSE(w.catalog.isCooling(Shows::key(1, 2))) << "only the season cools";
  EXPECT_TRUE(w.catalog.isCooling(Shows::key(3, 1))) << "a confirmed no-source episode cools";
  EXPECT_EQ(w.library.titleByEpisodeKey(Shows::key(3, 1)), nullptr) << "its linkless title goes";
  EXPECT_TRUE(w.catalog.isVetted(seasonKey(kShow, 3)));
  EXPECT_FALSE(w.catalog.isSeriesResting(kShow)) << "season 1's episodes are neither resolved nor cooling";
  EXPECT_FALSE(w.heard("[resolve] " + kShow + ": all released episodes resolved or resting"));

  // The next run: season 1 still cools, so it isn't probed again.
  const size_t before = w.asked().size();
  EXPECT_EQ(w.walk().kind, SK::noProgress);
  EXPECT_EQ(w.asked().size(), before);
}

TEST(SeriesResolve, ThreeBusyAnswersInARowCutTheShowShortButAGoodOneResetsTheCount) {
  {
    // Busy, busy, good, busy, busy: the count starts again after the good one.
    Shows w;
    w.show({{1, {kPast, kPast, kPast, kPast, kPast}}, {2, {kPast}}});
    w.catalog.markVetted(seasonKey(kShow, 1));
    w.rows(1, 3);
    w.rows(2, 1);
    for (int e : {1, 2, 4, 5}) w.busy(1, e);
    const auto out = w.walk();
    ASSERT_EQ(out.kind, SK::done);
    EXPECT_EQ(w.titleKeys(out), (std::vector<std::string>{"1:3", "2:1"}));
    EXPECT_EQ(w.asked(), (std::vector<std::string>{"1:1", "1:2", "1:3", "1:4", "1:5", "2:1"}));
    EXPECT_TRUE(std::none_of(w.said.begin(), w.said.end(),
                             [](const std::string& l) { return l.find("pausing rest of show") != std::string::npos; }));
    EXPECT_FALSE(w.catalog.isSeriesResting(kShow)) << "busy episodes are not done";
    // Each episode waits the pace as it stands (in virtual time): 0.7 doubled
    // twice, eased, doubled twice (the second time up to the cap of 8), then
    // eased by the probe of season 2 before its episode.
    ASSERT_GE(w.clock.pauses.size(), 6u);
    const std::vector<double> waits(w.clock.pauses.end() - 6, w.clock.pauses.end());
    const std::vector<double> expected{0.7, 1.4, 2.8, 2.8 * 0.92, 2.8 * 0.92 * 2, 8.0 * 0.92};
    for (size_t i = 0; i < waits.size(); ++i) EXPECT_NEAR(waits[i], expected[i], 1e-9) << i;
    EXPECT_NEAR(w.pace.delay, 8.0 * 0.92 * 0.92, 1e-9);
  }
  {
    // Three busy in a row: the rest of the show waits for the next pass.
    Shows w;
    w.show({{1, {kPast, kPast, kPast, kPast}}, {2, {kPast}}});
    w.catalog.markVetted(seasonKey(kShow, 1));
    for (int e : {1, 2, 3}) w.busy(1, e);
    w.rows(1, 4);
    w.rows(2, 1);
    w.pace.delay = 5.0;
    w.catalog.markSeriesComplete(kShow);
    const auto out = w.walk();
    EXPECT_EQ(out.kind, SK::transient);
    EXPECT_TRUE(out.titles.empty());
    EXPECT_EQ(w.asked(), (std::vector<std::string>{"1:1", "1:2", "1:3"}));
    EXPECT_TRUE(
        w.heard("[resolve] " + kShow + ": stream catalog busy after 3 failures — pausing rest of show this pass"));
    EXPECT_EQ(w.pace.delay, 8.0) << "doubled, at most 8 s";
    EXPECT_FALSE(w.catalog.isSeriesResting(kShow)) << "cleared at the start, not set by an aborted run";
  }
  {
    // Season probes that find the catalog busy count the same way.
    Shows w;
    w.show({{1, {kPast}}, {2, {kPast}}, {3, {kPast}}, {4, {kPast}}});
    for (int s : {1, 2, 3}) w.busy(s, 1);
    w.rows(4, 1);
    EXPECT_EQ(w.walk().kind, SK::transient);
    EXPECT_EQ(w.asked(), (std::vector<std::string>{"1:1", "2:1", "3:1"}));
    EXPECT_TRUE(w.heard("[resolve] " + kShow + ": stream catalog busy — pausing rest of show this pass"));
    EXPECT_FALSE(w.catalog.isCooling(seasonKey(kShow, 1))) << "a busy answer is no verdict";
  }
}

TEST(SeriesResolve, AShowDroppedFromThePublishedListsStopsAtTheNextCheck) {
  Shows w;
  w.show({{1, {kPast, kPast, kPast}}, {2, {kPast}}});
  for (int e = 1; e <= 3; ++e) w.rows(1, e);
  w.rows(2, 1);
  w.onTitle = [&](const LibraryTitle&) { w.catalog.replaceMembership({}, w.list.id); };
  const auto out = w.walk();
  ASSERT_EQ(out.kind, SK::done);
  EXPECT_EQ(w.titleKeys(out), std::vector<std::string>{"1:1"});
  EXPECT_EQ(w.asked(), std::vector<std::string>{"1:1"});
}
