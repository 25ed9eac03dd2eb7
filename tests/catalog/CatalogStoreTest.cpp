#include <gtest/gtest.h>

#include <filesystem>

#include "catalog/CatalogStore.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;
using namespace vt::catalogfile;

namespace {

CatalogCollection collectionOf(std::string name, CollectionSource source, std::vector<std::string> items = {}) {
  return {
      .id = newCollectionId(), .name = std::move(name), .source = std::move(source), .itemImdbIds = std::move(items)};
}

CollectionSource catalogSource() { return CollectionSource::stremioCatalog("https://addon", "movie", "top"); }

std::vector<std::string> ids(const std::string& prefix, int count) {
  std::vector<std::string> out;
  for (int i = 0; i < count; ++i) out.push_back(prefix + std::to_string(i));
  return out;
}

CatalogMeta metaOf(std::string id, std::string name, std::string year) {
  return {.id = std::move(id), .name = std::move(name), .year = std::move(year)};
}

const std::vector<const char*> kAllFiles = {kCollections,     kMeta,         kMaterialised, kOwnedGroupings, kStaging,
                                            kStagingRevealed, kStreamVetting};

struct Fixture {
  test::TestHome home;
  ManualClock clock{700000000};  // 2023-03-08T20:26:40Z
  std::vector<std::string> lines;
  ScopedLogSink sink{[this](std::string_view line) { lines.emplace_back(line); }};

  std::string path(const char* name) const { return home.file(name); }
  void write(const char* name, const std::string& text) { ASSERT_TRUE(writeFileAtomically(path(name), text)); }
  void write(const std::vector<CatalogCollection>& cs) { write(kCollections, encodeCollections(cs)); }
  std::string file(const char* name) const { return readFile(path(name)).value_or("<none>"); }
  std::unique_ptr<CatalogStore> open(CatalogStore::Options options = {}) {
    return std::make_unique<CatalogStore>(home.path(), clock, nullptr, options);
  }
  std::set<std::string> fileNames() const {
    std::set<std::string> out;
    for (const auto& e : std::filesystem::directory_iterator(home.path())) out.insert(e.path().filename().string());
    return out;
  }
};

std::vector<std::string> names(const CatalogStore& store) {
  std::vector<std::string> out;
  for (const auto& c : store.collections()) out.push_back(c.name);
  return out;
}

}  // namespace

TEST(CatalogStore, AStoreReadsAndRewritesItsFilesByteForByte) {
  Fixture f;
  auto watchlist = collectionOf("Plex Watchlist", CollectionSource::watchlist(), {"tt1"});
  auto catalog = collectionOf("Popular movies", catalogSource(), {"tt2", "tt3"});
  catalog.pinnedImdbIds = {"tt3"};
  catalog.lastSyncedAt = 700000000.5;
  catalog.plexRatingKey = "12";
  auto library = collectionOf("All titles", CollectionSource::library(), {"tt4"});
  f.write({watchlist, catalog, library});
  f.write(kMeta,
          encodeMetas({{"tt2", {.id = "tt2", .name = "Two", .year = "2002", .posterURL = "https://p/2.jpg"}},
                       {"tt3", {.id = "tt3", .name = "Three", .year = "2003", .onlyInCinemasAt = 699999000.25}}}));
  f.write(kMaterialised, encodeUuidList({library.id, catalog.id}));
  f.write(kOwnedGroupings, encodeTextSet({"Popular movies"}));
  f.write(kStaging, encodeUuidSet({catalog.id}));
  f.write(kStagingRevealed, encodeRevealed({{catalog.id, {"tt2"}}}));
  f.write(kStreamVetting, R"({"vetted":{"tt2":700000000},"failed":{"tt3":699990000},"failCounts":{"tt3":1}})");
  std::map<std::string, std::string> before;
  for (const char* name : kAllFiles) before[name] = f.file(name);

  auto store = f.open();
  EXPECT_TRUE(f.lines.empty()) << f.lines.front();
  EXPECT_EQ(store->collections(), (std::vector<CatalogCollection>{watchlist, catalog, library}));
  EXPECT_EQ(store->wantedIds(), (std::set<std::string>{"tt2", "tt3", "tt4"}));

  // Every file again, each through its own path of saving.
  for (const char* name : kAllFiles) std::filesystem::remove(f.path(name));
  store->upsert(store->collections()[1]);
  store->mergeMeta({store->metaCache().at("tt2")});
  store->addOwnedGrouping("x");
  store->removeOwnedGrouping("x");
  store->waitForSaves();
  EXPECT_EQ(f.file(kCollections), before[kCollections]);
  EXPECT_EQ(f.file(kOwnedGroupings), before[kOwnedGroupings]);
  EXPECT_EQ(f.file(kMeta), "<none>") << "metadata waits for the debounce";
  f.clock.advance(0.3);
  store->waitForSaves();
  EXPECT_EQ(f.file(kMeta), before[kMeta]);
}

