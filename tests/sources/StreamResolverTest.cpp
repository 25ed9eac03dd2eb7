#include <gtest/gtest.h>

#include <sstream>

#include "ResolverWorld.h"
#include "cli/Verbs.h"
#include "sources/ranking/RankingSettings.h"
#include "sources/resolve/StreamResolver.h"

using namespace vt;
using namespace vt::test::resolver;
using test::FakeStreamAddon;
using O = ResolveOutcome::Kind;

namespace {

std::string hashOf(int n) { return std::string(39, 'c') + static_cast<char>('0' + n); }

// The world with the title resolver, and add-on links that lead where each
// test says: a film on the CDN by default.
struct Titles : World {
  StreamResolver titles{services};
  std::map<std::string, QString> linkTargets;  // info hash → CDN path
  std::map<std::string, int> linkRequests;     // info hash → add-on link requests

  Titles() {
    test::serveGenerated(cdn, "/films/film.mkv", kFilm);
    test::serveGenerated(cdn, "/videos/slate.mp4", kFilm);
    cdn.on("*", "/down", [](const auto&, auto& reply) { reply.send(503, "busy"); });
    torrentio.onPrefix("GET", "/resolve/", [this](const auto& request, auto& reply) {
      const auto parts = request.path.split('/');
      const std::string hash = parts.size() > 4 ? parts[4].toStdString() : "";
      ++linkRequests[hash];
      const QString path = linkTargets.count(hash) ? linkTargets[hash] : "/films/film.mkv";
      reply.send(302, {}, {{"Location", cdn.url(path).toEncoded()}});
    });
  }

  ResolveOutcome film(const std::string& id, bool allowTS = false, bool uncachedFallback = false,
                      QualityLevel level = QualityLevel::balanced) {
    return run(titles.resolveMovie(id, torrentio.base(), rankerFor(level), allowTS, uncachedFallback));
  }
};

}  // namespace

TEST(StreamResolver, EachEmptyPoolComesToItsOwnVerdict) {
  Titles w;
  w.cinemeta.addMovie("tt0000101", "Cam", "2019", "100 min", "2019-01-01T00:00:00.000Z");
  w.torrentio.setReleases("movie", "tt0000101", {{"Cam.2019.HDCAM.x264-AAA.mkv", kFilm, kHashA}});
  const auto cam = w.film("tt0000101");
  EXPECT_EQ(cam.kind, O::unreleased) << "a title that exists only in recordings is not out yet";

  w.cinemeta.addMovie("tt0000102", "Junk", "2020", "100 min");
  w.torrentio.setReleases("movie", "tt0000102",
                          {{"Junk.2020.1080p.WEB.exe", kFilm, kHashA}, {"Junk.2020.720p.WEB.scr", kFilm, kHashB}});
  const auto junk = w.film("tt0000102");
  EXPECT_EQ(junk.kind, O::noStream);
  EXPECT_EQ(junk.streamsSeen, 0) << "every row a fake";

  w.cinemeta.addMovie("tt0000103", "Uncached", "2020", "100 min");
  FakeStreamAddon::Release uncached{"Uncached.2020.1080p.WEB.x264-GRP.mkv", kFilm, kHashA};
  uncached.cached = false;
  w.torrentio.setReleases("movie", "tt0000103", {uncached, uncached});
  const auto dropped = w.film("tt0000103");
  EXPECT_EQ(dropped.kind, O::noStream);
  EXPECT_EQ(dropped.streamsSeen, 2) << "the ranker dropped every row";

  w.cinemeta.forcedStatus = 502;
  EXPECT_EQ(w.film("tt0000104").kind, O::transient) << "Cinemeta down proves nothing";
}

