#include <gtest/gtest.h>

#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "engine/EngineInstancePaths.h"
#include "engine/EngineStatusClient.h"
#include "engine/Manifest.h"
#include "platform/Clock.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

namespace {

const auto title = test::sampleTitle;

struct SmallLibrary {
  test::TestHome home;
  ManualClock clock;
  LibraryStore store{home.file("library.json"), clock};
  SmallLibrary() {
    // 2020-01-01T00:00:00.9Z: mtime truncates to 1577836800.
    const Date at = dateFromUnixSeconds(1577836800.9);
    auto film = title("Film (1999) {imdb-tt1}.mkv", "https://cdn/film", at);
    film.rdLink = "https://rd/d/1";
    film.resolveURL = "https://addon/r/1";
    film.mirrorURLs = std::vector<std::string>{"https://addon/m/1", "https://addon/m/2"};
    store.upsert(film);

    auto uhd = title("Big (2020) {imdb-tt2}.mkv", "https://cdn/big", at);
    uhd.rdFilename = "Big.2020.2160p.WEB-DL.mkv";
    uhd.resolveURL = "https://addon/r/2";
    uhd.altVersion = AltStreamVersion{"Big (2020) {imdb-tt2} - 1080p.mkv", "https://addon/r/2c", kPlaceholderSize, true,
                                      std::nullopt};
    uhd.subtitlePath = "/subs/big.es.srt";
    uhd.subtitleLang = "es";
    store.upsert(uhd);

    auto pending = title("Pending (2001) {imdb-tt3}.mkv", "", at);
    pending.subtitlePath = "/subs/p.srt";
    store.upsert(pending);

    auto ep = title(episodeFileName("Show", "2010", "tt9", 1, 2), "https://cdn/ep", at);
    ep.season = 1;
    ep.episode = 2;
    ep.sizeVerified = std::nullopt;
    ep.subtitlePath = "/subs/ep.srt";
    store.upsert(ep);
  }
};

}  // namespace

TEST(Manifest, ExactBytesForASmallLibrary) {
  SmallLibrary lib;
  auto entries = buildEntries(lib.store, nullptr, /*companionVersions=*/true);
  EXPECT_EQ(encodeEngineConfig(entries.movie),
            R"({"entries":[)"
            R"({"name":"Film (1999) {imdb-tt1}.mkv","url":"https://cdn/film","size":1000,"mtime":1577836800,)"
            R"("rd_link":"https://rd/d/1","resolve_url":"https://addon/r/1","local":"","hidden":false,)"
            R"("size_verified":true,"lazy":false,"alt_sources":[{"resolve_url":"https://addon/m/1"},)"
            R"({"resolve_url":"https://addon/m/2"}]},)"
            R"({"name":"Big (2020) {imdb-tt2}.mkv","url":"https://cdn/big","size":1000,"mtime":1577836800,)"
            R"("rd_link":"","resolve_url":"https://addon/r/2","local":"","hidden":false,"size_verified":true,)"
            R"("lazy":false},)"
            R"({"name":"Big (2020) {imdb-tt2} - 1080p.mkv","url":"","size":1610612736,"mtime":1,"rd_link":"",)"
            R"("resolve_url":"https://addon/r/2c","local":"","hidden":false,"size_verified":false,"lazy":true},)"
            R"({"name":"Big (2020) {imdb-tt2}.es.srt","url":"","size":0,"mtime":1577836800,"rd_link":"",)"
            R"("resolve_url":"","local":"/subs/big.es.srt","hidden":false,"size_verified":false,"lazy":false}]})");
  ASSERT_EQ(entries.tv.size(), 2u);
  EXPECT_EQ(entries.tv[1].name, "Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e02.en.srt");
  EXPECT_EQ(entries.tv[1].local, "/subs/ep.srt");

  // Without companion versions no companion entry is built; staging hides a
  // title with its companion and subtitle.
  auto plain = buildEntries(
      lib.store, [](const LibraryTitle& t) { return t.name.starts_with("Big"); }, false);
  ASSERT_EQ(plain.movie.size(), 3u);
  EXPECT_FALSE(plain.movie[0].hidden);
  EXPECT_TRUE(plain.movie[1].hidden);
  EXPECT_TRUE(plain.movie[2].hidden);
  EXPECT_EQ(plain.movie[2].name, "Big (2020) {imdb-tt2}.es.srt");

  EXPECT_EQ(decodeEngineConfig(encodeEngineConfig(entries.movie)), entries.movie);
}

