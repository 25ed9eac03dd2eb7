#include <gtest/gtest.h>

#include <QTcpServer>
#include <QTcpSocket>

#include "ResolverWorld.h"
#include "platform/Text.h"

using namespace vt;
using namespace vt::test::resolver;
using test::FakeRealDebrid;
using test::FakeStreamAddon;
using Kind = ResolveError::Kind;
using PK = StreamProviderKind;

namespace {

// A host that writes fixed replies and closes, so that a reply can lack every
// length header (the body then ends with the connection).
struct BareHost {
  QTcpServer server;
  std::vector<QByteArray> methods;

  BareHost() {
    server.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server, &QTcpServer::newConnection, [this] {
      while (QTcpSocket* s = server.nextPendingConnection())
        QObject::connect(s, &QTcpSocket::readyRead, s, [this, s] {
          const QByteArray seen = s->property("seen").toByteArray() + s->readAll();
          s->setProperty("seen", seen);
          if (!seen.contains("\r\n\r\n")) return;
          methods.push_back(seen.left(seen.indexOf(' ')));
          s->write(seen.startsWith("HEAD") ? "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\n"
                                           : "HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nxyz");
          s->disconnectFromHost();
        });
    });
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(server.serverPort()) + "/film.mkv"; }
};

StremioResolver::Resolution inception() { return {.title = "Inception", .year = "2010", .id = "tt1375666"}; }

StreamCandidate candidate(std::string file, std::string url, bool cached, std::string hash, PK kind) {
  return {"1", std::move(file), std::move(url), std::nullopt, cached, std::move(hash), kind, std::nullopt};
}

}  // namespace

TEST(StremioResolver, ReadsLinksIdsAndEpisodeKeys) {
  using P = std::pair<std::string, std::string>;
  EXPECT_EQ(StremioResolver::parseLink("stremio:///detail/movie/tt1375666"), P("movie", "tt1375666"));
  EXPECT_EQ(StremioResolver::parseLink("https://web.stremio.com/#/detail%2Fseries%2Ftt0903747%3A1%3A2"),
            P("series", "tt0903747:1:2"));
  EXPECT_EQ(StremioResolver::parseLink("tt12345"), std::nullopt) << "fewer than six digits";
  EXPECT_EQ(StremioResolver::parseLink("tt１２３４５６７"), std::nullopt) << "ASCII digits only";

  EXPECT_EQ(StremioResolver::runtimeMinutes("142 min"), 142);
  EXPECT_EQ(StremioResolver::runtimeMinutes("1h 30min"), 90);
  EXPECT_EQ(StremioResolver::originalLanguage(" South Korea "), "KOR");
}

TEST(StremioResolver, CinemetaVerdictsAndOutages) {
  World w;
  auto r = w.resolver();
  EXPECT_EQ(w.run(r.metaInfo("movie", "tt0000001")).error().kind, Kind::noMeta);
  EXPECT_EQ(w.cinemeta.requests().size(), 1u) << "a 404 is a verdict, not retried";

  w.cinemeta.forcedStatus = 502;
  w.clock.pauses.clear();
  EXPECT_EQ(message(w.run(r.metaInfo("movie", "tt6751668")).error()),
            "Couldn't reach Cinemeta — check your internet connection and try again");
  EXPECT_EQ(w.cinemeta.requests().size(), 3u) << "one retry";
  EXPECT_EQ(w.clock.pauses, std::vector<double>{1.5});

  EXPECT_EQ(message(w.run(r.resolve("https://example.com/nothing")).error()),
            "Couldn't find a Stremio title id in that link");
  EXPECT_EQ(message(w.run(r.resolve("stremio:///detail/series/tt0903747")).error()),
            "Pick an episode — that link points at the whole show");

  w.cinemeta.forcedStatus.reset();
  w.cinemeta.addMovie("tt9999999", "Later", "2031", "100 min", "2031-05-01T00:00:00.000Z");
  const auto later = w.run(r.resolve("tt9999999")).error();
  EXPECT_EQ(later.kind, Kind::notReleasedYet);
  EXPECT_EQ(later.released, "2031-05-01T00:00:00.000Z");
  EXPECT_TRUE(w.logged("[resolve] movie/tt9999999 Later not released yet (2031-05-01T00:00:00.000Z)"));
  EXPECT_TRUE(w.torrentio.streamRequests().empty());
  // An episode by link takes its air date from the series record.
  Json record = w.cinemeta.metas.at("series/tt0903747");
  record["videos"] = Json::array({Json{{"season", 1}, {"number", 3}, {"released", "2099-01-01T05:00:00.000Z"}}});
  w.cinemeta.setMeta("series", "tt0903747", record);
  EXPECT_EQ(w.run(r.resolve("tt0903747:1:3")).error().kind, Kind::notReleasedYet);
}

