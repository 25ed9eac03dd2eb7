// A subscribed list reaches Plex unattended. The whole application runs
// against local services that answer over HTTP with real latencies (a
// catalog add-on, Cinemeta, a Torrentio-style stream add-on, Real-Debrid with
// its file host, Plex scanning the mounted folder), with the real engine and
// its mount; only the application's long timers run on a test clock that
// goes faster than real time.

#include <algorithm>
#include <iostream>

#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>

#include <gtest/gtest.h>

#include "app/Publishing.h"
#include "app/StandardWiring.h"
#include "catalog/CatalogStore.h"
#include "catalog/StremioCatalogClient.h"
#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineSupervisor.h"
#include "fakes/FakeCatalogAddon.h"
#include "fakes/FakeCinemeta.h"
#include "fakes/FakeFileHost.h"
#include "fakes/FakePlexServer.h"
#include "fakes/FakeRealDebrid.h"
#include "fakes/FakeStreamAddon.h"
#include "platform/Clock.h"
#include "platform/Endpoints.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "platform/Mounts.h"
#include "platform/Settings.h"
#include "sources/resolve/StreamResolver.h"
#include "engine/AppWorld.h"
#include "engine/FilmSources.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

constexpr int kCatalogSize = 100;
constexpr int kListSize = 60;
const std::string kListName = "Top Films";

std::string tt(int n) { return "tt" + std::to_string(2000000 + n); }
std::string filmName(int n) { return "Film " + std::to_string(n); }
std::string fileOf(int n) { return filmName(n) + " (2015) {imdb-" + tt(n) + "}.mkv"; }
std::string hashOf(int n) {
  const std::string digits = std::to_string(n);
  return std::string(40 - digits.size(), 'a') + digits;
}

}  // namespace

