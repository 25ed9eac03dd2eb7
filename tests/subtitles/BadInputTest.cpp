// Hostile and broken files: each gives cues or a refusal, never a crash or a hang.
#include <gtest/gtest.h>

#include <unicode/utf8.h>

#include <random>

#include "SubtitleFiles.h"
#include "subtitles/Cues.h"
#include "subtitles/Emit.h"

using namespace vt;
using vt::test::srtBlock;
using vt::test::srtFile;

namespace {

bool wellFormed(const std::string& s) {
  const auto* p = reinterpret_cast<const uint8_t*>(s.data());
  const int64_t n = static_cast<int64_t>(s.size());
  for (int64_t i = 0; i < n;) {
    UChar32 c;
    U8_NEXT(p, i, n, c);
    if (c < 0) return false;
  }
  return true;
}

// The promises of the parser, whatever the input.
void expectSound(const std::vector<EngineCue>& cues) {
  for (size_t i = 0; i < cues.size(); ++i) {
    ASSERT_EQ(cues[i].n, static_cast<int64_t>(i) + 1);
    ASSERT_LT(cues[i].startMs, cues[i].endMs);
    ASSERT_FALSE(cues[i].text.empty());
    ASSERT_GE(cues[i].startMs, 0);
  }
}

// The whole text path a downloaded file takes.
std::vector<EngineCue> readFile(const std::string& bytes, std::optional<std::string_view> tag = std::nullopt) {
  const auto decoded = Cues::decode(bytes, tag);
  EXPECT_TRUE(wellFormed(decoded.text)) << decoded.encoding;
  auto cues = Cues::parse(Cues::repair(decoded.text));
  expectSound(cues);
  (void)Cues::shapeGate(cues, 5400);
  return cues;
}

std::string randomBytes(std::mt19937& rng, size_t n) {
  std::string s(n, '\0');
  for (auto& c : s) c = static_cast<char>(rng() & 0xFF);
  return s;
}

}  // namespace

TEST(BadInput, EmptyMarkOnlyAndUtf16WithoutAMark) {
  EXPECT_TRUE(readFile("").empty());
  EXPECT_TRUE(readFile("\xEF\xBB\xBF").empty());
  EXPECT_EQ(Cues::shapeGate(readFile(""), 5400), "only 0 cues (forced track?)");
  // UTF-16 little-endian without a mark: NULs between the digits leave no time line.
  const auto file = srtFile(60, [](int) { return "Привет"; });
  const auto utf16 = vt::test::encodedAs(file, "UTF-16LE");
  EXPECT_TRUE(readFile(utf16, std::string_view("rus")).empty());
  EXPECT_TRUE(readFile(vt::test::encodedAs(file, "UTF-16BE")).empty());
  EXPECT_TRUE(readFile(std::string(1000, '\0')).empty());
}

TEST(BadInput, ImpossibleTimesAndPileUps) {
  const auto cues = readFile(
      "1\n00:00:01,000 --> 99:99:99,999\nFar end\n\n"
      "2\n99:99:99,999 --> 00:00:01,000\nBackwards\n\n"
      "3\n-00:00:05,000 --> 00:00:06,000\nNegative start\n\n"
      "4\n00:00:05,000 --> -00:00:06,000\nNegative end\n\n"
      "5\n9999999:00:00,000 --> 999999:00:01,000\nSeven-digit hours\n\n"
      "6\n00:00:01,0000 --> 00:00:02,000\nFour-digit fraction\n\n"
      "7\n00:00:01,000 --> 1000000:00:02,000\nSeven-digit end\n");
  ASSERT_EQ(cues.size(), 3u);
  EXPECT_EQ(cues[0].endMs, ((99 * 3600 + 99 * 60 + 99) * 1000LL) + 999);
  EXPECT_EQ(cues[1].startMs, 5000) << "the minus sign is not part of the time";
  EXPECT_EQ(cues[2].startMs, 999999LL * 3600000) << "the pattern takes the last six digits";

  std::string same;
  for (int i = 0; i < 10000; ++i) same += srtBlock(i + 1, 60000, 62000, "Same time " + std::to_string(i));
  const auto pile = readFile(same);
  ASSERT_EQ(pile.size(), 10000u);
  EXPECT_EQ(pile.back().n, 10000);
  EXPECT_EQ(Cues::shapeGate(pile, 62), std::nullopt);
}

TEST(BadInput, LongLinesAndUnclosedMarkup) {
  const std::string longLine(100000, 'a');
  auto cues = readFile(srtBlock(1, 0, 1000, longLine) + srtBlock(2, 1000, 2000, std::string(100000, '<')) +
                       srtBlock(3, 2000, 3000, std::string(50000, '{') + "\\" + std::string(50000, 'x')) +
                       srtBlock(4, 3000, 4000, "<" + std::string(100000, ' ') + ">tail") +
                       srtBlock(5, 4000, 5000, std::string(100000, ' ') + "x"));
  ASSERT_EQ(cues.size(), 5u);
  EXPECT_EQ(cues[0].text, longLine);
  EXPECT_EQ(cues[1].text.size(), 100000u);
  EXPECT_EQ(cues[3].text, "tail");
  EXPECT_EQ(cues[4].text, "x");
  EXPECT_EQ(Emit::block(0, cues[0]).size(), 100000u + 33);

  // Runs of unclosed markers with a closing mark of the other kind after them, and a tag after all.
  std::string hostile;
  for (int i = 0; i < 40; ++i)
    hostile += srtBlock(i + 1, i * 1000, i * 1000 + 900,
                        ">" + std::string(30000, '<') + "}" + std::string(30000, '{') + "\\>" + "<i>ok</i>");
  const auto tagged = readFile(hostile);
  ASSERT_EQ(tagged.size(), 40u);
  EXPECT_TRUE(tagged[0].text == ">ok") << "the first \"<\" runs to the first \">\", as the tag pattern reads it";

  // A long run of blanks before a line end folds into one blank.
  const EngineCue spaced{1, 0, 1000, "a" + std::string(200000, ' ') + "x\ny"};
  EXPECT_EQ(Emit::block(0, spaced), "1\n00:00:00,000 --> 00:00:01,000\na" + std::string(200000, ' ') + "x y\n");
}