TEST(StreamResolver, PicksAreTriedOneAfterTheOtherUntilOneIsPlayable) {
  Titles w;
  std::vector<FakeStreamAddon::Release> five;
  for (int i = 0; i < 5; ++i) {
    five.push_back({"Inception.2010.1080p.BluRay.x264-G" + std::to_string(i) + ".mkv", kFilm - i, hashOf(i)});
    w.linkTargets[hashOf(i)] = "/videos/slate.mp4";
  }
  w.torrentio.setReleases("movie", "tt1375666", five);
  const auto slates = w.film("tt1375666");
  EXPECT_EQ(slates.kind, O::noStream);
  EXPECT_EQ(slates.streamsSeen, -1) << "candidates existed and each failed";
  EXPECT_EQ(w.linkRequests.size(), 4u) << "four picks at most";

  // The second pick plays; the third is never asked.
  w.linkRequests.clear();
  w.linkTargets.erase(hashOf(1));
  const auto second = w.film("tt1375666");
  ASSERT_EQ(second.kind, O::resolved);
  EXPECT_EQ(second.title->rdFilename, five[1].filename);
  EXPECT_EQ(w.linkRequests.size(), 2u);

  // A host outage on the first pick ends the search: no verdict on the title.
  w.linkRequests.clear();
  w.linkTargets[hashOf(0)] = "/down";
  const auto busy = w.film("tt1375666");
  EXPECT_EQ(busy.kind, O::transient);
  EXPECT_EQ(w.linkRequests.size(), 1u);

  // Nothing cached: the best uncached release, and Real-Debrid still fetching it is no verdict either.
  w.cinemeta.addMovie("tt0000105", "Rare", "2015", "100 min");
  FakeStreamAddon::Release rare{"Rare.2015.1080p.WEB.x264-GRP.mkv", kFilm, kHashB};
  rare.cached = false;
  w.torrentio.setReleases("movie", "tt0000105", {rare, rare});
  w.rd.releases[kHashB] = {"Rare", {{1, "/Rare.mkv", kFilm}}, {{"magnet_conversion", 1}, {"downloading", 0}}};
  const double start = w.clock.now();
  const auto fetching = w.film("tt0000105", false, true);
  EXPECT_EQ(fetching.kind, O::transient);
  EXPECT_EQ(message(*fetching.cause), "Real-Debrid is downloading this release. Try it again in a few minutes.");
  EXPECT_TRUE(w.logged("[resolve] RD still fetching " + rare.filename + " after 45s"));
  EXPECT_NEAR(w.clock.now() - start, 45, 4) << "the budget ran on the clock";
  for (const auto& l : w.lines) EXPECT_EQ(l.find(w.rd.key), std::string::npos) << l;
  EXPECT_EQ(
      std::count_if(w.rd.torrents.begin(), w.rd.torrents.end(), [](const auto& t) { return t.second.hash == kHashB; }),
      1)
      << "one uncached pick at most";
}

