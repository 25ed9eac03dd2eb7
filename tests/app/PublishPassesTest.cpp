#include <gtest/gtest.h>

#include <deque>

#include "app/PublishPasses.h"
#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineStatusClient.h"
#include "fakes/FakeHttpServer.h"
#include "fakes/FakePlexServer.h"
#include "platform/Http.h"
#include "platform/Settings.h"
#include "plex/PMSClient.h"
#include "support/PauseClock.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

namespace {

using Names = std::vector<std::string>;

// An engine's control port: `status` reports `ready` as probe-ready, and each
// warm-pending request is kept with the (virtual) time it came.
struct FakeEngine {
  test::FakeHttpServer server;
  std::set<std::string> ready;
  std::vector<std::pair<Date, Names>> warms;

  explicit FakeEngine(Clock& clock) {
    server.on("GET", "/status", [this](const auto&, auto& reply) {
      Json entries = Json::array();
      for (const auto& n : ready) entries.push_back(Json{{"name", n}, {"probe_ready", true}});
      reply.json(Json{{"entries", entries}});
    });
    server.on("POST", "/control/warm-pending", [this, &clock](const auto& request, auto& reply) {
      const auto body = json::parse(std::string_view(request.body.constData(), request.body.size()));
      warms.emplace_back(clock.now(), body ? (*body)["names"].template get<Names>() : Names{});
      reply.send(200, "{}");
    });
  }
  size_t statusReads() const { return server.requestsTo("/status").size(); }
};

// A collection's resolve played by the test: each run waits for the steps the
// test feeds it, hands their titles over, and stops on request as the real
// one does before its next title.
struct Script {
  struct Run {
    std::string id;
    CollectionResolveHooks hooks;
    std::deque<std::optional<std::vector<LibraryTitle>>> steps;  // none: the end
    CollectionResolveResult end;
    Completion wake;
    bool over = false;
  };
  std::vector<std::shared_ptr<Run>> runs;

  QCoro::Task<CollectionResolveResult> run(CatalogCollection collection, CollectionResolveHooks hooks,
                                           CancelToken token) {
    auto r = std::make_shared<Run>();
    r->id = collection.id;
    r->hooks = hooks;
    runs.push_back(r);
    CollectionResolveResult out;
    while (true) {
      while (r->steps.empty()) {
        r->wake = Completion();
        const Completion wake = r->wake;
        const bool woke = co_await wake.wait(token);
        if (!woke) {
          r->over = true;
          co_return out;
        }
      }
      auto step = std::move(r->steps.front());
      r->steps.pop_front();
      if (!step || (hooks.shouldStopHere && hooks.shouldStopHere())) break;
      out.titles.insert(out.titles.end(), step->begin(), step->end());
      if (hooks.onResolved) hooks.onResolved(*step);
    }
    out.totalFailed = r->end.totalFailed;
    out.protectedFailed = r->end.protectedFailed;
    r->over = true;
    co_return out;
  }
  Run& last(const std::string& id) {
    for (auto it = runs.rbegin(); it != runs.rend(); ++it)
      if ((*it)->id == id) return **it;
    throw std::runtime_error("no run for " + id);
  }
  static void push(Run& r, std::optional<std::vector<LibraryTitle>> step) {
    r.steps.push_back(std::move(step));
    r.wake.fire();
  }
  void feed(const std::string& id, std::vector<LibraryTitle> titles) { push(last(id), std::move(titles)); }
  void finish(const std::string& id, int failed = 0, std::set<std::string> protectedFailed = {}) {
    auto& r = last(id);
    r.end.totalFailed = failed;
    r.end.protectedFailed = std::move(protectedFailed);
    push(r, std::nullopt);
  }
};

std::string imdb(int n) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "tt%07d", n);
  return buf;
}
LibraryTitle film(int n) {
  return test::sampleTitle(filmFileName("Film " + std::to_string(n), "2001", imdb(n), "x.mkv"));
}
LibraryTitle episode(const std::string& series, int season, int number) {
  auto t = test::sampleTitle(episodeFileName("Show", "2001", series, season, number));
  t.seriesImdbId = series;
  t.season = season;
  t.episode = number;
  return t;
}
std::vector<LibraryTitle> films(int from, int to) {
  std::vector<LibraryTitle> out;
  for (int n = from; n < to; ++n) out.push_back(film(n));
  return out;
}
std::vector<std::string> ids(int from, int to) {
  std::vector<std::string> out;
  for (int n = from; n < to; ++n) out.push_back(imdb(n));
  return out;
}

