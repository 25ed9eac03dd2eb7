// The watch button against local services: the title resolver over a stream
// add-on, Cinemeta and Real-Debrid, a Plex server that indexes the film's
// folder after a scan, and an engine control port that hears the prewarm.
// Time runs on a test clock: Plex's polls and deadlines pass in virtual time.

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <sstream>

#include <gtest/gtest.h>

#include <QLocalSocket>

#include "app/ControlSocket.h"
#include "app/VantoryApp.h"
#include "app/WatchNowService.h"
#include "catalog/CatalogStore.h"
#include "cli/Verbs.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineStatusClient.h"
#include "fakes/FakePlexServer.h"
#include "plex/PlexWebLink.h"
#include "sources/ResolverWorld.h"
#include "sources/ranking/RankingSettings.h"

using namespace vt;
using namespace vt::test::resolver;
using Phase = WatchNowService::Phase;

namespace {

const std::string kFilmId = "tt0111161";
const std::string kFilmName = "The Shawshank Redemption";
const std::string kWebApp = "https://app.plex.tv";
constexpr double kIndexPoll = WatchNowService::kIndexPoll;

// The resolver's world, a Plex server and an engine control port around one
// watch-now service. "Publishing" puts the title's file in the films' folder
// and has Plex scan it, as the engine and the sync would.
struct WatchWorld : World {
  StreamResolver titles{services};
  test::FakePlexServer plex{"plex-token", clock};
  test::FakeHttpServer engine;
  std::vector<Json> prewarms;
  std::string movies = home.file("Library");
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home.path());
  AppConfig config{*settings};
  LibraryStore library{home.file("library.json"), clock};
  CatalogStore catalog{home.path(), clock, &config};
  RecordingNotifier notifier;
  ConnectGate gate;
  PMSClientFactory plexClients{config, http};
  EngineStatusClient status{http};
  int applied = 0;
  int resolves = 0;
  std::string rdKey;
  std::unique_ptr<WatchNowService> service;

  WatchWorld() {
    QDir().mkpath(QString::fromStdString(movies));
    plex.canRead = [](const std::string&) { return true; };
    plex.addSection("1", "Vantory", "movie", {movies});
    plex.scanDelay = 2;
    engine.on("POST", "/control/prewarm", [this](const auto& request, auto& reply) {
      prewarms.push_back(*json::parse(request.body.toStdString()));
      reply.json(Json{{"ok", true}});
    });
    test::serveGenerated(cdn, "/films/film.mkv", kFilm);
    torrentio.onPrefix("GET", "/resolve/", [this](const auto&, auto& reply) {
      reply.send(302, {}, {{"Location", cdn.url("/films/film.mkv").toEncoded()}});
    });
    cinemeta.addMovie(kFilmId, kFilmName, "1994", "142 min");
    torrentio.setReleases("movie", kFilmId,
                          {{"The.Shawshank.Redemption.1994.1080p.BluRay.x264-GRP.mkv", kFilm, kHashA}});
    config.setToken(plex.token);
    config.setPlexServerName("Home");
    config.setRdKey(rd.key);
    config.setPmsURLString(plex.baseUrl().toString().toStdString());
    config.setControlURLString(engine.baseUrl().toString().toStdString());
    rdKey = rd.key;
    makeService();
  }

