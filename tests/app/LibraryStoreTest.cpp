#include <gtest/gtest.h>

#include <filesystem>

#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/Json.h"
#include "platform/Log.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

namespace {

LibraryTitle film(const std::string& name, const std::string& url = "http://cdn/x") {
  return test::sampleTitle(name, url);
}

LibraryTitle episode(const std::string& series, int season, int number) {
  auto t = film(episodeFileName("Show", "2010", series, season, number));
  t.season = season;
  t.episode = number;
  return t;
}

struct Fixture {
  test::TestHome home;
  ManualClock clock{5000};
  std::string path = home.file("library.json");
  std::unique_ptr<LibraryStore> open() { return std::make_unique<LibraryStore>(path, clock); }
  std::string file() { return readFile(path).value_or("<none>"); }
  void write(const std::string& text) { ASSERT_TRUE(writeFileAtomically(path, text)); }
};

}  // namespace

TEST(LibraryStore, LoadDropsDuplicatesAndInvalidCompanionsFillsDatesAndRewritesTheFile) {
  Fixture f;
  // tt1: a url beats age; tt2: newer wins; episodes key by series and number; tt4 and tt5 have companions.
  f.write(R"([
    {"name":"One (2001) {imdb-tt1}.mkv","url":"","size":1,"source":"stremio","resolvedAt":900},
    {"name":"One again (2001) {imdb-tt1}.mkv","url":"http://a","size":1,"source":"stremio","resolvedAt":10},
    {"name":"Two (2002) {imdb-tt2}.mkv","url":"http://b","size":1,"source":"stremio","resolvedAt":10},
    {"name":"Two newer (2002) {imdb-tt2}.mkv","url":"http://c","size":1,"source":"stremio","resolvedAt":20},
    {"name":"Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e02.mkv","url":"http://f","size":1,"source":"stremio","resolvedAt":1},
    {"name":"Show (2010) {imdb-tt9}/Extra/Show (2010) - s01e02.mkv","url":"http://g","size":1,"source":"stremio","resolvedAt":2},
    {"name":"Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e03.mkv","url":"http://h","size":1,"source":"stremio","resolvedAt":1},
    {"name":"No id here.mkv","url":"http://i","size":1,"source":"stremio","resolvedAt":1},
    {"name":"No id here.mkv","url":"http://j","size":1,"source":"stremio","resolvedAt":1},
    {"name":"A (1) {imdb-tt4}.mkv","url":"u","size":1,"source":"s","resolvedAt":4,"rdFilename":"A.2160p.mkv",
     "altVersion":{"name":"c1","resolveURL":"r1","size":1}},
    {"name":"C (1) {imdb-tt5}.mkv","url":"u","size":1,"source":"s","resolveURL":"same","rdFilename":"C.2160p.mkv",
     "altVersion":{"name":"c3","resolveURL":"same","size":1}},
    {"name":"E (1) {imdb-tt6}.mkv","url":"u","size":1,"source":"s","resolvedAt":4,"rdFilename":"E.mkv",
     "altVersion":{"name":"c5","resolveURL":"r5","size":1}}
  ])");
  auto store = f.open();
  std::vector<std::string> names;
  for (const auto& t : store->titles()) names.push_back(t.name);
  EXPECT_EQ(names, (std::vector<std::string>{"One again (2001) {imdb-tt1}.mkv", "Two newer (2002) {imdb-tt2}.mkv",
                                             "Show (2010) {imdb-tt9}/Extra/Show (2010) - s01e02.mkv",
                                             "Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e03.mkv",
                                             "No id here.mkv", "No id here.mkv", "A (1) {imdb-tt4}.mkv",
                                             "C (1) {imdb-tt5}.mkv", "E (1) {imdb-tt6}.mkv"}));
  EXPECT_TRUE(store->titleByImdb("tt4")->altVersion) << "a 4K release keeps its companion";
  EXPECT_FALSE(store->titleByImdb("tt5")->altVersion) << "same stream as the title";
  EXPECT_FALSE(store->titleByImdb("tt6")->altVersion) << "not a 4K name";
  EXPECT_EQ(store->titleByImdb("tt5")->resolvedAt, 5000.0);
  store->waitForSaves();
  EXPECT_EQ(json::parse(f.file()).value().size(), 9u) << "the repaired list was written back";
  f.clock.advance(100);  // a reload that repaired again would say 5100
  EXPECT_EQ(f.open()->titleByImdb("tt5")->resolvedAt, 5000.0);
}