struct Rig {
  test::TestHome home;
  test::PauseClock clock;  // the passes' sleeps; the stores keep to `clock.manual`
  SettingsStore settings{home.file("settings.ini")};
  AppConfig config{settings};
  LibraryStore store{home.file("library.json"), clock.manual};
  CatalogStore catalog{home.path(), clock.manual, &config};
  HttpClient http{systemClock(), HttpClient::Session::ephemeral};
  EngineStatusClient engineClient{http};
  FakeEngine movie{clock}, tv{clock};
  test::FakePlexServer plex{"plex-token", clock.manual};
  PMSClientFactory plexFactory{config, http};
  Script script;

  std::vector<std::string> lines;
  int applies = 0, kicks = 0, flushes = 0, passesDone = 0;
  std::vector<int> flushRequests;
  bool playing = false;
  std::vector<std::set<std::string>> completions;
  struct FollowUp {
    std::map<std::string, int> resolved;
    std::set<std::string> cancelled;
  };
  std::vector<FollowUp> followUps;
  std::unique_ptr<PublishPasses> passes;

  Rig() {
    config.setStreamAddonOverride("http://127.0.0.1:9/addon");
    config.setPmsURLString(plex.baseUrl().toString().toStdString());
    config.setToken("plex-token");
    plex.addSection("1", "Vantory", "movie", {home.path() + "/Library"}).fileList.emplace();
    plex.addSection("2", "Vantory TV", "show", {home.path() + "/Library TV"}).fileList.emplace();

    PublishPassesEnvironment env;
    env.clock = &clock;
    env.store = &store;
    env.catalog = &catalog;
    env.config = &config;
    env.runCollection = [this](CatalogCollection c, QUrl, StreamRanker, bool, std::set<std::string>,
                               CollectionResolveHooks hooks, ResolvePace*,
                               CancelToken token) { return script.run(std::move(c), std::move(hooks), token); };
    env.log = [this](const std::string& line) { lines.push_back(line); };
    env.applyConfig = [this] { ++applies; };
    env.kickPlexSync = [this] { ++kicks; };
    env.flushNow = [this] { ++flushes; };
    env.requestFlush = [this](int n) { flushRequests.push_back(n); };
    env.movieControlURL = [this] { return std::optional(movie.server.baseUrl()); };
    env.tvControlURL = [this] { return std::optional(tv.server.baseUrl()); };
    env.playbackActive = [this] { return playing; };
    env.engineStatus = &engineClient;
    env.plex = &plexFactory;
    env.dataDirectory = home.path();
    env.scheduleFollowUp = [this](const auto&, const std::map<std::string, int>& resolved,
                                  const std::set<std::string>& cancelled) {
      followUps.push_back({resolved, cancelled});
    };
    passes = std::make_unique<PublishPasses>(env);
  }

  // A published list; staged unless `staged` is false.
  std::string list(const std::string& name, std::vector<std::string> members, bool staged = true) {
    CatalogCollection c{.id = newCollectionId(),
                        .name = name,
                        .source = CollectionSource::stremioCatalog("https://addon", "movie", "top"),
                        .itemImdbIds = std::move(members),
                        .maxItems = 200};
    catalog.upsert(c);
    catalog.materialise(c);
    if (!staged) catalog.finishStaging(c.id);
    return c.id;
  }
  const CatalogCollection& get(const std::string& id) const { return *catalog.collection(id); }
  void publish(std::vector<std::string> collectionIds, bool markPublished = true) {
    std::vector<CatalogCollection> cs;
    for (const auto& id : collectionIds) cs.push_back(get(id));
    passes->resolveAndPublish(cs, {}, markPublished, [this](const std::set<std::string>& failed) {
      completions.push_back(failed);
      ++passesDone;
    });
  }
  size_t revealed(const std::string& id) const {
    const auto it = catalog.stagedRevealedIds().find(id);
    return it == catalog.stagedRevealedIds().end() ? 0 : it->second.size();
  }
  void makeReady(const std::vector<LibraryTitle>& titles) {
    for (const auto& t : titles) (t.seriesImdbId ? tv : movie).ready.insert(t.name);
  }
  // Plex finds every file of the library at its next look.
  void indexLibrary() {
    for (const auto& t : store.titles()) {
      const bool ep = t.seriesImdbId.has_value();
      plex.sections[ep ? "2" : "1"].fileList->push_back(home.path() + (ep ? "/Library TV/" : "/Library/") + t.name);
    }
    plex.scan("1");
    plex.scan("2");
  }
  bool hasLine(const std::string& line) const { return std::find(lines.begin(), lines.end(), line) != lines.end(); }

