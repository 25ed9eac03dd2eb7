#include <gtest/gtest.h>

#include "fakes/FakePlexServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "plex/PMSClient.h"
#include "plex/PlexLibrarySetup.h"
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

template <class T>
T run(QCoro::Task<T> task) {
  return test::runTask(std::move(task));
}

}  // namespace

TEST(PMSClient, NoTokenSendsNothingAndStatusesSurfaceAsText) {
  Rig rig;
  PMSClient noToken(rig.http, rig.plex.baseUrl(), "", "c");
  auto r = run(noToken.machineInfo());
  ASSERT_FALSE(r.has_value());
  EXPECT_EQ(message(r.error()), "No Plex token configured");
  EXPECT_FALSE(run(noToken.addLabel("1", {"1"}, "x")).has_value());
  EXPECT_TRUE(rig.plex.requests().empty()) << "no request left the machine";

  auto missing = run(rig.client.itemDetails("999999"));
  ASSERT_FALSE(missing.has_value());
  EXPECT_EQ(message(missing.error()), "PMS returned HTTP 404");
  EXPECT_EQ(missing.error().status, 404);

  const auto& req = rig.plex.requests().front();
  EXPECT_EQ(req.header("Accept"), "application/json");
  EXPECT_EQ(req.header("X-Plex-Token"), QByteArray::fromStdString(rig.plex.token));
  EXPECT_EQ(req.header("X-Plex-Product"), "Vantory");
  EXPECT_EQ(req.header("X-Plex-Client-Identifier"), "client-id-1");
}

TEST(PMSClient, MachineInfoSectionsAndTheirItems) {
  Rig rig;
  auto info = run(rig.client.machineInfo());
  ASSERT_TRUE(info.has_value());
  EXPECT_EQ(info->first, "fake-machine-0001");
  EXPECT_EQ(info->second, "tester");
  rig.plex.on("GET", "/", [&](auto&, auto& reply) { reply.json(Json{{"MediaContainer", Json::object()}}); });
  EXPECT_EQ(run(rig.client.machineInfo())->first, "—");
  rig.plex.on("GET", "/", [&](auto&, auto& reply) {
    reply.json(Json{{"MediaContainer", Json{{"machineIdentifier", 42}}}});
  });
  EXPECT_EQ(run(rig.client.machineInfo()).error().kind, PMSError::Kind::undecodable) << "a wrongly typed field";

  EXPECT_EQ(run(rig.client.sectionForLocation("/old/Library")).value()->key, "1");
  EXPECT_FALSE(run(rig.client.sectionForLocation("/data/Library/")).value()) << "exact paths only";

  // createSection is a no-op for a known location and sends the query in order otherwise.
  rig.plex.clearRequests();
  EXPECT_TRUE(run(rig.client.createSection("Vantory", false, "/data/Library")).has_value());
  EXPECT_EQ(rig.plex.requests().size(), 1u);
  EXPECT_TRUE(run(rig.client.createSection("Vantory TV", true, "/new/Library TV")).has_value());
  EXPECT_EQ(rig.plex.requests().back().rawQuery,
            "name=Vantory%20TV&type=show&agent=tv.plex.agents.series&scanner=Plex%20TV%20Series&language=en-US"
            "&location=%2Fnew%2FLibrary%20TV&X-Plex-Token=" +
                QString::fromStdString(rig.plex.token));

  EXPECT_TRUE(run(rig.client.refreshSection("/data/Library")).has_value());
  EXPECT_EQ(rig.plex.sections["1"].refreshes, 1);
  EXPECT_TRUE(run(rig.client.disableAnalysisJobs("/data/Library")).has_value());
  EXPECT_EQ(rig.plex.sections["1"].prefs["enableBIFGeneration"], "0");
  EXPECT_EQ(rig.plex.serverPrefs["ButlerTaskDeepMediaAnalysis"], "0");
  rig.plex.clearRequests();
  EXPECT_TRUE(run(rig.client.refreshSection("/nowhere")).has_value());
  EXPECT_EQ(rig.plex.requests().size(), 1u) << "unknown locations are silent no-ops";

  // Section items ask for episodes only in show sections.
  rig.plex.addItem({"", "1", "movie", "Film", 1999, "/thumb/1", {}, {"/data/Library/Film (1999) {imdb-tt1}.mkv"}});
  rig.plex.addItem({"s1", "2", "show", "Show", 2010});
  rig.plex.addItem({"", "2", "episode", "Pilot", {}, {}, std::string("s1"), {"/data/Library TV/Show/s01e01.mkv"}});

  rig.plex.clearRequests();
  ASSERT_EQ(run(rig.client.sectionItems("/data/Library"))->size(), 1u);
  EXPECT_EQ(rig.plex.requests().back().rawQuery, "");
  auto episodes = run(rig.client.sectionItems("/data/Library TV"));
  ASSERT_EQ(episodes->size(), 1u);
  EXPECT_EQ((*episodes)[0].title, "Pilot");
  EXPECT_EQ(rig.plex.requests().back().rawQuery, "type=4");
  EXPECT_EQ(run(rig.client.imdbIndex("/data/Library"))->at("tt1").year, "1999");
}