TEST(LibraryStore, BadFilesStartEmptyAreCopiedAsideAndAnnouncedOnce) {
  std::vector<std::string> lines;
  ScopedLogSink sink([&](std::string_view line) { lines.emplace_back(line); });
  {
    const std::string text = R"([{"name":"A (1) {imdb-tt1}.mkv","url":"u","size":1,"source":"s"},
                          {"name":"B (1) {imdb-tt2}.mkv","url":"u","size":"big","source":"s"}])";
    Fixture f;
    f.write(text);
    auto store = f.open();
    store->waitForSaves();
    EXPECT_EQ(store->size(), 0u);
    EXPECT_EQ(f.file(), text) << "the file is kept until the next save";
    store->upsert(film("Z (2000) {imdb-tt26}.mkv"));
    store->waitForSaves();
    EXPECT_EQ(readFile(f.path + ".unreadable-5000").value_or("<none>"), text) << "the copy outlives the next save";
    EXPECT_EQ(lines, std::vector<std::string>{"[Vantory] library.json could not be read; kept it as "
                                              "library.json.unreadable-5000 and started with an empty library"});
  }
  // No file: leftovers of interrupted saves go, other files are the user's.
  Fixture missing;
  ASSERT_TRUE(writeFileAtomically(missing.home.file(".library.json.Ab12Cd"), "half a save"));
  ASSERT_TRUE(writeFileAtomically(missing.home.file(".library.json.keepme-not-ours"), "other"));
  auto store = missing.open();
  EXPECT_FALSE(std::filesystem::exists(missing.home.file(".library.json.Ab12Cd")));
  EXPECT_TRUE(std::filesystem::exists(missing.home.file(".library.json.keepme-not-ours")));
  store->upsert(film("A (2000) {imdb-tt1}.mkv"));
  store->waitForSaves();
  EXPECT_EQ(std::filesystem::status(missing.path).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(LibraryStore, EncodesTheExactKeysInOrderAndIgnoresUnknownKeys) {
  Fixture f;
  f.write(R"([{"extra":1,"name":"A (1999) {imdb-tt1}.mkv","url":"u","size":7,"source":"stremio","resolvedAt":1.5}])");
  auto store = f.open();
  LibraryTitle t = test::sampleTitle("Film (1999) {imdb-tt0000001}.mkv", "http://cdn/a", 786297600.25);
  t.rdLink = "https://rd/l";
  t.resolveURL = "http://addon/r";
  t.rdFilename = "Film.1999.2160p.mkv";
  t.subtitlePath = "/subs/a.srt";
  t.subtitleLang2 = "fr";
  t.subtitleState = SubtitleState::synced;
  t.altVersion = AltStreamVersion{"Film (1999) {imdb-tt0000001} - 1080p.mkv", "http://addon/c", kPlaceholderSize,
                                  std::nullopt, 3.0};
  t.mirrorURLs = std::vector<std::string>{"http://m1", "http://m2"};
  store->upsert(t);
  store->waitForSaves();
  EXPECT_EQ(
      f.file(),
      R"([{"name":"A (1999) {imdb-tt1}.mkv","url":"u","size":7,"source":"stremio","resolvedAt":1.5},)"
      R"({"name":"Film (1999) {imdb-tt0000001}.mkv","url":"http://cdn/a","size":1000,"sizeVerified":true,)"
      R"("rdLink":"https://rd/l","resolveURL":"http://addon/r","source":"stremio","rdFilename":"Film.1999.2160p.mkv",)"
      R"("subtitlePath":"/subs/a.srt","subtitleLang2":"fr","subtitleState":"synced",)"
      R"("resolvedAt":786297600.25,)"
      R"("altVersion":{"name":"Film (1999) {imdb-tt0000001} - 1080p.mkv","resolveURL":"http://addon/c",)"
      R"("size":1610612736,"resolvedAt":3},"mirrorURLs":["http://m1","http://m2"]}])");
  auto back = f.open();
  ASSERT_EQ(back->size(), 2u);
  EXPECT_EQ(back->at(1), t) << "every field round-trips";
}

TEST(LibraryStore, UpsertKeepsTheStoredNameAndCarriesSubtitlesOnlyForTheSameRelease) {
  Fixture f;
  auto store = f.open();
  auto first = film("Old Title (2000) {imdb-tt7}.mkv");
  first.rdFilename = "Rel.A.1080p.mkv";
  first.subtitlePath = "/s/a.srt";
  first.subtitleLang2 = "de";
  first.subtitleState = SubtitleState::automatic;
  store->upsert(first);
  store->upsert(film("Other (2001) {imdb-tt8}.mkv"));
  auto same = film("New Title (2000) {imdb-tt7}.mkv", "http://new");
  same.rdFilename = "Rel.A.1080p.mkv";
  store->upsert(same);
  const auto* t = store->titleByImdb("tt7");
  EXPECT_EQ(t->url, "http://new");
  EXPECT_EQ(t->subtitleLang2, "de");
  EXPECT_EQ(t->subtitleState, std::nullopt) << "only path and languages carry over";
  EXPECT_EQ(store->at(0).name, "Old Title (2000) {imdb-tt7}.mkv") << "the stored name, replaced in place";
  auto other = film("Old Title (2000) {imdb-tt7}.mkv");
  other.rdFilename = "Rel.B.1080p.mkv";
  store->upsert(other);
  EXPECT_EQ(store->titleByImdb("tt7")->subtitlePath, std::nullopt) << "a different release drops it";
  other.rdFilename = "";
  other.subtitlePath = "/s/b.srt";
  store->upsert(other);
  other.subtitlePath.reset();
  store->upsert(other);
  EXPECT_EQ(store->titleByImdb("tt7")->subtitlePath, std::nullopt) << "empty release names never match";
  // The argument is the record's own name: it must outlive the removal.
  store->remove(store->titles()[0].name);
  ASSERT_EQ(store->size(), 1u);
  EXPECT_FALSE(store->titleByImdb("tt7"));
  store->waitForSaves();
  EXPECT_EQ(f.open()->titles(), store->titles());
}

TEST(LibraryStore, EpisodeIndexesAndFileNames) {
  EXPECT_EQ(episodeKeyOf("Show (2010) {imdb-tt0000001}/Season 01/Show (2010) - s01e02.mkv"), "tt0000001:1:2");
  EXPECT_EQ(imdbIdOf("{imdb-tt12x} {imdb-tt3}"), "tt3");
  EXPECT_EQ(episodeKeyOf("{imdb-tt5}/x - s01e02.mkv\n"), "tt5:1:2");
  for (const char* n : {"{imdb-tt5}/x - s01e0٢.mkv", "{imdb-tt5}/s01e02.mkv/", "{imdb-tt5}/ss01e022.mkv"})
    EXPECT_EQ(episodeKeyOf(n), std::nullopt) << n;
  EXPECT_EQ(filmFileName("Film", "1999", "tt1", "Film.1999.1080p.iso"), "Film (1999) {imdb-tt1}.mkv");
  EXPECT_EQ(companionFileName("Film", "1999", "tt1", "Film.1999.1080p.M2TS"), "Film (1999) {imdb-tt1} - 1080p.m2ts");
  EXPECT_EQ(episodeFileName("Show: Part/2", "2010", "tt9", 1, 2),
            "Show - Part-2 (2010) {imdb-tt9}/Season 01/Show - Part-2 (2010) - s01e02.mkv");
  Fixture f;
  auto store = f.open();
  for (auto [s, e] : {std::pair{2, 1}, std::pair{1, 10}, std::pair{1, 2}}) store->upsert(episode("tt9", s, e));
  auto single = film("Show (2010) {imdb-tt9}/Season 1/Show - s1e5.mkv");
  store->upsert(single);
  EXPECT_EQ(store->titleByImdb("tt9")->name, single.name) << "a single-digit episode is a film of its series id";
  auto series = store->titlesBySeries("tt9");
  ASSERT_EQ(series.size(), 3u);
  EXPECT_EQ(series[2]->season, 2);
  EXPECT_EQ(store->titleByEpisodeKey("tt9:1:10")->episode, 10);
}

TEST(LibraryStore, ApplyVerifiedSizes) {
  Fixture f;
  auto store = f.open();
  auto a = film("A (1) {imdb-tt1}.mkv");
  a.sizeVerified.reset();
  a.rdFilename = "A.2160p.mkv";
  a.altVersion = AltStreamVersion{"A (1) {imdb-tt1} - 1080p.mkv", "r", kPlaceholderSize};
  store->upsert(a);
  EXPECT_FALSE(store->applyVerifiedSizes({{"A (1) {imdb-tt1}.mkv", -5}, {"unknown", 5}}));
  EXPECT_TRUE(store->applyVerifiedSizes({{"A (1) {imdb-tt1}.mkv", 1000}})) << "the same size still verifies";
  EXPECT_FALSE(store->applyVerifiedSizes({{"A (1) {imdb-tt1}.mkv", 1000}})) << "already verified";
  EXPECT_EQ(store->titleByImdb("tt1")->altVersion->size, kPlaceholderSize);
  EXPECT_TRUE(store->applyVerifiedSizes({{"A (1) {imdb-tt1} - 1080p.mkv", 777}}));
  store->waitForSaves();
  EXPECT_EQ(f.open()->titleByImdb("tt1")->altVersion->size, 777);
}

TEST(LibraryStore, AStoreThatGoesHasFinishedItsSaves) {
  Fixture f;
  {
    auto store = f.open();
    for (int i = 0; i < 300; ++i) store->upsert(film("F (2000) {imdb-tt" + std::to_string(i + 1) + "}.mkv"));
  }  // no waitForSaves: the store's end waits for them
  EXPECT_EQ(json::parse(f.file()).value().size(), 300u);
}

TEST(LibraryStore, ReplacementsKeepTheIndexesARebuildWouldMake) {
  Fixture f;
  auto store = f.open();
  auto filmNamed = [](int i) {
    return "F" + std::to_string(i) + " (2000) {imdb-tt" + std::to_string(100000 + i) + "}.mkv";
  };
  // More titles than one chunk of the list holds; the series come last, tt2's in the order e3, e1.
  for (int i = 0; i < 1500; ++i) store->upsert(film(filmNamed(i)));
  for (int e = 1; e <= 4; ++e) store->upsert(episode("tt1", 1, e));
  store->upsert(episode("tt2", 1, 3));
  store->upsert(episode("tt2", 1, 1));
  auto seriesNames = [&](const std::string& id) {
    std::vector<std::string> names;
    for (const auto* t : store->titlesBySeries(id)) names.push_back(t->name.substr(t->name.size() - 12));
    return names;
  };
  ASSERT_EQ(seriesNames("tt2"), (std::vector<std::string>{"- s01e01.mkv", "- s01e03.mkv"}));

  auto link = film(filmNamed(700), "http://cdn/new");
  store->upsert(link);
  EXPECT_EQ(store->at(700).url, "http://cdn/new");
  auto renamed = film("Another name (2000) {imdb-tt100005}.mkv", "http://cdn/by-id");
  store->upsert(renamed);
  EXPECT_EQ(store->at(5).name, filmNamed(5)) << "found by its id, kept its name";
  EXPECT_EQ(store->at(5).url, "http://cdn/by-id");
  EXPECT_EQ(store->size(), 1506u);
  EXPECT_TRUE(store->indexesMatchRebuild());

  auto later = episode("tt1", 1, 2);
  later.season = 2;
  later.episode = 1;
  store->upsert(later);
  EXPECT_EQ(seriesNames("tt1"),
            (std::vector<std::string>{"- s01e01.mkv", "- s01e03.mkv", "- s01e04.mkv", "- s01e02.mkv"}));
  EXPECT_TRUE(store->indexesMatchRebuild());

  // A tie keeps list order, whatever order the series held before.
  auto tie = episode("tt2", 1, 3);
  tie.episode = 1;
  store->upsert(tie);
  EXPECT_EQ(seriesNames("tt2"), (std::vector<std::string>{"- s01e03.mkv", "- s01e01.mkv"}));
  EXPECT_TRUE(store->indexesMatchRebuild());

  auto moved = episode("tt2", 1, 1);
  moved.seriesImdbId = "tt3";
  store->upsert(moved);
  EXPECT_EQ(seriesNames("tt2"), (std::vector<std::string>{"- s01e03.mkv"}));
  EXPECT_EQ(seriesNames("tt3"), (std::vector<std::string>{"- s01e01.mkv"}));
  EXPECT_TRUE(store->indexesMatchRebuild());

  EXPECT_TRUE(store->applyVerifiedSizes({{filmNamed(1200), 5}, {episode("tt1", 1, 4).name, 6}}));
  EXPECT_EQ(store->titleByEpisodeKey("tt1:1:4")->size, 6);
  EXPECT_TRUE(store->indexesMatchRebuild());

  store->waitForSaves();
  auto back = f.open();
  EXPECT_EQ(back->titles(), store->titles());
  EXPECT_EQ(back->titlesBySeries("tt2").size(), 1u);
  EXPECT_TRUE(back->indexesMatchRebuild());
}
