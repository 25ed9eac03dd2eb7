#include <gtest/gtest.h>

#include <random>

#include "platform/AhoCorasick.h"
#include "platform/IsoDate.h"
#include "platform/Text.h"

using namespace vt;

TEST(Text, TrimsSplitsAndFinds) {
  EXPECT_EQ(trimmed(" \t\n\r\f\vab c\v\f\r\n\t "), "ab c");
  EXPECT_EQ(trimmed(" \n "), "");
  EXPECT_EQ(trimmed(""), "");
  EXPECT_EQ(trimmedView("..-[Group]_", " .-_[]()"), "Group");
  EXPECT_EQ(trimmed("\xc2\xa0x\xc2\xa0"), "\xc2\xa0x\xc2\xa0") << "only ASCII white space is trimmed";

  EXPECT_EQ(splitAny("a.b__c.", "._"), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_TRUE(splitAny("...", ".").empty());
  EXPECT_TRUE(containsAny("WEB DL", {"X", "DL"}));
  EXPECT_FALSE(containsAny("WEB DL", {"X", "WEBDL"}));
  EXPECT_FALSE(containsAny("anything", {}));
}

TEST(Text, ReadsWholeAsciiIntegersOnly) {
  EXPECT_EQ(parseAsciiInt("1080"), 1080);
  EXPECT_EQ(parseAsciiInt("007"), 7);
  EXPECT_EQ(parseAsciiInt("-12"), -12);
  EXPECT_EQ(parseAsciiInt("2147483647"), 2147483647);
  for (const char* bad : {"", " 1", "1 ", "+1", "12a", "1.5", "-", "2147483648", "\xd9\xa3" /* Arabic-Indic 3 */})
    EXPECT_EQ(parseAsciiInt(bad), std::nullopt) << bad;
}

TEST(IsoDate, ReadsUtcAndOffsetTimestamps) {
  const Date noon = *parseIsoDate("2026-06-15T12:00:00Z");
  EXPECT_EQ(noon, dateFromUnixSeconds(1781524800));
  EXPECT_EQ(parseIsoDate(" 2026-06-15T12:00:00.500Z\n"), noon + 0.5);
  EXPECT_EQ(parseIsoDate("2026-06-15T14:00:00+0200"), noon);
  EXPECT_EQ(parseIsoDate("2026-06-15T10:30:00-0130"), noon);
  EXPECT_EQ(parseIsoDate("2001-01-01T00:00:00Z"), 0.0);
  for (const char* bad : {"", "2026-06-15", "2026-06-15T14:00:00+02:00", "2026-06-15T12:00:00", "2026-06-15T12:00:00.Z",
                          "2026-13-15T12:00:00Z", "2026-06-15T24:00:00Z", "2026-06-15 12:00:00Z",
                          "2026-06-15T12:00:00Zjunk", "２026-06-15T12:00:00Z"})
    EXPECT_EQ(parseIsoDate(bad), std::nullopt) << bad;
}

TEST(AhoCorasick, FindsTheSameWordsAsSearchingForEachOne) {
  const std::vector<std::string> words = {"HE", "SHE", "HIS", "HERS", "S", "AB", "BABA", "\xd0\xa4", "XYZ"};
  AhoCorasick<16> matcher;
  EXPECT_TRUE(matcher.scan("HERS").none()) << "nothing before build";
  for (size_t i = 0; i < words.size(); ++i) matcher.add(words[i], i);
  matcher.add("SHERS", 3);  // a second word for one id
  matcher.build();

  const auto hits = matcher.scan("USHERS");
  for (size_t i : {0, 1, 3, 4}) EXPECT_TRUE(hits.test(i)) << words[i];
  EXPECT_EQ(hits.count(), 4u);
  EXPECT_TRUE(matcher.scan("").none());

  // Overlaps and suffixes are where a wrong failure link shows: compare with
  // a plain search on random texts over a small alphabet.
  std::mt19937 rng(5);
  const std::string alphabet = "ABEHRSXYZ\xd0\xa4";
  for (int n = 0; n < 2000; ++n) {
    std::string text;
    for (size_t k = rng() % 14; k > 0; --k) text += alphabet[rng() % alphabet.size()];
    AhoCorasick<16>::Hits expected;
    for (size_t i = 0; i < words.size(); ++i)
      if (text.find(words[i]) != std::string::npos) expected.set(i);
    if (text.find("SHERS") != std::string::npos) expected.set(3);
    ASSERT_EQ(matcher.scan(text), expected) << text;
  }
}
