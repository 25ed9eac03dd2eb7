#include <gtest/gtest.h>

#include "SubtitleFiles.h"
#include "subtitles/Emit.h"

using namespace vt;

TEST(ApplyFit, TruncatesEachTimeBeforeTheOffsetAndClampsAtZero) {
  const std::vector<EngineCue> cues = {{1, 1001, 2002, "a"}, {2, 999, 1500, "b"}, {3, 400000, 400999, "c"}};
  EXPECT_EQ(Emit::applyFit(cues, 0, 1.0), cues);

  // Each time is truncated, never rounded: 1.001 x 999 = 999.999 stays 999, and 1.001 x 400000 is a hair
  // below 400400 in binary.
  const std::vector<EngineCue> scaled = {{1, 1002, 2004, "a"}, {2, 999, 1501, "b"}, {3, 400399, 401399, "c"}};
  EXPECT_EQ(Emit::applyFit(cues, 0, 1.001), scaled);
  // 0.5 x 1001 = 500.5 -> 500, then the offset: 500 - 250 = 250 (not 250.5 rounded).
  const std::vector<EngineCue> both = {{1, 250, 751, "a"}, {2, 249, 500, "b"}, {3, 199750, 200249, "c"}};
  EXPECT_EQ(Emit::applyFit(cues, -250, 0.5), both);
  // A negative offset clamps the early cues to 0 and keeps their order and numbers.
  const std::vector<EngineCue> early = {{1, 0, 802, "a"}, {2, 0, 300, "b"}, {3, 398800, 399799, "c"}};
  EXPECT_EQ(Emit::applyFit(cues, -1200, 1.0), early);
  EXPECT_EQ(Emit::applyFit(cues, 500, 1.0)[0].startMs, 1501);
  // Scales a real fit can't reach still give times, never a crash.
  EXPECT_EQ(Emit::applyFit(cues, 0, std::nan(""))[2].endMs, 0);
  EXPECT_EQ(Emit::applyFit(cues, 0, -1.0)[2].endMs, 0);
  EXPECT_EQ(Emit::applyFit(cues, INT64_MAX, 1e300)[0].endMs, INT64_MAX);
}

TEST(Srt, BlocksNumbersAndTranslations) {
  const std::vector<EngineCue> cues = {
      {4, 1000, 2500, "Hello,\n  friend."}, {7, 3723004, 3724000, "Second"}, {9, 5000, 6000, "Third"}};
  EXPECT_EQ(Emit::srt(cues),
            "1\n00:00:01,000 --> 00:00:02,500\nHello, friend.\n\n"
            "2\n01:02:03,004 --> 01:02:04,000\nSecond\n\n"
            "3\n00:00:05,000 --> 00:00:06,000\nThird\n");
  EXPECT_EQ(Emit::srt({}), "");

  const CueTextMap primary = {{4, " Hallo,\n Freund. "}, {7, " \n\t "}};
  const CueTextMap secondary = {{4, "Bonjour,\r\nami."}, {9, "Troisième"}};
  EXPECT_EQ(Emit::block(0, cues[0], primary, secondary),
            "1\n00:00:01,000 --> 00:00:02,500\nHallo, Freund.\nBonjour, ami.\n")
      << "the primary text above the secondary";
  EXPECT_EQ(Emit::block(1, cues[1], primary, secondary), "2\n01:02:03,004 --> 01:02:04,000\nSecond\n")
      << "white space only falls back to the cue's own text";
  EXPECT_EQ(Emit::block(2, cues[2], primary, secondary), "3\n00:00:05,000 --> 00:00:06,000\nTroisième\n");

  // What we write reads back to the same times and texts.
  const std::vector<EngineCue> again = {
      {1, 1000, 2500, "Hello, friend."}, {2, 3723004, 3724000, "Second"}, {3, 5000, 6000, "Third"}};
  EXPECT_EQ(Cues::parse(Emit::srt(cues)), again);
}
