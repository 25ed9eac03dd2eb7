#include <gtest/gtest.h>
#include "core/LibraryStore.h"
#include "engine/EngineStatusClient.h"
#include "engine/Manifest.h"
#include "platform/Clock.h"
#include "support/TestKit.h"
#include "support/Titles.h"

using namespace vt;

TEST(Manifest, ExactBytesForASmallLibrary) {
  test::TestHome home;
  ManualClock clock;
  LibraryStore store{home.file("library.json"), clock};
  const Date at = dateFromUnixSeconds(1577836800.9);  // mtime truncates to 1577836800
  auto noExt = test::sampleTitle("A.b/c", "u", at);
  noExt.subtitlePath = "/y.srt";
  store.upsert(noExt);
  auto film = test::sampleTitle("Film (1999) {imdb-tt1}.mkv", "https://cdn/film", at);
  film.rdLink = "https://rd/d/1";
  film.resolveURL = "https://addon/r/1";
  film.mirrorURLs = std::vector<std::string>{"https://addon/m/1", "https://addon/m/2"};
  store.upsert(film);
  auto uhd = test::sampleTitle("Big (2020) {imdb-tt2}.mkv", "https://cdn/big", at);
  uhd.resolveURL = "https://addon/r/2";
  uhd.altVersion =
      AltStreamVersion{"Big (2020) {imdb-tt2} - 1080p.mkv", "https://addon/r/2c", kPlaceholderSize, true, std::nullopt};
  uhd.subtitlePath = "/subs/big.es.srt";
  uhd.subtitleLang = "es";
  store.upsert(uhd);
  auto ep = test::sampleTitle(episodeFileName("Show", "2010", "tt9", 1, 2), "https://cdn/ep", at);
  ep.season = 1;
  ep.episode = 2;
  ep.subtitlePath = "/subs/ep.srt";
  store.upsert(ep);
  auto entries = buildEntries(store, nullptr, /*companionVersions=*/true);
  ASSERT_EQ(entries.movie.size(), 6u);
  EXPECT_EQ(entries.movie[1].name, "A.b/c.en.srt") << "a subtitle name follows a title without an extension";
  entries.movie.erase(entries.movie.begin(), entries.movie.begin() + 2);
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
  EXPECT_EQ(entries.tv.at(1).name + entries.tv.at(1).local,
            "Show (2010) {imdb-tt9}/Season 01/Show (2010) - s01e02.en.srt/subs/ep.srt");
  // Without companion versions no companion entry is built; staging hides a title with its companion and subtitle.
  auto plain = buildEntries(
      store, [](const LibraryTitle& t) { return t.name.starts_with("Big"); }, false);
  std::vector<std::pair<std::string, bool>> shown;
  for (const auto& e : plain.movie) shown.emplace_back(e.name.substr(0, 4), e.hidden);
  EXPECT_EQ(shown,
            (decltype(shown){{"A.b/", false}, {"A.b/", false}, {"Film", false}, {"Big ", true}, {"Big ", true}}));
  EXPECT_EQ(decodeEngineConfig(encodeEngineConfig(entries.movie)), entries.movie);
}

TEST(Manifest, FingerprintsFollowWhatTheyShouldAndNothingElse) {
  const EngineEntry a{.name = "A/b.mkv", .url = "https://cdn/a"};
  const EngineEntry h{.name = "H.mkv", .url = "https://cdn/h", .hidden = true};
  EXPECT_EQ(fingerprintText({h, a}), fingerprintText({a, h})) << "order does not matter";
  EXPECT_EQ(fingerprintText({a, h}, true), fingerprintText({a}));
  auto mirrors = a;
  mirrors.alt_sources = std::vector<EngineAltSource>{};
  EXPECT_EQ(fingerprintText({h, mirrors}), fingerprintText({h, a})) << "an empty list reads as none";
}

TEST(EngineContract, DecodingRulesOfTheControlReplies) {
  auto ok = decodeEngineStatus(R"({"entries":[{"name":"a","size":5,"probe_ready":true},{"name":"b"}]})");
  EXPECT_TRUE(ok && ok->entries[1].size == std::nullopt);
  EXPECT_FALSE(decodeEngineStatus(R"({"entries":[{"name":"a"},{"size":5}]})")) << "one entry without a name";
  EXPECT_EQ(decodeEngineAdoption(R"({"version":"1.0","rd_key_sha256":"ab"})")->pid, std::nullopt);
  EXPECT_FALSE(decodeEngineAdoption(R"({"pid":5,"version":"1.0"})"));
  EXPECT_EQ(EngineStatusClient::keyHash("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}