TEST(StremioResolver, PoolStopsAtTheFirstPlayableAnswerAndRemembersIt) {
  World w;
  w.useComet();
  w.torrentio.setReleases("movie", "tt1375666", {{"Inception.2010.1080p.BluRay.x264-GRP", kFilm, kHashA}});
  auto r = w.resolver();
  auto pool = w.run(r.streamPool("movie", "tt1375666"));
  ASSERT_TRUE(pool) << why(pool);
  EXPECT_EQ(pool->size(), 1u);
  EXPECT_TRUE(w.comet.streamRequests().empty()) << "a cached Torrentio answer ends the search";

  auto again = w.run(r.streamPool("movie", "tt1375666"));
  EXPECT_EQ(*again, *pool);
  EXPECT_EQ(w.torrentio.streamRequests().size(), 1u);
  EXPECT_TRUE(w.logged("[resolve] movie/tt1375666 cache-fresh 1 streams"));

  w.cacheClock.advance(ResolveCache::kFreshSeconds);
  w.torrentio.setFault(FakeStreamAddon::Fault::serverError);
  w.comet.setRows("movie", "tt1375666", Json::array({w.comet.placeholderRow("placeholder.invalid")}));
  auto remembered = w.run(r.streamPool("movie", "tt1375666"));
  EXPECT_EQ(*remembered, *pool);

  EXPECT_TRUE(w.logged("[resolve] Torrentio tt1375666: http 503 after 0.0s"));
  EXPECT_TRUE(w.logged("barren, but an addon never answered — not a no-source verdict"));

  w.torrentio.setFault(FakeStreamAddon::Fault::none);
  w.torrentio.setRows("movie", "tt1375666", Json::array());
  auto barren = w.run(r.streamPool("movie", "tt1375666"));
  ASSERT_TRUE(barren);
  EXPECT_TRUE(barren->empty());
  EXPECT_FALSE(w.run(w.cache.entry("movie/tt1375666")));
}

TEST(StremioResolver, MediaFusionRowsAllPlayAndUncachedCometRowsAreTheLastResort) {
  World w;
  FakeStreamAddon mediafusion{Family::mediafusion};
  w.registry.update({*StreamProvider::mediafusion(mediafusion.base().toString().toStdString())}, w.rd.key);
  const Json unplayable = Json::array({Json{{"name", "Torrentio\n1080p"}, {"url", "https://x"}}});
  w.torrentio.setRows("movie", "tt0110357", unplayable);
  mediafusion.setReleases(
      "movie", "tt0110357",
      {{"Lion.King.1994.2160p.mkv", kFilm, kHashA, false}, {"Lion.King.1994.1080p.mkv", kFilm, kHashB}});
  auto r = w.resolver();
  auto pool = w.run(r.streamPool("movie", "tt0110357"));
  ASSERT_TRUE(pool) << why(pool);
  const auto c = r.candidates(*pool, "1994", "The Lion King");
  ASSERT_EQ(c.streams.size(), 2u) << "\"⏳\" rows play too";
  EXPECT_EQ(c.streams[0].provider, PK::mediafusion);
  EXPECT_FALSE(c.streams[0].isCached);
  EXPECT_TRUE(c.streams[1].isCached);
  EXPECT_TRUE(w.comet.streamRequests().empty());

  // Nothing playable anywhere: Comet, asked without its cached-only filter.
  w.torrentio.setRows("movie", "tt0120338", unplayable);
  w.comet.setReleases("movie", "tt0120338", {{"Titanic.1997.1080p.BluRay-GRP.mkv", kFilm, kHashB, false}});
  auto last = w.run(r.streamPool("movie", "tt0120338"));
  ASSERT_TRUE(last) << why(last);
  ASSERT_EQ(last->size(), 1u);
  EXPECT_EQ(last->front().infoHash, kHashB);
  EXPECT_TRUE(w.logged("[resolve] movie/tt0120338 nothing cached — 1 uncached row(s) from Comet"));
  ASSERT_EQ(w.comet.streamRequests(), std::vector<std::string>{"movie/tt0120338"});
  const auto uncachedComet = StreamProvider::comet(w.rd.key, w.services.cometHost, false);
  EXPECT_TRUE(w.comet.requests().back().path.startsWith(uncachedComet->base.path()));
}