TEST(PMSClient, LabelsInChunksLabelIdsFromBothKeyFormsAndSmartCollections) {
  Rig rig;
  std::vector<std::string> keys;
  for (int i = 0; i < 120; ++i)
    keys.push_back(rig.plex.addItem({"", "1", "movie", std::string("F").append(std::to_string(i))}).ratingKey);
  rig.plex.clearRequests();
  ASSERT_TRUE(run(rig.client.addLabel("1", keys, "My List")).has_value());
  std::vector<int> sizes;
  for (const auto& r : rig.plex.requests()) {
    EXPECT_EQ(r.method, "PUT");
    EXPECT_TRUE(r.rawQuery.startsWith("type=1&id=")) << r.rawQuery.toStdString();
    EXPECT_TRUE(r.rawQuery.contains("&label[0].tag.tag=My%20List&label.locked=1&X-Plex-Token="))
        << r.rawQuery.toStdString();
    sizes.push_back(static_cast<int>(r.query("id")->split(',').size()));
  }
  EXPECT_EQ(sizes, (std::vector<int>{50, 50, 20}));
  EXPECT_EQ(rig.plex.itemsWithLabel("1", "My List").size(), 120u);

  rig.plex.on("GET", "/library/sections/1/label", [](auto&, auto& reply) {
    reply.json(Json::parse(R"({"MediaContainer":{"Directory":[
      {"key":"/library/sections/1/all?label=123","title":"A"},{"key":"123","title":"B"},
      {"key":"7"},{"title":"no key"}]}})"));
  });
  auto both = run(rig.client.sectionLabels("1")).value();
  EXPECT_EQ(both, (std::map<std::string, std::string>{{"A", "123"}, {"B", "123"}}));

  EXPECT_EQ(run(rig.client.labelledKeys("1", rig.plex.labelId("My List")))->size(), 120u);
  ASSERT_TRUE(run(rig.client.removeLabel({keys[0], keys[1]}, "My List")).has_value());
  EXPECT_EQ(rig.plex.requests().back().rawQuery.left(39), "type=1&label[0].tag.tag-=My%20List&labe");
  EXPECT_EQ(rig.plex.itemsWithLabel("1", "My List").size(), 118u);

  // The smart collection's query is built by hand, its inner address encoded twice.
  auto key = run(rig.client.createSmartCollection("Films & Friends", "500", "1", "fake-machine-0001"));
  ASSERT_TRUE(key.has_value() && *key);
  const auto& req = rig.plex.requests().back();
  EXPECT_EQ(req.method, "POST");
  EXPECT_EQ(req.path, "/library/collections");
  EXPECT_EQ(req.rawQuery.toStdString(),
            "type=1&title=Films%20%26%20Friends&smart=1&sectionId=1&uri=server%3A%2F%2Ffake-machine-0001%2F"
            "com.plexapp.plugins.library%2Flibrary%2Fsections%2F1%2Fall%3Ftype%3D1%26label%3D500%26sort%3D"
            "addedAt%253Adesc&X-Plex-Token=" +
                rig.plex.token);
  EXPECT_TRUE(run(rig.client.deleteCollectionNamed("Films & Friends", "/data/Library")).has_value());
  EXPECT_TRUE(rig.plex.collections.empty());

  // A reply that is not a rating-key list is an absent key, not a failure.
  rig.plex.on("POST", "/library/collections", [](auto&, auto& reply) { reply.send(200, "nope"); });
  auto absent = run(rig.client.createSmartCollection("X", "1", "1", "m"));
  ASSERT_TRUE(absent.has_value());
  EXPECT_FALSE(*absent);
}

