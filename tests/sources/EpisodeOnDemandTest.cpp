#include <gtest/gtest.h>

#include "ResolverWorld.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "platform/Settings.h"
#include "sources/resolve/EpisodeOnDemandResolver.h"
#include "sources/resolve/StreamResolver.h"

using namespace vt;
using namespace vt::test::resolver;
using test::FakeCinemeta;
using test::FakeStreamAddon;
using OK = EpisodeOnDemandResolver::Outcome::Kind;
using Reason = EpisodeOnDemandResolver::Reason;

namespace {

const std::string kShow = "tt0000501";

// The resolver's world with a library, the settings and a catalog made of
// plain sets: a show of two seasons whose add-on links lead to a film on the CDN.
struct OnDemand : World {
  StreamResolver titles{services};
  LibraryStore library{home.file("library.json"), clock};
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home.path());
  AppConfig config{*settings};
  std::set<std::string> wanted{kShow}, cooling, failed, cleared;
  bool hasCatalog = true;
  int applied = 0;
  std::vector<std::string> said;
  EpisodeOnDemandResolver episodes{{.config = &config,
                                    .store = &library,
                                    .resolver = &titles,
                                    .catalogStore = [this]() -> std::optional<EpisodeCatalogView> {
                                      if (!hasCatalog) return std::nullopt;
                                      EpisodeCatalogView v;
                                      v.isWanted = [this](const std::string& id) { return wanted.count(id) > 0; };
                                      v.isCooling = [this](const std::string& k) { return cooling.count(k) > 0; };
                                      v.markFailed = [this](const std::string& k) { failed.insert(k); };
                                      v.clearCooling = [this](const std::string& k) { cleared.insert(k); };
                                      return v;
                                    },
                                    .applyLibrary = [this] { ++applied; },
                                    .log = [this](const std::string& l) { said.push_back(l); }}};

  OnDemand() {
    test::serveGenerated(cdn, "/films/film.mkv", kFilm);
    torrentio.onPrefix("GET", "/resolve/", [this](const auto&, auto& reply) {
      reply.send(302, {}, {{"Location", cdn.url("/films/film.mkv").toEncoded()}});
    });
    config.setStreamAddonOverride(torrentio.base().toString().toStdString());
    Json videos = Json::array();
    for (const auto& [s, e, date] : std::vector<std::tuple<int, int, std::string>>{{1, 1, "2020-01-01T00:00:00.000Z"},
                                                                                   {1, 2, "2020-01-08T00:00:00.000Z"},
                                                                                   {2, 1, "2021-01-01T00:00:00.000Z"},
                                                                                   {2, 2, "2099-01-01T00:00:00.000Z"}})
      videos.push_back(FakeCinemeta::video(kShow, s, e, date));
    cinemeta.addSeries(kShow, "Show", "2020", videos);
  }
  void rows(int season, int episode) {
    const std::string tag = "S0" + std::to_string(season) + "E0" + std::to_string(episode);
    torrentio.setReleases("series", episodeKey(kShow, season, episode),
                          {{"Show." + tag + ".1080p.WEB.x264-GRP.mkv", kFilm, kHashA}});
  }
  EpisodeOnDemandResolver::Outcome ask(const std::string& key, Reason reason = Reason::playIntent) {
    return run(episodes.resolve(key, reason));
  }
  bool heard(const std::string& line) const { return std::find(said.begin(), said.end(), line) != said.end(); }
};

}  // namespace

TEST(EpisodeOnDemand, AnEpisodeResolvesIntoTheLibraryOnceAndIsThenServedAsItIs) {
  OnDemand w;
  w.rows(1, 2);
  const std::string key = kShow + ":1:2";
  const auto got = w.ask(key);
  ASSERT_EQ(got.kind, OK::resolved);
  const std::string name = "Show (2020) {imdb-" + kShow + "}/Season 01/Show (2020) - s01e02.mkv";
  EXPECT_EQ(got.title->name, name);
  ASSERT_NE(w.library.titleByEpisodeKey(key), nullptr);
  EXPECT_EQ(w.library.titleByEpisodeKey(key)->size, kFilm);
  EXPECT_EQ(w.applied, 1);
  EXPECT_EQ(w.cleared, std::set<std::string>{key}) << "a resolved key stops cooling";
  EXPECT_TRUE(w.heard("[intent] resolving " + key + " on play intent"));
  EXPECT_TRUE(w.heard("[intent] resolved " + name + " → 4.20 GB"));
  EXPECT_TRUE(w.episodes.inFlight().empty());

  const size_t asked = w.torrentio.streamRequests().size();
  w.said.clear();
  const auto again = w.ask(key);
  ASSERT_EQ(again.kind, OK::resolved);
  EXPECT_EQ(again.title->name, name);
  EXPECT_EQ(w.torrentio.streamRequests().size(), asked);
  EXPECT_TRUE(w.said.empty()) << "served unchanged";
  EXPECT_EQ(w.applied, 1);
}

