#include <gtest/gtest.h>

#include "catalog/CatalogStore.h"
#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::catalogfile;

namespace {

constexpr double kHour = 3600, kDay = 86400, kWeek = 604800;

CatalogMeta metaOf(const std::string& id, std::optional<std::string> mediaType = std::nullopt) {
  return {.id = id, .name = "Title " + id, .year = "2001", .mediaType = std::move(mediaType)};
}

std::vector<CatalogMeta> metas(const std::vector<std::string>& ids) {
  std::vector<CatalogMeta> out;
  for (const auto& id : ids) out.push_back(metaOf(id));
  return out;
}

LibraryTitle film(const std::string& id) { return {.name = "Film (2001) {imdb-" + id + "}.mkv"}; }

LibraryTitle episode(const std::string& series, int season, int number) {
  return {.name = episodeFileName("Show", "2001", series, season, number),
          .seriesImdbId = series,
          .season = season,
          .episode = number};
}

struct Fixture {
  test::TestHome home;
  ManualClock clock{700000000};  // 2023-03-08
  std::unique_ptr<CatalogStore> store = std::make_unique<CatalogStore>(home.path(), clock);
  int shrinks = 0;

  Fixture() {
    store->setOnPublishedMembershipShrunk([this] { ++shrinks; });
  }

  // A catalog collection with these members, saved in the store.
  std::string add(std::vector<std::string> items, int maxItems = 40, std::set<std::string> pins = {}) {
    const CatalogCollection c{.id = newCollectionId(),
                              .name = "List " + std::to_string(store->collections().size()),
                              .source = CollectionSource::stremioCatalog("https://addon", "movie", "top"),
                              .itemImdbIds = std::move(items),
                              .pinnedImdbIds = std::move(pins),
                              .maxItems = maxItems};
    store->upsert(c);
    return c.id;
  }
  const CatalogCollection& get(const std::string& id) const { return *store->collection(id); }
  const std::vector<std::string>& items(const std::string& id) const { return get(id).itemImdbIds; }
  std::string systemId(CollectionSource::Kind kind) const {
    for (const auto& c : store->collections())
      if (c.source.kind == kind) return c.id;
    return {};
  }
};

using Ids = std::vector<std::string>;

}  // namespace

TEST(CatalogMembership, ARefreshKeepsPinsAndStayingTitlesInPlaceAndAppendsNewOnes) {
  Fixture f;
  // tt2 is pinned and dropped by the catalog; tt1 and tt3 stay; tt9 is new.
  const auto id = f.add({"tt1", "tt2", "tt3", "tt4"}, 4, {"tt2"});
  EXPECT_EQ(f.store->reconcile(metas({"tt9", "tt3", "tt1", "tt3"}), f.get(id)), (Ids{"tt1", "tt2", "tt3", "tt9"}));
  // Room counts the pins: with two pins and room for one more only the first fresh id comes in.
  const auto two = f.add({"tt1", "tt2", "tt3"}, 3, {"tt1", "tt3"});
  EXPECT_EQ(f.store->reconcile(metas({"tt7", "tt8"}), f.get(two)), (Ids{"tt1", "tt3", "tt7"}));
  // A size below the pins leaves only the pins.
  const auto small = f.add({"tt1", "tt2", "tt3"}, 1, {"tt1", "tt3"});
  EXPECT_EQ(f.store->reconcile(metas({"tt2", "tt5"}), f.get(small)), (Ids{"tt1", "tt3"}));
}

TEST(CatalogMembership, CoolingIdsStayOutOfARefreshWhichFillsUpFromFurtherDown) {
  Fixture f;
  const auto id = f.add({"tt1"}, 3);
  f.store->markFailed("tt1");  // also leaves the list
  f.store->markFailed("tt2");
  EXPECT_TRUE(f.items(id).empty());
  EXPECT_EQ(f.store->reconcile(metas({"tt1", "tt2", "tt3", "tt4", "tt5", "tt6"}), f.get(id)),
            (Ids{"tt3", "tt4", "tt5"}));
  f.clock.advance(kHour);
  EXPECT_EQ(f.store->reconcile(metas({"tt1", "tt2", "tt3", "tt4"}), f.get(id)), (Ids{"tt1", "tt2", "tt3"}));
}

