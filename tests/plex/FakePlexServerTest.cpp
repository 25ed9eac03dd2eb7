#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "fakes/FakePlexServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "plex/PMSClient.h"
#include "support/TestKit.h"

// The fake Plex server's own behaviour: what it indexes, trashes, deletes and
// analyses, seen through HTTP as the sync code will see it.

using namespace vt;
using vt::test::FakePlexServer;

namespace {

namespace fs = std::filesystem;

void write(const std::string& path, const std::string& content) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

const auto run = [](auto task) { return test::runTask(std::move(task)); };

struct Rig {
  test::TestHome home;
  ManualClock clock;
  FakePlexServer plex{"plex-test-token", clock};
  HttpClient http{systemClock()};
  PMSClient client{http, plex.baseUrl(), plex.token, "client-id-1"};
  std::string movies = home.file("Library");
  Rig() {
    fs::create_directories(movies);
    plex.addSection("1", "Vantory", "movie", {movies});
  }
  void refresh(const std::string& location) { EXPECT_TRUE(run(client.refreshSection(location)).has_value()); }
};

}  // namespace

TEST(FakePlexServer, ScanIndexesFilesOnlyOnceItsDelayHasPassed) {
  Rig rig;
  rig.plex.scanDelay = 30;
  write(rig.movies + "/Heat (1995) {imdb-tt0113277}.mkv", "video");
  write(rig.movies + "/Heat (1995) {imdb-tt0113277}.nfo", "not a video");
  rig.refresh(rig.movies);
  rig.clock.advance(29);
  EXPECT_TRUE(run(rig.client.fileIndex(rig.movies))->empty()) << "the scan is not due yet";
  rig.clock.advance(1);
  auto index = run(rig.client.fileIndex(rig.movies)).value();
  ASSERT_EQ(index.size(), 1u);
  const auto& heat = index.at("Heat (1995) {imdb-tt0113277}.mkv");
  EXPECT_EQ(heat.title, "Heat");
  EXPECT_EQ(heat.year, 1995);
  EXPECT_EQ(heat.addedAt, static_cast<int64_t>(unixSecondsFromDate(rig.clock.now())));
  ASSERT_EQ(heat.media.size(), 1u);
  EXPECT_EQ(heat.media[0].duration, 5'400'000);
  EXPECT_EQ(rig.plex.sections["1"].refreshes, 1);
  EXPECT_EQ(rig.plex.sections["1"].scansCompleted, 1);
}

TEST(FakePlexServer, AnUnreadableFileHasNoDurationUntilAnalysedOnceReadable) {
  Rig rig;
  const auto path = rig.movies + "/Alien (1979).mp4";
  write(path, "");  // an empty file yields no first byte
  rig.refresh(rig.movies);
  rig.clock.advance(700);
  const auto before = rig.clock.now();
  auto keys = run(rig.client.itemsWithoutDuration(rig.movies, before)).value();
  ASSERT_EQ(keys.size(), 1u);
  const auto rk = keys[0];
  // Analysis of a file that still cannot be read changes nothing.
  ASSERT_TRUE(run(rig.client.putQuery("/library/metadata/" + rk + "/analyze", {})).has_value());
  EXPECT_EQ(run(rig.client.itemsWithoutDuration(rig.movies, before))->size(), 1u);
  write(path, "now readable");
  rig.plex.durations[path] = 7'000'000;
  ASSERT_TRUE(run(rig.client.putQuery("/library/metadata/" + rk + "/analyze", {})).has_value());
  EXPECT_TRUE(run(rig.client.itemsWithoutDuration(rig.movies, before))->empty());
  EXPECT_EQ(run(rig.client.itemDetails(rk)).value()->durationMs, 7'000'000);
  EXPECT_EQ(rig.plex.analyzeRequests[rk], 2);
}