TEST(StremioResolver, NoAnswerReportsTheCatalogBusy) {
  World w;
  w.torrentio.setFault(FakeStreamAddon::Fault::badJson);
  auto r = w.resolver();
  auto none = w.run(r.streamPool("movie", "tt1375666"));
  EXPECT_EQ(message(none.error()), "The stream catalog is busy — trying again shortly");
  EXPECT_TRUE(w.logged("[resolve] movie/tt1375666 no addon answered and never cached"));
  EXPECT_EQ(w.health.failures(StreamProviderKind::torrentio), 1);
}

TEST(StremioResolver, CandidatesDropJunkRecordingsAndOtherYears) {
  World w;
  auto r = w.resolver();
  std::vector<CachedStream> rows = {
      row("[RD+] T", "Film.2001.1080p.BluRay.x265-AAA.mkv", "torrentio", 1'500'000'000),
      row("[RD+] T", "Film.2001.1080p.WEB.H264-BBB.mkv", "torrentio", 0, "x\n👤 42 💾 1.4 GB"),
      row("[RD+] T", "Film.2001.1080p.setup.exe"),
      row("[RD+] T", "Film.2001.CAM.x264-CCC.mkv"),
      row("[RD download] T", "Film.2001.HDTS.x264-DDD.mkv"),
      row("[RD+] T", "Film 2001 1999 1080p BluRay-EEE.mkv"),
      row("[RD+] T", "Film 2001 2002 1080p BluRay-FFF.mkv"),
      row("T", "Film.2001.1080p.BluRay-GGG.mkv"),  // not playable: no [RD+]
  };
  auto c = r.candidates(rows, "2001", "Film 2001");
  EXPECT_EQ(c.fakes, 1);
  EXPECT_EQ(c.recordings, 2);
  EXPECT_EQ(c.recordingGroups, (std::set<std::string>{"CCC", "DDD"}));
  ASSERT_EQ(c.droppedRecordings.size(), 1u) << "only the cached recording is remembered";
  ASSERT_EQ(c.streams.size(), 3u);
  EXPECT_EQ(c.streams[0].filename, "Film.2001.1080p.WEB.H264-BBB.mkv") << "H.264 first";
  EXPECT_EQ(c.streams[0].size, "1.4 GB");
  EXPECT_EQ(c.streams[0].seeders, 42);
  EXPECT_EQ(c.streams[1].size, "1.50 GB");
  EXPECT_EQ(c.streams[2].filename, "Film 2001 2002 1080p BluRay-FFF.mkv") << "1999 is two years off; 2002 is one";
  EXPECT_FALSE(c.earlyRelease);

  auto all = r.candidates({row("[RD+] T", "Other.1950.1080p.mkv")}, "2001", "Film");
  EXPECT_EQ(all.streams.size(), 1u) << "a filter that drops everything drops nothing";

  auto withTS = w.resolver(true).candidates(rows, "2001", "Film 2001");
  EXPECT_EQ(withTS.streams.size(), 5u);

  // Recordings only: an early release, whose recording groups the pick leaves out, in any source.
  std::vector<CachedStream> early = {row("[RD+] T", "New.CAM-AAA.mkv"), row("[RD+] T", "New.HDTS-AAA.mkv"),
                                     row("[RD+] T", "New.TC-BBB.mkv"), row("[RD+] T", "New.2024.1080p-AAA.mkv"),
                                     row("[RD+] T", "New.2024.1080p-EEE.mkv")};
  auto e = w.resolver(true).candidates(early, std::nullopt, std::nullopt);
  EXPECT_TRUE(e.earlyRelease);
  const StremioResolver::Resolution res{
      .streams = e.streams, .earlyRelease = e.earlyRelease, .recordingGroups = e.recordingGroups};
  ASSERT_EQ(res.pickable().size(), 1u);
  EXPECT_EQ(res.pickable()[0].filename, "New.2024.1080p-EEE.mkv");
  early.push_back(row("[RD+] T", "New.2024.1080p.WEB-DL-CCC.mkv"));
  EXPECT_FALSE(w.resolver(true).candidates(early, std::nullopt, std::nullopt).earlyRelease) << "1 x 4 > 3";
}

TEST(StremioResolver, PickableKeepsTheDominantLanguageTrailersDontVoteATieGoesUntagged) {
  World w;
  StremioResolver::Resolution res;
  res.originalLanguage = "KOR";
  const auto pick = [&](std::vector<CachedStream> rows) {
    res.streams = w.resolver().candidates(rows, std::nullopt, std::nullopt).streams;
    std::vector<std::string> names;
    for (const auto& c : res.pickable()) names.push_back(c.filename);
    return names;
  };
  using Names = std::vector<std::string>;
  EXPECT_EQ(pick({row("[RD+] T", "P.2019.ITA-A.mkv"), row("[RD+] T", "P.2019.ITA-B.mkv"),
                  row("[RD+] T", "P.2019.KOREAN-C.mkv")}),
            (Names{"P.2019.ITA-A.mkv", "P.2019.ITA-B.mkv"}));
  EXPECT_EQ(pick({row("[RD+] T", "P.Trailer.ITA-A.mkv"), row("[RD+] T", "P.Trailer.ITA-B.mkv"),
                  row("[RD+] T", "P.2019.1080p-C.mkv")}),
            Names{"P.2019.1080p-C.mkv"});
  EXPECT_EQ(pick({row("[RD+] T", "P.2019.ITA-A.mkv"), row("[RD+] T", "P.2019.FRENCH-B.mkv"),
                  row("[RD+] T", "P.2019.1080p-C.mkv")}),
            Names{"P.2019.1080p-C.mkv"});
}

TEST(StremioResolver, ProbeFollowsTheHostsAnswers) {
  World w;
  auto r = w.resolver();
  const std::string good = w.cdnFilm("Good.mkv");
  auto ok = w.run(r.probe(good));
  ASSERT_TRUE(ok) << why(ok);
  EXPECT_EQ(ok->bytes, kFilm);

  // A Range request answered with 200 and a whole film: read no further than needed.
  w.cdn.on("GET", "/whole.mkv", [](const auto& req, auto& reply) {
    if (req.method == "HEAD") return reply.send(405);
    reply.stream(200, new test::HeadThenFillerDevice({}, 0, 2'000'000'000), {"Content-Length", "2000000000"});
  });
  auto whole = w.run(r.probe(w.cdn.url("/whole.mkv").toString().toStdString()));
  ASSERT_TRUE(whole) << why(whole);
  EXPECT_EQ(whole->bytes, 2'000'000'000);

  const std::string small = w.cdnFilm("Sample.mkv", 100'000'000);
  EXPECT_EQ(w.run(r.probe(small)).error().kind, Kind::noPlayableStream);
  w.cdn.on("GET", "/busy", [](const auto&, auto& reply) { reply.send(503); });
  EXPECT_EQ(w.run(r.probe(w.cdn.url("/busy").toString().toStdString())).error().kind, Kind::cdnUnavailable);
  test::redirect(w.cdn, "/loop", w.cdn.url("/loop").toString());
  EXPECT_EQ(w.run(r.probe(w.cdn.url("/loop").toString().toStdString())).error().kind, Kind::cdnUnavailable);

  // HEAD not allowed: a one-byte ranged GET reads the total from Content-Range.
  w.cdn.on("GET", "/nohead.mkv", [](const auto& req, auto& reply) {
    if (req.method == "HEAD") return reply.send(405);
    reply.send(206, "x", {{"Content-Range", "bytes 0-0/" + QByteArray::number(qlonglong(kFilm))}});
  });
  auto ranged = w.run(r.probe(w.cdn.url("/nohead.mkv").toString().toStdString()));
  ASSERT_TRUE(ranged) << why(ranged);
  EXPECT_EQ(ranged->bytes, kFilm);

  // No length anywhere: a success with the size unknown.
  BareHost bare;
  auto unknown = w.run(r.probe(bare.url()));
  ASSERT_TRUE(unknown) << why(unknown);
  EXPECT_EQ(unknown->bytes, std::nullopt);
  EXPECT_EQ(bare.methods, (std::vector<QByteArray>{"HEAD", "GET"}));
}

TEST(StremioResolver, PlaceholderHostsCountOnlyWhenSet) {
  World w;
  test::FakeHttpServer slate;
  test::serveGenerated(slate, "/film.mkv", kFilm);
  test::redirect(w.cdn, "/to-slate", slate.url("/film.mkv").toString());
  const std::string link = w.cdn.url("/to-slate").toString().toStdString();
  const CachedStream cometRow{"[RD⚡] Comet", std::nullopt, "https://comet.invalid/p/1", "F.mkv", kFilm,
                              kHashA,        "comet"};
  for (const bool set : {true, false}) {
    ResolverServices services = w.services;
    services.slateHost = set ? slate.baseUrl().authority().toStdString() : "";
    services.cometPlaceholderHost = set ? "comet.invalid" : "";
    StremioResolver r(services, w.torrentio.base(), false);
    const auto probed = w.run(r.probe(link));
    EXPECT_EQ(bool(probed), !set) << why(probed);
    if (set) {
      EXPECT_EQ(probed.error().kind, Kind::noPlayableStream);
    }
    EXPECT_EQ(r.isPlayable(cometRow), !set) << "an empty host matches no link";
  }
  EXPECT_TRUE(w.logged("[resolve] probe landed on a placeholder: 127.0.0.1 film.mkv"));
}

TEST(StremioResolver, AProvedLinkIsKeptAsTheHostEncodedItAndRefreshKeepsTheTitlesIdentity) {
  World w;
  const std::string name = "Inception.2010.1080p.BluRay.x264-GRP.mkv";
  test::serveGenerated(w.cdn, "/films/Inception 2010.mkv", kFilm);
  const std::string landed = w.cdn.url("/films/Inception%202010.mkv").toEncoded().toStdString();
  test::redirect(w.cdn, "/links/1", QString::fromStdString(landed));
  w.rd.downloadRows = {Json{{"filename", "Other.mkv"}, {"download", landed}, {"link", "https://real-debrid.com/d/URL"}},
                       Json{{"filename", name}, {"download", "x"}, {"link", "https://real-debrid.com/d/NAME"}}};
  const auto c = candidate(name, w.cdn.url("/links/1").toString().toStdString(), true, kHashA, PK::torrentio);
  LibraryTitle old;
  old.name = "Breaking Bad (2008) {imdb-tt0903747}/Season 01/Breaking Bad (2008) - s01e02.mkv";
  old.seriesImdbId = "tt0903747";
  old.season = 1;
  old.episode = 2;
  old.url = "https://old.invalid/x";
  auto r = w.resolver();
  auto fresh = w.run(r.refresh(c, old, inception()));
  ASSERT_TRUE(fresh) << why(fresh);
  EXPECT_EQ(fresh->url, landed) << "with its %20, as the host gave it";
  EXPECT_EQ(fresh->rdLink, "https://real-debrid.com/d/URL") << "the download link matches before the file name";
  EXPECT_EQ(fresh->size, kFilm);
  EXPECT_EQ(std::tie(fresh->name, fresh->seriesImdbId, fresh->season, fresh->episode),
            std::tie(old.name, old.seriesImdbId, old.season, old.episode));

  // A cancel while the downloads list is asked ends the resolve without a title.
  w.rd.hang("downloads");
  const size_t asked = w.rd.requestsTo("/rest/1.0/downloads").size();
  std::optional<Result<LibraryTitle, ResolveError>> out;
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> {
    auto title = co_await r.materialise(c, inception(), token);
    out.emplace(std::move(title));
  });
  ASSERT_TRUE(test::spinUntil([&] { return w.rd.requestsTo("/rest/1.0/downloads").size() > asked; }));
  job.cancel();
  ASSERT_TRUE(test::spinUntil([&] { return out.has_value(); }));
  EXPECT_EQ(why(*out), "The resolve was cancelled");
}

TEST(StremioResolver, DebridDirectTellsRefusalsFromMissesAndRescuesAFailedProbe) {
  World w;
  auto r = w.resolver();
  // Comet, cached: straight from Real-Debrid, the add-on link never asked.
  w.rd.releases[kHashA] = {"Inception", {{1, "/Inception.2010.2160p.mkv", kFilm}}, FakeRealDebrid::cachedStages()};
  const auto comet = candidate("Inception.2010.2160p.mkv", "https://comet.invalid/p", true, kHashA, PK::comet);
  auto direct = w.run(r.materialise(comet, inception()));
  ASSERT_TRUE(direct) << why(direct);
  EXPECT_EQ(direct->size, kFilm);
  EXPECT_EQ(direct->rdLink.value_or("").rfind("https://real-debrid.com/", 0), 0u);
  EXPECT_EQ(direct->resolveURL, "https://comet.invalid/p");
  EXPECT_TRUE(w.logged("[resolve] debrid-direct resolved Inception.2010.2160p.mkv (4200000000 bytes)"));

  // Uncached: a refusal condemns the candidate; a passing failure is Real-Debrid still at work.
  const std::string virus(40, 'c');
  w.rd.releases[virus] = {"Bad", {{1, "/Bad.mkv", kFilm}}, FakeRealDebrid::failingStages("virus")};
  const auto bad = candidate("Bad.mkv", "https://x.invalid/y", false, virus, PK::torrentio);
  EXPECT_EQ(w.run(r.materialise(bad, inception())).error().kind, Kind::noPlayableStream);
  EXPECT_TRUE(w.logged("[resolve] RD refused Bad.mkv: "));
  w.rd.fail("torrents/addMagnet", 503);
  EXPECT_EQ(w.run(r.materialise(bad, inception())).error().kind, Kind::stillDownloading);

  // Cached Comet rows go on to their add-on link after a refusal or a miss.
  const std::string slow(40, 'd');
  w.rd.releases[slow] = {"Slow", {{1, "/Slow.mkv", kFilm}}, {{"queued", 0}}};
  for (const auto& [file, hash] : {std::pair{"Refused.mkv", virus}, std::pair{"Slow.mkv", slow}}) {
    auto fellBack = w.run(r.materialise(candidate(file, w.cdnFilm(file), true, hash, PK::comet), inception()));
    ASSERT_TRUE(fellBack) << file << ": " << why(fellBack);
    EXPECT_EQ(fellBack->url, w.cdn.url("/films/" + QString(file)).toString().toStdString());
  }
  EXPECT_TRUE(w.logged("[resolve] debrid-direct miss for Slow.mkv — falling back to addon url"));

  // A cached Torrentio row whose add-on link is a placeholder: taken from Real-Debrid by its hash.
  w.cdn.on("GET", "/videos/placeholder.mp4", [](const auto&, auto& reply) { reply.send(200, "v"); });
  const std::string good(40, 'e');
  w.rd.releases[good] = {"Good", {{1, "/Good.mkv", kFilm}}, FakeRealDebrid::cachedStages()};
  const std::string placeholder = w.cdn.url("/videos/placeholder.mp4").toString().toStdString();
  auto rescued = w.run(r.materialise(candidate("Good.mkv", placeholder, true, good, PK::torrentio), inception()));
  ASSERT_TRUE(rescued) << why(rescued);
  EXPECT_EQ(rescued->size, kFilm);
  EXPECT_TRUE(w.logged("[resolve] addon link was a placeholder — took Good.mkv straight from RD"));
  // When Real-Debrid can't help either, the probe's failure is the answer.
  w.cdn.on("GET", "/busy", [](const auto&, auto& reply) { reply.send(503); });
  const std::string busy = w.cdn.url("/busy").toString().toStdString();
  EXPECT_EQ(w.run(r.materialise(candidate("B.mkv", busy, true, virus, PK::torrentio), inception())).error().kind,
            Kind::cdnUnavailable);
}

TEST(StremioResolver, AnEpisodeResolvesFromItsSeriesSkeleton) {
  World w;
  w.torrentio.setReleases("series", "tt0903747:1:2",
                          {{"Breaking.Bad.S01E02.1080p.BluRay.x264-GRP.mkv", kFilm, kHashA}});
  auto r = w.resolver();
  SeriesSkeleton show{.seriesId = "tt0903747", .title = "Breaking Bad", .year = "2008", .country = "United States"};
  show.episodes = {{.season = 1, .episode = 2, .released = "2008-01-27T05:00:00.000Z"},
                   {.season = 1, .episode = 3, .released = "2099-01-01T05:00:00.000Z"}};
  auto ep = w.run(r.resolveEpisode("tt0903747", 1, 2, show));
  ASSERT_TRUE(ep) << why(ep);
  EXPECT_EQ(ep->title, "Breaking Bad - S01E02");
  EXPECT_EQ(ep->showTitle, "Breaking Bad");
  EXPECT_EQ(ep->id, "tt0903747");
  EXPECT_EQ(ep->streams.size(), 1u);
  EXPECT_EQ(w.torrentio.streamRequests(), std::vector<std::string>{"series/tt0903747:1:2"});
  EXPECT_EQ(w.run(r.resolveEpisode("tt0903747", 1, 3, show)).error(),
            (ResolveError{Kind::notReleasedYet, "2099-01-01T05:00:00.000Z", "2008"}));
}

TEST(StremioResolver, AlternatesAreOtherCachedCopiesOfTheSameFile) {
  const auto copy = [](std::string url, bool cached, PK kind) { return candidate("F.mkv", url, cached, {}, kind); };
  const auto win = copy("u1", true, PK::torrentio);
  std::vector<StreamCandidate> pool = {win};
  EXPECT_EQ(StremioResolver::alternates(win, pool), std::nullopt);
  pool.push_back(copy("u2", true, PK::mediafusion));
  pool.push_back(copy("u3", false, PK::torrentio));
  pool.push_back(copy("u4", true, PK::comet));
  pool.push_back(copy("u2", true, PK::torrentio));
  for (int i = 5; i < 10; ++i) pool.push_back(copy("u" + std::to_string(i), true, PK::torrentio));
  EXPECT_EQ(StremioResolver::alternates(win, pool), (std::vector<std::string>{"u1", "u2", "u5", "u6", "u7"}));
}

TEST(StremioResolver, BadRowsAreReadLenientlyAndCut) {
  World w;
  auto wrong = StremioResolver::decodeStreams(
      R"({"streams":[{"name":5,"title":["x"],"url":{"h":1},"behaviorHints":{"filename":3,"videoSize":"big"}},7,"r",
          {"name":"[RD+] T","url":"https://x","behaviorHints":"none"}]})",
      "torrentio");
  ASSERT_TRUE(wrong);
  ASSERT_EQ(wrong->size(), 2u);
  EXPECT_EQ((*wrong)[0], (CachedStream{std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt,
                                       std::nullopt, "torrentio"}));
  EXPECT_FALSE(StremioResolver::decodeStreams(R"({"streams":[{"name":"x")", "comet"));
  const auto bytes =
      StremioResolver::decodeStreams("{\"streams\":[{\"name\":\"[RD+] \xff\xfe\",\"url\":\"u\"}]}", "torrentio");
  ASSERT_TRUE(bytes) << "broken UTF-8 in one name";
  EXPECT_EQ((*bytes)[0].name, "[RD+] \uFFFD\uFFFD");

  // A megabyte name or file name is cut when read, on a character boundary.
  std::string huge = "A";
  for (int i = 0; i < 500'000; ++i) huge += "é";
  const Json big{{"name", huge}, {"url", "u"}, {"behaviorHints", Json{{"filename", huge}}}};
  const auto cut = StremioResolver::decodeStreams(json::encode(Json{{"streams", Json::array({big})}}), "torrentio");
  ASSERT_TRUE(cut);
  for (const auto& field : {(*cut)[0].name, (*cut)[0].filename}) {
    ASSERT_TRUE(field);
    EXPECT_LE(field->size(), 65'536u);
    EXPECT_GE(field->size(), 65'535u);
    EXPECT_EQ(validUtf8(*field), *field);
  }
}

TEST(StremioResolver, CancellingAResolveClosesItsRequest) {
  World w;
  w.torrentio.setFault(FakeStreamAddon::Fault::silent);
  auto r = w.resolver();
  std::optional<Result<std::vector<CachedStream>, ResolveError>> out;
  auto job = Job::start([&](CancelToken token) -> QCoro::Task<> {
    auto pool = co_await r.streamPool("movie", "tt1375666", token);
    out.emplace(std::move(pool));
  });
  ASSERT_TRUE(test::spinUntil([&] { return !w.torrentio.streamRequests().empty(); }));
  job.cancel();
  ASSERT_TRUE(test::spinUntil([&] { return out.has_value(); }));
  EXPECT_EQ(out->error().kind, Kind::cancelled);
  EXPECT_TRUE(test::spinUntil([&] { return w.torrentio.abandonedRequests() == 1; }));
  EXPECT_EQ(w.health.failures(StreamProviderKind::torrentio), 0) << "a cancel says nothing about the add-on";
}

TEST(ResolveCache, FileFormatFreshnessAndOneWriteAfterTwoSeconds) {
  test::TestHome home;
  ManualClock clock;
  const std::string path = home.file("resolve-cache.json");
  ResolveCache cache(path, clock);
  CachedStream s{"n", std::nullopt, "u", "f.mkv", 5, std::nullopt, "comet"};
  test::runTask(cache.store("movie/tt1", {s}));
  test::runTask(cache.store("movie/tt2", {s}));
  clock.advance(1.9);
  cache.waitForWrites();
  EXPECT_FALSE(readFile(path));
  clock.advance(0.1);
  cache.waitForWrites();
  const auto text = readFile(path);
  ASSERT_TRUE(text);
  EXPECT_EQ(*text,
            R"({"movie/tt1":{"streams":[{"name":"n","url":"u","filename":"f.mkv","bytes":5,"provider":"comet"}],)"
            R"("storedAt":700000000.0,"schema":2},"movie/tt2":{"streams":[{"name":"n","url":"u","filename":"f.mkv",)"
            R"("bytes":5,"provider":"comet"}],"storedAt":700000000.0,"schema":2}})");

  clock.advance(ResolveCache::kFreshSeconds - 2 - 1);
  EXPECT_TRUE(test::runTask(cache.fresh("movie/tt1")));
  clock.advance(1);
  EXPECT_FALSE(test::runTask(cache.fresh("movie/tt1")));
  EXPECT_TRUE(test::runTask(cache.entry("movie/tt1")));

  ResolveCache reread(path, clock);
  EXPECT_EQ(test::runTask(reread.entry("movie/tt2"))->streams, std::vector<CachedStream>{s});
  ASSERT_TRUE(writeFileAtomically(path, "{not json"));
  ResolveCache broken(path, clock);
  EXPECT_FALSE(test::runTask(broken.entry("movie/tt2")));
}

TEST(ResolveCache, KeepsTheNewest2000) {
  ManualClock clock;
  test::TestHome home;
  ResolveCache cache(home.file("c.json"), clock);
  const CachedStream s{"n", {}, "u", {}, {}, {}, {}};
  test::runTask(cache.store("movie/tt9999", {s}));  // the oldest, though not the first by key
  for (int i = 0; i < 2000; ++i) {
    clock.advance(0.001);
    test::runTask(cache.store("movie/tt" + std::to_string(i), {s}));
  }
  EXPECT_FALSE(test::runTask(cache.entry("movie/tt9999")));
  EXPECT_TRUE(test::runTask(cache.entry("movie/tt0")));
  EXPECT_TRUE(test::runTask(cache.entry("movie/tt1999")));
}