TEST(EpisodeOnDemand, NoSourceCoolsBusyWaitsAndADroppedShowIsNotAdded) {
  OnDemand w;
  // Every add-on answers, none with a row: no source, the key cools.
  const std::string none = kShow + ":1:1";
  EXPECT_EQ(w.ask(none).kind, OK::noStream);
  EXPECT_EQ(w.failed, std::set<std::string>{none});
  EXPECT_TRUE(w.heard("[intent] no playable source for " + none + " — cooling down"));
  w.cooling.insert(none);
  const size_t asked = w.torrentio.streamRequests().size();
  EXPECT_EQ(w.ask(none).kind, OK::giveUp) << "cooling";
  EXPECT_EQ(w.torrentio.streamRequests().size(), asked);

  // Not out yet, or the add-on down: busy, nothing remembered.
  const std::string later = kShow + ":2:2";
  EXPECT_EQ(w.ask(later).kind, OK::transient);
  EXPECT_TRUE(w.heard("[intent] stream catalog busy for " + later + " — will retry on next play"));
  const std::string down = kShow + ":2:1";
  w.torrentio.setFault("series", down, FakeStreamAddon::Fault::serverError);
  EXPECT_EQ(w.ask(down).kind, OK::transient);
  EXPECT_TRUE(w.heard("[intent] stream catalog busy for " + down + " — will retry on next play"));
  EXPECT_EQ(w.failed.size(), 1u);

  // The show left every list while its episode resolved: the title is dropped.
  w.torrentio.setFault("series", down, FakeStreamAddon::Fault::none);
  w.rows(2, 1);
  w.wanted.clear();
  EXPECT_EQ(w.ask(down).kind, OK::giveUp);
  EXPECT_EQ(w.library.titleByEpisodeKey(down), nullptr);
  EXPECT_EQ(w.applied, 0);
  // Without a catalog nothing is dropped and nothing cools.
  w.hasCatalog = false;
  EXPECT_EQ(w.ask(down).kind, OK::resolved);
  EXPECT_NE(w.library.titleByEpisodeKey(down), nullptr);

  // No add-on address, or a key that isn't one: nothing happens.
  w.config.setStreamAddonOverride("");
  w.said.clear();
  EXPECT_EQ(w.ask(kShow + ":1:2").kind, OK::giveUp);
  EXPECT_EQ(w.ask("tt0000501:1").kind, OK::giveUp);
  EXPECT_TRUE(w.said.empty());
}

TEST(EpisodeOnDemand, OneKeyResolvesOnceAtATimeAndThePrewarmTakesTheNextEpisode) {
  OnDemand w;
  w.rows(1, 2);
  w.rows(2, 1);
  const std::string key = kShow + ":1:2";
  std::optional<EpisodeOnDemandResolver::Outcome> first;
  auto job = Job::start([&](CancelToken) -> QCoro::Task<> {
    auto out = co_await w.episodes.resolve(key, Reason::playIntent);
    first.emplace(std::move(out));
  });
  EXPECT_EQ(w.episodes.inFlight(), std::set<std::string>{key});
  EXPECT_EQ(w.ask(key).kind, OK::giveUp) << "already being resolved";
  ASSERT_TRUE(test::spinUntil([&] { return first.has_value(); }));
  EXPECT_EQ(first->kind, OK::resolved);
  EXPECT_TRUE(w.episodes.inFlight().empty());

  // After the last episode of season 1 comes the first of season 2.
  const auto next = w.run(w.episodes.resolveNext(key));
  ASSERT_EQ(next.kind, OK::resolved);
  EXPECT_EQ(next.title->season, 2);
  EXPECT_EQ(next.title->episode, 1);
  EXPECT_TRUE(w.heard("[intent] resolving " + kShow + ":2:1 on next-episode prewarm"));
  EXPECT_EQ(w.run(w.episodes.resolveNext(kShow + ":2:2")).kind, OK::giveUp) << "the show's last episode";

  const auto show = w.skeletons.cached(kShow);
  ASSERT_TRUE(show);
  EXPECT_EQ(EpisodeOnDemandResolver::nextEpisode(*show, 1, 1)->episode, 2);
  EXPECT_FALSE(EpisodeOnDemandResolver::nextEpisode(*show, 2, 2));
}

TEST(EpisodeOnDemand, AWatchPressResolvesAfreshTriesACoolingKeyAndKeepsTheResolversVerdict) {
  OnDemand w;
  w.rows(1, 2);
  const std::string key = kShow + ":1:2";
  ASSERT_EQ(w.ask(key).kind, OK::resolved);
  // The press has judged the held title stale: it resolves again (rows
  // from the resolver's cache, links proved afresh).
  w.said.clear();
  const auto pressed = w.ask(key, Reason::watchPress);
  ASSERT_EQ(pressed.kind, OK::resolved);
  EXPECT_TRUE(w.heard("[intent] resolving " + key + " on play intent"));
  EXPECT_EQ(pressed.asResolveOutcome().kind, ResolveOutcome::Kind::resolved);

  // A cooling key is tried all the same when a person asks for it.
  w.cooling.insert(key);
  EXPECT_EQ(w.ask(key, Reason::watchPress).kind, OK::resolved);

  // Not aired yet: the intent's word is "busy", the verdict keeps the date
  // that the press shows.
  const auto later = w.ask(kShow + ":2:2", Reason::watchPress);
  EXPECT_EQ(later.kind, OK::transient);
  const ResolveOutcome verdict = later.asResolveOutcome();
  ASSERT_EQ(verdict.kind, ResolveOutcome::Kind::unreleased);
  EXPECT_EQ(verdict.released.value_or(""), "2099-01-01T00:00:00.000Z");
  // Given up without a resolve: a passing failure.
  EXPECT_EQ(w.ask("tt0000501:x:1", Reason::watchPress).asResolveOutcome().kind, ResolveOutcome::Kind::transient);
}
