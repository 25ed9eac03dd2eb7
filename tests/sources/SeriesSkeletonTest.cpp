#include <gtest/gtest.h>

#include "ResolverWorld.h"
#include "platform/Job.h"
#include "sources/resolve/SeriesSkeletonCache.h"

using namespace vt;
using namespace vt::test::resolver;
using test::FakeCinemeta;
using test::FakeStreamAddon;
using Kind = ResolveError::Kind;

namespace {

std::vector<std::pair<int, int>> numbers(const std::vector<EpisodeMeta>& episodes) {
  std::vector<std::pair<int, int>> out;
  for (const auto& e : episodes) out.emplace_back(e.season, e.episode);
  return out;
}

size_t metaRequests(const World& w, const std::string& id) {
  size_t n = 0;
  for (const auto& r : w.cinemeta.requests()) n += r.path == QString::fromStdString("/meta/series/" + id + ".json");
  return n;
}

}  // namespace

TEST(SeriesSkeleton, CinemetaVideosAreReadLeniently) {
  const Json meta = Json::parse(R"({
    "name": "Show", "releaseInfo": "2019–", "runtime": "1h 5m", "country": "Japan",
    "videos": [
      {"id": "tt1:2:1", "season": 2, "episode": 1, "name": "Late", "released": "2099-03-01T00:00:00.000Z"},
      {"id": "tt1:0:1", "season": 0, "episode": 1, "name": "Special"},
      {"season": 1, "number": 5, "firstAired": "2019-01-20T12:00:00.000Z", "description": "Plot",
       "thumbnail": "https://img/5.jpg"},
      {"id": "tt1:1:2", "season": 1, "episode": 2, "title": "Second", "overview": "Over", "description": "Desc"},
      {"id": "tt1:1:1", "season": 1.0, "episode": 1, "name": "First", "title": "Ignored"},
      {"season": 1, "name": "No number"},
      {"episode": 9, "name": "No season"},
      {"season": "1", "episode": 3},
      "not a video",
      {"season": 3, "episode": 1, "name": 42}
    ]})");
  const auto show = SeriesSkeleton::decode("tt1", meta);
  EXPECT_EQ(show.seriesId, "tt1");
  EXPECT_EQ(show.title, "Show");
  EXPECT_EQ(show.year, "2019–") << "releaseInfo when there is no year";
  EXPECT_EQ(show.runtimeMinutes, 65);
  ASSERT_EQ(show.episodes.size(), 5u) << "specials and videos without a season or a number go";
  EXPECT_EQ(numbers(show.episodes), (std::vector<std::pair<int, int>>{{2, 1}, {1, 5}, {1, 2}, {1, 1}, {3, 1}}))
      << "Cinemeta's order";

  const EpisodeMeta& fifth = show.episodes[1];
  EXPECT_EQ(fifth.id, "tt1:1:5") << "no id: the episode key";
  EXPECT_EQ(fifth.title, "Episode 5");
  EXPECT_EQ(fifth.released, "2019-01-20T12:00:00.000Z") << "firstAired when there is no released";
  EXPECT_EQ(fifth.overview, "Plot") << "description when there is no overview";
  EXPECT_EQ(fifth.thumbnail, "https://img/5.jpg");
  EXPECT_EQ(fifth.airDateText(), "Jan 20, 2019");
  EXPECT_EQ(show.episodes[2].title, "Second");
  EXPECT_EQ(show.episodes[2].overview, "Over");
  EXPECT_EQ(show.episodes[3].title, "First") << "name before title";
  EXPECT_EQ(show.episodes[4].title, "Episode 1") << "a name that is no text is absent";

  EXPECT_EQ(show.seasons(), (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(numbers(show.seasonEpisodes(1)), (std::vector<std::pair<int, int>>{{1, 1}, {1, 2}, {1, 5}}));
  const Date now = dateFromUnixSeconds(1'700'000'000);  // November 2023
  EXPECT_EQ(numbers(show.airedEpisodes(now)), (std::vector<std::pair<int, int>>{{1, 1}, {1, 2}, {1, 5}, {3, 1}}))
      << "the future episode is left out; one without a date counts as out";

  EXPECT_EQ(json::encode(toJson(fifth)),
            R"({"id":"tt1:1:5","season":1,"episode":5,"title":"Episode 5","released":"2019-01-20T12:00:00.000Z",)"
            R"("thumbnail":"https://img/5.jpg","overview":"Plot"})");
  EXPECT_EQ(EpisodeMeta{.released = "soon"}.airDateText(), std::nullopt);
  EXPECT_EQ(EpisodeMeta{}.airDateText(), std::nullopt);

  const auto bare = SeriesSkeleton::decode("tt2", Json::parse(R"({"name": "Bare", "runtime": "0 min"})"));
  EXPECT_EQ(bare.year, "");
  EXPECT_EQ(bare.runtimeMinutes, std::nullopt) << "a runtime below a minute is none";
  EXPECT_TRUE(bare.seasons().empty());
  EXPECT_EQ(episodeKey("tt2", 1, 10), "tt2:1:10");
  EXPECT_EQ(seasonKey("tt2", 3), "tt2:s3");
}

TEST(SeriesSkeletonCache, ThreeCallersShareOneLoadAndFailuresAreNotKept) {
  World w;
  Json videos = Json::array();
  videos.push_back(FakeCinemeta::video("tt0000301", 1, 1, "2020-01-01T00:00:00.000Z"));
  w.cinemeta.addSeries("tt0000301", "Shared", "2020", videos);

  // Three callers ask before the one load has answered.
  std::vector<std::optional<SeriesSkeletonCache::Loaded>> got(3);
  std::vector<Job> callers;
  for (auto& slot : got)
    callers.push_back(Job::start([&w, &slot](CancelToken) -> QCoro::Task<> {
      auto loaded = co_await w.skeletons.skeleton("tt0000301", w.cinemeta.base(), w.http);
      slot.emplace(std::move(loaded));
    }));
  EXPECT_EQ(w.skeletons.loadsInFlight(), 1u);
  ASSERT_TRUE(test::spinUntil([&] { return got[0] && got[1] && got[2]; }));
  for (const auto& r : got) {
    ASSERT_TRUE(*r) << why(*r);
    EXPECT_EQ((*r)->title, "Shared");
    EXPECT_EQ((*r)->episodes.size(), 1u);
  }
  EXPECT_EQ(metaRequests(w, "tt0000301"), 1u);
  EXPECT_EQ(w.skeletons.loadsInFlight(), 0u);
  ASSERT_TRUE(w.skeletons.cached("tt0000301"));
  w.cinemeta.metas.clear();
  EXPECT_TRUE(w.run(w.skeletons.skeleton("tt0000301", w.cinemeta.base(), w.http))) << "kept in memory";
  EXPECT_EQ(metaRequests(w, "tt0000301"), 1u);

  // No record: noMeta at once. Cinemeta down: one retry, then metaNetworkError; neither is kept.
  EXPECT_EQ(w.run(w.skeletons.skeleton("tt0000302", w.cinemeta.base(), w.http)).error().kind, Kind::noMeta);
  EXPECT_EQ(metaRequests(w, "tt0000302"), 1u);
  w.cinemeta.forcedStatus = 503;
  EXPECT_EQ(w.run(w.skeletons.skeleton("tt0000303", w.cinemeta.base(), w.http)).error().kind, Kind::metaNetworkError);
  EXPECT_EQ(metaRequests(w, "tt0000303"), 2u);
  EXPECT_FALSE(w.skeletons.cached("tt0000303"));
  w.cinemeta.forcedStatus.reset();
  w.cinemeta.addSeries("tt0000303", "Back", "2021", Json::array());
  const auto back = w.run(w.skeletons.skeleton("tt0000303", w.cinemeta.base(), w.http));
  ASSERT_TRUE(back) << why(back);
  EXPECT_EQ(back->title, "Back");

  // A record without a name is no record.
  w.cinemeta.setMeta("series", "tt0000304", Json{{"videos", Json::array()}});
  EXPECT_EQ(w.run(w.skeletons.skeleton("tt0000304", w.cinemeta.base(), w.http)).error().kind, Kind::noMeta);
}

TEST(StremioResolver, ASeasonHasASourceWhenItsEpisodeHasAPlayableRow) {
  World w;
  w.torrentio.setReleases("series", "tt0000401:1:1", {{"Show.S01E01.1080p.WEB.x264-GRP.mkv", kFilm, kHashA}});
  // A row of Torrentio without a debrid marker: nothing Real-Debrid serves.
  w.torrentio.setRows("series", "tt0000401:2:1",
                      Json::array({Json{{"name", "Torrentio\n1080p"},
                                        {"title", "Show.S02E01.1080p.WEB.x264-GRP.mkv"},
                                        {"url", "magnet:?xt=urn:btih:" + kHashB}}}));
  auto r = w.resolver();
  const auto one = w.run(r.seasonHasSource("tt0000401", 1, 1));
  ASSERT_TRUE(one) << why(one);
  EXPECT_TRUE(*one);
  const auto two = w.run(r.seasonHasSource("tt0000401", 2, 1));
  ASSERT_TRUE(two) << why(two);
  EXPECT_FALSE(*two) << "a row Real-Debrid can't serve is no source";
  w.torrentio.setFault(FakeStreamAddon::Fault::serverError);
  const auto busy = w.run(r.seasonHasSource("tt0000401", 3, 1));
  ASSERT_FALSE(busy);
  EXPECT_EQ(busy.error().kind, Kind::catalogUnavailable) << "what the pool fails with";
}