TEST(FakePlexServer, MissingFilesGoToTheTrashComeBackAndLeaveWithEmptyTrash) {
  Rig rig;
  const auto path = rig.movies + "/sub/Heat (1995).mkv";
  write(path, "video");
  rig.refresh(rig.movies);
  const auto rk = rig.plex.itemForFile(path)->ratingKey;

  fs::remove(path);
  rig.refresh(rig.movies);
  auto listed = run(rig.client.httpRequest("GET", "/library/sections/1/all", {}, 8)).value();
  auto row = json::parse(listed.toStdString()).value()["MediaContainer"]["Metadata"].at(0);
  EXPECT_EQ(row["ratingKey"], rk) << "a trashed item is still listed";
  EXPECT_TRUE(row.contains("deletedAt"));

  write(path, "video");
  rig.refresh(rig.movies);
  EXPECT_FALSE(rig.plex.items.at(rk).trashed) << "the file came back";
  EXPECT_FALSE(rig.plex.items.at(rk).deletedAt);

  // A location that cannot be listed (drive offline) trashes nothing.
  fs::remove_all(rig.movies);
  rig.refresh(rig.movies);
  EXPECT_FALSE(rig.plex.items.at(rk).trashed);

  fs::create_directories(rig.movies);
  rig.refresh(rig.movies);
  ASSERT_TRUE(rig.plex.items.at(rk).trashed);
  ASSERT_TRUE(run(rig.client.emptyTrash("1")).has_value());
  EXPECT_TRUE(run(rig.client.fileIndex(rig.movies))->empty());
}

TEST(FakePlexServer, ShowsFromAFileListAndDeletionOfShowsAndRefusedItems) {
  Rig rig;
  rig.plex.addSection("2", "Vantory TV", "show", {"/tv"});
  rig.plex.sections["2"].fileList =
      std::vector<std::string>{"/tv/Show A (2010)/Season 1/Show A S01E01.mkv",
                               "/tv/Show A (2010)/Season 1/Show A S01E02.mkv", "/tv/Show B/B S02E05.mkv"};
  rig.refresh("/tv");
  auto shows = run(rig.client.showKeys("/tv")).value();
  auto episodes = run(rig.client.episodeShowMap("/tv")).value();
  ASSERT_EQ(shows.size(), 2u);
  ASSERT_EQ(episodes.size(), 3u);
  const auto a = rig.plex.items.at(episodes.begin()->second);
  EXPECT_EQ(a.title, "Show A");
  EXPECT_EQ(a.year, 2010);
  const auto* b = rig.plex.itemForFile("/tv/Show B/B S02E05.mkv");
  EXPECT_EQ(b->season, 2);
  EXPECT_FALSE(b->duration) << "a listed file that is not on disk cannot be read";

  // Deleting a show takes its episodes along.
  ASSERT_TRUE(run(rig.client.httpRequest("DELETE", "/library/metadata/" + *b->grandparentRatingKey, {}, 15)));
  EXPECT_EQ(run(rig.client.episodeShowMap("/tv"))->size(), 2u);

  // A refused delete answers 400 and the item stays.
  auto& refused = rig.plex.addItem({"", "1", "movie", "Kept"});
  refused.refuseDelete = true;
  auto denied = run(rig.client.httpRequest("DELETE", "/library/metadata/" + refused.ratingKey, {}, 15));
  ASSERT_FALSE(denied.has_value());
  EXPECT_EQ(message(denied.error()), "PMS returned HTTP 400");
  EXPECT_TRUE(rig.plex.items.count(refused.ratingKey));

  // Emptying the trash removes the show left without episodes.
  rig.plex.sections["2"].fileList->clear();
  rig.refresh("/tv");
  ASSERT_TRUE(run(rig.client.emptyTrash("2")).has_value());
  EXPECT_TRUE(rig.plex.itemsOf("2").empty());
}

TEST(FakePlexServer, IdentityNeedsNoTokenAndFaultsReplaceReplies) {
  Rig rig;
  PMSClient stranger(rig.http, rig.plex.baseUrl(), "wrong", "c");
  auto identity = run(stranger.httpRequest("GET", "/identity", {}, 8)).value();
  EXPECT_EQ(json::parse(identity.toStdString()).value()["MediaContainer"]["machineIdentifier"], "fake-machine-0001");
  EXPECT_EQ(message(run(stranger.httpRequest("GET", "/", {}, 8)).error()), "PMS returned HTTP 401");

  auto& heat = rig.plex.addItem({"", "1", "movie", "Heat", 1995, {}, {}, {rig.movies + "/Heat (1995).mkv"}});
  rig.plex.faults["GET /library/sections/1/all"] = FakePlexServer::Fault::malformedBody();
  EXPECT_TRUE(run(rig.client.sectionItems(rig.movies)).value().empty()) << "an unreadable list reads as empty";
  // A fault that lets the request take effect: deleted, but the client sees a 500.
  rig.plex.faults["DELETE /library/metadata/"] = FakePlexServer::Fault::withStatus(500, true);
  EXPECT_FALSE(run(rig.client.httpRequest("DELETE", "/library/metadata/" + heat.ratingKey, {}, 15)).has_value());
  rig.plex.faults.clear();
  EXPECT_TRUE(run(rig.client.sectionItems(rig.movies)).value().empty());
}
