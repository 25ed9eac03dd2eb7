#include <gtest/gtest.h>

#include "catalog/CatalogFiles.h"

using namespace vt;
using namespace vt::catalogfile;

namespace {

// Decodes and encodes again; the text must come back byte for byte.
template <class T>
void expectRoundTrip(CatalogDecoded<T> (*decode)(const std::string&), std::string (*encode)(const T&),
                     const std::string& text) {
  auto decoded = decode(text);
  ASSERT_TRUE(decoded) << message(decoded.error()) << "\n" << text;
  EXPECT_EQ(encode(*decoded), text);
}

const std::string kUuidA = "0F8FAD5B-D9CB-469F-A165-70867728950E";
const std::string kUuidB = "7C9E6679-7425-40DE-944B-E07FC1F90AE7";
const std::string kUuidC = "16FD2706-8BAF-433B-82EB-8C7FADA847DA";

}  // namespace

TEST(CatalogFiles, EveryFileRoundTripsByteForByte) {
  // A catalog with every optional key, a fractional date and a genre; a
  // system collection with only the keys that are always written.
  expectRoundTrip<std::vector<CatalogCollection>>(
      decodeCollections, encodeCollections,
      R"([{"id":")" + kUuidA +
          R"(","name":"Top rated · Drama","source":{"kind":"stremioCatalog","addonBaseURL":"https://addon.example/x","type":"movie","catalogId":"imdbRating","genre":"Drama"},)"
          R"("itemImdbIds":["tt3","tt1","tt2"],"pinnedImdbIds":["tt1","tt2"],"lastSyncedAt":730000000.25,"lastChangedAt":729999999,)"
          R"("lastPublishedAt":-12.5,"resolvePaused":true,"maxItems":60,"refreshInterval":12,"plexRatingKey":"4711"},)"
          R"({"id":")" +
          kUuidB +
          R"(","name":"Plex Watchlist","source":{"kind":"watchlist"},"itemImdbIds":[],"pinnedImdbIds":[],"resolvePaused":false,"maxItems":200,"refreshInterval":6},)"
          R"({"id":")" +
          kUuidC +
          R"(","name":"Popular shows","source":{"kind":"stremioCatalog","addonBaseURL":"u","type":"series","catalogId":"top"},"itemImdbIds":["tt9"],"pinnedImdbIds":[],"resolvePaused":false,"maxItems":40,"refreshInterval":1}])");
  expectRoundTrip<MetaCache>(
      decodeMetas, encodeMetas,
      R"({"tt0111161":{"id":"tt0111161","name":"The \"Shawshank\" Redemption","year":"1994","posterURL":"https://img/p.jpg","released":"1994-09-23T00:00:00.000Z","mediaType":"movie","onlyInCinemasAt":700000123.5},)"
      R"("tt0903747":{"id":"tt0903747","name":"Breaking Bad","year":"2008–2013","mediaType":"series"},)"
      R"("tt9":{"id":"tt9","name":"Été","year":""}})");
  expectRoundTrip<std::vector<std::string>>(decodeUuidList, encodeUuidList,
                                            "[\"" + kUuidB + "\",\"" + kUuidA + "\"]");  // order kept
  expectRoundTrip<std::set<std::string>>(decodeTextSet, encodeTextSet, R"(["Action","Plex Watchlist","Top rated"])");
  expectRoundTrip<RevealedIds>(decodeRevealed, encodeRevealed,
                               "[\"" + kUuidA + "\",[\"tt1\",\"tt2\"],\"" + kUuidB + "\",[]]");
  expectRoundTrip<StreamVetting>(
      decodeVetting, encodeVetting,
      R"({"vetted":{"tt1":700000000,"tt2:1:3":700000001.5},"failed":{"tt3":699999999},"failCounts":{"tt3":2},"seriesComplete":{"tt2":700000002}})");
  expectRoundTrip<StreamVetting>(decodeVetting, encodeVetting, R"({"vetted":{},"failed":{}})");

  // staging.json is a set: written ascending whatever the order read.
  EXPECT_EQ(encodeUuidSet({kUuidB, kUuidA}), "[\"" + kUuidA + "\",\"" + kUuidB + "\"]");
  EXPECT_EQ(encodeCollections({}) + encodeMetas({}) + encodeRevealed({}) + encodeVetting({}),
            R"([]{}[]{"vetted":{},"failed":{}})");
}

