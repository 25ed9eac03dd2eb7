#include <gtest/gtest.h>

#include "platform/AhoCorasick.h"
#include "platform/IsoDate.h"
#include "platform/Text.h"

using namespace vt;

TEST(Text, TrimsSplitsAndReadsWholeAsciiIntegersAndIsoDatesOnly) {
  EXPECT_EQ(trimmedView("..-[Group]_", " .-_[]()"), "Group");
  EXPECT_EQ(trimmed("\xc2\xa0x\t\xc2\xa0 "), "\xc2\xa0x\t\xc2\xa0") << "only ASCII white space is trimmed";
  EXPECT_EQ(splitAny("a.b__c.", "._"), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(parseAsciiInt("-12"), -12);
  for (const char* bad : {"", " 1", "+1", "1.5", "2147483648", "\xd9\xa3" /* Arabic-Indic 3 */})
    EXPECT_EQ(parseAsciiInt(bad), std::nullopt) << bad;

  const Date noon = *parseIsoDate("2026-06-15T12:00:00Z");
  EXPECT_EQ(noon, dateFromUnixSeconds(1781524800));
  EXPECT_EQ(parseIsoDate(" 2026-06-15T10:30:00.500-0130\n"), noon + 0.5);
  for (const char* bad : {"2026-06-15", "2026-06-15T14:00:00+02:00", "2026-13-15T12:00:00Z", "２026-06-15T12:00:00Z"})
    EXPECT_EQ(parseIsoDate(bad), std::nullopt) << bad;
}

TEST(AhoCorasick, FindsOverlappingAndSuffixWords) {
  const std::vector<std::string> words = {"HE", "SHE", "HIS", "HERS", "S", "BABA"};
  AhoCorasick<16> matcher;
  for (size_t i = 0; i < words.size(); ++i) matcher.add(words[i], i);
  matcher.build();
  EXPECT_EQ(matcher.scan("USHERS ABABA"), AhoCorasick<16>::Hits("111011"));
}