  // Spins until a job sleeps on the clock or `until` holds.
  void settle(const std::function<bool()>& until = [] { return false; }) {
    test::spinUntil([&] { return clock.sleeping().has_value() || until(); }, 3000);
  }
  // One tick of the flipper: three seconds on, and the tick's requests answered.
  void tick() {
    settle();
    clock.manual.advance(3.0);
    settle();
  }
  void ticksFor(double seconds) {
    const Date end = clock.now() + seconds;
    while (clock.now() < end) tick();
  }
  // Sleeps through every pause until `done` holds.
  void runUntil(const std::function<bool()>& done) {
    QElapsedTimer guard;
    guard.start();
    while (!done() && guard.elapsed() < 10000) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
      if (auto pause = clock.sleeping()) clock.manual.advance(*pause);
    }
    ASSERT_TRUE(done());
  }
};

}  // namespace

TEST(PublishPasses, WavesOf24Then48AreThresholdsAndTheRestGoesOnceAllAreReady) {
  Rig r;
  const auto id = r.list("Top", ids(0, 80));
  r.publish({id});
  EXPECT_EQ(r.passes->resolvingIds(), (std::set<std::string>{id}));

  const auto first = films(0, 30);
  r.script.feed(id, first);
  EXPECT_EQ(r.store.size(), 30u);
  r.makeReady(films(0, 23));
  r.tick();
  EXPECT_EQ(r.revealed(id), 0u);
  ASSERT_EQ(r.movie.warms.size(), 1u);
  EXPECT_EQ(r.movie.warms[0].second.size(), 30u);
  EXPECT_FALSE(r.catalog.delivery(id));

  r.makeReady({film(23)});
  r.tick();
  EXPECT_EQ(r.revealed(id), 24u);
  EXPECT_TRUE(r.hasLine("[supervisor] \"Top\": wave of 24 file(s) → Plex"));
  EXPECT_EQ(r.catalog.delivery(id), kDeliveryPlayable);
  EXPECT_EQ(r.applies, 1);

  // Later waves wait for 48, and take all that are ready.
  r.script.feed(id, films(30, 80));
  r.makeReady(films(24, 71));  // 47
  r.tick();
  EXPECT_EQ(r.revealed(id), 24u);
  r.makeReady(films(71, 74));  // 50
  r.tick();
  EXPECT_EQ(r.revealed(id), 74u);
  EXPECT_TRUE(r.hasLine("[supervisor] \"Top\": wave of 50 file(s) → Plex"));

  // After the resolve: no wave while one of the rest isn't ready, then all of them.
  r.makeReady(films(74, 79));
  r.script.finish(id);
  r.tick();
  EXPECT_EQ(r.revealed(id), 74u);
  EXPECT_TRUE(r.passes->resolvingIds().empty());
  r.makeReady({film(79)});
  r.tick();
  EXPECT_TRUE(r.hasLine("[supervisor] \"Top\": wave of 6 file(s) → Plex"));

  // Staging ends and the pass waits for Plex to index all 80.
  r.tick();
  r.settle();
  EXPECT_TRUE(r.hasLine("[supervisor] \"Top\" fully published — finishing Plex indexing"));
  EXPECT_FALSE(r.catalog.stagingIds().count(id));
  EXPECT_EQ(r.passes->applyingIds(), (std::set<std::string>{id}));
  r.clock.manual.advance(60);
  r.settle();
  EXPECT_EQ(r.passesDone, 0);
  EXPECT_EQ(r.catalog.delivery(id), kDeliveryPlayable);

  r.indexLibrary();
  r.runUntil([&] { return r.passesDone == 1; });
  EXPECT_EQ(r.catalog.delivery(id), kDeliveryMetadataReady);
  EXPECT_TRUE(r.passes->applyingIds().empty());
  EXPECT_TRUE(r.passes->resolveTasks().empty());
  EXPECT_TRUE(r.get(id).lastPublishedAt);
  EXPECT_EQ(r.lines.back(), "[resolve] 1 collection · 80 streams");
  ASSERT_EQ(r.followUps.size(), 1u);
  EXPECT_EQ(r.followUps[0].resolved, (std::map<std::string, int>{{id, 80}}));
}

