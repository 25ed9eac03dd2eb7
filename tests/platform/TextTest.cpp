#include <gtest/gtest.h>

#include "platform/Crypto.h"
#include "platform/FlatIndex.h"
#include "platform/JsonWriter.h"
#include "platform/Date.h"
#include "platform/Json.h"
#include "platform/PercentEncoding.h"
#include "platform/Regex.h"

using namespace vt;

TEST(Regex, SearchesUtf8WithByteOffsetsGroupsAndLookaround) {
  const Regex imdb(R"((?<=\{imdb-)tt\d+(?=\}))");
  const std::string name = "Amélie (2001) {imdb-tt0211915}.mkv";
  auto m = imdb.search(name);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->text(), "tt0211915");
  EXPECT_EQ(name.substr(m->begin(), m->end() - m->begin()), "tt0211915");

  const Regex ep(R"([sS](\d{2})[eE](\d{2})(?=\.[^./]+$))");
  auto e = ep.search("Show (2020) - s01e12.mkv");
  ASSERT_TRUE(e);
  EXPECT_EQ(e->group(1), "01");
  EXPECT_EQ(e->group(2), "12");
  EXPECT_FALSE(ep.matches("Show - s1e2.mkv"));

  const Regex optional("(a)|(b)");
  auto o = optional.search("xb");
  ASSERT_TRUE(o);
  EXPECT_FALSE(o->group(1));
  EXPECT_EQ(o->group(2), "b");

  // \b and case-insensitivity follow ICU's Unicode rules.
  const Regex word(R"(\bmulti\b)", Regex::caseInsensitive);
  EXPECT_TRUE(word.matches("Film.MULTI.1080p"));
  EXPECT_FALSE(word.matches("MULTIPLE"));
  EXPECT_TRUE(Regex(R"(\p{Cyrillic}+)").matches("Фильм 2020"));

  EXPECT_EQ(imdb.searchAll("{imdb-tt1} {imdb-tt22} {imdb-x}").size(), 2u);
  auto from = imdb.search("{imdb-tt1} {imdb-tt22}", 8);
  ASSERT_TRUE(from);
  EXPECT_EQ(from->text(), "tt22");
  EXPECT_TRUE(Regex(R"(\d+)").fullMatch("123"));
  EXPECT_FALSE(Regex(R"(\d+)").fullMatch("123a"));
}

TEST(Regex, ReplacesWithTemplatesAndSurvivesBadInput) {
  const Regex key(R"((apikey=)[^&\s]+)", Regex::caseInsensitive);
  EXPECT_EQ(key.replaceAll("https://x/?APIKEY=secret&b=1", "$1REDACTED"), "https://x/?APIKEY=REDACTED&b=1");
  EXPECT_EQ(key.replaceAll("nothing here", "$1REDACTED"), "nothing here");

  // Invalid UTF-8 and control characters never throw.
  const std::string bad = std::string("ab\xff\xfe\xc3(", 7) + std::string(1, '\0') + "tt123";
  EXPECT_TRUE(Regex(R"(tt\d+)").matches(bad));
  auto m = Regex(R"(tt\d+)").search(bad);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->text(), "tt123");
  EXPECT_FALSE(Regex("x").search("", 0));
  EXPECT_FALSE(Regex("x").search("abc", 10));
}

TEST(Text, UpperCasesWithFullUnicodeInTheRootLocale) {
  EXPECT_EQ(toUpper("straße"), "STRASSE");
  EXPECT_EQ(toUpper("istanbul"), "ISTANBUL");  // no dotted capital I
  EXPECT_EQ(toUpper("фильм"), "ФИЛЬМ");
  EXPECT_EQ(toLower("ÀB"), "àb");
}

TEST(Json, DatesRoundTripThroughThe2001EpochExactly) {
  EXPECT_EQ(dateFromUnixSeconds(978307200.0), 0.0);
  EXPECT_EQ(unixSecondsFromDate(0.0), 978307200.0);
  for (double d : {0.0, 1.5, 786297600.123456, -1.0e-6, 1e9 + 0.1, wallClockNow()}) {
    Json j;
    j["resolvedAt"] = d;
    const auto text = json::encode(j);
    auto back = json::parse(text);
    ASSERT_TRUE(back);
    EXPECT_EQ(json::required<double>(*back, "resolvedAt"), d) << text;
  }
}