TEST(CatalogMembership, FailuresClimbTheCoolingLadderAndAResolveStartsItAgain) {
  Fixture f;
  auto coolsFor = [&](const std::string& id, double seconds) {
    f.clock.advance(seconds - 1);
    const bool before = f.store->isCooling(id);
    f.clock.advance(1);
    return before && !f.store->isCooling(id);
  };
  for (double wait : {kHour, 6 * kHour, kDay, kWeek, kWeek}) {
    f.store->markFailed("tt1");
    EXPECT_TRUE(coolsFor("tt1", wait)) << wait;
  }
  EXPECT_EQ(f.store->streamVetting().failCounts->at("tt1"), 5);

  f.store->markVetted("tt1");
  EXPECT_TRUE(f.store->isVetted("tt1") && !f.store->isCooling("tt1"));
  EXPECT_FALSE(f.store->streamVetting().failCounts->count("tt1"));
  f.store->markFailed("tt1");
  EXPECT_FALSE(f.store->isVetted("tt1"));
  EXPECT_TRUE(coolsFor("tt1", kHour));
}

TEST(CatalogMembership, AFailureTakesTheIdOffCatalogListsOnlyAndReportsAPublishedShrinkOnce) {
  Fixture f;
  const auto a = f.add({"tt1", "tt2"});
  const auto b = f.add({"tt2", "tt1"}, 40, {"tt1"});
  const auto hidden = f.add({"tt1"});
  const auto watchlist = f.systemId(CollectionSource::Kind::watchlist);
  f.store->addItems(metas({"tt1"}), watchlist);
  f.store->materialise(f.get(a));
  f.store->materialise(f.get(b));

  f.store->markFailed("tt1");
  EXPECT_TRUE(f.items(a) == Ids{"tt2"} && f.items(b) == Ids{"tt2"} && f.items(hidden).empty());
  EXPECT_TRUE(f.get(b).pinnedImdbIds.empty());
  EXPECT_EQ(f.get(a).lastChangedAt, f.clock.now());
  EXPECT_EQ(f.items(watchlist), Ids{"tt1"});
  EXPECT_EQ(f.shrinks, 1);

  // Only an unpublished list held it: nothing for Plex to clear.
  f.store->addItems(metas({"tt5"}), hidden);
  f.store->markFailed("tt5");
  EXPECT_EQ(f.shrinks, 1);
}

TEST(CatalogMembership, VettingIsPrunedToHeldIdsWithEpisodeKeysFollowingTheirSeries) {
  Fixture f;
  const auto id = f.add({"tt123", "tt5"});
  f.store->markVetted("tt123:1:2");
  f.store->markFailed("tt1234:1:2");  // another series that merely shares the prefix
  f.store->markSeriesComplete("tt123");
  f.store->markVetted("tt5");
  f.store->pruneVetting();
  EXPECT_TRUE(f.store->isVetted("tt123:1:2"));
  EXPECT_FALSE(f.store->streamVetting().failed.count("tt1234:1:2"));
  EXPECT_TRUE(f.store->isSeriesResting("tt123"));

  f.store->removeItem("tt123", id);
  f.store->pruneVetting();
  EXPECT_FALSE(f.store->isVetted("tt123:1:2"));
  EXPECT_FALSE(f.store->isSeriesResting("tt123"));
  EXPECT_TRUE(f.store->isVetted("tt5"));

  // What was pruned stays pruned after a reload.
  f.store->waitForSaves();
  f.store = std::make_unique<CatalogStore>(f.home.path(), f.clock);
  EXPECT_EQ(f.store->streamVetting().vetted.size(), 1u);
}

TEST(CatalogMembership, MaxItemsAndReplacedMembershipReportAShrinkOfAPublishedList) {
  Fixture f;
  const auto id = f.add({"tt1", "tt2", "tt3", "tt4", "tt5"}, 10, {"tt4"});
  f.store->materialise(f.get(id));

  f.store->setMaxItems(20, id);
  EXPECT_EQ(f.items(id).size(), 5u);
  EXPECT_EQ(f.shrinks, 0);
  EXPECT_FALSE(f.get(id).lastChangedAt);

  f.clock.advance(10);
  f.store->setMaxItems(3, id);
  EXPECT_EQ(f.items(id), (Ids{"tt1", "tt2", "tt4"}));
  EXPECT_EQ(f.get(id).lastChangedAt, f.clock.now());
  EXPECT_EQ(f.shrinks, 1);

  f.store->replaceMembership({"tt1", "tt1", "tt2", "tt4", "tt6"}, id);
  EXPECT_EQ(f.items(id), (Ids{"tt1", "tt2", "tt4"}));
  EXPECT_EQ(f.shrinks, 1);
  f.store->replaceMembership({"tt6", "tt1"}, id);
  EXPECT_EQ(f.items(id), (Ids{"tt6", "tt1"}));
  EXPECT_EQ(f.shrinks, 2);

  EXPECT_EQ(f.store->addItems(metas({"tt1", "tt7", "tt7", "tt8"}), id), 2);
  EXPECT_EQ(f.items(id), (Ids{"tt6", "tt1", "tt7", "tt8"}));
  EXPECT_TRUE(f.store->meta("tt8"));
  EXPECT_EQ(f.store->addItems(metas({"tt1"}), id), 0);
}

