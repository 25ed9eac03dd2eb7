#include <gtest/gtest.h>

#include "platform/Date.h"
#include "platform/FlatIndex.h"
#include "platform/Json.h"
#include "platform/JsonWriter.h"
#include "platform/PercentEncoding.h"
#include "platform/Regex.h"

using namespace vt;

TEST(Regex, SearchesUtf8WithByteOffsetsGroupsAndLookaround) {
  const Regex imdb(R"((?<=\{imdb-)tt\d+(?=\}))");
  const std::string name = "Amélie (2001) {imdb-tt0211915}.mkv";
  auto m = imdb.search(name);
  ASSERT_TRUE(m);
  EXPECT_EQ(name.substr(m->begin(), m->end() - m->begin()), "tt0211915");
  EXPECT_EQ(imdb.searchAll("{imdb-tt1} {imdb-tt22} {imdb-x}").size(), 2u);
  auto from = imdb.search("{imdb-tt1} {imdb-tt22}", 8);
  ASSERT_TRUE(from);
  EXPECT_EQ(from->text(), "tt22");

  auto o = Regex("(a)|(b)").search("xb");
  ASSERT_TRUE(o);
  EXPECT_FALSE(o->group(1));
  EXPECT_EQ(o->group(2), "b");
  // \b and case-insensitivity follow ICU's Unicode rules.
  const Regex word(R"(\bmulti\b)", Regex::caseInsensitive);
  EXPECT_TRUE(word.matches("Film.MULTI.1080p"));
  EXPECT_FALSE(word.matches("MULTIPLE"));
  EXPECT_FALSE(Regex(R"(\d+)").fullMatch("123a"));
}

TEST(Regex, ReplacesWithTemplatesSurvivesBadInputAndReportsARunaway) {
  const Regex key(R"((apikey=)[^&\s]+)", Regex::caseInsensitive);
  EXPECT_EQ(key.replaceAll("https://x/?APIKEY=secret&b=1", "$1REDACTED"), "https://x/?APIKEY=REDACTED&b=1");
  // Invalid UTF-8 and control characters never throw.
  const std::string bad = std::string("ab\xff\xfe\xc3(", 7) + std::string(1, '\0') + "tt123";
  auto m = Regex(R"(tt\d+)").search(bad);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->text(), "tt123");
  EXPECT_FALSE(Regex("x").search("abc", 10));
  // A replacement that runs out of time says so instead of passing the text through.
  EXPECT_EQ(Regex("(a+)+b").tryReplaceAll(std::string(40, 'a') + "!", "x"), std::nullopt);
  EXPECT_EQ(Regex("(a+)+b").tryReplaceAll("aab", "x"), "x");
}

TEST(Text, UpperCasesWithFullUnicodeInTheRootLocale) {
  EXPECT_EQ(toUpper("straße"), "STRASSE");
  EXPECT_EQ(toUpper("istanbul"), "ISTANBUL");  // no dotted capital I
}

TEST(Json, DatesRoundTripExactlyAndDecodingIsStrict) {
  EXPECT_EQ(dateFromUnixSeconds(978307200.0), 0.0);
  for (double d : {786297600.123456, -1.0e-6, wallClockNow()}) {
    Json j;
    j["resolvedAt"] = d;
    auto back = json::parse(json::encode(j));
    ASSERT_TRUE(back);
    EXPECT_EQ(json::required<double>(*back, "resolvedAt"), d);
  }

  auto j = json::parse(R"({"size":5,"n":null,"s":"5"})");
  ASSERT_TRUE(j);
  EXPECT_EQ(json::required<int64_t>(*j, "size"), 5);
  EXPECT_THROW(json::required<std::string>(*j, "n"), DecodeError);
  EXPECT_EQ(json::optional<std::string>(*j, "n"), std::nullopt);
  EXPECT_THROW(json::optional<int64_t>(*j, "s"), DecodeError);
  EXPECT_FALSE(json::parse("{\"a\":"));

  Json out = Json::object();
  out["zeta"] = 1;
  json::put(out, "absent", std::optional<std::string>());
  json::put(out, "alpha", std::optional<std::string>("x"));
  EXPECT_EQ(json::encode(out), R"({"zeta":1,"alpha":"x"})");
  Json bad;
  bad["s"] = std::string("a\xff");
  EXPECT_NO_THROW(json::encode(bad)) << "invalid UTF-8 is replaced, not thrown";
}

TEST(FlatIndex, InsertsAssignsGrowsAndFinds) {
  FlatIndex ix;
  ix.reset(2);
  for (uint32_t i = 0; i < 1000; ++i) {
    const auto key = "key" + std::to_string(i);
    EXPECT_EQ(ix.insertIfAbsent(key, FlatIndex::hashOf(key), i), i);
  }
  EXPECT_EQ(ix.insertIfAbsent("key5", FlatIndex::hashOf("key5"), 99), 5u) << "kept the first";
  ix.assign("key5", FlatIndex::hashOf("key5"), 77);
  EXPECT_EQ(ix.find("key5"), 77u);
  EXPECT_EQ(ix.find("nope"), std::nullopt);
  // Equal hashes with different keys are told apart.
  ix.assign("a", 42, 1);
  ix.assign("b", 42, 2);
  EXPECT_EQ(ix.find("a", 42), 1u);
  EXPECT_EQ(ix.find("b", 42), 2u);
}

TEST(JsonWriter, EscapesWhateverLandsInsideALongPlainRun) {
  // Every special byte at every position of a 24-byte string must come out
  // escaped, whichever path of the writer sees it.
  for (const std::string special : {"\"", "\\", "\n", "\x01", "\x1f", "é", "\xff", "\x7f"}) {
    for (size_t pos = 0; pos < 24; ++pos) {
      std::string s(24, 'a');
      s.replace(pos, 1, special);
      JsonWriter w;
      w.beginObject();
      w.field("k", s);
      w.field("absent", std::optional<bool>());
      w.endObject();
      auto back = json::parse(w.str());
      ASSERT_TRUE(back) << w.str();
      EXPECT_EQ((*back)["k"], special == "\xff" ? std::string(s).replace(pos, 1, "\xEF\xBF\xBD") : s) << pos;
      EXPECT_FALSE(back->contains("absent"));
    }
  }
}

TEST(PercentEncoding, KeepsOnlyItsSetWhateverTheLocale) {
  const std::string text = "Amélie 2/3 ~ok_-.";
  EXPECT_EQ(percentEncode(text, PlainSet::ascii), "Am%C3%A9lie%202%2F3%20~ok_-.");
  EXPECT_EQ(percentEncode(text, PlainSet::unicode), "Amélie%202%2F3%20~ok_-.");
  // Bytes that are no UTF-8 are escaped one by one; a Unicode symbol is no letter.
  EXPECT_EQ(percentEncode(std::string("\xff\xfe", 2), PlainSet::unicode), "%FF%FE");
  EXPECT_EQ(percentEncode("€", PlainSet::unicode), "%E2%82%AC");
}