TEST(CatalogStore, ACorruptCollectionsFileIsKeptAsideAndTheSystemCollectionsStart) {
  Fixture f;
  f.write(kCollections, R"([{"id":"not a uuid"}])");
  f.write(kMaterialised, "{bad");
  f.write(kStreamVetting, R"({"vetted":[]})");
  f.write(kOwnedGroupings, "nonsense");

  // A look without writing: the same lines, nothing moved or written.
  auto look = f.open({.readOnly = true});
  EXPECT_EQ(names(*look), (std::vector<std::string>{"Plex Watchlist", "All titles"}));
  look.reset();
  EXPECT_EQ(f.fileNames(), (std::set<std::string>{kCollections, kMaterialised, kOwnedGroupings, kStreamVetting}));
  f.lines.clear();

  auto store = f.open();
  store->waitForSaves();
  ASSERT_EQ(names(*store), (std::vector<std::string>{"Plex Watchlist", "All titles"}));
  EXPECT_TRUE(store->materialisedIds().empty());

  ASSERT_EQ(f.lines.size(), 5u);
  EXPECT_EQ(f.lines[0], "[CatalogStore] Failed to decode collections.json: \"id\" is not a UUID: \"not a uuid\"");
  EXPECT_EQ(f.lines[1],
            "[store] collections.json couldn't be read; kept as collections.json.unreadable-2023-03-08T20-26-40Z");
  EXPECT_TRUE(f.lines[2].starts_with("[CatalogStore] Failed to decode materialised.json: ")) << f.lines[2];
  EXPECT_EQ(f.lines[3],
            "[store] materialised.json couldn't be read; kept as materialised.json.unreadable-2023-03-08T20-26-40Z");
  EXPECT_EQ(f.lines[4], "[CatalogStore] Failed to decode stream-vetting.json: \"vetted\" is not an object");

  // The bad files survive; the new collections file holds the two system ones.
  EXPECT_EQ(f.file("collections.json.unreadable-2023-03-08T20-26-40Z"), R"([{"id":"not a uuid"}])");
  EXPECT_EQ(f.file("materialised.json.unreadable-2023-03-08T20-26-40Z"), "{bad");
  EXPECT_EQ(f.file(kStreamVetting), R"({"vetted":[]})") << "left in place for its next save to replace";
  EXPECT_EQ(*decodeCollections(f.file(kCollections)), store->collections());

  // Lists that didn't read don't take the memory of what resolved with them.
  store->upsert(collectionOf("Popular", catalogSource(), {"tt9"}));
  store->markVetted("tt9");
  store->waitForSaves();
  const std::string vetting = f.file(kStreamVetting);
  store.reset();
  f.write(kCollections, "[{");
  auto again = f.open();
  again->waitForSaves();
  EXPECT_TRUE(again->streamVetting().vetted.count("tt9"));
  EXPECT_EQ(f.file(kStreamVetting), vetting);
}

