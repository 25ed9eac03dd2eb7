#include <gtest/gtest.h>

#include "SubtitleFiles.h"

using namespace vt;
using vt::test::cuesEnding;

TEST(Parse, TimesTextAndNumbering) {
  const std::string file =
      "1\n00:00:01,000 --> 00:00:02,500\nHello there.\nSecond line\n\n"
      "2\n00:00:01.5 --> 00:00:02.25\n  indented stays\n\n"
      "3\n123456:00:00,000 --> 123456:00:01,000\nSix-digit hours\n\n"
      "4\n00:00:05,000 --> 00:00:06,000\n<i></i>{\\an8}\n\n"  // only tags: gone
      "5\n00:00:07,000 --> 00:00:07,000\nNo length\n\n"       // start == end: gone
      "6\n00:00:09,000 --> 00:00:08,000\nBackwards\n\n"       // gone
      "7\n00:00:10,000-->00:00:11,000\n<i>Italic</i> and <font color=\"#ff0\">colour</font>\n\n"
      "8\n00:00:12,000 --> 00:00:13,000 X1:10 X2:20\n{\\an8}{\\c&H00FF00&}Top\n"
      "\n\n\n"
      "  \n"
      "No time line here\n\n"
      "00:00:14,000 --> 00:00:15,000\nNo number\n\n"
      "10\n\xD9\xA0\xD9\xA0:00:16,000 --> 00:00:17,000\nArabic-Indic digits\n\n"
      "11\n00:00:18,000 --> 00:00:19,000\nNo blank line at the end";
  const auto cues = Cues::parse(file);
  const std::vector<EngineCue> expected = {
      {1, 1000, 2500, "Hello there.\nSecond line"},
      {2, 1500, 2250, "indented stays"},
      {3, 123456LL * 3600000, 123456LL * 3600000 + 1000, "Six-digit hours"},
      {4, 10000, 11000, "Italic and colour"},
      {5, 12000, 13000, "X1:10 X2:20\nTop"},  // what follows the times on their line is text
      {6, 14000, 15000, "No number"},
      {7, 18000, 19000, "No blank line at the end"},
  };
  EXPECT_EQ(cues, expected);

  EXPECT_EQ(
      Cues::parse("1\r00:00:01,000 --> 00:00:02,000\rA\r\r2\r\n00:00:03,000 --> 00:00:04,000\r\nB\r\n\r\n").size(), 2u)
      << "carriage returns alone or before a line feed end lines";
  EXPECT_EQ(Cues::parse("1\n00:00:01,000 --> 00:00:02,000\nA\n\u3000\n2\n00:00:03,000 --> 00:00:04,000\nB").size(), 2u)
      << "any Unicode space between blocks separates them";
  const auto middle = Cues::parse("1\n00:00:01,000 --> 00:00:02,000\n  a  \n    b\n");
  ASSERT_EQ(middle.size(), 1u);
  EXPECT_EQ(middle[0].text, "a  \n    b") << "inner lines keep their blanks; only the ends are trimmed";
}

TEST(Parse, OutOfOrderNumbersAndOverlapsKeepFileOrder) {
  const std::string file =
      "7\n00:00:05,000 --> 00:00:06,000\nFirst in the file\n\n"
      "2\n00:00:01,000 --> 00:00:09,000\nOverlaps and starts earlier\n\n"
      "2\n00:00:01,000 --> 00:00:09,000\nSame number again\n";
  const std::vector<EngineCue> expected = {{1, 5000, 6000, "First in the file"},
                                           {2, 1000, 9000, "Overlaps and starts earlier"},
                                           {3, 1000, 9000, "Same number again"}};
  EXPECT_EQ(Cues::parse(file), expected);
}

TEST(Classes, SoundEffectsDialogueAndSpeech) {
  struct Row {
    std::string text;
    bool soundEffect;
    bool speech;
  };
  const std::vector<Row> rows = {
      {"[door slams]", true, false},
      {"(laughs)", true, false},
      {"  [gunshot]  ", true, false},
      {"SARAH: Hello", true, false},
      {"OLD JOE: Get out.", true, false},
      {"MR. SMITH: Hi", false, true},  // the dot is not part of a speaker label
      {"Sarah: Hello", false, true},
      {"OK: fine", false, true},  // two capitals are too short for a label
      {"[whispers] I know.", false, true},
      {"[sighs]\n(laughs)", false, true},  // a bracketed cue on one line only
      {"\u266A la la \u266A", false, false},
      {"\u266B Song", false, false},
      {"Hello", false, true},
  };
  for (const auto& row : rows) {
    const EngineCue cue{1, 0, 1000, row.text};
    EXPECT_EQ(Cues::isSoundEffect(row.text), row.soundEffect) << row.text;
    EXPECT_EQ(Cues::isDialogue(cue), !row.soundEffect) << row.text;
    EXPECT_EQ(Cues::isSpeech(cue), row.speech) << row.text;
  }
}

