#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <sstream>

#include "../../bench/ReleaseNames.h"
#include "platform/IsoDate.h"
#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "sources/release/ReleaseParser.h"
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
  EXPECT_EQ(i.hdr, "HDR");
  EXPECT_EQ(i.bitDepth, 10);
  EXPECT_EQ(i.group, "GRP");
  EXPECT_EQ(i.container, "mkv");
  EXPECT_FALSE(i.isRemux);
}

TEST(ReleaseParser, CodecsSourcesServicesAudioAndHdr) {
  for (const char* n : {"Film H 264", "Film AVC"}) EXPECT_EQ(p(n).codec, "H.264") << n;
  EXPECT_EQ(p("Film.DivX").codec, "XviD");
  EXPECT_EQ(p("Film.2020.WEBRip").source, "WEB");
  const auto remux = p("Film.2020.BluRay.REMUX.AVC");
  EXPECT_EQ(remux.source, "REMUX");
  EXPECT_TRUE(remux.isRemux);
  EXPECT_EQ(p("Film 2023 TeleSync").source, "TS");
  EXPECT_EQ(p("Film.2023.1080p.AMZN.WEB-DL").service, "Amazon");
  EXPECT_EQ(p("Film.DDP5.1").audio, "DD+");
  EXPECT_EQ(p("Film.DV.HDR10").hdr, "Dolby Vision");
  EXPECT_TRUE(p("Film.2160p.DV.x265").dolbyVisionOnly);
  EXPECT_FALSE(p("Film.2160p.DV.HDR10.x265").dolbyVisionOnly);
  EXPECT_FALSE(p("Film.2160p.DoVi.HLG").dolbyVisionOnly);
}

TEST(ReleaseParser, ResolutionRowsAndDimensionBoundaries) {
  struct C {
    const char* name;
    std::optional<std::string> res;
  };
  for (const C& c : {C{"Film.72OP", "720p"}, C{"Film.720", std::nullopt}, C{"Film.1080", "1080p"},
                     C{"Film.3200x100", "4K"}, C{"Film.3199x999", "1080p"}, C{"Film.1700x600", "1080p"},
                     C{"Film.1699x999", "720p"}, C{"Film.1180x600", "720p"}, C{"Film.1179x699", "480p"},
                     C{"Film.0640x480", std::nullopt}, C{"Film.720p.1920x1080", "720p"}}) {
    EXPECT_EQ(p(c.name).resolution, c.res) << c.name;
  }
}

TEST(ReleaseParser, LanguagesSubtitlePhrasesAndMulti) {
  EXPECT_EQ(p("Film.2018.iTALiAN.ENG.1080p").languages, (Strings{"ITA", "ENG"}));
  EXPECT_EQ(p("The Italian Job 2003 1080p").languages, Strings{}) << "a title word is not a language";
  EXPECT_EQ(p("Film 2003 1080p ENGLISH SUBS").languages, Strings{}) << "a subtitle phrase";
  EXPECT_EQ(p("Film 2003 1080p ITA ENG SUBS ENG").languages, (Strings{"ITA", "ENG"}));
  EXPECT_EQ(p("Film.2003.1080p.MULTI.ITA.ENG.DUAL").languages, Strings{"MULTI"}) << "MULTI overrides everything";
  EXPECT_EQ(p("Film.2003.1080p.DUAL.ENG.RUS").languages, (Strings{"DUAL", "ENG", "RUS"}));
  EXPECT_EQ(p("Film.2003.1080p.2RUS.UKR").languages, (Strings{"RUS", "UKR"}));
  EXPECT_EQ(p("Film.2003.1080p.TRUEFRENCH.VFF").languages, Strings{"FRE"});
  EXPECT_EQ(p("Фильм.2020.1080p.WEB-DL.RUS").languages, Strings{"RUS"});
}

TEST(ReleaseParser, SeasonsEpisodesAndFlags) {
  const auto ep = p("Show.S01E05.1080p.WEB.h264-GRP");
  EXPECT_EQ(ep.season, 1);
  EXPECT_EQ(ep.episode, 5);
  EXPECT_FALSE(ep.isComplete);
  EXPECT_EQ(p("Show 2x13 720p").episode, 13);
  const auto seasonOnly = p("Show.S02.1080p");
  EXPECT_EQ(seasonOnly.season, 2);
  EXPECT_EQ(seasonOnly.episode, std::nullopt);
  EXPECT_TRUE(seasonOnly.isComplete);
  EXPECT_TRUE(p("Show S01-S03 1080p").isComplete);
  EXPECT_EQ(p("Show.S٠1E05").season, std::nullopt) << "digits of another script are unreadable";

  EXPECT_TRUE(p("Film.2020.60fps.120FPS").upscaled);
  EXPECT_TRUE(p("Film.2020.Official.Trailer.1080p").notTheFilm);
  EXPECT_FALSE(p("The Dark Knight Trailer Park Boys").notTheFilm);
  EXPECT_TRUE(p("Film.2020.3D.HSBS.1080p").stereo3D);
  EXPECT_TRUE(p("Фильм (2020) 1080p").cyrillic);
}