TEST(BadInput, FiftyMegabytesAndRandomBytes) {
  std::mt19937 rng(24);
  // 50 MB of text with time lines scattered through it.
  std::string text(50u << 20, ' ');
  for (auto& c : text) c = "ab <>{}\\-:0123456789,\n"[rng() % 22];
  for (size_t at = 0; at + 40 < text.size(); at += 1 + rng() % 4000)
    text.replace(at, 30, "\n00:00:01,000 --> 00:00:02,000");
  EXPECT_GT(readFile(text).size(), 1000u);
  // Binary noise takes the slow road through every code page, then parses.
  const auto noise = randomBytes(rng, 5u << 20);
  EXPECT_LT(readFile(noise, std::string_view("zho")).size(), 10u);

  // A real file repeated to 50 MB would hold a million cues; a tenth of that
  // shows the same.
  const auto one = srtFile(1500, [](int i) { return "Line number " + std::to_string(i); });
  std::string big;
  while (big.size() < (5u << 20)) big += one;
  EXPECT_EQ(readFile(big).size(), big.size() / one.size() * 1500);
}

TEST(BadInput, FuzzedFilesKeepTheParserPromises) {
  std::mt19937 rng(20240);
  const std::vector<std::string> seeds = {
      srtFile(
          40, [](int i) { return "<i>Line</i> " + std::to_string(i) + "\nsecond {\\an8}line"; }, "\r\n"),
      "\xEF\xBB\xBF" + srtFile(30, [](int i) { return i % 5 ? "Ã©tÃ© â€™ ï¿½" : "[music]"; }),
      vt::test::encodedAs(srtFile(30, [](int) { return "Привет, как дела?"; }), "windows-1251"),
      vt::test::encodedAs(srtFile(30, [](int) { return "我們走吧"; }), "Big5"),
      vt::test::encodedAs(srtFile(30, [](int) { return "こんにちは"; }), "Shift_JIS"),
  };
  const std::vector<std::optional<std::string_view>> tags = {std::nullopt, "rus", "zho", "jpn",
                                                             "kor",        "vie", "ara", "eng"};
  std::vector<std::string> splices = {
      "-->", "\r", ":", ",", "<", ">", "{\\", "}", "\xEF\xBB\xBF", "\xFF", std::string(1, '\0'), "\n\n"};
  splices.push_back("00:00:01,000 --> 00:00:00,999");
  for (int round = 0; round < 400; ++round) {
    std::string file;
    if (round % 4 == 0) {
      file = randomBytes(rng, rng() % 4096);
    } else {
      file = seeds[rng() % seeds.size()];
      const int edits = 1 + static_cast<int>(rng() % 20);
      for (int e = 0; e < edits && !file.empty(); ++e) {
        const size_t at = rng() % file.size();
        const auto edit = rng() % 4;
        if (edit == 0)
          file[at] = static_cast<char>(rng() & 0xFF);
        else if (edit == 1)
          file.erase(at, rng() % 64);
        else if (edit == 2)
          file.insert(at, splices[rng() % splices.size()]);
        else
          file.insert(at, file.substr(rng() % file.size(), rng() % 200));
      }
    }
    SCOPED_TRACE("round " + std::to_string(round));
    const auto cues = readFile(file, tags[rng() % tags.size()]);
    // What we write reads back with the same times.
    const auto again = Cues::parse(Emit::srt(cues));
    expectSound(again);
    ASSERT_LE(again.size(), cues.size());
    (void)Emit::applyFit(cues, -static_cast<int64_t>(rng() % 5000), 0.9 + (rng() % 200) / 1000.0);
    (void)Cues::watermarkRate(cues, 300);
  }
}

TEST(BadInput, TheTimeLineScanAgreesWithItsPatternWheneverItAnswers) {
  // Pieces that make near-misses likely: digit runs of every length, both
  // separators, every kind of blank, arrows that break off, and a little
  // that isn't ASCII.
  std::vector<std::string> pieces = {"0",   "12",           "123",        "1234",  "1234567",  ":",        ",",  ".",
                                     "-->", "->",           "--",         " ",     "\t",       "\r",       "\f", "\v",
                                     "x",   "00:00:01,000", "99:99:99.9", " --> ", "\xc2\xa0", "\xd9\xa3", "é",  "\n"};
  pieces.insert(pieces.end(), {"1:02:03.4-->5:06:07,890", "00:00:01,000 --> 00:00:02,000"});
  std::mt19937 rng(61);
  int answered = 0, found = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string block;
    const int n = 1 + static_cast<int>(rng() % 12);
    for (int i = 0; i < n; ++i) block += pieces[rng() % pieces.size()];
    const auto scanned = scanTimeLine(block);
    if (!scanned) continue;
    ++answered;
    const auto regex = timeLinePattern().search(block);
    ASSERT_EQ(scanned->has_value(), regex.has_value()) << "block: " << block;
    if (!regex) continue;
    ++found;
    EXPECT_EQ((*scanned)->spans, regex->spans) << "block: " << block;
  }
  EXPECT_GT(answered, 5000);
  EXPECT_GT(found, 1000) << "the rounds reach matches, not only misses";
}