TEST(Manifest, FingerprintsFollowWhatTheyShouldAndNothingElse) {
  EngineEntry a;
  a.name = "A/b.mkv";
  a.url = "https://cdn/a";
  EngineEntry h;
  h.name = "H.mkv";
  h.url = "https://cdn/h";
  h.hidden = true;
  const std::vector<EngineEntry> base = {h, a};
  const auto before = fingerprints(base);
  EXPECT_EQ(fingerprintText({h, a}), fingerprintText({a, h})) << "order does not matter";
  EXPECT_EQ(fingerprintText({a, h}, true), fingerprintText({a}));

  auto lazy = base;
  lazy[1].lazy = true;
  EXPECT_EQ(fingerprints(lazy).all, before.all) << "lazy is not part of it";
  auto hiddenUrl = base;
  hiddenUrl[0].url = "https://cdn/h2";
  EXPECT_NE(fingerprints(hiddenUrl).all, before.all);
  EXPECT_EQ(fingerprints(hiddenUrl).visible, before.visible);
  auto revealed = base;
  revealed[0].hidden = false;
  EXPECT_NE(fingerprints(revealed).visible, before.visible);
  auto mirrors = base;
  mirrors[1].alt_sources = std::vector<EngineAltSource>{};
  EXPECT_EQ(fingerprintText(mirrors), fingerprintText(base)) << "an empty list reads as none";
  mirrors[1].alt_sources = std::vector<EngineAltSource>{{"m1"}, {"m2"}};
  EXPECT_NE(fingerprints(mirrors).all, before.all);
  EXPECT_EQ(fingerprintText({a}),
            "A/b.mkv\x1Fhttps://cdn/a\x1F"
            "0\x1F"
            "1\x1F\x1F\x1F\x1F"
            "false\x1F"
            "false\x1F");
}

TEST(Manifest, ASubtitleNameFollowsATitleWithoutAnExtension) {
  test::TestHome home;
  ManualClock clock;
  LibraryStore store(home.file("l.json"), clock);
  auto noExt = title("A.b/c", "u", 0);
  noExt.subtitlePath = "/y.srt";
  store.upsert(noExt);
  auto e = buildEntries(store, nullptr, true).movie;
  ASSERT_EQ(e.size(), 2u);
  EXPECT_EQ(e[1].name, "A.b/c.en.srt");
}

TEST(EngineContract, DecodingRulesOfTheControlReplies) {
  auto ok = decodeEngineStatus(R"({"entries":[{"name":"a","size":5,"probe_ready":true},{"name":"b"}]})");
  ASSERT_TRUE(ok);
  EXPECT_EQ(ok->entries[1].size, std::nullopt);
  EXPECT_FALSE(decodeEngineStatus(R"({"entries":[{"name":"a"},{"size":5}]})")) << "one entry without a name";
  EXPECT_FALSE(decodeEngineStatus(R"({"entries":[{"name":"a","warmed":"yes"}]})"));

  EXPECT_EQ(decodeEngineAdoption(R"({"version":"1.0","rd_key_sha256":"ab"})")->pid, std::nullopt);
  EXPECT_FALSE(decodeEngineAdoption(R"({"pid":5,"version":"1.0"})"));
  EXPECT_EQ(EngineStatusClient::keyHash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(EngineContract, TheTvInstanceSitsBesideTheFilmInstance) {
  test::TestHome home;
  auto store = SettingsStore::openForTestHome(home.path());
  AppConfig config(*store);
  config.setControlURLString("http://127.0.0.1:13000");
  auto tv = EngineInstancePaths::forKind(EngineKind::tv, "/data", config);
  EXPECT_EQ(tv.controlAddress, "127.0.0.1:13002");
  EXPECT_EQ(tv.mountPoint, "/data/Library TV");
}