  void makeService() {
    WatchNowService::Parts p{.clock = &clock,
                             .config = &config,
                             .store = &library,
                             .catalog = &catalog,
                             .plex = &plexClients,
                             .notifier = &notifier,
                             .gate = &gate,
                             .dataDirectory = home.path(),
                             .webAppBase = kWebApp};
    p.applyToEngine = [this] {
      ++applied;
      for (const auto& t : library.titles())
        QFile(QString::fromStdString(movies + "/" + t.name)).open(QIODevice::WriteOnly);
      plex.requestScan("1");
    };
    p.movieControlURL = [this]() -> std::optional<QUrl> { return engine.baseUrl(); };
    p.tvControlURL = [] { return std::optional<QUrl>(); };
    p.prewarm = [this](QUrl control, std::string name, CancelToken token) -> QCoro::Task<> {
      std::vector<std::string> names{std::move(name)};
      co_await status.prewarm(control, std::move(names), {}, token);
    };
    p.resolveFilm = [this](std::string id, CancelToken token) -> QCoro::Task<ResolveOutcome> {
      ++resolves;
      auto outcome =
          co_await titles.resolveMovie(id, torrentio.base(), rankerFor(QualityLevel::balanced), false, false, token);
      co_return outcome;
    };
    p.account = [this](CancelToken token) -> QCoro::Task<Result<RDUserInfo, RDError>> {
      const RDClient client(http, rdKey, rd.restBase());
      auto user = co_await client.user(token);
      co_return user;
    };
    p.linkIsDead = [](const LibraryTitle&) { return false; };
    service = std::make_unique<WatchNowService>(std::move(p));
  }

  // Runs the event loop, sleeping through the service's pauses in virtual
  // time, until `done` or `limitMs` of real time.
  bool until(const std::function<bool()>& done, int limitMs = 15000) {
    QElapsedTimer t;
    t.start();
    while (!done()) {
      if (t.elapsed() > limitMs) return false;
      QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
      if (done()) break;
      // Only the service's own pauses (3 s at most): a request's time limit
      // must not run out while the server answers in real time.
      if (auto pause = clock.sleeping(); pause && *pause <= kIndexPoll) clock.manual.advance(*pause);
    }
    return true;
  }
  const WatchNowService::Job* job(const std::string& id = kFilmId) const { return service->job(id); }
  bool finished(const std::string& id = kFilmId) const { return job(id) && !job(id)->phase.isActive(); }
  bool inLibraryCollection(const std::string& id) {
    const auto c = catalog.libraryCollection();
    return c && std::count(c->itemImdbIds.begin(), c->itemImdbIds.end(), id) > 0;
  }
};

}  // namespace

TEST(WatchNow, AFilmPressEndsReadyWithThePlexWebLinkAndAPrewarmAndItsResolveServesTwoHours) {
  WatchWorld w;
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  ASSERT_TRUE(w.job());
  EXPECT_EQ(w.job()->phase.kind, Phase::Kind::resolving);
  const auto uuid = w.service->run(kFilmId);
  ASSERT_TRUE(uuid);
  ASSERT_TRUE(w.until([&] { return w.finished(); })) << "the press did not end";
  ASSERT_EQ(w.job()->phase.kind, Phase::Kind::ready) << message(w.job()->phase);
  EXPECT_EQ(w.resolves, 1);
  EXPECT_TRUE(w.inLibraryCollection(kFilmId));
  EXPECT_FALSE(w.service->isFiledByPress(kFilmId));
  const auto* title = w.library.titleByImdb(kFilmId);
  ASSERT_NE(title, nullptr);
  const Date resolvedAt = *title->resolvedAt;
  const auto* item = w.plex.itemForFile(w.movies + "/" + title->name);
  ASSERT_NE(item, nullptr);
  const std::string link = plexWebAddress(kWebApp, w.plex.machineIdentifier, item->ratingKey);
  EXPECT_EQ(w.job()->openURL, link);
  EXPECT_EQ(link.find(w.plex.token), std::string::npos) << "the link holds no token";
  ASSERT_EQ(w.notifier.posted.size(), 1u);
  EXPECT_EQ(w.notifier.posted[0], (Notification{.title = "Ready in Plex",
                                                .body = kFilmName + " is ready to watch.",
                                                .identifier = "watchnow-ready-" + *uuid,
                                                .openURL = link,
                                                .sound = true}));
  ASSERT_EQ(w.prewarms.size(), 1u);
  EXPECT_EQ(w.prewarms[0]["names"], Json::array({title->name}));
  w.service->open(kFilmId);
  EXPECT_EQ(w.notifier.opened, std::vector<std::string>{link});

  // A press after ready is a new run, and the fresh title is not resolved again.
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  const auto second = w.service->run(kFilmId);
  ASSERT_TRUE(second);
  EXPECT_NE(second, uuid);
  ASSERT_TRUE(w.until([&] { return w.finished(); }));
  EXPECT_EQ(w.job()->phase.kind, Phase::Kind::ready) << message(w.job()->phase);
  EXPECT_FALSE(w.service->run(kFilmId)) << "the run cleaned up after itself";
  EXPECT_EQ(w.resolves, 1);

  // Ready jobs go after 90 s.
  w.clock.manual.advance(89);
  test::settle(5);
  EXPECT_TRUE(w.job());
  w.clock.manual.advance(1.5);
  test::settle(5);
  EXPECT_FALSE(w.job());

  // A title resolved less than two hours ago is taken as it is; after that it is resolved again.
  w.clock.manual.advance(resolvedAt + 7000 - w.clock.now());
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  ASSERT_TRUE(w.until([&] { return w.finished(); }));
  EXPECT_EQ(w.resolves, 1);
  w.clock.manual.advance(300);
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  ASSERT_TRUE(w.until([&] { return w.finished(); }));
  EXPECT_EQ(w.resolves, 2);
}