TEST(CatalogMembership, ATitleInStagedListsStaysHiddenUntilEveryOneOfThemRevealedIt) {
  Fixture f;
  const auto a = f.add({"tt1", "tt2", "tt9"});
  const auto b = f.add({"tt1", "tt9"});
  EXPECT_FALSE(f.store->holdsBack(film("tt1")));  // nothing staged
  f.store->materialise(f.get(a));
  f.store->materialise(f.get(b));

  EXPECT_TRUE(f.store->holdsBack(film("tt1")));
  EXPECT_FALSE(f.store->holdsBack(film("tt3")));                         // in no list
  EXPECT_FALSE(f.store->holdsBack(LibraryTitle{.name = "No tag.mkv"}));  // no id
  f.store->noteRevealed({"tt1"}, a);
  EXPECT_TRUE(f.store->holdsBack(film("tt1")));
  f.store->noteRevealed({"tt1"}, b);
  EXPECT_FALSE(f.store->holdsBack(film("tt1")));

  // An episode is revealed by its own key or by its series.
  EXPECT_TRUE(f.store->holdsBack(episode("tt9", 1, 2)));
  f.store->noteRevealed({"tt9:1:2"}, a);
  f.store->noteRevealed({"tt9"}, b);
  EXPECT_FALSE(f.store->holdsBack(episode("tt9", 1, 2)));
  EXPECT_TRUE(f.store->holdsBack(episode("tt9", 1, 3)));

  // Once one list is finished, whatever it holds shows.
  EXPECT_TRUE(f.store->holdsBack(film("tt2")));
  f.store->finishStaging(a);
  EXPECT_FALSE(f.store->holdsBack(film("tt2")));
  EXPECT_FALSE(f.store->holdsBack(episode("tt9", 1, 3)));

  // A reveal only counts for a staged list, and an empty one records nothing.
  f.store->noteRevealed({"tt2"}, a);
  f.store->noteRevealed({}, b);
  EXPECT_FALSE(f.store->stagedRevealedIds().count(a));
  EXPECT_EQ(f.store->stagedRevealedIds().at(b), (std::set<std::string>{"tt1", "tt9"}));
}

TEST(CatalogMembership, PlexSeesPublishedCatalogListsWithWhatStagingRevealed) {
  Fixture f;
  const auto a = f.add({"tt1", "tt2", "tt3"});
  f.add({"tt4"});  // not published
  f.store->materialise(f.get(a));
  auto lists = f.store->plexGroupings();
  ASSERT_EQ(lists.size(), 1u);
  EXPECT_EQ(lists[0].name, f.get(a).name);
  EXPECT_FALSE(lists[0].members) << "staged with nothing revealed: left as it stands";
  f.store->noteRevealed({"tt3", "tt1"}, a);
  EXPECT_EQ(f.store->plexGroupings()[0].members, (std::vector<std::string>{"tt1", "tt3"}));
  f.store->finishStaging(a);
  f.store->setPlexRatingKey("42", a);
  lists = f.store->plexGroupings();
  EXPECT_EQ(lists[0].members, (std::vector<std::string>{"tt1", "tt2", "tt3"}));
  EXPECT_EQ(lists[0].plexRatingKey, "42");
}

TEST(CatalogMembership, WhatHoldsBackFollowsChangesOfMembersAndOfThePublishedSet) {
  Fixture f;
  const auto staged = f.add({"tt1"});
  const auto other = f.add({});
  f.store->materialise(f.get(staged));
  ASSERT_TRUE(f.store->holdsBack(film("tt1")));
  ASSERT_FALSE(f.store->holdsBack(film("tt2")));

  // A new member of a staged list is held back at once.
  f.store->addItems(metas({"tt2"}), staged);
  EXPECT_TRUE(f.store->holdsBack(film("tt2")));
  // A finished published list that takes the title shows it.
  f.store->addItems(metas({"tt1"}), other);
  EXPECT_TRUE(f.store->holdsBack(film("tt1")));  // not published yet
  f.store->materialise(f.get(other));
  f.store->finishStaging(other);
  EXPECT_FALSE(f.store->holdsBack(film("tt1")));
  // Leaving the staged list, or the list leaving Plex, lets a title show.
  f.store->removeItem("tt2", staged);
  EXPECT_FALSE(f.store->holdsBack(film("tt2")));
  f.store->removeItem("tt1", other);
  EXPECT_TRUE(f.store->holdsBack(film("tt1")));
  f.store->dematerialise(staged);
  EXPECT_FALSE(f.store->holdsBack(film("tt1")));
}

