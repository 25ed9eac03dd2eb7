// The whole publish loop on one machine: the library changes, the real engine
// serves the change in its mounted folder, and a local Plex server that scans
// that folder ends up showing exactly the published titles, labelled and
// gathered into the list's smart collection.

#include <signal.h>

#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>

#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "app/StandardWiring.h"
#include "catalog/CatalogStore.h"
#include "core/LibraryStore.h"
#include "engine/EngineSupervisor.h"
#include "fakes/FakePlexServer.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Mounts.h"
#include "platform/Settings.h"
#include "plex/PlexLibrarySetup.h"
#include "plex/PlexSyncCoordinator.h"
#include "engine/AppWorld.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

namespace {

std::string film(int i) { return "Film " + std::to_string(i) + " (2000) {imdb-tt10" + std::to_string(i) + "}.mkv"; }

}  // namespace

TEST(PlexFollowsLibrary, PublishedTitlesReachPlexWithTheirListAndRemovedOnesLeave) {
  if (!test::canMountWithFuse()) GTEST_SKIP() << "no FUSE on this machine";
  test::TestHome home;
  ManualClock clock;
  test::FakePlexServer plex("plex-token", clock);
  plex.scanDelay = 3;
  test::AppWorld world(home, clock, plex);
  auto& app = *world.app;
  auto& supervisor = *world.supervisor;
  auto& catalog = *world.catalog;
  const std::string& movies = world.movies;

  auto drive = [&](const std::function<bool()>& done) { return test::drive(clock, done); };

  Job::start([&](CancelToken) { return app.bootstrap(); });
  ASSERT_TRUE(drive([&] { return supervisor.state() == EngineState::running; }));
  if (!mountedFileSystem(movies)) GTEST_SKIP() << "the library folder could not be mounted here";

  // A published list in waves: two of its three films revealed so far. Made
  // after the start, so that no pass of its own resolves it here.
  const CatalogCollection noir{.id = newCollectionId(),
                               .name = "Noir",
                               .source = CollectionSource::stremioCatalog("http://127.0.0.1:9/", "movie", "noir"),
                               .itemImdbIds = {"tt101", "tt102", "tt103"}};
  catalog.upsert(noir);
  catalog.materialise(noir);
  catalog.noteRevealed({"tt101", "tt102"}, noir.id);

  // Changes reach Plex through the flush, well before the safety tick would.
  Date changedAt = clock.now();
  for (int i = 1; i <= 3; ++i)
    app.library().upsert(test::sampleTitle(film(i), "http://127.0.0.1:9/f" + std::to_string(i)));
  auto inPlex = [&](int i) { return plex.itemForFile(movies + "/" + film(i)) != nullptr; };
  auto labelled = [&] { return plex.itemsWithLabel("1", "Noir").size() == 2; };
  auto smartNoir = [&] {
    return std::any_of(plex.collections.begin(), plex.collections.end(),
                       [](const auto& c) { return c.second.title == "Noir" && c.second.smart; });
  };
  // The collection stands in Plex a moment before its reply reaches the catalog.
  ASSERT_TRUE(drive(
      [&] { return inPlex(1) && inPlex(2) && labelled() && smartNoir() && catalog.ownedGroupings().count("Noir"); }));
  EXPECT_LT(clock.now() - changedAt, PlexSyncCoordinator::kSafetyTick);
  EXPECT_EQ(catalog.ownedGroupings(), std::set<std::string>{"Noir"});
  EXPECT_TRUE(catalog.collection(noir.id)->plexRatingKey);

  changedAt = clock.now();
  app.library().remove(film(2));
  ASSERT_TRUE(drive([&] { return !inPlex(2); }));
  EXPECT_LT(clock.now() - changedAt, PlexSyncCoordinator::kSafetyTick);
  auto* sync = static_cast<PlexSyncCoordinator*>(supervisor.plexSync());
  ASSERT_TRUE(drive([&] { return !sync->isWorking(); }));
  EXPECT_TRUE(inPlex(1));
  EXPECT_EQ(plex.itemsWithLabel("1", "Noir").size(), 1u);
  EXPECT_FALSE(inPlex(3)) << "a staged title never reaches Plex";
  for (const auto& [key, item] : plex.items)
    for (const auto& f : item.files) EXPECT_EQ(f.find(film(3)), std::string::npos);
}