TEST(PublishList, ASubscribedListOfSixtyReachesPlexInWavesWithBackfillForFilmsWithoutSource) {
  if (!test::canMountWithFuse()) GTEST_SKIP() << "no FUSE on this machine";
  QElapsedTimer realTime;
  realTime.start();
  test::TestHome home;
  ManualClock clock;
  const Date start = clock.now();
  // The application's log with the test clock's time, shown when the test fails.
  std::vector<std::string> lines;
  ScopedLogSink sink([&](std::string_view line) {
    lines.push_back(std::to_string(static_cast<int>(clock.now() - start)) + " " + std::string(line));
  });
  struct ShowLog {
    const std::vector<std::string>& lines;
    ~ShowLog() {
      if (!::testing::Test::HasFailure() && !std::getenv("VT_SHOW_LOG")) return;
      for (const auto& l : lines) std::cerr << l << "\n";
    }
  } showLog{lines};

  test::FilmSources sources;
  sources.torrentio.setFault(test::FakeStreamAddon::Fault::slow);
  // A busy public add-on's pace; the other services answer at once.
  sources.torrentio.slowMs = 350;
  // The films readiness asks about, so that no-stream verdicts count.
  for (const auto& id : StreamResolver::wellKnownFilms()) sources.film(id, "Classic " + id, "1994", hashOf(900));
  // A catalog of 100 films in pages of 50; five of the first 60 have no stream.
  const std::set<int> sourceless = {7, 19, 33, 45, 58};
  test::FakeCatalogAddon addon;
  addon.pageSize = 50;
  Json rows = Json::array();
  for (int n = 1; n <= kCatalogSize; ++n) {
    rows.push_back(Json{{"id", tt(n)}, {"type", "movie"}, {"name", filmName(n)}, {"releaseInfo", "2015"}});
    sources.film(tt(n), filmName(n), "2015", hashOf(n), !sourceless.count(n));
  }
  addon.setCatalog("movie", "top", std::nullopt, rows);

  ASSERT_TRUE(sources.becomeEndpoints())
      << "the endpoint table was read before this test: run it in a process of its own (ctest does)";

  test::FakePlexServer plex("plex-token", clock);
  plex.scanDelay = 3;
  test::AppWorld world(home, clock, plex, [&](AppConfig& config) {
    config.setRdKey(sources.rd.key);
    config.setStreamAddonOverride(sources.torrentio.base().toString().toStdString());
  });
  auto& app = *world.app;
  auto& supervisor = *world.supervisor;
  auto& catalog = *world.catalog;
  const std::string& movies = world.movies;
  auto* publishing = dynamic_cast<Publishing*>(app.publishing());
  ASSERT_NE(publishing, nullptr);

  // Each step lets the services and the engine answer in real time, then
  // moves the application's clock on: about six times faster than real time,
  // slow enough that no request of a service at its own pace times out.
  std::function<void()> watch = [] {};
  auto drive = [&](const std::function<bool()>& done, int limitMs) {
    return test::drive(
        clock, [&] { return watch(), done(); }, limitMs, 0.025);
  };
  Job::start([&](CancelToken) { return app.bootstrap(); });
  ASSERT_TRUE(drive([&] { return supervisor.state() == EngineState::running; }, 30000));
  if (!mountedFileSystem(movies)) GTEST_SKIP() << "the library folder could not be mounted here";

  // The user subscribes to the add-on's catalog with room for 60 films and
  // publishes it: the first 60 become its members, and it goes to Plex staged.
  StremioCatalogClient catalogClient(*world.http, sources.cinemeta.baseUrl());
  auto firstPage = test::runTask(catalogClient.metas(addon.base(), "movie", "top", std::nullopt, kListSize));
  ASSERT_TRUE(firstPage);
  ASSERT_EQ(firstPage->size(), static_cast<size_t>(kListSize));
  CatalogCollection list{
      .id = newCollectionId(),
      .name = kListName,
      .source = CollectionSource::stremioCatalog(addon.base().toString().toStdString(), "movie", "top"),
      .lastSyncedAt = clock.now(),
      .maxItems = kListSize};
  for (const auto& meta : *firstPage) list.itemImdbIds.push_back(meta.id);
  catalog.mergeMeta(*firstPage);
  catalog.upsert(list);
  catalog.materialise(list);
  ASSERT_TRUE(catalog.isStaging(list.id));
  // The application has no subscribing action yet; its publish pass is the
  // one that action starts.
  bool passOver = false;
  publishing->passes().resolveAndPublish({list}, {}, true, [&](const std::set<std::string>&) { passOver = true; });
  ASSERT_TRUE(publishing->passes().resolvingIds().count(list.id));

  auto labelled = [&] { return plex.itemsWithLabel("1", kListName).size(); };
  auto resolvedMembers = [&] {
    size_t n = 0;
    for (int i = 1; i <= kCatalogSize; ++i) n += app.library().titleByImdb(tt(i)) != nullptr;
    return n;
  };
  const Date publishedAt = clock.now();
  // The first wave: 24 films or more, labelled in Plex while the list still resolves.
  std::optional<size_t> firstWave, resolvedAtFirstWave;
  bool resolvingAtFirstWave = false;
  watch = [&] {
    if (firstWave || labelled() == 0) return;
    firstWave = labelled();
    resolvedAtFirstWave = resolvedMembers();
    resolvingAtFirstWave = publishing->passes().resolvingIds().count(list.id) > 0;
  };
  ASSERT_TRUE(drive([&] { return firstWave.has_value(); }, 60000)) << "no wave reached Plex";
  EXPECT_GE(*firstWave, WaveFlipper::kFirstWave);
  EXPECT_TRUE(resolvingAtFirstWave) << "the first wave came only after the resolve";
  EXPECT_LT(*resolvedAtFirstWave, static_cast<size_t>(kListSize)) << "every film had resolved before the first wave";
  EXPECT_TRUE(catalog.delivery(list.id) && catalog.delivery(list.id)->playable);

  // Then the whole list, in the list's smart collection.
  auto smart = [&] {
    return std::any_of(plex.collections.begin(), plex.collections.end(),
                       [](const auto& c) { return c.second.title == kListName && c.second.smart; });
  };
  ASSERT_TRUE(drive(
      [&] {
        return passOver && labelled() == static_cast<size_t>(kListSize) && smart() && !catalog.isStaging(list.id);
      },
      90000))
      << labelled() << " labelled, pass over: " << passOver;
  const auto* published = catalog.collection(list.id);
  ASSERT_NE(published, nullptr);
  ASSERT_EQ(published->itemImdbIds.size(), static_cast<size_t>(kListSize));
  EXPECT_TRUE(published->lastPublishedAt);
  for (const auto& id : published->itemImdbIds) {
    const auto* title = app.library().titleByImdb(id);
    ASSERT_NE(title, nullptr) << id;
    const auto* item = plex.itemForFile(movies + "/" + title->name);
    ASSERT_NE(item, nullptr) << title->name;
    EXPECT_TRUE(item->labels.count(kListName)) << title->name;
  }

  // The films without a stream cool down and left the list; the next page
  // refilled it with the films after the first 60.
  for (int n : sourceless) {
    EXPECT_TRUE(catalog.isCooling(tt(n))) << tt(n);
    EXPECT_EQ(std::count(published->itemImdbIds.begin(), published->itemImdbIds.end(), tt(n)), 0) << tt(n);
    EXPECT_EQ(plex.itemForFile(movies + "/" + fileOf(n)), nullptr) << tt(n);
  }
  for (int n = kListSize + 1; n <= kListSize + static_cast<int>(sourceless.size()); ++n)
    EXPECT_EQ(std::count(published->itemImdbIds.begin(), published->itemImdbIds.end(), tt(n)), 1) << tt(n);
  EXPECT_EQ(app.library().titleByImdb(tt(kListSize + static_cast<int>(sourceless.size()) + 1)), nullptr)
      << "the backfill took only what the list lacked";
  const auto pages = addon.catalogRequests();
  EXPECT_TRUE(std::any_of(pages.begin(), pages.end(),
                          [](const std::string& p) { return p.find("skip=60") != std::string::npos; }));

  std::cout << "[ published ] " << kListSize << " films, first wave of " << *firstWave << " with "
            << *resolvedAtFirstWave << " resolved; " << (clock.now() - publishedAt) << " s on the test clock, "
            << realTime.elapsed() << " ms of real time in all\n";
}
