#include <gtest/gtest.h>

#include <filesystem>

#include "../../bench/ReleaseNames.h"
#include "platform/IsoDate.h"
#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "sources/release/ReleaseParser.h"
#include "sources/release/Resolution.h"
#include "sources/release/UnrecognizedReleaseWords.h"
#include "support/TestKit.h"

using namespace vt;

namespace {
ReleaseInfo p(std::string_view name) { return ReleaseParser::parseUncached(name); }
using Strings = std::vector<std::string>;
}  // namespace

TEST(ReleaseParser, TheFullExampleAndRowOrder) {
  const auto i = p("Movie.2019.2160p.UHD.BluRay.x265.10bit.HDR.TrueHD.7.1.Atmos-GRP.mkv");
  EXPECT_EQ(i.resolution, "4K");
  EXPECT_EQ(i.codec, "H.265");
  EXPECT_EQ(i.source, "Blu-ray");
  EXPECT_EQ(i.audio, "Atmos") << "the row order decides, not the order in the name";
  EXPECT_EQ(i.group, "GRP");
}

TEST(ReleaseParser, CodecsSourcesServicesAudioAndHdr) {
  EXPECT_TRUE(p("Film.2020.BluRay.REMUX.AVC").isRemux);
  EXPECT_EQ(p("Film.2023.1080p.AMZN.WEB-DL").service, "Amazon");
  EXPECT_TRUE(p("Film.2160p.DV.x265").dolbyVisionOnly);
  EXPECT_FALSE(p("Film.2160p.DV.HDR10.x265").dolbyVisionOnly);
}

TEST(ReleaseParser, ResolutionRowsAndDimensionBoundaries) {
  struct C {
    const char* name;
    std::optional<std::string> res;
  };
  for (const C& c : {C{"Film.72OP", "720p"}, C{"Film.720", std::nullopt}, C{"Film 2019 UHD BluRay", "4K"},
                     C{"Film (2019) [BD1080]", "1080p"}, C{"Film.10800p", std::nullopt}, C{"Film.3200x100", "4K"},
                     C{"Film.3199x999", "1080p"}, C{"Film.2019.1280x534", "720p"}, C{"Film.1179x699", "480p"},
                     C{"Film.720p.1920x1080", "720p"}}) {
    EXPECT_EQ(p(c.name).resolution, c.res) << c.name;
  }
}

TEST(ReleaseParser, NormalisationKeepsOnlyKnownVideoExtensions) {
  auto n = normaliseReleaseName("The.Film-(2019)_[x265].MKV");
  EXPECT_EQ(n.container, "mkv");
  EXPECT_EQ(n.upper, "THE FILM 2019 X265 ");
  EXPECT_EQ(normaliseReleaseName("Film.2019.iso").container, std::nullopt);
  EXPECT_EQ(normaliseReleaseName("straße.mp4").upper, "STRASSE");
}

TEST(ReleaseParser, LanguagesSubtitlePhrasesAndMulti) {
  EXPECT_EQ(p("Film.2018.iTALiAN.ENG.1080p").languages, (Strings{"ITA", "ENG"}));
  EXPECT_EQ(p("The Italian Job 2003 1080p").languages, Strings{}) << "a title word is not a language";
  EXPECT_EQ(p("Film 2003 1080p ITA ENG SUBS ENG").languages, (Strings{"ITA", "ENG"})) << "a subtitle phrase";
  EXPECT_EQ(p("Film.2003.1080p.MULTI.ITA.ENG.DUAL").languages, Strings{"MULTI"}) << "MULTI overrides everything";
}

TEST(ReleaseParser, SeasonsEpisodesAndFlags) {
  const auto ep = p("Show.S01E05.1080p.WEB.h264-GRP");
  EXPECT_EQ(ep.season, 1);
  EXPECT_TRUE(p("Show.S02.1080p").isComplete);
  EXPECT_EQ(p("Show.S٠1E05").season, std::nullopt) << "digits of another script are unreadable";
  EXPECT_TRUE(p("Film.2020.Official.Trailer.1080p").notTheFilm);
  EXPECT_FALSE(p("The Dark Knight Trailer Park Boys").notTheFilm);
}

