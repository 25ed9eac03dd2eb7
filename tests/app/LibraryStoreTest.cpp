#include <gtest/gtest.h>

#include <filesystem>
#include <random>

#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/Json.h"
#include "platform/Log.h"
#include "platform/Regex.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

namespace {

LibraryTitle film(const std::string& name, const std::string& url = "http://cdn/x") {
  return test::sampleTitle(name, url);
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

TEST(LibraryStore, DuplicateIdsOnLoadKeepTheBestRecordAndRewriteTheFile) {
  Fixture f;
  // tt1: the one with a url wins although it is older. tt2: the newer wins.
  // tt3: a tie keeps the first. Episodes are keyed by series and number.
  f.write(R"([
    {"name":"One (2001) {imdb-tt1}.mkv","url":"","size":1,"source":"stremio","resolvedAt":900},
    {"name":"One again (2001) {imdb-tt1}.mkv","url":"http://a","size":1,"source":"stremio","resolvedAt":10},
    {"name":"Two (2002) {imdb-tt2}.mkv","url":"http://b","size":1,"source":"stremio","resolvedAt":10},
    {"name":"Two newer (2002) {imdb-tt2}.mkv","url":"http://c","size":1,"source":"stremio","resolvedAt":20},
    {"name":"Three (2003) {imdb-tt3}.mkv","url":"http://d","size":1,"source":"stremio","resolvedAt":30},
    {"name":"Three copy (2003) {imdb-tt3}.mp4","url":"http://e","size":1,"source":"stremio","resolvedAt":30},
    {"name":"Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e02.mkv","url":"http://f","size":1,"source":"stremio","resolvedAt":1},
    {"name":"Show (2010) {imdb-tt9}/Extra/Show (2010) - s01e02.mkv","url":"http://g","size":1,"source":"stremio","resolvedAt":2},
    {"name":"Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e03.mkv","url":"http://h","size":1,"source":"stremio","resolvedAt":1},
    {"name":"No id here.mkv","url":"http://i","size":1,"source":"stremio","resolvedAt":1},
    {"name":"No id here.mkv","url":"http://j","size":1,"source":"stremio","resolvedAt":1}
  ])");
  auto store = f.open();
  std::vector<std::string> names;
  for (const auto& t : store->titles()) names.push_back(t.name);
  EXPECT_EQ(names, (std::vector<std::string>{
                       "One again (2001) {imdb-tt1}.mkv",
                       "Two newer (2002) {imdb-tt2}.mkv",
                       "Three (2003) {imdb-tt3}.mkv",
                       "Show (2010) {imdb-tt9}/Extra/Show (2010) - s01e02.mkv",
                       "Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e03.mkv",
                       "No id here.mkv",
                       "No id here.mkv",
                   }));
  store->waitForSaves();
  const auto written = json::parse(f.file());
  ASSERT_TRUE(written && written->is_array());
  EXPECT_EQ(written->size(), 7u) << "the deduplicated list was written back";
  auto reloaded = f.open();
  EXPECT_EQ(reloaded->titles(), store->titles());
  EXPECT_EQ(reloaded->titleByImdb("tt2")->url, "http://c");
}

TEST(LibraryStore, BadFilesStartEmptyAreCopiedAsideAndAnnouncedOnce) {
  std::vector<std::string> lines;
  ScopedLogSink sink([&](std::string_view line) { lines.emplace_back(line); });
  for (const std::string& text : {
           std::string("[{\"name\":\"A (1) {imdb-tt1}.mkv\",\"url\":\"u\",\"size\":1,\"sou"),
           // One malformed record spoils the whole file.
           std::string(R"([{"name":"A (1) {imdb-tt1}.mkv","url":"u","size":1,"source":"s"},
                          {"name":"B (1) {imdb-tt2}.mkv","url":"u","size":"big","source":"s"}])"),
       }) {
    Fixture f;
    f.write(text);
    lines.clear();
    auto store = f.open();
    store->waitForSaves();
    EXPECT_EQ(store->size(), 0u) << text;
    EXPECT_EQ(f.file(), text) << "the file is kept until the next save";
    const std::string aside = f.path + ".unreadable-5000";
    EXPECT_EQ(readFile(aside).value_or("<none>"), text);
    store->upsert(film("Z (2000) {imdb-tt26}.mkv"));
    store->waitForSaves();
    EXPECT_EQ(readFile(aside).value_or("<none>"), text) << "the copy outlives the next save";
    EXPECT_EQ(lines, std::vector<std::string>{"[Vantory] library.json could not be read; kept it as "
                                              "library.json.unreadable-5000 and started with an empty library"});
  }
  // No file: leftovers of interrupted saves go, other files are the user's.
  Fixture missing;
  ASSERT_TRUE(writeFileAtomically(missing.home.file(".library.json.Ab12Cd"), "half a save"));
  ASSERT_TRUE(writeFileAtomically(missing.home.file(".library.json.keepme-not-ours"), "other"));
  auto store = missing.open();
  EXPECT_EQ(store->size(), 0u);
  EXPECT_FALSE(std::filesystem::exists(missing.home.file(".library.json.Ab12Cd")));
  EXPECT_TRUE(std::filesystem::exists(missing.home.file(".library.json.keepme-not-ours")));
  store->waitForSaves();
  EXPECT_FALSE(std::filesystem::exists(missing.path));
  store->upsert(film("A (2000) {imdb-tt1}.mkv"));
  store->waitForSaves();
  EXPECT_EQ(std::filesystem::status(missing.path).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

TEST(LibraryStore, EncodesTheExactKeysInOrderAndIgnoresUnknownKeys) {
  Fixture f;
  f.write(R"([{"extra":1,"name":"A (1999) {imdb-tt1}.mkv","url":"u","size":7,"source":"stremio","resolvedAt":1.5}])");
  auto store = f.open();
  ASSERT_EQ(store->size(), 1u);

  LibraryTitle t = test::sampleTitle("Film (1999) {imdb-tt0000001}.mkv", "http://cdn/a", 786297600.25);
  t.rdLink = "https://rd/l";
  t.resolveURL = "http://addon/r";
  t.rdFilename = "Film.1999.2160p.mkv";
  t.subtitlePath = "/subs/a.srt";
  t.subtitleLang = "en";
  t.subtitleLang2 = "fr";
  t.subtitleState = SubtitleState::synced;
  t.seriesImdbId = "tt5";
  t.season = 1;
  t.episode = 2;
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
      R"("subtitlePath":"/subs/a.srt","subtitleLang":"en","subtitleLang2":"fr","subtitleState":"synced",)"
      R"("resolvedAt":786297600.25,"seriesImdbId":"tt5","season":1,"episode":2,)"
      R"("altVersion":{"name":"Film (1999) {imdb-tt0000001} - 1080p.mkv","resolveURL":"http://addon/c",)"
      R"("size":1610612736,"resolvedAt":3},"mirrorURLs":["http://m1","http://m2"]}])");
  auto back = f.open();
  ASSERT_EQ(back->size(), 2u);
  EXPECT_EQ(back->at(1), t) << "every field round-trips";
}

TEST(LibraryStore, LoadFillsMissingDatesAndDropsInvalidCompanions) {
  Fixture f;
  f.write(R"([
    {"name":"A (1) {imdb-tt1}.mkv","url":"u","size":1,"source":"s","resolvedAt":4,"rdFilename":"A.2160p.mkv",
     "altVersion":{"name":"c1","resolveURL":"r1","size":1}},
    {"name":"B (1) {imdb-tt2}.mkv","url":"u","size":1,"source":"s","resolvedAt":4,"rdFilename":"B.1080p.mkv",
     "altVersion":{"name":"c2","resolveURL":"r2","size":1}},
    {"name":"C (1) {imdb-tt3}.mkv","url":"u","size":1,"source":"s","resolvedAt":4,"resolveURL":"same",
     "altVersion":{"name":"c3","resolveURL":"same","size":1}},
    {"name":"E (1) {imdb-tt5}.mkv","url":"u","size":1,"source":"s","rdFilename":"E.mkv",
     "altVersion":{"name":"c5","resolveURL":"r5","size":1}}
  ])");
  auto store = f.open();
  EXPECT_TRUE(store->titleByImdb("tt1")->altVersion) << "a 4K release keeps its companion";
  EXPECT_FALSE(store->titleByImdb("tt2")->altVersion) << "not 4K";
  EXPECT_FALSE(store->titleByImdb("tt3")->altVersion) << "same stream as the title";
  EXPECT_FALSE(store->titleByImdb("tt5")->altVersion) << "no resolution in the name";
  EXPECT_EQ(store->titleByImdb("tt5")->resolvedAt, 5000.0);
  store->waitForSaves();
  f.clock.advance(100);  // a reload that repaired again would say 5100
  EXPECT_EQ(f.open()->titleByImdb("tt5")->resolvedAt, 5000.0) << "the repaired list was saved";
}

TEST(LibraryStore, UpsertKeepsTheStoredNameAndCarriesSubtitlesOnlyForTheSameRelease) {
  Fixture f;
  auto store = f.open();
  auto first = film("Old Title (2000) {imdb-tt7}.mkv");
  first.rdFilename = "Rel.A.1080p.mkv";
  first.subtitlePath = "/s/a.srt";
  first.subtitleLang = "en";
  first.subtitleLang2 = "de";
  first.subtitleState = SubtitleState::automatic;
  store->upsert(first);
  store->upsert(film("Other (2001) {imdb-tt8}.mkv"));

  auto same = film("New Title (2000) {imdb-tt7}.mkv", "http://new");
  same.rdFilename = "Rel.A.1080p.mkv";
  store->upsert(same);
  ASSERT_EQ(store->size(), 2u);
  const auto* t = store->titleByImdb("tt7");
  EXPECT_EQ(t->name, "Old Title (2000) {imdb-tt7}.mkv");
  EXPECT_EQ(t->url, "http://new");
  EXPECT_EQ(t->subtitlePath, "/s/a.srt");
  EXPECT_EQ(t->subtitleLang2, "de");
  EXPECT_EQ(t->subtitleState, std::nullopt) << "only path and languages carry over";
  EXPECT_EQ(store->at(0).name, "Old Title (2000) {imdb-tt7}.mkv") << "replaced in place";

  auto other = film("Old Title (2000) {imdb-tt7}.mkv");
  other.rdFilename = "Rel.B.1080p.mkv";
  store->upsert(other);
  EXPECT_EQ(store->titleByImdb("tt7")->subtitlePath, std::nullopt) << "a different release drops it";

  auto withSub = film("Old Title (2000) {imdb-tt7}.mkv");
  withSub.rdFilename = "";
  withSub.subtitlePath = "/s/b.srt";
  store->upsert(withSub);
  auto bare = withSub;
  bare.subtitlePath.reset();
  store->upsert(bare);
  EXPECT_EQ(store->titleByImdb("tt7")->subtitlePath, std::nullopt) << "empty release names never match";

  auto withAlt = film("Z (2000) {imdb-tt9}.mkv");
  withAlt.rdFilename = "Z.720p.mkv";
  withAlt.altVersion = AltStreamVersion{"Z - 1080p.mkv", "r", 1};
  store->upsert(withAlt);
  EXPECT_FALSE(store->titleByImdb("tt9")->altVersion) << "an invalid companion is cleared on upsert too";

  // Titles without an id are found by name only.
  store->upsert(film("Loose file.mkv", "http://1"));
  store->upsert(film("Loose file.mkv", "http://2"));
  EXPECT_EQ(store->size(), 4u);
  EXPECT_EQ(store->titleNamed("Loose file.mkv")->url, "http://2");
  store->remove("nothing by that name");
  // The argument is the record's own name: it must outlive the removal.
  store->remove(store->titles()[0].name);
  ASSERT_EQ(store->size(), 3u);
  EXPECT_FALSE(store->titleByImdb("tt7"));
  EXPECT_TRUE(store->titleByImdb("tt8"));
  store->waitForSaves();
  EXPECT_EQ(f.open()->titles(), store->titles());
}

TEST(LibraryStore, EpisodeIndexesAndFileNames) {
  EXPECT_EQ(episodeKeyOf("Show (2010) {imdb-tt0000001}/Season 01/Show (2010) - s01e02.mkv"), "tt0000001:1:2");
  EXPECT_EQ(episodeKeyOf("Show {imdb-tt5}/Show - S10E20.mp4"), "tt5:10:20");
  EXPECT_EQ(seriesIdOf("tt1:2:3"), "tt1");
  for (const char* bad : {"tt1:2", "nm1:2:3", "tt1::3", "tt1:x:3"}) EXPECT_EQ(seriesIdOf(bad), std::nullopt) << bad;
  EXPECT_EQ(safeName("...  .Hidden "), "Hidden");
  EXPECT_EQ(filmFileName("Film", "1999", "tt1", "Film.1999.1080p.iso"), "Film (1999) {imdb-tt1}.mkv");
  EXPECT_EQ(companionFileName("Film", "1999", "tt1", "Film.1999.1080p.M2TS"), "Film (1999) {imdb-tt1} - 1080p.m2ts");
  EXPECT_EQ(episodeFileName("Show: Part/2", "2010", "tt9", 1, 2),
            "Show - Part-2 (2010) {imdb-tt9}/Season 01/Show - Part-2 (2010) - s01e02.mkv");

  Fixture f;
  auto store = f.open();
  auto ep = [](int s, int e, std::optional<std::string> series = std::nullopt) {
    auto t = film(episodeFileName("Show", "2010", "tt9", s, e));
    t.season = s;
    t.episode = e;
    t.seriesImdbId = series;
    return t;
  };
  store->upsert(ep(2, 1));
  store->upsert(ep(1, 10));
  store->upsert(ep(1, 2, "tt9"));
  auto single = film("Show (2010) {imdb-tt9}/Season 1/Show - s1e5.mkv");
  store->upsert(single);
  // The single-digit episode counts as a film of its series id.
  EXPECT_EQ(store->titleByImdb("tt9")->name, single.name);
  EXPECT_EQ(store->episodeIndexSize(), 3u);
  auto series = store->titlesBySeries("tt9");
  ASSERT_EQ(series.size(), 3u);
  EXPECT_EQ(series[0]->episode, 2);
  EXPECT_EQ(series[1]->episode, 10);
  EXPECT_EQ(series[2]->season, 2);
  EXPECT_EQ(store->titleByEpisodeKey("tt9:1:10")->episode, 10);
}

TEST(LibraryStore, ApplyVerifiedSizes) {
  Fixture f;
  auto store = f.open();
  auto a = film("A (1) {imdb-tt1}.mkv");
  a.size = 100;
  a.sizeVerified = std::nullopt;
  a.rdFilename = "A.2160p.mkv";
  a.altVersion = AltStreamVersion{"A (1) {imdb-tt1} - 1080p.mkv", "r", kPlaceholderSize};
  store->upsert(a);
  auto b = film("B (1) {imdb-tt2}.mkv");
  b.size = 200;
  store->upsert(b);

  EXPECT_FALSE(store->applyVerifiedSizes({{"B (1) {imdb-tt2}.mkv", 200}})) << "same size, already verified";
  EXPECT_FALSE(store->applyVerifiedSizes({{"B (1) {imdb-tt2}.mkv", 0}, {"B (1) {imdb-tt2}.mkv", -5}}));
  EXPECT_FALSE(store->applyVerifiedSizes({{"unknown", 5}}));
  EXPECT_TRUE(store->applyVerifiedSizes({{"A (1) {imdb-tt1}.mkv", 100}})) << "the same size still verifies";
  EXPECT_EQ(store->titleByImdb("tt1")->sizeVerified, true);
  EXPECT_EQ(store->titleByImdb("tt1")->altVersion->size, kPlaceholderSize);

  EXPECT_TRUE(store->applyVerifiedSizes({{"A (1) {imdb-tt1} - 1080p.mkv", 777}, {"B (1) {imdb-tt2}.mkv", 201}}));
  EXPECT_EQ(store->titleByImdb("tt1")->altVersion->size, 777);
  EXPECT_EQ(store->titleByImdb("tt1")->altVersion->sizeVerified, true);
  store->waitForSaves();
  EXPECT_EQ(f.open()->titleByImdb("tt2")->size, 201);
}

TEST(LibraryStore, NameScansAgreeWithTheIcuPatterns) {
  // The scans in imdbIdOf and episodeKeyOf must give what the patterns give: 7 fixed and 13 seeded names.
  const Regex imdb(R"((?<=\{imdb-)tt\d+(?=\}))");
  const Regex marker(R"([sS](\d{2})[eE](\d{2})(?=\.[^./]+$))");
  std::vector<std::string> names = {
      "{imdb-tt12x} {imdb-tt3}",   "{imdb-tt١٢}",       "{imdb-tt5}/x - s01e02.mkv\n", "{imdb-tt5}/s01e02.mkv/",
      "{imdb-tt5}/x - s01e0٢.mkv", "{imdb-tt5}/s01e02", "{imdb-tt5}/ss01e022.mkv",
  };
  std::mt19937 rng(7);
  const std::vector<std::string> parts = {"{imdb-", "tt", "1", "23", "}",   "/", ".", "s", "S",
                                          "e",      "E",  "0", "12", "mkv", "x", " ", "٣", "\xff"};
  for (int i = 0; i < 13; ++i) {
    std::string n;
    const int len = 1 + static_cast<int>(rng() % 14);
    for (int k = 0; k < len; ++k) n += parts[rng() % parts.size()];
    names.push_back(n);
  }
  for (const auto& n : names) {
    auto want = imdb.search(n);
    EXPECT_EQ(imdbIdOf(n), want ? std::optional<std::string>(want->text()) : std::nullopt) << n;
    if (!want) continue;
    const auto slash = n.find_last_of('/');
    const std::string last = slash == std::string::npos ? n : n.substr(slash + 1);
    std::optional<std::string> key;
    if (auto m = marker.search(last)) {
      auto digits = [](const std::string& s) { return s.find_first_not_of("0123456789") == std::string::npos; };
      if (digits(*m->group(1)) && digits(*m->group(2)))
        key = want->text() + ":" + std::to_string(std::stoi(*m->group(1))) + ":" +
              std::to_string(std::stoi(*m->group(2)));
    }
    EXPECT_EQ(episodeKeyOf(n), key) << n;
  }
}

TEST(LibraryStore, IndexesStayEqualToAFullRebuild) {
  Fixture f;
  auto store = f.open();
  std::mt19937 rng(11);
  for (int step = 0; step < 400; ++step) {
    const int id = static_cast<int>(rng() % 40);
    const int kind = static_cast<int>(rng() % 6);
    if (kind < 3) {
      auto t = film(episodeFileName("S" + std::to_string(id % 5), "2000", "tt" + std::to_string(id % 5),
                                    1 + static_cast<int>(rng() % 3), 1 + static_cast<int>(rng() % 4)));
      t.season = static_cast<int>(rng() % 3);
      t.episode = static_cast<int>(rng() % 4);
      if (rng() % 4 == 0) t.seriesImdbId = "tt" + std::to_string(100 + rng() % 3);
      store->upsert(t);
    } else if (kind < 5) {
      store->upsert(film("F" + std::to_string(rng() % 3) + " (1) {imdb-tt" + std::to_string(1000 + id) + "}.mkv"));
    } else if (store->size() > 0) {
      store->remove(store->at(rng() % store->size()).name);
    }
    ASSERT_TRUE(store->indexesMatchRebuild()) << "after step " << step;
  }
  store->waitForSaves();
}

TEST(LibraryStore, AStoreThatGoesHasFinishedItsSaves) {
  Fixture f;
  {
    auto store = f.open();
    for (int i = 0; i < 300; ++i) {
      std::string name = "F";
      name.append(std::to_string(i)).append(" (2000) {imdb-tt").append(std::to_string(i + 1)).append("}.mkv");
      store->upsert(film(name));
    }
  }  // no waitForSaves: the store's end waits for them
  const auto written = json::parse(f.file());
  ASSERT_TRUE(written && written->is_array());
  EXPECT_EQ(written->size(), 300u);
}