TEST(WatchNow, AnExpiredOrRefusedRealDebridAccountFailsWithItsTextAndAFailedNotification) {
  WatchWorld w;
  w.torrentio.setReleases("movie", kFilmId, {});  // nothing to resolve: the account is asked
  w.rd.premiumSeconds = 0;
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  const auto uuid = w.service->run(kFilmId);
  ASSERT_TRUE(w.until([&] { return w.finished(); }));
  EXPECT_EQ(w.job()->phase, Phase::failed("Your Real-Debrid subscription has run out"));
  EXPECT_FALSE(w.job()->openURL);
  ASSERT_EQ(w.notifier.posted.size(), 1u);
  EXPECT_EQ(w.notifier.posted[0], (Notification{.title = "Couldn't prepare " + kFilmName,
                                                .body = "Your Real-Debrid subscription has run out.",
                                                .identifier = "watchnow-failed-" + *uuid,
                                                .openURL = std::nullopt}));
  // Filed by this press still: a cancelled press after it takes the title out.
  EXPECT_TRUE(w.service->isFiledByPress(kFilmId));

  w.rd.premiumSeconds = 86400;
  w.rdKey = "not-the-key";
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  ASSERT_TRUE(w.until([&] { return w.finished(); }));
  EXPECT_EQ(w.job()->phase, Phase::failed("Real-Debrid doesn't accept this key — check it in Settings"));

  w.rdKey = w.rd.key;
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  ASSERT_TRUE(w.until([&] { return w.finished(); }));
  EXPECT_EQ(w.job()->phase, Phase::failed("No source found"));
  EXPECT_EQ(w.notifier.posted.back().body, "No source found.");
}

TEST(WatchNow, PlexThatRefusesFailsAtOnceOneThatIsSilentAfterAMinuteOneWithoutTheFileAfterTenMinutes) {
  struct Case {
    std::function<void(WatchWorld&)> setUp;
    std::string failure, body;
    double least, most;  // seconds from the press to the failure
  };
  const Case cases[] = {
      {[](WatchWorld& w) { w.config.setToken("wrong-token"); }, "Plex wants you to sign in again",
       "Plex wants you to sign in again — Settings → Plex.", 0, 1},
      {[](WatchWorld& w) { w.config.setPmsURLString("http://127.0.0.1:" + std::to_string(test::freePort())); },
       "Plex Media Server isn't answering — is it running?", "Plex Media Server isn't answering. Is it running?", 60,
       70},
      {[](WatchWorld& w) { w.plex.scanDelay = 100000; },  // Plex never gets round to the file
       "Plex hasn't indexed it yet", "Plex is taking a while to index it — it should appear shortly.", 600, 604},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.failure);
    WatchWorld w;
    c.setUp(w);
    LibraryTitle t{.name = "The Shawshank Redemption (1994) {imdb-tt0111161}.mkv", .url = "http://cdn.invalid/x"};
    t.resolvedAt = w.clock.now();
    w.library.upsert(t);
    const Date start = w.clock.now();
    w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
    ASSERT_TRUE(w.until([&] { return w.finished(); }, 30000));
    EXPECT_EQ(w.job()->phase, Phase::failed(c.failure));
    EXPECT_EQ(w.notifier.posted.back().body, c.body);
    EXPECT_GE(w.clock.now() - start, c.least);
    EXPECT_LT(w.clock.now() - start, c.most);
  }
}