TEST(Gates, WatermarkRateCountsTheFirstCuesOnly) {
  auto line = [](int i) { return "Line " + std::to_string(i); };
  auto cues = cuesEnding(400, 400000, line);
  EXPECT_EQ(Cues::watermarkRate(cues, 300), 0.0);
  EXPECT_EQ(Cues::watermarkRate({}, 300), 0.0);
  cues[0].text = "Synced by Somebody";
  cues[10].text = "Downloaded from OpenSubtitles.org";
  cues[299].text = "ترجمة فريق";
  EXPECT_EQ(Cues::watermarkRate(cues, 300), 0.01);
  EXPECT_EQ(Cues::shapeGate(cues, 0), std::nullopt) << "exactly 0.01 passes";
  cues[350].text = "www.YIFY-torrents.com";  // beyond the first 300
  EXPECT_EQ(Cues::shapeGate(cues, 0), std::nullopt);
  cues[100].text = "字幕组 出品";
  EXPECT_EQ(Cues::watermarkRate(cues, 300), 0.0133);
  EXPECT_EQ(Cues::shapeGate(cues, 0), "junk watermark rate 0.0133");
  EXPECT_EQ(Cues::watermarkRate(cues, 3), 0.3333);
  EXPECT_EQ(Cues::watermarkRate(cues, 0), 0.0);
  for (const std::string junk : {"subscene", "ADDIC7ED", "yts.mx", "Memory On Smoking", "افلام", "ترجم", "字幕",
                                 "자막 제작", "자막제작", "subtitle by x", "Subtitles by x", "hosszupuska", "VOD"}) {
    EXPECT_EQ(Cues::watermarkRate({{1, 0, 1, "a " + junk + " b"}}, 300), 1.0) << junk;
  }
}

TEST(Gates, CountAndCoverageAtTheirLimits) {
  auto line = [](int i) { return "Line " + std::to_string(i); };
  EXPECT_EQ(Cues::shapeGate({}, 6000), "only 0 cues (forced track?)");
  EXPECT_EQ(Cues::shapeGate(cuesEnding(49, 5000000, line), 6000), "only 49 cues (forced track?)");
  EXPECT_EQ(Cues::shapeGate(cuesEnding(50, 5000000, line), 6000), std::nullopt);

  // A film of 10,000 seconds: coverage is the last cue's end over its length.
  struct Row {
    int64_t lastEndMs;
    std::optional<std::string> refusal;
  };
  const std::vector<Row> rows = {
      {8000000, std::nullopt},
      {10200000, std::nullopt},
      {7999000, "coverage 0.7999 (partial or wrong film)"},
      {10201000, "coverage 1.0201 (partial or wrong film)"},
      {499, std::nullopt},  // rounds to 0: not judged
      {5000, "coverage 0.0005 (partial or wrong film)"},
  };
  for (const auto& row : rows) {
    auto cues = cuesEnding(60, row.lastEndMs, line);
    EXPECT_EQ(Cues::shapeGate(cues, 10000), row.refusal) << row.lastEndMs;
    EXPECT_EQ(Cues::shapeGate(cues, 0), std::nullopt) << "an unknown length passes";
  }
  // The last cue in file order counts, not the latest one.
  auto cues = cuesEnding(60, 5000, line);
  cues[10].endMs = 9000000;
  EXPECT_EQ(Cues::shapeGate(cues, 10000), "coverage 0.0005 (partial or wrong film)");
}

TEST(Timestamp, FieldsAndLimits) {
  EXPECT_EQ(Cues::timestamp(0), "00:00:00,000");
  EXPECT_EQ(Cues::timestamp(3723004), "01:02:03,004");
  EXPECT_EQ(Cues::timestamp(-5), "00:00:00,000");
  EXPECT_EQ(Cues::timestamp(360000000), "100:00:00,000") << "hours are not wrapped";
  EXPECT_EQ(shortestDecimal(2), "2.0");
  EXPECT_EQ(shortestDecimal(0.0133), "0.0133");
  EXPECT_EQ(shortestDecimal(0.0001), "0.0001");
  EXPECT_EQ(shortestDecimal(0), "0.0");
}