TEST(ReleaseParser, GroupsFromBracketsDashesAndTrailingTokens) {
  struct C {
    const char* name;
    std::optional<std::string> group;
  };
  for (const C& c : {
           C{"[SubsPlease] Anime - 01 (1080p) [ABCD1234].mkv", "SubsPlease"},  // checksum and resolution skipped
           C{"Anime - 01 [1080p] [Erai-raws] [ABCD1234]", "Erai-raws"},
           C{"Film.2019.1080p-YTS.MX", "YTS"},
           C{"Film.2019.1080p.WEB.x264-dQw4w9WgXcQ", std::nullopt},
           C{"Film.2019.1080p.WEB-DL.x264.mkv-tgx.to", "mkv-tgx"},  // the domain ending is dropped
           C{"Film.2019.1080p.BluRay.x264-ENG", std::nullopt},
           C{"Film.2019.1080p.BluRay.x264-_hidden", "hidden"},  // the dash tail fails, the last token passes
           C{"Film.2019.720p.HDTV.x264-[TGx]", "TGx"},
       }) {
    EXPECT_EQ(p(c.name).group, c.group) << c.name;
  }
}

TEST(ReleaseParser, MemoKeepsTheWholeCellAndCutsTheFirstLine) {
  const std::string cell = "Memo.Film.2019.2160p.WEB-DL\n👤 12 💾 3.1 GB ⚙️ 1080p";
  const std::string line = "Memo.Film.2019.2160p.WEB-DL";
  ASSERT_FALSE(ReleaseParser::memoState(cell).holds);
  const auto a = ReleaseParser::parse(cell);
  EXPECT_EQ(a.resolution, "4K") << "only the first line is read";
  EXPECT_TRUE(ReleaseParser::memoState(cell).holds) << "kept under the whole cell";
  EXPECT_FALSE(ReleaseParser::memoState(line).holds) << "not under its first line";
  const auto hits = ReleaseParser::memoState(cell).hits;
  EXPECT_EQ(ReleaseParser::parse(cell), a);
  EXPECT_EQ(ReleaseParser::memoState(cell).hits, hits + 1) << "the second parse is a hit";
  EXPECT_EQ(ReleaseParser::parse(line), a);
  for (int i = 0; i < 1200; ++i) (void)ReleaseParser::parse("Name " + std::to_string(i) + " 1080p");
  EXPECT_EQ(ReleaseParser::memoState(cell).size, 500u) << "at most 500 entries";
  EXPECT_FALSE(ReleaseParser::memoState(cell).holds) << "the oldest went first";
  EXPECT_EQ(ReleaseParser::parse(cell), a);
}

TEST(ReleaseParser, UnrecognizedWordsOfTheTail) {
  EXPECT_EQ(ReleaseParser::unrecognizedWords("Some Title 2019 1080p WEB-DL FOOBAR DDP5.1 H.264-GRP"),
            Strings{"FOOBAR"});
  EXPECT_EQ(ReleaseParser::unrecognizedWords("Italian Job 2003 1080p"), Strings{});
  // The whole name is read, not only its first line as parse() does.
  EXPECT_EQ(ReleaseParser::unrecognizedWords("Some Title 2019 1080p WEB-DL x264-GRP \n QUUXWORD 2GB"),
            Strings{"QUUXWORD"});

  test::TestHome home;
  const auto file = home.file("unrecognized-release-words.json");
  {
    UnrecognizedReleaseWords census(file);
    census.record({"A 2019 1080p ZAP ZAP x264", "B 2019 1080p ZAP BOO x264", "A 2019 1080p ZAP ZAP x264"});
    auto words = census.words();
    ASSERT_EQ(words.size(), 2u);
    EXPECT_EQ(words["ZAP"].count, 3) << "twice in one name counts twice; a name counts once per run";
    EXPECT_EQ(words["ZAP"].example, "A 2019 1080p ZAP ZAP x264");
    EXPECT_EQ(words["BOO"].example, "B 2019 1080p ZAP BOO x264");
    EXPECT_FALSE(std::filesystem::exists(file)) << "nothing is saved before 25 new names";
    std::vector<std::string> many;
    for (int i = 0; i < 25; ++i)
      many.push_back(std::string("C").append(std::to_string(i)).append(" 2019 1080p QQQ x264"));
    census.record(many);
    ASSERT_TRUE(std::filesystem::exists(file));
  }
  UnrecognizedReleaseWords again(file);
  EXPECT_EQ(again.words()["QQQ"].count, 25);
  auto doc = json::parse(*readFile(file));
  ASSERT_TRUE(doc);
  EXPECT_EQ((*doc)["ZAP"].begin().key(), "count");
}

