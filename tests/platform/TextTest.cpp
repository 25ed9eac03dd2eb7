#include <gtest/gtest.h>

#include "platform/FlatIndex.h"
#include "platform/Json.h"
#include "platform/JsonWriter.h"
#include "platform/PercentEncoding.h"
#include "platform/Regex.h"

using namespace vt;

TEST(Regex, SearchesUtf8WithByteOffsetsGroupsLookaroundAndUnicodeWordRules) {
  const Regex imdb(R"((?<=\{imdb-)tt\d+(?=\}))");
  EXPECT_EQ(imdb.search("Amélie (2001) {imdb-tt0211915}.mkv").value().begin(), 21u) << "a byte offset";
  EXPECT_EQ(imdb.searchAll("{imdb-tt1} {imdb-tt22} {imdb-x}").size(), 2u);
  EXPECT_EQ(imdb.search("{imdb-tt1} {imdb-tt22}", 8).value().text(), "tt22");
  const Regex word(R"(\bmulti\b)", Regex::caseInsensitive);
  EXPECT_TRUE(word.matches("Film.MULTI.1080p"));
  EXPECT_FALSE(word.matches("MULTIPLE"));
}

TEST(Text, ReplacesUpperCasesAndPercentEncodesSurvivingBadInputAndReportingARunaway) {
  const Regex key(R"((apikey=)[^&\s]+)", Regex::caseInsensitive);
  EXPECT_EQ(key.replaceAll("https://x/?APIKEY=secret&b=1", "$1REDACTED"), "https://x/?APIKEY=REDACTED&b=1");
  const std::string bad = std::string("ab\xff\xfe\xc3(", 7) + std::string(1, '\0') + "tt123";
  EXPECT_EQ(Regex(R"(tt\d+)").search(bad).value().text(), "tt123") << "invalid UTF-8 and NUL never throw";
  EXPECT_EQ(Regex("(a+)+b").tryReplaceAll(std::string(40, 'a') + "!", "x"), std::nullopt) << "out of time says so";
  EXPECT_EQ(Regex("(a+)+b").tryReplaceAll("aab", "x"), "x");
  EXPECT_EQ(percentEncode("Amélie 2/3 ~ok_-.", PlainSet::ascii), "Am%C3%A9lie%202%2F3%20~ok_-.");
  EXPECT_EQ(percentEncode("Amélie €\xff", PlainSet::unicode), "Amélie%20%E2%82%AC%FF");
  EXPECT_EQ(toUpper("straße istanbul"), "STRASSE ISTANBUL") << "full Unicode, root locale: no dotted capital I";
}

TEST(Json, DatesRoundTripExactlyAndDecodingIsStrict) {
  const Json dates = {{"a", 786297600.123456}, {"b", -1.0e-6}};
  EXPECT_EQ(json::parse(json::encode(dates)), dates);
  auto j = json::parse(R"({"size":5,"n":null,"s":"5"})").value();
  EXPECT_THROW(json::required<std::string>(j, "n"), DecodeError);
  EXPECT_EQ(json::optional<std::string>(j, "n"), std::nullopt);
  EXPECT_THROW(json::optional<int64_t>(j, "s"), DecodeError);
  EXPECT_FALSE(json::parse("{\"a\":"));
  json::put(j, "absent", std::optional<std::string>());
  EXPECT_EQ(json::encode(j), R"({"size":5,"n":null,"s":"5"})");
  EXPECT_NO_THROW(json::encode(Json{{"s", "a\xff"}})) << "invalid UTF-8 is replaced, not thrown";
}

TEST(FlatIndex, InsertsAssignsGrowsAndTellsEqualHashesApart) {
  FlatIndex ix;
  ix.reset(2);
  for (uint32_t i = 0; i < 1000; ++i)
    ix.insertIfAbsent("key" + std::to_string(i), FlatIndex::hashOf("key" + std::to_string(i)), i);
  EXPECT_EQ(ix.insertIfAbsent("key5", FlatIndex::hashOf("key5"), 99), 5u) << "kept the first";
  EXPECT_EQ(ix.find("key999"), 999u);
  ix.assign("a", 42, 1);
  ix.assign("b", 42, 2);
  EXPECT_EQ(ix.find("a", 42), 1u);
  EXPECT_EQ(ix.find("b", 42), 2u);
}

TEST(JsonWriter, EscapesWhateverLandsInsideALongPlainRun) {
  for (const std::string special : {"\"", "\\", "\n", "\x01", "\x1f", "é", "\xff", "\x7f"}) {
    for (const size_t pos : {0, 7, 8, 15, 16, 23}) {
      const std::string s = std::string(pos, 'a') + special + std::string(23 - pos, 'a');
      JsonWriter w;
      w.value(s);
      EXPECT_EQ(json::parse(w.str()).value_or(Json()),
                special == "\xff" ? std::string(s).replace(pos, 1, "\xEF\xBF\xBD") : s);
    }
  }
}
