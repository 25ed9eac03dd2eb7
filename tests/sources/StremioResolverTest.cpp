#include <gtest/gtest.h>

#include "ResolverWorld.h"

using namespace vt;
using namespace vt::test::resolver;
using test::FakeStreamAddon;
using Kind = ResolveError::Kind;

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
    reply.stream(200, new test::GeneratedBytesDevice(0, 2'000'000'000), {"Content-Length", "2000000000"});
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