TEST(CatalogStore, UniqueNamesAreCutToTwentyFiveCharactersAndNumbered) {
  std::vector<CatalogCollection> existing = {collectionOf("popular MOVIES", catalogSource())};
  EXPECT_EQ(CatalogStore::uniqueName("  Popular movies\n", existing), "Popular movies 2");
  EXPECT_EQ(CatalogStore::uniqueName("Top rated", existing), "Top rated");

  const std::string long25 = "Abcdefghijklmnopqrstuvwxy";  // 25 characters
  existing.push_back(collectionOf(long25, catalogSource()));
  EXPECT_EQ(CatalogStore::uniqueName(long25 + "z and more", existing), "Abcdefghijklmnopqrstuvw 2");
  existing.push_back(collectionOf("Abcdefghijklmnopqrstuvw 2", catalogSource()));
  EXPECT_EQ(CatalogStore::uniqueName(long25, existing), "Abcdefghijklmnopqrstuvw 3");

  // Characters are what a reader counts: "é" written as e and a combining
  // accent is one, a flag of two code points is one.
  const auto accented = [](int n) {
    std::string out;
    while (n-- > 0) out += "e\u0301";
    return out;
  };
  EXPECT_EQ(CatalogStore::uniqueName(accented(30), {}), accented(25));
  const std::string flags = "\U0001F1EB\U0001F1F7\U0001F1EB\U0001F1F7";
  EXPECT_EQ(CatalogStore::uniqueName(flags, {collectionOf(flags, catalogSource())}), flags + " 2");
  EXPECT_EQ(CatalogStore::uniqueName("ÉTÉ", {collectionOf("été", catalogSource())}), "ÉTÉ 2");
}

TEST(CatalogStore, LoadDeduplicatesThenCapsCatalogsKeepingPins) {
  Fixture f;
  auto capped = collectionOf("Big list", catalogSource(), ids("tt1", 60));
  capped.pinnedImdbIds = {"tt15", "tt150", "tt159", "tt9999"};  // three present, one gone from the list
  auto repeated = collectionOf("Repeats", catalogSource(), {"tt1", "tt2", "tt1", "tt3", "tt2"});
  auto watchlist = collectionOf("Plex Watchlist", CollectionSource::watchlist(), ids("tt2", 50));
  auto overPinned = collectionOf("Pinned", catalogSource(), {"a", "b", "c", "d", "e"});
  overPinned.maxItems = 2;
  overPinned.pinnedImdbIds = {"b", "d", "e"};
  f.write({watchlist, capped, repeated, overPinned, collectionOf("All titles", CollectionSource::library())});
  f.write(kMaterialised, encodeUuidList({repeated.id}));

  auto store = f.open();
  EXPECT_EQ(f.lines, (std::vector<std::string>{"[CatalogStore] deduped \"Repeats\": 5 → 3 item(s)",
                                               "[CatalogStore] capped \"Big list\" at 40: 60 → 40 item(s)",
                                               "[CatalogStore] capped \"Pinned\" at 2: 5 → 3 item(s)"}));

  // The three pins where they stand, and the first 37 others.
  auto expected = ids("tt1", 38);  // tt10..tt137, with the pin tt15 among them
  expected.insert(expected.end(), {"tt150", "tt159"});
  EXPECT_EQ(store->collection(capped.id)->itemImdbIds, expected);
  EXPECT_EQ(store->collection(repeated.id)->itemImdbIds, (std::vector<std::string>{"tt1", "tt2", "tt3"}));
  EXPECT_EQ(store->collection(watchlist.id)->itemImdbIds.size(), 50u) << "only catalogs are capped";
  EXPECT_EQ(store->collection(overPinned.id)->itemImdbIds, (std::vector<std::string>{"b", "d", "e"}))
      << "pins beyond the size leave no room for others";
  store->waitForSaves();
  EXPECT_EQ(*decodeCollections(f.file(kCollections)), store->collections());
}