TEST(ReleaseParser, GroupsFromBracketsDashesAndTrailingTokens) {
  struct C {
    const char* name;
    std::optional<std::string> group;
  };
  for (const C& c : {C{"[SubsPlease] Anime - 01 (1080p) [ABCD1234].mkv", "SubsPlease"},
                     C{"Film.2019.1080p-YTS.MX", "YTS"}, C{"Film.2019.1080p.WEB.x264-dQw4w9WgXcQ", std::nullopt},
                     C{"Film.2019.1080p.BluRay.x264-ENG", std::nullopt}, C{"Film.2019.720p.HDTV.x264-[TGx]", "TGx"}}) {
    EXPECT_EQ(p(c.name).group, c.group) << c.name;
  }
}

TEST(ReleaseParser, MemoKeepsTheWholeCellAndCutsTheFirstLine) {
  const std::string cell = "Memo.Film.2019.2160p.WEB-DL\n👤 12 💾 3.1 GB ⚙️ 1080p";
  const auto a = ReleaseParser::parse(cell);
  EXPECT_EQ(a.resolution, "4K") << "only the first line is read";
  EXPECT_TRUE(ReleaseParser::memoState(cell).holds) << "kept under the whole cell";
  for (int i = 0; i < 1200; ++i) (void)ReleaseParser::parse("Name " + std::to_string(i) + " 1080p");
  EXPECT_EQ(ReleaseParser::memoState(cell).size, 500u) << "at most 500 entries";
  EXPECT_FALSE(ReleaseParser::memoState(cell).holds) << "the oldest went first";
}

TEST(ReleaseParser, UnrecognizedWordsOfTheTail) {
  EXPECT_EQ(ReleaseParser::unrecognizedWords("Some Title 2019 1080p WEB-DL FOOBAR DDP5.1 H.264-GRP"),
            Strings{"FOOBAR"});
  test::TestHome home;
  const auto file = home.file("unrecognized-release-words.json");
  {
    UnrecognizedReleaseWords census(file);
    census.record({"A 2019 1080p ZAP ZAP x264", "B 2019 1080p ZAP BOO x264", "A 2019 1080p ZAP ZAP x264"});
    EXPECT_EQ(census.words()["ZAP"].count, 3) << "twice in one name counts twice; a name counts once per run";
    EXPECT_FALSE(std::filesystem::exists(file)) << "nothing is saved before 25 new names";
    std::vector<std::string> many;
    for (int i = 0; i < 25; ++i)
      many.push_back(std::string("C").append(std::to_string(i)).append(" 2019 1080p QQQ x264"));
    census.record(many);
  }
  UnrecognizedReleaseWords again(file);
  EXPECT_EQ(again.words()["QQQ"].count, 25);
  EXPECT_EQ((*json::parse(*readFile(file)))["ZAP"].begin().key(), "count");
}

TEST(ReleaseParser, ReleaseState) {
  const Date now = *parseIsoDate("2026-06-15T12:00:00Z");
  using S = ReleaseState;
  EXPECT_EQ(ReleaseParser::releaseState(std::string("2026-06-15T00:00:00.000Z"), "", now), S::released)
      << "today's midnight is out";
  EXPECT_EQ(ReleaseParser::releaseState(std::string("2026-06-15T00:00:01Z"), "", now), S::unreleased);
  EXPECT_EQ(ReleaseParser::releaseState(std::string("garbage"), "2026", now), S::unknown) << "this year";
}

TEST(ReleaseParser, HostileInputGivesAResult) {
  std::string hostile;
  while (hostile.size() < 100000) hostile += "WATCH ";
  for (const auto& name : {std::string(), std::string(100000, 'A'), hostile, std::string("\xff\xc3\0[(-", 6),
                           std::string(5000, '-') + std::string(5000, '.')}) {
    (void)ReleaseParser::parseUncached(name);
    (void)ReleaseParser::unrecognizedWords(name);
  }
}

TEST(ReleaseParser, FastPathAgreesWithThePatternByPatternPath) {
  for (const auto& name : vt::bench::releaseNames(1000)) {
    ASSERT_EQ(ReleaseParser::parseUncached(name), ReleaseParser::parseUncached(name, ParseMode::reference)) << name;
    ASSERT_EQ(ReleaseParser::unrecognizedWords(name), ReleaseParser::unrecognizedWords(name, ParseMode::reference))
        << name;
  }
}
