#include <gtest/gtest.h>

#include "fakes/FakePlexServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "plex/PMSClient.h"
#include "plex/PlexLibrarySetup.h"
#include "plex/PlexWebLink.h"
#include "core/LibraryStore.h"
#include "platform/Endpoints.h"
#include "support/Titles.h"
#include "support/TestKit.h"

using namespace vt;
using vt::test::FakePlexServer;

namespace {

struct Rig {
  FakePlexServer plex;
  HttpClient http{systemClock()};
  PMSClient client{http, plex.baseUrl(), plex.token, "client-id-1"};
  Rig() {
    plex.addSection("1", "Vantory", "movie", {"/data/Library", "/old/Library"});
    plex.addSection("2", "Vantory TV", "show", {"/data/Library TV"});
  }
};

const auto run = [](auto task) { return test::runTask(std::move(task)); };

}  // namespace

TEST(PMSClient, NoTokenSendsNothingAndStatusesSurfaceAsText) {
  Rig rig;
  PMSClient noToken(rig.http, rig.plex.baseUrl(), "", "c");
  auto r = run(noToken.machineInfo());
  ASSERT_FALSE(r.has_value());
  EXPECT_EQ(message(r.error()), "No Plex token configured");
  EXPECT_TRUE(rig.plex.requests().empty()) << "no request left the machine";
  auto missing = run(rig.client.itemDetails("999999"));
  ASSERT_FALSE(missing.has_value());
  EXPECT_EQ(message(missing.error()), "PMS returned HTTP 404");
  const auto& req = rig.plex.requests().front();
  EXPECT_EQ(req.header("X-Plex-Token"), QByteArray::fromStdString(rig.plex.token));
  EXPECT_EQ(req.header("X-Plex-Client-Identifier"), "client-id-1");
}

TEST(PMSClient, MachineInfoSectionsAndTheirItems) {
  Rig rig;
  EXPECT_EQ(run(rig.client.machineInfo())->first, "fake-machine-0001");
  rig.plex.on("GET", "/", [&](auto&, auto& reply) {
    reply.json(Json{{"MediaContainer", Json{{"machineIdentifier", 42}}}});
  });
  EXPECT_EQ(run(rig.client.machineInfo()).error().kind, PMSError::Kind::undecodable) << "a wrongly typed field";
  EXPECT_EQ(run(rig.client.sectionForLocation("/old/Library")).value()->key, "1");
  // createSection sends the query in this order.
  EXPECT_TRUE(run(rig.client.createSection("Vantory TV", true, "/new/Library TV")).has_value());
  EXPECT_EQ(rig.plex.requests().back().rawQuery,
            "name=Vantory%20TV&type=show&agent=tv.plex.agents.series&scanner=Plex%20TV%20Series&language=en-US"
            "&location=%2Fnew%2FLibrary%20TV&X-Plex-Token=" +
                QString::fromStdString(rig.plex.token));
  // Section items ask for episodes only in show sections.
  rig.plex.addItem({"", "1", "movie", "Film", 1999, "/thumb/1", {}, {"/data/Library/Film (1999) {imdb-tt1}.mkv"}});
  rig.plex.addItem({"s1", "2", "show", "Show", 2010});
  rig.plex.addItem({"", "2", "episode", "Pilot", {}, {}, std::string("s1"), {"/data/Library TV/Show/s01e01.mkv"}});
  auto episodes = run(rig.client.sectionItems("/data/Library TV"));
  ASSERT_EQ(episodes->size(), 1u);
  EXPECT_EQ(rig.plex.requests().back().rawQuery, "type=4");
  EXPECT_EQ(run(rig.client.imdbIndex("/data/Library"))->at("tt1").year, "1999");
}

TEST(PMSClient, LabelsInChunksAndSmartCollections) {
  Rig rig;
  std::vector<std::string> keys;
  for (int i = 0; i < 120; ++i)
    keys.push_back(rig.plex.addItem({"", "1", "movie", std::string("F").append(std::to_string(i))}).ratingKey);
  rig.plex.clearRequests();
  ASSERT_TRUE(run(rig.client.addLabel("1", keys, "My List")).has_value());
  std::vector<int> sizes;
  for (const auto& r : rig.plex.requests()) sizes.push_back(static_cast<int>(r.query("id")->split(',').size()));
  EXPECT_EQ(sizes, (std::vector<int>{50, 50, 20}));
  EXPECT_EQ(rig.plex.itemsWithLabel("1", "My List").size(), 120u);
  // The smart collection's query is built by hand, its inner address encoded twice.
  auto key = run(rig.client.createSmartCollection("Films & Friends", "500", "1", "fake-machine-0001"));
  ASSERT_TRUE(key.has_value() && *key);
  EXPECT_EQ(rig.plex.requests().back().rawQuery.toStdString(),
            "type=1&title=Films%20%26%20Friends&smart=1&sectionId=1&uri=server%3A%2F%2Ffake-machine-0001%2F"
            "com.plexapp.plugins.library%2Flibrary%2Fsections%2F1%2Fall%3Ftype%3D1%26label%3D500%26sort%3D"
            "addedAt%253Adesc&X-Plex-Token=" +
                rig.plex.token);
  // A reply that is not a rating-key list is an absent key, not a failure.
  rig.plex.on("POST", "/library/collections", [](auto&, auto& reply) { reply.send(200, "nope"); });
  auto absent = run(rig.client.createSmartCollection("X", "1", "1", "m"));
  ASSERT_TRUE(absent.has_value());
  EXPECT_FALSE(*absent);
}