TEST(CatalogFiles, OlderFilesReadWithDefaultsAndUuidsInAnyCase) {
  auto decoded = decodeCollections(
      R"([{"id":"0f8fad5b-d9cb-469f-a165-70867728950e","name":"Mine","source":{"kind":"manual","addonBaseURL":"ignored"},)"
      R"("itemImdbIds":["tt1"],"pinnedImdbIds":[],"lastSyncedAt":null,"unknown":{"x":1}}])");
  ASSERT_TRUE(decoded) << message(decoded.error());
  // A kind without fields ignores stray keys; what is missing takes its default.
  EXPECT_EQ(
      decoded->at(0),
      (CatalogCollection{.id = kUuidA, .name = "Mine", .source = CollectionSource::manual(), .itemImdbIds = {"tt1"}}));

  auto revealed = decodeRevealed(R"(["7c9e6679-7425-40de-944b-e07fc1f90ae7",["tt2","tt1","tt2"]])");
  ASSERT_TRUE(revealed);
  EXPECT_EQ(revealed->at(kUuidB), (std::set<std::string>{"tt1", "tt2"}));
}

TEST(CatalogFiles, StrictDecodingFailsTheWholeFile) {
  const std::string head = R"([{"id":")" + kUuidA + R"(","name":"N",)";
  const std::string okSource = R"("source":{"kind":"library"},)";
  const std::string lists = R"("itemImdbIds":[],"pinnedImdbIds":[])";
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"unknown kind", head + R"("source":{"kind":"radio"},)" + lists + "}]"},
      {"catalog without catalogId",
       head + R"("source":{"kind":"stremioCatalog","addonBaseURL":"u","type":"movie"},)" + lists + "}]"},
      {"missing items", head + okSource + R"("pinnedImdbIds":[]}])"},
      {"null name", R"([{"id":")" + kUuidA + R"(","name":null,)" + okSource + lists + "}]"},
      {"fractional maxItems", head + okSource + lists + R"(,"maxItems":40.5}])"},
      {"unknown interval", head + okSource + lists + R"(,"refreshInterval":3}])"},
      {"date as text", head + okSource + lists + R"(,"lastSyncedAt":"2024-01-01"}])"},
      {"id not a UUID", R"([{"id":"abc","name":"N",)" + okSource + lists + "}]"},
      {"a good and a bad record", head + okSource + lists + "}," + R"({"id":")" + kUuidB + R"("}])"},
      {"not JSON", "[{"},
  };
  for (const auto& [why, text] : bad) {
    auto decoded = decodeCollections(text);
    EXPECT_TRUE(!decoded && !message(decoded.error()).empty()) << why;
  }
  EXPECT_FALSE(decodeMetas(R"({"tt1":{"id":"tt1","name":"A"}})")) << "year is required";
  EXPECT_FALSE(decodeRevealed("[\"" + kUuidA + "\"]")) << "a key without its ids";
  EXPECT_FALSE(decodeRevealed(R"([["tt1"],"x"])"));
  EXPECT_FALSE(decodeVetting(R"({"vetted":{}})")) << "failed is required";
  EXPECT_FALSE(decodeVetting(R"({"vetted":{},"failed":{},"failCounts":{"tt1":1.5}})"));
  EXPECT_FALSE(decodeUuidList(R"(["not-a-uuid"])"));
}

TEST(CatalogFiles, SourcesHaveTheirDisplayNames) {
  using S = CollectionSource;
  EXPECT_EQ(S::library().displayName() + "|" + S::manual().displayName() + "|" + S::watchlist().displayName(),
            "All titles|Manual|Plex Watchlist");
  EXPECT_EQ(S::stremioCatalog("u", "movie", "top").displayName(), "Popular movies");
  EXPECT_EQ(S::stremioCatalog("u", "series", "top").displayName(), "Popular shows");
  EXPECT_EQ(S::stremioCatalog("u", "series", "year").displayName(), "New shows");
  EXPECT_EQ(S::stremioCatalog("u", "movie", "year").displayName(), "New releases");
  EXPECT_EQ(S::stremioCatalog("u", "series", "imdbRating", "Crime").displayName(), "Top rated · Crime");
  EXPECT_EQ(S::stremioCatalog("u", "movie", "trending now", "Action").displayName(), "Trending Now · Action");
  EXPECT_EQ(S::stremioCatalog("u", "movie", "ÉTÉ hits").displayName(), "Été Hits");
  EXPECT_NE(S::stremioCatalog("u", "movie", "top"), S::stremioCatalog("u", "movie", "top", "Drama"));
}