TEST(PublishPasses, TheWarmDeadlinePublishesTheRestAndRestartsDuringPlayback) {
  Rig r;
  const auto id = r.list("Slow", ids(0, 3));
  r.publish({id});
  r.script.feed(id, films(0, 3));
  r.script.finish(id);
  r.tick();  // the resolve is done from here on
  const Date done = r.clock.now();

  r.playing = true;
  r.ticksFor(300);
  r.playing = false;
  const Date lastPlaying = r.clock.now();
  r.ticksFor(590);
  EXPECT_TRUE(r.catalog.stagingIds().count(id));
  EXPECT_FALSE(r.catalog.delivery(id));  // nothing revealed yet
  r.ticksFor(15);
  EXPECT_GT(r.clock.now() - done, 900);
  EXPECT_EQ(r.catalog.delivery(id), kDeliveryPlayable);  // revealed, and staging over
  EXPECT_FALSE(r.catalog.stagingIds().count(id));
  EXPECT_TRUE(r.hasLine("[supervisor] warm deadline — publishing 3 file(s) with incomplete probe cache"));
  EXPECT_GT(r.clock.now() - lastPlaying, 600);

  // Warm requests went out at most every 10 seconds while status was read every 3.
  ASSERT_GT(r.movie.warms.size(), 50u);
  for (size_t i = 1; i < r.movie.warms.size(); ++i)
    EXPECT_GE(r.movie.warms[i].first - r.movie.warms[i - 1].first, 10.0);
  EXPECT_GT(r.movie.statusReads(), 3 * r.movie.warms.size());
  EXPECT_TRUE(r.tv.warms.empty());
}

TEST(PublishPasses, AResumedStagingWaitsFor48AndLeavingStagingEndsTheFlipper) {
  Rig r;
  const auto id = r.list("Resumed", ids(0, 40));
  r.catalog.noteRevealed({imdb(99)}, id);
  r.publish({id});
  r.script.feed(id, films(0, 30));
  r.makeReady(films(0, 30));
  r.tick();
  EXPECT_EQ(r.revealed(id), 1u);  // 30 ready: no first wave of 24 for it

  r.catalog.finishStaging(id);
  const auto reads = r.movie.statusReads();
  r.clock.manual.advance(3.0);
  test::settle(50);
  EXPECT_FALSE(r.clock.sleeping());  // the flipper has ended; the resolve goes on
  EXPECT_EQ(r.movie.statusReads(), reads);
  EXPECT_EQ(r.passes->resolvingIds(), (std::set<std::string>{id}));

  r.indexLibrary();
  r.script.finish(id);
  r.runUntil([&] { return r.passesDone == 1; });
  EXPECT_EQ(r.catalog.delivery(id), kDeliveryMetadataReady);
}

TEST(PublishPasses, AnUnstagedPassKeepsPublishedTitlesAndSummarisesOnlyWhatHappened) {
  Rig r;
  const auto id = r.list("Plain", {imdb(1), imdb(2), imdb(3)}, false);
  r.config.setStreamAddonOverride("");
  r.publish({id});
  EXPECT_TRUE(r.passes->resolveTasks().empty());  // no add-on: no pass
  r.config.setStreamAddonOverride("http://127.0.0.1:9/addon");

  int applyingChanges = 0;
  QObject::connect(r.passes.get(), &PublishPasses::applyingIdsChanged, [&] { ++applyingChanges; });
  r.publish({id});
  r.script.feed(id, {film(1), film(2), film(50)});  // tt50 belongs to no published list
  EXPECT_TRUE(r.store.titleByImdb(imdb(1)) && r.store.titleByImdb(imdb(2)));
  EXPECT_FALSE(r.store.titleByImdb(imdb(50)));
  EXPECT_EQ(r.flushRequests, (std::vector<int>{2}));
  r.script.finish(id, 1, {imdb(3)});
  r.runUntil([&] { return r.passesDone == 1; });
  EXPECT_EQ(r.movie.statusReads(), 0u);  // no waves outside staging
  EXPECT_EQ(r.completions[0], (std::set<std::string>{imdb(3)}));
  EXPECT_EQ(r.lines.back(), "[resolve] 3 streams · 1 replaced");
  EXPECT_EQ(r.flushes, 1);
  EXPECT_EQ(r.kicks, 1);
  EXPECT_EQ(applyingChanges, 2);  // on its way to Plex through the coordinator
  EXPECT_TRUE(r.get(id).lastPublishedAt);

  // Nothing resolved and nothing failed: no summary.
  const auto before = r.lines.size();
  r.publish({id}, false);
  r.script.finish(id);
  r.runUntil([&] { return r.passesDone == 2; });
  EXPECT_EQ(r.lines.size(), before);
}