TEST(StreamResolver, APickIsProvedOnTheHostAndA4KOneBringsTheFirst1080pAsItsCompanion) {
  Titles w;
  const std::string uhd = "Inception.2010.2160p.UHD.BluRay.x265-GRP.mkv";
  w.torrentio.setReleases("movie", "tt1375666",
                          {{uhd, kFilm, kHashA}, {"Inception.2010.1080p.BluRay.x264-GRP.mp4", 9'000'000'000, kHashB}});
  w.rd.downloadRows.push_back(
      Json{{"filename", uhd}, {"link", "https://real-debrid.com/d/STABLE1"}, {"download", "x"}});
  const auto both = w.film("tt1375666", false, false, QualityLevel::best);
  ASSERT_EQ(both.kind, O::resolved);
  const auto& title = *both.title;
  EXPECT_EQ(title.rdFilename, uhd);
  EXPECT_EQ(title.name, "Inception (2010) {imdb-tt1375666}.mkv");
  EXPECT_EQ(title.size, kFilm);
  EXPECT_TRUE(title.sizeVerified);
  EXPECT_EQ(title.url, w.cdn.url("/films/film.mkv").toString().toStdString()) << "where the add-on link led";
  EXPECT_NE(title.resolveURL.value_or("").find(kHashA), std::string::npos);
  EXPECT_EQ(title.rdLink, "https://real-debrid.com/d/STABLE1") << "found by file name in the downloads list";
  EXPECT_EQ(title.resolvedAt, w.clock.now());
  ASSERT_TRUE(both.title->altVersion);
  const auto& alt = *both.title->altVersion;
  EXPECT_EQ(alt.name, "Inception (2010) {imdb-tt1375666} - 1080p.mp4");
  EXPECT_GT(alt.size, 8'000'000'000);
  EXPECT_EQ(alt.sizeVerified, false);
  EXPECT_NE(alt.resolveURL.find(kHashB), std::string::npos);
  const auto companion = w.run(w.titles.companion("tt1375666", w.torrentio.base(), rankerFor(QualityLevel::best)));
  ASSERT_TRUE(companion);
  EXPECT_EQ(companion->name, alt.name);

  w.cinemeta.addMovie("tt0000201", "Only UHD", "2021", "100 min");
  w.torrentio.setReleases("movie", "tt0000201", {{"Only.UHD.2021.2160p.WEB.x265-GRP.mkv", kFilm, kHashA}});
  const auto alone = w.film("tt0000201", false, false, QualityLevel::best);
  ASSERT_EQ(alone.kind, O::resolved);
  EXPECT_FALSE(alone.title->altVersion);
}

TEST(StreamResolver, AnEpisodeIsNamedAsAPathUnderItsShow) {
  Titles w;
  w.torrentio.setReleases("series", "tt0903747:1:2",
                          {{"Breaking.Bad.S01E02.1080p.BluRay.x264-GRP.mp4", kFilm, kHashA}});
  const auto ep =
      w.run(w.titles.resolveEpisode("tt0903747", 1, 2, w.torrentio.base(), rankerFor(QualityLevel::balanced), false));
  ASSERT_EQ(ep.kind, O::resolved);
  EXPECT_EQ(ep.title->name, "Breaking Bad (2008–2013) {imdb-tt0903747}/Season 01/Breaking Bad (2008–2013) - s01e02.mkv")
      << "Cinemeta's year text, and always .mkv";
  EXPECT_EQ(ep.title->seriesImdbId, "tt0903747");
  EXPECT_EQ(ep.title->season, 1);
  EXPECT_EQ(ep.title->episode, 2);
}

TEST(StreamResolver, ReadinessAsksTheAccountThenWellKnownFilmsAndRemembersThreeMinutes) {
  Titles w;
  w.registry.update({}, w.rd.key);
  w.rd.userType = "free";
  EXPECT_FALSE(w.run(w.titles.readiness(w.torrentio.base())));
  EXPECT_TRUE(w.torrentio.streamRequests().empty()) << "a free account ends the check";

  w.rd.userType = "premium";
  w.cinemeta.addMovie("tt0110912", "Pulp Fiction", "1994", "154 min");
  w.cinemeta.addMovie("tt0111161", "The Shawshank Redemption", "1994", "142 min");
  w.torrentio.setReleases("movie", "tt0111161", {{"Shawshank.1994.1080p.BluRay.x264-GRP.mkv", kFilm, kHashA}});
  w.clock.manual.advance(StreamResolver::kReadinessMemoSeconds - 1);
  EXPECT_FALSE(w.run(w.titles.readiness(w.torrentio.base()))) << "remembered";
  w.clock.manual.advance(1);
  EXPECT_TRUE(w.run(w.titles.readiness(w.torrentio.base())));
  EXPECT_EQ(w.torrentio.streamRequests(), (std::vector<std::string>{"movie/tt0110912", "movie/tt0111161"}))
      << "the first film with streams ends the check";

  // The rows are still fresh in the cache, but a dead add-on is a dead path.
  w.torrentio.setFault(FakeStreamAddon::Fault::serverError);
  w.clock.manual.advance(StreamResolver::kReadinessMemoSeconds);
  EXPECT_FALSE(w.run(w.titles.readiness(w.torrentio.base())));
}

TEST(StreamResolver, OutcomesOfErrorsAndThePaceBounds) {
  using K = ResolveError::Kind;
  EXPECT_EQ(ResolveOutcome::of(ResolveError::of(K::onlyRecordings)).streamsSeen, -1);
  EXPECT_EQ(ResolveOutcome::of(ResolveError::of(K::cancelled)).kind, O::transient);
  const auto later = ResolveOutcome::of(ResolveError{K::notReleasedYet, "2031-05-01", "2031"});
  EXPECT_EQ(later.kind, O::unreleased);
  EXPECT_EQ(later.released, "2031-05-01");

  ResolvePace pace;
  for (int i = 0; i < 10; ++i) pace.note(O::transient);
  EXPECT_EQ(pace.delay, 8.0);
  pace.note(O::unreleased);
  EXPECT_EQ(pace.delay, 8.0);
  pace.note(O::noStream);
  EXPECT_DOUBLE_EQ(pace.delay, 8.0 * 0.92);  // the floor is the batch test's
  EXPECT_EQ(ResolvePace(-1).pause(), 0);
}

TEST(StreamResolver, ABatchOfFortyFilmsAsksEachAddOnOnceThenServesFromTheCache) {
  Titles w;
  w.torrentio.setFault(FakeStreamAddon::Fault::slow);
  w.torrentio.slowMs = 50;
  std::vector<std::string> ids;
  for (int i = 0; i < 40; ++i) {
    const std::string id = "tt09" + std::to_string(10000 + i);
    ids.push_back(id);
    w.cinemeta.addMovie(id, "Film " + std::to_string(i), "2015", "100 min");
    w.torrentio.setReleases("movie", id,
                            {{"Film." + std::to_string(i) + ".2015.1080p.WEB.x264-GRP.mkv", kFilm, kHashA}});
  }
  ResolvePace pace;
  std::vector<std::string> arrived;
  const auto batch =
      w.run(w.titles.resolveBatch(ids, w.torrentio.base(), rankerFor(QualityLevel::balanced), false, &pace, nullptr,
                                  [&](const LibraryTitle& t) { arrived.push_back(t.name); }),
            60000);
  ASSERT_EQ(batch.resolved.size(), 40u);
  EXPECT_EQ(w.torrentio.streamRequests().size(), 40u);
  ASSERT_EQ(arrived.size(), 40u);
  EXPECT_EQ(arrived[0], "Film 0 (2015) {imdb-" + ids[0] + "}.mkv");
  EXPECT_EQ(w.clock.pauses.size(), 39u) << "a pause before every film but the first";
  EXPECT_EQ(pace.delay, 0.45);

  // A stop ends the batch before its next item.
  int calls = 0;
  const auto stopped = w.run(w.titles.resolveBatch(
      ids, w.torrentio.base(), rankerFor(QualityLevel::balanced), false, nullptr, [&] { return calls >= 5; },
      [&](const LibraryTitle&) { ++calls; }));
  EXPECT_EQ(stopped.resolved.size(), 5u);
}

TEST(StreamResolver, ASchemaOneEntryIsNeverFreshButServesWhenNoAddOnAnswers) {
  Titles w;
  const std::string row = R"({"name":"[RD+] Torrentio\n1080p","title":"Inception.2010.1080p.BluRay.x264-GRP.mkv",)"
                          R"("url":"http://127.0.0.1:1/x","filename":"Inception.2010.1080p.BluRay.x264-GRP.mkv",)"
                          R"("bytes":4200000000,"infoHash":")" +
                          kHashA + R"(","provider":"torrentio"})";
  ASSERT_TRUE(writeFileAtomically(w.home.file("resolve-cache.json"), R"({"movie/tt1375666":{"streams":[)" + row +
                                                                         R"(],"storedAt":699999000.0,"schema":1}})"));
  EXPECT_FALSE(w.run(w.cache.fresh("movie/tt1375666")));
  w.torrentio.setFault(FakeStreamAddon::Fault::serverError);
  StremioResolver resolver(w.services, w.torrentio.base(), false);
  const auto pool = w.run(resolver.streamPool("movie", "tt1375666"));
  ASSERT_TRUE(pool);
  EXPECT_EQ(pool->size(), 1u);
  EXPECT_EQ(w.torrentio.streamRequests().size(), 1u) << "asked first, as the row was not fresh";
}

TEST(ResolveVerb, PrintsTheCandidatesThenOneLineForTheOutcome) {
  Titles w;
  const std::string name = "Inception.2010.1080p.BluRay.x264-GRP.mkv";
  w.torrentio.setReleases("movie", "tt1375666",
                          {{name, kFilm, kHashA}, {"Inception.2010.720p.WEB.x264-ABC.mkv", 2'000'000'000, kHashB}});
  const auto verb = [&](const std::string& link, std::ostringstream& out) {
    std::ostringstream err;
    return w.run(
        cli::resolveLink(w.titles, w.torrentio.base(), false, rankerFor(QualityLevel::balanced), link, out, err));
  };
  std::ostringstream out;
  EXPECT_EQ(verb("tt1375666", out), 0);
  std::istringstream lines(out.str());
  std::vector<Json> rows;
  for (std::string line; std::getline(lines, line);) rows.push_back(*json::parse(line));
  ASSERT_EQ(rows.size(), 3u) << out.str();
  EXPECT_EQ(rows[0]["filename"], name) << "1080p ranks first at balanced";
  EXPECT_EQ(rows[0]["size"], "4.20 GB");
  EXPECT_EQ(rows[0]["provider"], "torrentio");
  EXPECT_EQ(rows[0]["isCached"], true);
  EXPECT_TRUE(rows[0]["score"].is_number_integer());
  EXPECT_EQ(rows[2]["outcome"], "resolved");
  EXPECT_EQ(rows[2]["title"]["name"], "Inception (2010) {imdb-tt1375666}.mkv");
  EXPECT_EQ(rows[2]["title"]["size"], kFilm);

  std::ostringstream cams;
  w.torrentio.setReleases("movie", "tt6751668", {{"Parasite.2019.HDCAM.x264-AAA.mkv", kFilm, kHashB}});
  EXPECT_EQ(verb("tt6751668", cams), 1);
  EXPECT_EQ(cams.str(), "{\"outcome\":\"unreleased\",\"year\":\"2019\"}\n");
  std::ostringstream empty, show;
  EXPECT_EQ(verb("tt0903747:1:9", empty), 1);
  EXPECT_EQ(empty.str(), "{\"outcome\":\"noStream\",\"streamsSeen\":0}\n");
  EXPECT_EQ(verb("stremio:///detail/series/tt0903747", show), 1);
  EXPECT_EQ(show.str(), "{\"outcome\":\"noStream\",\"streamsSeen\":-1}\n") << "the whole show is no episode";
}