TEST(Json, DecodesStrictlyAndEncodesInDeclaredOrder) {
  auto j = json::parse(R"({"name":"a","size":5,"flag":true,"n":null,"s":"5","f":1.5})");
  ASSERT_TRUE(j);
  EXPECT_EQ(json::required<std::string>(*j, "name"), "a");
  EXPECT_EQ(json::required<int64_t>(*j, "size"), 5);
  EXPECT_THROW(json::required<std::string>(*j, "missing"), DecodeError);
  EXPECT_THROW(json::required<std::string>(*j, "n"), DecodeError);
  EXPECT_EQ(json::optional<std::string>(*j, "n"), std::nullopt);
  EXPECT_EQ(json::optional<bool>(*j, "missing"), std::nullopt);
  EXPECT_THROW(json::optional<int64_t>(*j, "s"), DecodeError);
  EXPECT_THROW(json::optional<int64_t>(*j, "f"), DecodeError);
  EXPECT_THROW(json::optional<bool>(*j, "size"), DecodeError);
  EXPECT_THROW(json::required<std::string>(Json::array(), "x"), DecodeError);
  EXPECT_FALSE(json::parse("{\"a\":"));
  EXPECT_FALSE(json::parse(""));

  Json out = Json::object();
  out["zeta"] = 1;
  json::put(out, "absent", std::optional<std::string>());
  json::put(out, "alpha", std::optional<std::string>("x"));
  out["mid"] = false;
  EXPECT_EQ(json::encode(out), R"({"zeta":1,"alpha":"x","mid":false})");
  // Invalid UTF-8 in a string is replaced, not thrown.
  Json bad;
  bad["s"] = std::string("a\xff");
  EXPECT_NO_THROW(json::encode(bad));
}

TEST(Crypto, Sha256IsLowercaseHex) {
  EXPECT_EQ(sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(sha256Hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(FlatIndex, InsertsAssignsGrowsAndFinds) {
  FlatIndex ix;
  ix.reset(2);
  std::vector<std::string> keys;
  for (int i = 0; i < 1000; ++i) keys.push_back("key" + std::to_string(i));
  for (uint32_t i = 0; i < keys.size(); ++i) EXPECT_EQ(ix.insertIfAbsent(keys[i], FlatIndex::hashOf(keys[i]), i), i);
  EXPECT_EQ(ix.size(), 1000u);
  EXPECT_EQ(ix.insertIfAbsent(keys[5], FlatIndex::hashOf(keys[5]), 99), 5u) << "kept the first";
  ix.assign(keys[5], FlatIndex::hashOf(keys[5]), 77);
  EXPECT_EQ(ix.find("key5"), 77u);
  EXPECT_EQ(ix.find("key999"), 999u);
  EXPECT_EQ(ix.find("nope"), std::nullopt);
  // Equal hashes with different keys are told apart.
  ix.assign("a", 42, 1);
  ix.assign("b", 42, 2);
  EXPECT_EQ(ix.find("a", 42), 1u);
  EXPECT_EQ(ix.find("b", 42), 2u);
  FlatIndex empty;
  EXPECT_EQ(empty.find("x"), std::nullopt);
}

TEST(JsonWriter, EscapesWhateverLandsInsideALongPlainRun) {
  // Every special byte at every position of a 24-byte string must come out
  // escaped, whichever path of the writer sees it.
  const std::string specials[] = {"\"", "\\", "\n", "\x01", "\x1f", "é", "\xff", "\x7f", "/"};
  for (const auto& special : specials) {
    for (size_t pos = 0; pos < 24; ++pos) {
      std::string s(24, 'a');
      s.replace(pos, 1, special);
      JsonWriter w;
      w.beginObject();
      w.field("k", s);
      w.field("n", int64_t{-5});
      w.field("d", 0.1);
      w.field("absent", std::optional<bool>());
      w.endObject();
      auto back = json::parse(w.str());
      ASSERT_TRUE(back) << w.str();
      const std::string expected = special == "\xff" ? std::string(s).replace(pos, 1, "\xEF\xBF\xBD") : s;
      EXPECT_EQ((*back)["k"], expected) << pos;
      EXPECT_EQ((*back)["n"], -5);
      EXPECT_EQ((*back)["d"], 0.1);
      EXPECT_FALSE(back->contains("absent"));
    }
  }
}

TEST(Regex, AReplacementThatRunsOutOfTimeSaysSoInsteadOfPassingTheTextThrough) {
  const Regex runaway("(a+)+b");
  const std::string text(40, 'a');
  EXPECT_EQ(runaway.tryReplaceAll(text + "!", "x"), std::nullopt);
  EXPECT_EQ(runaway.tryReplaceAll("aab", "x"), "x");
}

TEST(PercentEncoding, KeepsOnlyItsSetWhateverTheLocale) {
  const std::string text = "Amélie 2/3 ~ok_-.";
  EXPECT_EQ(percentEncode(text, PlainSet::ascii), "Am%C3%A9lie%202%2F3%20~ok_-.");
  EXPECT_EQ(percentEncode(text, PlainSet::unicode), "Amélie%202%2F3%20~ok_-.");
  // Bytes that are no UTF-8 are escaped one by one; a Unicode symbol is no letter.
  EXPECT_EQ(percentEncode(std::string("\xff\xfe", 2), PlainSet::unicode), "%FF%FE");
  EXPECT_EQ(percentEncode("€", PlainSet::unicode), "%E2%82%AC");
}
