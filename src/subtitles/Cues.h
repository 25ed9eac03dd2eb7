#pragma once

// The text layer of the subtitle pipeline: raw bytes of a downloaded file in,
// ordered cues with integer millisecond times out. Everything here is pure and
// synchronous, safe to call from any thread, and never throws on bad input.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Regex.h"

namespace vt {

// One cue in the subtitle file's own clock.
struct EngineCue {
  int64_t n = 0;  // 1-based position in the parsed file; translation maps are keyed by it
  int64_t startMs = 0;
  int64_t endMs = 0;
  std::string text;  // tag-free, lines joined with "\n"

  bool operator==(const EngineCue&) const = default;
};

class Cues {
 public:
  Cues() = delete;

  struct Decoded {
    std::string text;      // UTF-8
    std::string encoding;  // "utf-8-sig", "utf-8", a legacy name such as "cp1251", or "utf-8-replace"
  };

  // Bytes to text. Tries UTF-8 (with and without a byte-order mark), then the
  // legacy code pages that the language tag suggests, then "cp1252" and
  // "latin-1"; a text is taken from a legacy page only when it shows the
  // language's script. Never fails: the last resort is UTF-8 with bad
  // sequences replaced.
  static Decoded decode(std::string_view bytes, std::optional<std::string_view> language = std::nullopt);

  // Undoes the common damage of UTF-8 read as Windows-1252 and drops
  // replacement characters.
  static std::string repair(std::string_view text);

  // SRT-like text to cues in file order. Blocks without a readable time line,
  // without text, or whose start is not before their end are skipped; `n`
  // counts the kept cues from 1 without gaps.
  static std::vector<EngineCue> parse(std::string_view text);

  // The share of the first `limit` cues that carry a release group's or a
  // site's watermark, rounded to four places; 0.0 for no cues.
  static double watermarkRate(const std::vector<EngineCue>& cues, int64_t limit);

  // Why the cues can't be a full dialogue track of a film of this many
  // seconds (0 or less: unknown), or none when they can.
  static std::optional<std::string> shapeGate(const std::vector<EngineCue>& cues, double filmSeconds);

  // "HH:MM:SS,mmm"; hours are not wrapped, negative input counts as 0.
  static std::string timestamp(int64_t ms);

  // A whole cue in brackets or parentheses, or one that starts with a
  // capitalised speaker label ("MAN:").
  static bool isSoundEffect(std::string_view text);
  static bool isDialogue(const EngineCue& cue) { return !isSoundEffect(cue.text); }
  // A dialogue cue that holds no musical note.
  static bool isSpeech(const EngineCue& cue);

  // The file needs this many cues to be a full track; fewer are a forced one.
  static constexpr size_t kMinimumCues = 50;
  static constexpr double kMinimumCoverage = 0.8;
  static constexpr double kMaximumCoverage = 1.02;
  // The most watermarked cues a track may hold, as a share of the first 300.
  static constexpr double kMaximumWatermarkRate = 0.01;
  static constexpr int64_t kWatermarkWindow = 300;
};

// The time line of a block ("00:01:02,500 --> 00:01:04,000") as its pattern
// finds it, and the same found by a scan that gives the pattern's answer
// where every character it meets is ASCII (outer none elsewhere). Parsing
// scans first; the pattern decides when the scan can't.
const Regex& timeLinePattern();
std::optional<std::optional<Regex::Match>> scanTimeLine(std::string_view block);

// A number as the messages print it: the shortest text that reads back to the
// same double, in the C locale, with ".0" after a whole number.
std::string shortestDecimal(double value);

}  // namespace vt