TEST(ReleaseParser, ReleaseState) {
  const Date now = *parseIsoDate("2026-06-15T12:00:00Z");
  using S = ReleaseState;
  EXPECT_EQ(ReleaseParser::releaseState(std::string("2026-06-16T00:00:00Z"), "", now), S::unreleased);
  EXPECT_EQ(ReleaseParser::releaseState(std::string("2026-06-15T00:00:00.000Z"), "", now), S::released)
      << "today's midnight is out";
  EXPECT_EQ(ReleaseParser::releaseState(std::string("2026-06-15T00:00:01Z"), "", now), S::unreleased);
  EXPECT_EQ(ReleaseParser::releaseState(std::nullopt, "", now), S::unknown);
  EXPECT_EQ(ReleaseParser::releaseState(std::string("garbage"), "2026", now), S::unknown) << "this year";
  EXPECT_EQ(ReleaseParser::releaseState(std::nullopt, "2027–", now), S::unreleased);
  EXPECT_EQ(ReleaseParser::releaseState(std::nullopt, "1999", now), S::released);
  EXPECT_EQ(ReleaseParser::releaseState(std::nullopt, "19x9", now), S::unknown);
}

// Any bytes give a result and end (the patterns' own time limit keeps a
// hostile name from running away; how fast is for bench_release to say).
TEST(ReleaseParser, AnyInputGivesAResult) {
  std::mt19937 rng(9);
  const std::string vocab[] = {"1080p", "S01E02", "MULTI", "[",      "]",     "(",  ")",  "-",   ".",   " ",    "\xff",
                               "\xc3",  "\u200f", "Фильм", "WATCH ", " FREE", "\n", "\0", "ITA", "YTS", "2160", "x"};
  auto check = [](const std::string& name) {
    (void)ReleaseParser::parseUncached(name);
    (void)ReleaseParser::unrecognizedWords(name);
  };
  for (int i = 0; i < 100; ++i) {
    std::string name;
    const int n = static_cast<int>(rng() % 20);
    for (int k = 0; k < n; ++k) name += vocab[rng() % std::size(vocab)];
    if (rng() % 4 == 0)
      for (auto& c : name) c = static_cast<char>(rng() % 256);
    check(name);
  }
  check("");
  check(std::string(100000, 'A'));
  std::string hostile;
  while (hostile.size() < 100000) hostile += "WATCH ";
  check(hostile);
  check(std::string(5000, '-') + std::string(5000, '.'));
}

TEST(ReleaseParser, FastPathAgreesWithThePatternByPatternPath) {
  // The benchmark's names and random inputs: both paths must read them alike.
  const auto names = vt::bench::releaseNames(1000);
  std::vector<std::string> inputs(names.begin(), names.end());
  std::vector<std::string> vocab;
  std::istringstream words(
      "S01|E02|1x02|2160|216O|1O8O|720|X|x|1920x1080|٣|DV|HDR10|SUBS|ENG|NAPISY PL|WATCH IT FREE|TRAILER PARK|-|.|[|]|"
      "(|)|_| |Фильм|\xff|ITA|MULTI2|COMPLETE|S01-S03|Season 2|10bit|HI10P|YTS.MX|[ABCD1234]|mkv|\n");
  for (std::string w; std::getline(words, w, '|');) vocab.push_back(w);
  std::mt19937 rng(17);
  for (int i = 0; i < 100; ++i) {
    std::string s;
    const int n = 1 + static_cast<int>(rng() % 12);
    for (int k = 0; k < n; ++k) s += vocab[rng() % vocab.size()];
    inputs.push_back(s);
  }
  for (const auto& name : inputs) {
    ASSERT_EQ(ReleaseParser::parseUncached(name), ReleaseParser::parseUncached(name, ParseMode::reference)) << name;
    ASSERT_EQ(ReleaseParser::unrecognizedWords(name), ReleaseParser::unrecognizedWords(name, ParseMode::reference))
        << name;
  }
}