TEST(WatchNow, ACancelledPressTakesOutOnlyWhatItFiled) {
  WatchWorld w;
  w.torrentio.setFault("movie", kFilmId, test::FakeStreamAddon::Fault::silent);
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  ASSERT_TRUE(w.inLibraryCollection(kFilmId));
  EXPECT_TRUE(w.service->isFiledByPress(kFilmId));
  test::settle(20);
  w.service->remove(kFilmId);
  ASSERT_TRUE(w.until([&] { return !w.inLibraryCollection(kFilmId); }, 3000)) << "the cancelled press left it filed";
  EXPECT_TRUE(w.notifier.posted.empty()) << "a cancelled press says nothing";

  // Already in the collection before the press: it stays.
  const auto library = w.catalog.libraryCollection();
  w.catalog.addItems({CatalogMeta{.id = kFilmId, .name = kFilmName}}, library->id);
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  EXPECT_FALSE(w.service->isFiledByPress(kFilmId));
  test::settle(20);
  w.service->remove(kFilmId);
  test::settle(20);
  EXPECT_TRUE(w.inLibraryCollection(kFilmId));
}

TEST(WatchNow, APressWithoutAConnectionAsksToConnectAndRepeatsAfterwards) {
  WatchWorld w;
  w.config.setPlexServerName("");
  w.service->watch(WatchNowService::Film{kFilmId, kFilmName});
  EXPECT_TRUE(w.service->jobs().empty());
  EXPECT_TRUE(w.gate.mustShowConnect);
  ASSERT_TRUE(w.gate.pendingAction);
  w.config.setPlexServerName("Home");
  w.gate.pendingAction();
  EXPECT_TRUE(w.job());
}

TEST(WatchNow, ContinueFollowsJobsThenTheLastStartedEpisodeWhichOutlivesTheService) {
  WatchWorld w;
  const std::vector<EpisodeMeta> aired = {
      {.season = 1, .episode = 1, .title = "Pilot"}, {.season = 1, .episode = 2}, {.season = 2, .episode = 1}};
  auto target = w.service->continueTarget("tt0944947", aired);
  ASSERT_TRUE(target);
  EXPECT_EQ(target->episode, aired[0]) << "the skeleton's record, title and all";
  EXPECT_TRUE(target->isPilotStart);

  // Plex plays S01E02: continue moves on to S02E01, and the next service knows it.
  LibraryTitle ep{.name = "Show (2011) {imdb-tt0944947}/Season 01/Show (2011) - s01e02.mkv", .url = "http://x"};
  ep.seriesImdbId = "tt0944947";
  ep.season = 1;
  ep.episode = 2;
  w.library.upsert(ep);
  w.service->onWatching({ep.name});
  target = w.service->continueTarget("tt0944947", aired);
  ASSERT_TRUE(target);
  EXPECT_EQ(target->episode, aired[2]);
  EXPECT_FALSE(target->isPilotStart);
  w.makeService();
  EXPECT_EQ(w.service->lastStartedEpisode().at("tt0944947"), (EpisodeNumber{1, 2}));

  // The last one started: no target.
  w.service->onWatching({});
  w.settings->setString(WatchNowService::kLastStartedKey, R"({"tt0944947":"2:1","tt1":"2","tt2":"a:1","tt3":"1:2:3"})");
  w.makeService();
  EXPECT_EQ(w.service->lastStartedEpisode().size(), 1u) << "only values of two integers count";
  EXPECT_FALSE(w.service->continueTarget("tt0944947", aired));
  EXPECT_FALSE(w.service->continueTarget("tt0944947", {}));

  // clear() forgets the series.
  w.service->clear("tt0944947");
  EXPECT_TRUE(w.service->lastStartedEpisode().empty());
}