TEST(PublishPasses, ANewPassTakesACollectionOverAndCancelsTheOldTaskOnlyWhenNothingElseMapsToIt) {
  Rig r;
  const auto a = r.list("A", {imdb(1)}, false);
  const auto b = r.list("B", {imdb(2)}, false);
  r.publish({a, b});
  const Job first = r.passes->resolveTasks().at(a).task;

  r.publish({a});  // B still maps to the first pass
  EXPECT_FALSE(first.isCancelled());
  EXPECT_FALSE(r.passes->resolveTasks().at(a).task.token() == first.token());
  r.script.runs[0]->steps.push_back(std::vector{film(1)});
  r.script.runs[0]->wake.fire();  // the old resolve of A sees it is given up
  EXPECT_TRUE(r.script.runs[0]->over);
  EXPECT_FALSE(r.get(a).lastPublishedAt);
  EXPECT_EQ(r.script.runs.back()->id, b);  // the first pass goes on with B

  r.publish({b});  // now nothing maps to the first pass any more
  test::spinUntil([&] { return r.passesDone == 1; }, 3000);
  EXPECT_TRUE(first.isCancelled());
  ASSERT_EQ(r.followUps.size(), 1u);
  EXPECT_TRUE(r.followUps[0].resolved.empty());
  EXPECT_EQ(r.followUps[0].cancelled, (std::set<std::string>{a, b}));
  EXPECT_EQ(r.passes->resolveTasks().size(), 2u);

  r.script.feed(a, {film(1)});
  r.script.finish(a);
  r.script.finish(b);
  r.runUntil([&] { return r.passesDone == 3; });
  EXPECT_TRUE(r.get(a).lastPublishedAt);
  EXPECT_TRUE(r.passes->resolveTasks().empty());
}

TEST(PublishPasses, CancellingOneCollectionOfAPassLeavesTheOthers) {
  Rig r;
  const auto a = r.list("A", {imdb(1)}, false);
  const auto b = r.list("B", {imdb(2)}, false);
  r.publish({a, b});
  bool cancelled = false;
  auto job = Job::start([&](CancelToken) -> QCoro::Task<> {
    co_await r.passes->cancelResolve(a);
    cancelled = true;
  });
  r.settle();
  EXPECT_FALSE(cancelled);  // A's resolve is still at work
  EXPECT_FALSE(r.passes->resolveTasks().count(a));
  r.script.feed(a, {film(1)});
  r.runUntil([&] { return cancelled; });
  EXPECT_FALSE(r.store.titleByImdb(imdb(1)));

  r.script.feed(b, {film(2)});
  r.script.finish(b);
  r.runUntil([&] { return r.passesDone == 1; });
  EXPECT_TRUE(r.store.titleByImdb(imdb(2)));
  EXPECT_TRUE(r.get(b).lastPublishedAt);
  EXPECT_FALSE(r.get(a).lastPublishedAt);
  EXPECT_EQ(r.followUps[0].resolved, (std::map<std::string, int>{{b, 1}}));
  EXPECT_EQ(r.lines.back(), "[resolve] 1 collection · 1 streams");
}

TEST(PublishPasses, EpisodesWarmOnTheTvEngineAndCountInTheTvSectionsIndex) {
  Rig r;
  const auto id = r.list("Mixed", {imdb(1), "tt9000009"});
  r.publish({id});
  const std::vector<LibraryTitle> titles{film(1), episode("tt9000009", 1, 1), episode("tt9000009", 1, 2)};
  r.script.feed(id, titles);
  r.makeReady(titles);
  r.script.finish(id);
  r.tick();
  EXPECT_EQ(r.revealed(id), 3u);  // the rest after the resolve, however few
  ASSERT_EQ(r.tv.warms.size(), 1u);
  EXPECT_EQ(r.tv.warms[0].second, (Names{titles[1].name, titles[2].name}));
  EXPECT_EQ(r.movie.warms[0].second, (Names{titles[0].name}));

  r.indexLibrary();
  const Date start = r.clock.now();
  r.runUntil([&] { return r.passesDone == 1; });
  EXPECT_LT(r.clock.now() - start, 30);
  EXPECT_EQ(r.catalog.delivery(id), kDeliveryMetadataReady);
}