TEST(CatalogStore, ManualCollectionsFoldIntoTheLibraryFromTheLastToTheFirst) {
  Fixture f;
  auto watchlist = collectionOf("My watchlist", CollectionSource::watchlist());
  auto first = collectionOf("First manual", CollectionSource::manual(), {"a1", "x", "L1"});
  auto library = collectionOf("Everything", CollectionSource::library(), {"L1"});
  auto second = collectionOf("Second manual", CollectionSource::manual(), {"b1", "x"});
  auto kept = collectionOf("Popular movies", catalogSource(), {"c1"});
  f.write({watchlist, first, library, second, kept});
  f.write(kMaterialised, encodeUuidList({first.id, kept.id}));
  f.write(kStaging, encodeUuidSet({first.id, kept.id}));
  f.write(kStagingRevealed, encodeRevealed({{first.id, {"a1"}}}));

  auto store = f.open();
  EXPECT_EQ(names(*store), (std::vector<std::string>{"Plex Watchlist", "All titles", "Popular movies"}));
  EXPECT_EQ(store->collection(library.id)->itemImdbIds, (std::vector<std::string>{"L1", "b1", "x", "a1"}));
  EXPECT_EQ(store->retiredPlexGroupings(), (std::vector<std::string>{"Second manual", "First manual"}));
  EXPECT_EQ(store->materialisedIds(), (std::vector<std::string>{kept.id, library.id}))
      << "the library is published because a folded list was";
  store->takeRetiredPlexGroupings();
  EXPECT_TRUE(store->takeRetiredPlexGroupings().empty()) << "handed out once";

  store->waitForSaves();
  EXPECT_EQ(f.file(kMaterialised), encodeUuidList({kept.id, library.id}));
  EXPECT_EQ(f.file(kStaging) + f.file(kStagingRevealed), encodeUuidSet({kept.id}) + "[]");
  EXPECT_EQ(*decodeCollections(f.file(kCollections)), store->collections());

  // Without a library collection there is nothing to fold into at first; the
  // one that the load adds takes them in.
  Fixture g;
  g.write({collectionOf("Solo", CollectionSource::manual(), {"s1"})});
  auto other = g.open();
  EXPECT_EQ(names(*other), (std::vector<std::string>{"Plex Watchlist", "All titles"}));
  EXPECT_EQ(other->collections()[1].itemImdbIds, (std::vector<std::string>{"s1"}));
}

TEST(CatalogStore, LoadFiltersStagingAndPrunesVettingToCurrentIds) {
  Fixture f;
  auto c = collectionOf("Popular movies", catalogSource(), {"tt1", "tt2"});
  f.write({c});
  const std::string gone = newCollectionId();
  f.write(kStaging, encodeUuidSet({c.id, gone}));
  f.write(kStagingRevealed, encodeRevealed({{c.id, {"tt1"}}, {gone, {"tt5"}}}));
  f.write(
      kStreamVetting,
      R"({"vetted":{"tt1":1,"tt1:2:3":2,"tt7":3,"tt7:1:1":4},"failed":{"tt2":5,"tt8":6},"failCounts":{"tt8":3},"seriesComplete":{"tt9":7}})");
  auto store = f.open();
  EXPECT_EQ(store->stagingIds(), (std::set<std::string>{c.id}));
  EXPECT_EQ(store->stagedRevealedIds(), (RevealedIds{{c.id, {"tt1"}}}));
  store->waitForSaves();
  EXPECT_EQ(f.file(kStreamVetting),
            R"({"vetted":{"tt1":1,"tt1:2:3":2},"failed":{"tt2":5},"failCounts":{},"seriesComplete":{}})");
}