// The control socket, as vantory-cli speaks to it; the other verbs against the
// running application are the engine suite's watch-press test.
TEST(ControlSocket, TheWatchVerbSaysWhenNothingRunsPrintsProgressAndExitsByTheLastStage) {
  test::TestHome home;
  std::istringstream in;
  std::ostringstream out, err;
  cli::Io io{in, out, err};
  EXPECT_EQ(cli::run({"watch", "--home", home.path(), kFilmId}, io), 2);
  EXPECT_NE(err.str().find("isn't running"), std::string::npos) << err.str();

  Json seen;
  ControlServer server(home.paths().controlSocket(), [&](const Json& request, ControlReply reply) {
    seen = request;
    reply.send(Json{{"stage", "resolving"}, {"text", "Finding a source"}});
    if (request.value("id", "") == kFilmId)
      reply.send(Json{{"stage", "failed"}, {"text", "No source found"}});
    else
      reply.send(Json{{"stage", "ready"}, {"text", "Film is ready to watch."}, {"url", "https://app.plex.tv/x"}});
    reply.end();
  });
  ASSERT_TRUE(server.isListening());
  out.str("");
  EXPECT_EQ(cli::run({"watch", "--home", home.path(), "tt0944947:1:1"}, io), 0) << err.str();
  EXPECT_EQ(seen, (Json{{"verb", "watch"}, {"id", "tt0944947:1:1"}}));
  EXPECT_EQ(out.str(),
            "{\"stage\":\"resolving\",\"text\":\"Finding a source\"}\n"
            "{\"stage\":\"ready\",\"text\":\"Film is ready to watch.\",\"url\":\"https://app.plex.tv/x\"}\n");
  EXPECT_EQ(cli::run({"watch", "--home", home.path(), kFilmId}, io), 1);
  EXPECT_NE(out.str().find("No source found"), std::string::npos);
}

TEST(ControlSocket, MalformedOrEndlessRequestsAreAnsweredAndTheApplicationGoesOn) {
  test::TestHome home;
  ControlServer server(home.paths().controlSocket(), [](const Json& request, ControlReply reply) {
    // What the application's handler does with a field of the wrong type.
    reply.send(Json{{"ok", true}, {"verb", request.at("verb").get<std::string>()}});
    reply.end();
  });
  const auto ask = [&](const QByteArray& bytes) {
    QLocalSocket socket;
    socket.connectToServer(QString::fromStdString(home.paths().controlSocket()));
    if (!socket.waitForConnected(2000)) return QByteArray("not connected");
    socket.write(bytes);
    QByteArray answer;
    test::spinUntil([&] {
      answer += socket.readAll();
      return answer.endsWith('\n') || socket.state() != QLocalSocket::ConnectedState;
    });
    return answer;
  };
  EXPECT_TRUE(ask("{\"verb\":5}\n").contains("\"ok\":false")) << "a handler that throws answers a failure";
  EXPECT_TRUE(ask("[1,2]\n").contains("not a JSON object"));
  EXPECT_TRUE(ask(QByteArray(100 << 10, 'x')).contains("too long"));
  EXPECT_TRUE(ask("{\"verb\":\"status\"}\n").contains("\"ok\":true")) << "and it still answers";
}