TEST(CatalogMembership, TheStartUpPassPublishesSystemListsWholeAndStagesTheOthers) {
  Fixture f;
  const auto library = f.systemId(CollectionSource::Kind::library);
  f.store->addItems(metas({"tt1"}), library);
  const auto filled = f.add({"tt2"});
  f.add({});  // an empty list isn't published, nor the Watchlist
  auto paused = f.get(filled);
  paused.resolvePaused = true;
  f.store->upsert(paused);

  test::runTask(f.store->materialiseExisting());
  EXPECT_EQ(f.store->materialisedIds(), (Ids{library, filled}));
  EXPECT_EQ(f.store->stagingIds(), std::set<std::string>{filled});
  EXPECT_EQ(f.store->delivery(library), (CollectionPlexDelivery{false, true}));
  EXPECT_FALSE(f.store->delivery(filled));
  EXPECT_FALSE(f.get(filled).resolvePaused);
  f.store->waitForSaves();
  const CatalogStore reloaded(f.home.path(), f.clock);
  EXPECT_TRUE(reloaded.materialisedIds() == (Ids{library, filled}) &&
              reloaded.stagingIds() == std::set<std::string>{filled});
}

TEST(CatalogMembership, UnfinishedIdsLeaveOutTitlesNotYetOutRestingSeriesAndWhatTheLibraryHas) {
  Fixture f;
  LibraryStore library(f.home.file("library.json"), f.clock);
  library.upsert(film("tt1"));
  const auto id = f.add({"tt1", "tt2", "tt3", "tt4", "tt5", "tt6"});
  const CatalogMeta future{.id = "tt3", .name = "Future", .year = "2030", .released = "2030-01-01T00:00:00.000Z"};
  f.store->fillMeta({future, metaOf("tt4", "series"), metaOf("tt5", "series"), metaOf("tt6")});
  f.store->markSeriesComplete("tt5");
  f.store->markOnlyInCinemas("tt6");
  EXPECT_TRUE(f.store->unfinishedIds(f.get(id), library).empty());  // not published

  f.store->materialise(f.get(id));
  EXPECT_TRUE(f.store->isHeldByRelease("tt3"));
  EXPECT_EQ(f.store->unfinishedIds(f.get(id), library), (Ids{"tt2", "tt4"}));
  EXPECT_EQ(f.store->resolvedCount(f.get(id), library), 1);

  f.clock.advance(kDay);  // the series rests no more; the cinema window is over
  EXPECT_EQ(f.store->unfinishedIds(f.get(id), library), (Ids{"tt2", "tt4", "tt5", "tt6"}));

  // A series only the library collection lists is fetched on demand, never here.
  const auto lib = f.systemId(CollectionSource::Kind::library);
  f.store->addItems({metaOf("tt7", "series")}, lib);
  f.store->libraryCollection();
  EXPECT_TRUE(f.store->unfinishedIds(f.get(lib), library).empty());
}

TEST(CatalogMembership, TheEnginesFilesJoinTheLibraryCollectionSortedWithRecordsMadeFromTheirNames) {
  Fixture f;
  LibraryStore library(f.home.file("library.json"), f.clock);
  const auto lib = f.systemId(CollectionSource::Kind::library);
  f.store->addItems(metas({"tt9"}), lib);
  f.store->fillMeta({metaOf("tt2")});
  f.store->importLibrary({"Film (2001) {imdb-tt2}.mkv", "Show (1999) {imdb-tt1}/Season 01/Show (1999) - s01e02.mkv",
                          "Odd (name) {imdb-tt5}.mkv", "No tag (2001).mkv", "Again (2001) {imdb-tt9}.mkv"},
                         library);
  EXPECT_EQ(f.items(lib), (Ids{"tt9", "tt1", "tt2", "tt5"}));
  EXPECT_TRUE(f.store->isMaterialised(lib));
  EXPECT_EQ(*f.store->meta("tt1"), (CatalogMeta{"tt1", "Show", "1999", {}, {}, "series", {}}));
  EXPECT_EQ(f.store->meta("tt2")->name, "Title tt2");  // a stored record stays
  EXPECT_EQ(f.store->meta("tt5")->name, "Odd (name)");
  EXPECT_EQ(f.store->meta("tt5")->year, "");
}
