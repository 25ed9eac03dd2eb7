#include <gtest/gtest.h>

#include <deque>

#include "catalog/CatalogFiles.h"
#include "catalog/CatalogStore.h"
#include "catalog/CatalogSync.h"
#include "core/AppConfig.h"
#include "core/WatchlistPort.h"
#include "fakes/FakeCatalogAddon.h"
#include "fakes/FakeCinemeta.h"
#include "platform/Http.h"
#include "platform/Log.h"
#include "platform/Settings.h"
#include "support/PauseClock.h"

using namespace vt;
using test::FakeCatalogAddon;

namespace {

std::string tt(int n) { return "tt" + std::to_string(2000000 + n); }

Json rows(int from, int count) {
  Json list = Json::array();
  for (int n = from; n < from + count; ++n)
    list.push_back(
        Json{{"id", tt(n)}, {"name", "Film " + std::to_string(n)}, {"poster", "https://img/" + std::to_string(n)}});
  return list;
}

// Answers from a script, one per fetch; a string is a failure.
struct ScriptedWatchlist final : WatchlistPort {
  std::deque<std::variant<std::vector<WatchlistItem>, std::string>> answers;
  QCoro::Task<Result<WatchlistFetch, std::string>> fetchWatchlist(int, std::map<std::string, std::string> known,
                                                                  CancelToken) override {
    auto next = answers.front();
    answers.pop_front();
    if (auto* why = std::get_if<std::string>(&next)) co_return Failure{*why};
    co_return WatchlistFetch{std::get<0>(next), std::move(known)};
  }
};

QCoro::Task<bool> ticked(CatalogSync& sync) {
  co_await sync.refreshTick();
  co_return true;
}

struct Following {
  test::TestHome home;
  test::PauseClock clock{5};  // the page retry is the only pause; request limits are longer
  std::unique_ptr<SettingsStore> settings = SettingsStore::openForTestHome(home.path());
  AppConfig config{*settings};
  FakeCatalogAddon addon{"cfg"};
  HttpClient http{clock, HttpClient::Session::ephemeral};
  CatalogStore store{home.path(), clock, &config};
  ScriptedWatchlist watchlist;
  CatalogSync sync{store, StremioCatalogClient(http, addon.base()), watchlist, clock, &config};
  std::vector<std::string> lines;
  ScopedLogSink sink{[this](std::string_view l) { lines.emplace_back(l); }};

  std::string follow(int maxItems = 40) {
    const CatalogCollection c{
        .id = newCollectionId(),
        .name = "Popular movies",
        .source = CollectionSource::stremioCatalog(addon.base().toString().toStdString(), "movie", "top"),
        .maxItems = maxItems};
    store.upsert(c);
    return c.id;
  }
  const CatalogCollection& get(const std::string& id) { return *store.collection(id); }
  template <class T>
  T run(QCoro::Task<T> task) {
    return test::drive(clock, std::move(task), 60000);
  }
  void tick() { test::drive(clock, ticked(sync), 60000); }
};

}  // namespace

TEST(CatalogSync, AFetchReplacesMembersOnlyWhenItHasRows) {
  Following f;
  const auto id = f.follow(30);
  f.addon.pageSize = 20;
  f.addon.setCatalog("movie", "top", std::nullopt, rows(0, 60));
  EXPECT_TRUE(f.run(f.sync.syncCatalog(id, false)));
  EXPECT_EQ(f.get(id).itemImdbIds.size(), 30u);
  EXPECT_EQ(f.get(id).itemImdbIds.front(), tt(0));
  EXPECT_EQ(f.addon.catalogRequests(), (std::vector<std::string>{"movie/top.json", "movie/top/skip=20.json"}))
      << "maxItems + 10";
  EXPECT_EQ(f.store.meta(tt(5))->name, "Film 5");

  // A page that fails twice fails the walk: the members stay.
  const auto before = f.get(id).itemImdbIds;
  f.addon.setCatalog("movie", "top", std::nullopt, rows(100, 250));
  f.addon.failingSkips = {20};
  EXPECT_FALSE(f.run(f.sync.syncCatalog(id, false)));
  EXPECT_EQ(f.get(id).itemImdbIds, before);
  EXPECT_EQ(
      f.lines.back(),
      "[CatalogStore] syncCatalog: empty or failed fetch for Popular movies — skipping reconcile to avoid data loss");
}

TEST(CatalogSync, AFailingCatalogWaitsThirtySecondsDoublingToHalfAnHour) {
  Following f;
  const auto id = f.follow();
  f.addon.setCatalog("movie", "top", std::nullopt, rows(0, 20));
  f.addon.failingSkips = {0};
  f.clock.manual.advance(CatalogSync::kFirstTick);
  f.tick();
  EXPECT_EQ(f.sync.backoff().at(id).failures, 1);
  const size_t asked = f.addon.catalogRequests().size();
  f.clock.manual.advance(29);
  f.tick();
  EXPECT_EQ(f.addon.catalogRequests().size(), asked);
  f.clock.manual.advance(1);
  f.tick();
  EXPECT_EQ(f.sync.backoff().at(id).failures, 2);
  EXPECT_EQ(CatalogSync::backoffSeconds(5), 480);
  EXPECT_EQ(CatalogSync::backoffSeconds(8), 1800);
  f.addon.failingSkips.clear();
  f.clock.manual.advance(60);
  f.tick();
  EXPECT_FALSE(f.sync.backoff().count(id)) << "a success forgets the failures";
}