TEST(PMSClient, StrictRepliesExceptTheCollectionRowsLenientFields) {
  auto rows = decodeCollections(R"({"MediaContainer":{"Metadata":[
    {"title":"a","ratingKey":"1","smart":"1"},{"title":"b","ratingKey":"2","smart":1},
    {"title":"d","ratingKey":"4","smart":"0"},{"title":"f","ratingKey":"6"},{"title":"h","ratingKey":"8","smart":[1]},
    {"title":7,"ratingKey":"9"},{"title":"k","ratingKey":11}]}})");
  ASSERT_TRUE(rows);
  std::vector<std::pair<std::string, bool>> got;
  for (const auto& r : *rows) got.emplace_back(r.title, r.smart);
  EXPECT_EQ(got, (std::vector<std::pair<std::string, bool>>{
                     {"a", true}, {"b", true}, {"d", false}, {"f", false}, {"h", false}}));

  // A wrongly typed field anywhere else fails the whole reply.
  EXPECT_FALSE(decodeSectionItems(R"({"MediaContainer":{"Metadata":[{"ratingKey":1}]}})"));
  EXPECT_TRUE(decodeSectionItems(R"({"MediaContainer":{"Metadata":[{"ratingKey":"1","year":null}]}})"))
      << "null is absent";

  auto sessions = decodeSessions(R"({"MediaContainer":{"Metadata":[{"sessionKey":"12","title":"Film",
    "viewOffset":5000,"Media":[{"Part":[{}]},{"Part":[{"file":"/data/Library/F.mkv"}]}],
    "Player":{"state":"playing","product":"Plex Web","title":"Chrome"},
    "TranscodeSession":{"speed":1.5,"throttled":false,"protocol":"dash","videoDecision":"copy"}}]}})");
  ASSERT_TRUE(sessions && sessions->size() == 1);
  const auto& s = (*sessions)[0];
  EXPECT_EQ(s.file, "/data/Library/F.mkv");
  EXPECT_EQ(s.durationMs, std::nullopt);
  EXPECT_EQ(s.transcodeSpeed, 1.5);
}

TEST(PlexLibrarySetup, CreatesTheSectionAndGivesUpOnAStalledServerAfterEightSeconds) {
  test::FakePlexServer plex;
  ManualClock clock;
  HttpClient http(clock, HttpClient::Session::ephemeral);
  PMSClient client(http, plex.baseUrl(), plex.token, "c");
  std::vector<std::string> lines;
  auto log = [&](const std::string& line) { lines.push_back(line); };

  // A new folder gets its section, a scanner switch-off and a scan.
  test::runTask(prepareLibrarySection(client, true, "/data/Library TV", {}, log, CancelToken::none()));
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "[supervisor] Plex library verified at /data/Library TV");
  EXPECT_EQ(lines[2], "[supervisor] requested Plex re-scan of /data/Library TV");
  bool createdShowSection = false;
  for (const auto& r : plex.requests())
    if (r.method == "POST" && r.path == "/library/sections")
      createdShowSection = r.query("name") == "Vantory TV" && r.query("type") == "show";
  EXPECT_TRUE(createdShowSection);

  // A server that takes the request and never answers: 8 s, not 15.
  lines.clear();
  plex.onPrefix("PUT", "/library/sections/", [](auto&, auto& reply) { reply.hold(); });
  bool done = false;
  auto job = Job::start([&](CancelToken) -> QCoro::Task<> {
    co_await prepareLibrarySection(client, true, "/data/Library TV", {}, log, CancelToken::none());
    done = true;
  });
  ASSERT_TRUE(test::spinUntil([&] { return !lines.empty(); }));  // verified, then the PUT hangs
  test::settle(20);
  clock.advance(7.9);
  test::settle(20);
  EXPECT_FALSE(done);
  clock.advance(0.2);
  ASSERT_TRUE(test::spinUntil([&] { return done; }));
  EXPECT_EQ(lines.back().rfind("[supervisor] library setup skipped: ", 0), 0u) << lines.back();
}
