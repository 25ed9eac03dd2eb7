#include <gtest/gtest.h>

#include <random>

#include "platform/AhoCorasick.h"
#include "platform/IsoDate.h"
#include "platform/Text.h"

using namespace vt;

TEST(Text, TrimsSplitsFindsAndReadsWholeAsciiIntegersOnly) {
  EXPECT_EQ(trimmed(" \t\n\r\f\vab c\v\f\r\n\t "), "ab c");
  EXPECT_EQ(trimmedView("..-[Group]_", " .-_[]()"), "Group");
  EXPECT_EQ(trimmed("\xc2\xa0x\xc2\xa0"), "\xc2\xa0x\xc2\xa0") << "only ASCII white space is trimmed";
  EXPECT_EQ(splitAny("a.b__c.", "._"), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_FALSE(containsAny("WEB DL", {"X", "WEBDL"}));

  EXPECT_EQ(parseAsciiInt("-12"), -12);
  for (const char* bad : {"", " 1", "+1", "1.5", "-", "2147483648", "\xd9\xa3" /* Arabic-Indic 3 */})
    EXPECT_EQ(parseAsciiInt(bad), std::nullopt) << bad;
}

TEST(IsoDate, ReadsUtcAndOffsetTimestamps) {
  const Date noon = *parseIsoDate("2026-06-15T12:00:00Z");
  EXPECT_EQ(noon, dateFromUnixSeconds(1781524800));
  EXPECT_EQ(parseIsoDate(" 2026-06-15T12:00:00.500Z\n"), noon + 0.5);
  EXPECT_EQ(parseIsoDate("2026-06-15T10:30:00-0130"), noon);
  for (const char* bad : {"2026-06-15", "2026-06-15T14:00:00+02:00", "2026-06-15T12:00:00", "2026-13-15T12:00:00Z",
                          "2026-06-15T24:00:00Z", "2026-06-15T12:00:00Zjunk", "２026-06-15T12:00:00Z"})
    EXPECT_EQ(parseIsoDate(bad), std::nullopt) << bad;
}

TEST(AhoCorasick, FindsTheSameWordsAsSearchingForEachOne) {
  const std::vector<std::string> words = {"HE", "SHE", "HIS", "HERS", "S", "AB", "BABA", "\xd0\xa4", "XYZ"};
  AhoCorasick<16> matcher;
  EXPECT_TRUE(matcher.scan("HERS").none()) << "nothing before build";
  for (size_t i = 0; i < words.size(); ++i) matcher.add(words[i], i);
  matcher.add("SHERS", 3);  // a second word for one id
  matcher.build();

  // Overlaps and suffixes are where a wrong failure link shows: compare with
  // a plain search on random texts over a small alphabet.
  std::mt19937 rng(5);
  const std::string alphabet = "ABEHRSXYZ\xd0\xa4";
  for (int n = 0; n < 500; ++n) {
    std::string text = n == 0 ? "USHERS" : "";
    for (size_t k = rng() % 14; k > 0; --k) text += alphabet[rng() % alphabet.size()];
    AhoCorasick<16>::Hits expected;
    for (size_t i = 0; i < words.size(); ++i)
      if (text.find(words[i]) != std::string::npos) expected.set(i);
    if (text.find("SHERS") != std::string::npos) expected.set(3);
    ASSERT_EQ(matcher.scan(text), expected) << text;
  }
}