TEST(CatalogSync, TheWatchlistBelievesOnlyASecondEmptyAnswer) {
  Following f;
  const std::string id = f.store.collections().front().id;  // the system Watchlist collection
  ASSERT_EQ(f.store.collections().front().source.kind, CollectionSource::Kind::watchlist);
  EXPECT_FALSE(f.run(f.sync.syncWatchlist(id))) << "no Plex token";
  f.config.setToken("tok");
  const WatchlistItem dune{"tt1160419", "Dune", "2021", "https://img/dune", "movie"};
  f.watchlist.answers = {std::vector<WatchlistItem>{dune}, std::string("Plex is down"), std::vector<WatchlistItem>{},
                         std::vector<WatchlistItem>{}};
  EXPECT_TRUE(f.run(f.sync.syncWatchlist(id)));
  EXPECT_EQ(f.get(id).itemImdbIds, std::vector<std::string>{"tt1160419"});
  EXPECT_EQ(f.store.meta("tt1160419")->posterURL, "https://img/dune");
  EXPECT_FALSE(f.run(f.sync.syncWatchlist(id)));
  EXPECT_EQ(f.lines.back(), "[CatalogStore] watchlist fetch failed — keeping existing membership: Plex is down");
  EXPECT_TRUE(f.run(f.sync.syncWatchlist(id)));
  EXPECT_EQ(f.get(id).itemImdbIds.size(), 1u) << "one empty answer is not believed";
  EXPECT_TRUE(f.run(f.sync.syncWatchlist(id)));
  EXPECT_TRUE(f.get(id).itemImdbIds.empty());

  UnavailableWatchlist standIn;
  EXPECT_FALSE(test::runTask(standIn.fetchWatchlist(10, {}, CancelToken::none()))) << "never an empty answer";
}

TEST(CatalogSync, AWeekOfTicksFetchesEverySixHoursAndChangesOnlyWhenTheListDoes) {
  Following f;
  f.addon.pageSize = 100;
  const auto id = f.follow(1990);  // fetches 2,000: twenty pages
  const Date start = f.clock.now();
  f.store.deferRefresh(start + CatalogSync::kFirstTick);
  for (Date t = 0; t <= 7 * 86400; t += CatalogSync::kTick) {
    f.clock.manual.advance(t == 0 ? 0 : CatalogSync::kTick);
    // The add-on's list moves on by 40 titles a day.
    if (static_cast<int64_t>(t) % 86400 == 0)
      f.addon.setCatalog("movie", "top", std::nullopt, rows(static_cast<int>(t / 86400) * 40, 2000));
    f.tick();
  }
  EXPECT_EQ(f.addon.catalogRequests().size(), 28u * 20) << "every six hours, from the first tick on";
  // The last fetch at 120 s + 27 × 6 h; the list last moved at the first fetch of day six.
  EXPECT_EQ(f.get(id).lastSyncedAt, start + 120 + 27 * 21600);
  EXPECT_EQ(f.get(id).lastChangedAt, start + 120 + 24 * 21600);
  auto held = f.get(id).itemImdbIds;
  std::sort(held.begin(), held.end());
  std::vector<std::string> expected;
  for (int n = 240; n < 240 + 1990; ++n) expected.push_back(tt(n));
  EXPECT_EQ(held, expected);
  f.store.waitForSaves();
  EXPECT_EQ(*catalogfile::decodeCollections(*readFile(f.home.file(catalogfile::kCollections))), f.store.collections());
}

TEST(CatalogSync, PostersOfTheFirstMembersComeFromPlexThenCinemeta) {
  Following f;
  test::FakeCinemeta cinemeta;
  Json show = cinemeta.metas.at("series/tt0903747");
  show["poster"] = "https://img/bb";
  cinemeta.setMeta("series", "tt0903747", show);
  struct OnePoster final : PlexPosterPort {
    QCoro::Task<std::map<std::string, std::string>> posters(std::vector<std::string>, CancelToken) override {
      co_return std::map<std::string, std::string>{{"tt6751668", "http://plex/photo/parasite"}};
    }
  } plex;
  CatalogSync sync(f.store, StremioCatalogClient(f.http, cinemeta.base()), f.watchlist, f.clock, &f.config, &plex);
  const auto id = f.follow();
  CatalogCollection c = f.get(id);
  c.itemImdbIds = {"tt0000001", "tt1375666", "tt0903747", "tt6751668", "tt0110357"};
  f.store.upsert(c);
  f.store.fillMeta({{.id = "tt0000001", .name = "Has one", .posterURL = "https://img/has"},
                    {.id = "tt0903747", .name = "Breaking Bad", .mediaType = "series"},
                    {.id = "tt6751668", .name = "Parasite"}});

  sync.prefetchPosters(id);
  EXPECT_TRUE(sync.prefetching(id));
  sync.prefetchPosters(id);  // one job per list
  ASSERT_TRUE(test::spinUntil([&] { return !sync.prefetching(id); }));
  EXPECT_EQ(f.store.meta("tt1375666")->posterURL, "https://images.metahub.space/poster/medium/tt1375666/img");
  EXPECT_EQ(f.store.meta("tt1375666")->name, "Inception") << "a record Cinemeta gave";
  EXPECT_EQ(f.store.meta("tt0903747")->posterURL, "https://img/bb") << "asked as a series";
  EXPECT_EQ(f.store.meta("tt6751668")->posterURL, "http://plex/photo/parasite") << "Plex first, Cinemeta not asked";
  EXPECT_EQ(f.store.meta("tt0110357"), nullptr) << "the fifth member waits for its card";
  std::vector<std::string> asked;
  for (const auto& r : cinemeta.requests()) asked.push_back(r.path.toStdString());
  EXPECT_EQ(asked, (std::vector<std::string>{"/meta/movie/tt1375666.json", "/meta/series/tt0903747.json"}));
}