TEST(CatalogStore, MergeMetaTakesTheIncomingRecordFillMetaKeepsTheStoredOne) {
  Fixture f;
  auto store = f.open();
  int changes = 0;
  QObject::connect(store.get(), &CatalogStore::changed, [&] { ++changes; });

  CatalogMeta stored{"tt1", "Old name", "1999", "https://p/old.jpg", "", "movie", {}};
  const CatalogMeta incoming{"tt1", "New name", "2000", "https://p/new.jpg", "2000-01-01", {}, {}};
  store->fillMeta({stored});
  store->fillMeta({incoming});
  stored.released = "2000-01-01";  // an empty text takes the incoming one
  EXPECT_EQ(*store->meta("tt1"), stored);
  EXPECT_EQ(changes, 2);
  store->fillMeta({incoming});
  EXPECT_EQ(changes, 2) << "nothing new, no change";

  CatalogMeta fresh = metaOf("tt1", "Newest name", "2001");  // no poster, release or type
  store->mergeMeta({fresh});
  EXPECT_EQ(*store->meta("tt1"),
            (CatalogMeta{"tt1", "Newest name", "2001", "https://p/old.jpg", "2000-01-01", "movie", {}}));
  fresh.posterURL = "https://p/newest.jpg";
  store->mergeMeta({fresh});
  EXPECT_EQ(store->meta("tt1")->posterURL, "https://p/newest.jpg");

  // All of it reaches the file once, 0.3 s after the last request.
  f.clock.advance(0.29);
  store->waitForSaves();
  EXPECT_EQ(f.file(kMeta), "<none>");
  f.clock.advance(0.01);
  store->waitForSaves();
  EXPECT_EQ(f.file(kMeta), encodeMetas(store->metaCache()));
  EXPECT_EQ(f.clock.pendingTimers(), 0u);

  // A change in the last moments before the store goes still reaches the file.
  store->fillMeta({metaOf("tt2", "Late", "2002")});
  const std::string late = encodeMetas(store->metaCache());
  store.reset();
  EXPECT_EQ(f.file(kMeta), late);
}

TEST(CatalogStore, DeletingAListTakesItOutEverywhereButSparesTheSystemCollections) {
  Fixture f;
  auto a = collectionOf("A", catalogSource(), {"tt1", "tt2"});
  auto b = collectionOf("B", catalogSource(), {"tt2"});
  f.write({a, b});
  f.write(kMaterialised, encodeUuidList({a.id, b.id}));
  f.write(kStaging, encodeUuidSet({a.id}));
  f.write(kStagingRevealed, encodeRevealed({{a.id, {"tt1"}}}));
  f.write(kMeta, encodeMetas({{"tt1", metaOf("tt1", "One", "1")}, {"tt2", metaOf("tt2", "Two", "2")}}));
  f.write(kStreamVetting, R"({"vetted":{"tt1":1,"tt2":2},"failed":{}})");
  auto store = f.open();
  for (const auto& system : std::vector<CatalogCollection>(store->collections()))
    if (system.source.kind != CollectionSource::Kind::stremioCatalog) store->deleteCollection(system.id);
  EXPECT_EQ(store->collections().size(), 4u);

  store->deleteCollection(a.id);
  EXPECT_EQ(names(*store), (std::vector<std::string>{"Plex Watchlist", "B", "All titles"}));
  EXPECT_TRUE(store->stagingIds().empty() && store->stagedRevealedIds().empty());
  EXPECT_EQ(store->wantedIds(), (std::set<std::string>{"tt2"}));
  f.clock.advance(0.3);
  store->waitForSaves();
  EXPECT_EQ(f.file(kStreamVetting), R"({"vetted":{"tt2":2},"failed":{}})");
  EXPECT_EQ(f.file(kMaterialised), encodeUuidList({b.id}));
  EXPECT_EQ(f.file(kMeta), encodeMetas({{"tt2", metaOf("tt2", "Two", "2")}}));

  // The library collection is published on request, as fully delivered.
  const auto library = store->libraryCollection();
  ASSERT_TRUE(library);
  EXPECT_TRUE(store->isMaterialised(library->id));
  EXPECT_EQ(store->delivery(library->id), (CollectionPlexDelivery{false, true}));
  EXPECT_EQ(store->publishedLists().size(), 1u);
}