TEST(PMSClient, StrictRepliesExceptTheCollectionRowsLenientFields) {
  auto rows = decodeCollections(R"({"MediaContainer":{"Metadata":[
    {"title":"a","ratingKey":"1","smart":"1"},{"title":"b","ratingKey":"2","smart":1},
    {"title":"d","ratingKey":"4","smart":"0"},{"title":"h","ratingKey":"8","smart":[1]},{"title":7,"ratingKey":"9"}]}})");
  ASSERT_TRUE(rows);
  std::vector<std::pair<std::string, bool>> got;
  for (const auto& r : *rows) got.emplace_back(r.title, r.smart);
  EXPECT_EQ(got, (std::vector<std::pair<std::string, bool>>{{"a", true}, {"b", true}, {"d", false}, {"h", false}}));
  // A wrongly typed field anywhere else fails the whole reply.
  EXPECT_FALSE(decodeSectionItems(R"({"MediaContainer":{"Metadata":[{"ratingKey":1}]}})"));
}

TEST(PlexLibrarySetup, GivesUpOnAStalledServerAfterEightSeconds) {
  test::FakePlexServer plex;
  ManualClock clock;
  HttpClient http(clock, HttpClient::Session::ephemeral);
  PMSClient client(http, plex.baseUrl(), plex.token, "c");
  std::vector<std::string> lines;
  auto log = [&](const std::string& line) { lines.push_back(line); };
  // A server that takes the request and never answers: 8 s, not 15.
  plex.onPrefix("PUT", "/library/sections/", [](auto&, auto& reply) { reply.hold(); });
  bool done = false;
  auto job = Job::start([&](CancelToken) -> QCoro::Task<> {
    co_await prepareLibrarySection(client, true, "/data/Library TV", {}, log, CancelToken::none());
    done = true;
  });
  // Verified, then the PUT hangs: time moves only once the server holds it.
  ASSERT_TRUE(test::spinUntil([&] {
    return std::any_of(plex.requests().begin(), plex.requests().end(), [](const auto& r) { return r.method == "PUT"; });
  }));
  clock.advance(7.9);
  test::settle(20);
  EXPECT_FALSE(done);
  clock.advance(0.2);
  ASSERT_TRUE(test::spinUntil([&] { return done; }));
  EXPECT_EQ(lines.back().rfind("[supervisor] library setup skipped: ", 0), 0u) << lines.back();
}

TEST(PlexWebLink, TheFilmOrTheSeriesFirstEpisodeAsPlexIndexedIt) {
  Rig rig;
  test::TestHome home;
  LibraryStore library(home.file("library.json"), systemClock());
  const std::string film = "Heat (1995) {imdb-tt0113277}.mkv";
  library.upsert(test::sampleTitle(film));
  for (int e : {2, 1}) {
    LibraryTitle t =
        test::sampleTitle("Show (2001) {imdb-tt77}/Season 01/Show (2001) - s01e0" + std::to_string(e) + ".mkv");
    t.seriesImdbId = "tt77";
    t.season = 1;
    t.episode = e;
    library.upsert(t);
  }
  rig.plex.addSection("7", "Vantory", "movie", {home.path() + "/Library"});
  rig.plex.addSection("8", "Vantory TV", "show", {home.path() + "/Library TV"});
  auto link = [&](const std::string& id, bool series) {
    return run(plexWebLink(rig.client, library, home.path(), id, series));
  };
  EXPECT_EQ(link("tt0113277", false).why, "Plex has not indexed \"" + film + "\" yet");
  EXPECT_EQ(link("tt404", false).why, "the library has no film tt404");
  rig.plex.addItem({.ratingKey = "4711", .sectionKey = "7", .files = {home.path() + "/Library/" + film}});
  rig.plex.addItem({.ratingKey = "99",
                    .sectionKey = "8",
                    .type = "episode",
                    .files = {home.path() + "/Library TV/Show (2001) {imdb-tt77}/Season 01/Show (2001) - s01e01.mkv"}});
  EXPECT_EQ(link("tt0113277", false).url,
            endpoints().plexWebApp + "/desktop/#!/server/fake-machine-0001/details?key=%2Flibrary%2Fmetadata%2F4711");
  EXPECT_EQ(link("tt77", true).url,
            endpoints().plexWebApp + "/desktop/#!/server/fake-machine-0001/details?key=%2Flibrary%2Fmetadata%2F99");
  EXPECT_EQ(plexWebAddress("https://app.plex.tv/", "m", "a-b.c"),
            "https://app.plex.tv/desktop/#!/server/m/details?key=%2Flibrary%2Fmetadata%2Fa%2Db%2Ec");
}
