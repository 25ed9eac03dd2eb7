#include "subtitles/Emit.h"

#include <cmath>
#include <limits>

#include "platform/Text.h"

namespace vt {

namespace {

// Truncation toward zero; NaN and infinities count as 0, and values beyond
// the 64-bit range stop at its ends.
int64_t truncated(double value) {
  if (!std::isfinite(value)) return 0;
  constexpr double kLimit = 9.2e18;
  if (value >= kLimit) return std::numeric_limits<int64_t>::max();
  if (value <= -kLimit) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(value);
}

int64_t fitted(int64_t ms, int64_t offsetMs, double scale) {
  int64_t out = 0;
  if (__builtin_add_overflow(truncated(scale * static_cast<double>(ms)), offsetMs, &out))
    out = offsetMs > 0 ? std::numeric_limits<int64_t>::max() : 0;
  return out < 0 ? 0 : out;
}

// A text on one line: every line end with the blanks around it becomes one
// blank.
// Done by hand rather than with "\s*\n\s*", which is quadratic on a long run
// of blanks without a line end.
std::string folded(std::string_view text) {
  std::string out;
  size_t from = 0;
  while (from <= text.size()) {
    const size_t end = std::min(text.find('\n', from), text.size());
    const auto piece = trimmedUnicodeSpace(text.substr(from, end - from));
    if (!piece.empty()) {
      if (!out.empty()) out.push_back(' ');
      out.append(piece);
    }
    from = end + 1;
  }
  return out;
}

}  // namespace

std::vector<EngineCue> Emit::applyFit(const std::vector<EngineCue>& cues, int64_t offsetMs, double scale) {
  if (offsetMs == 0 && scale == 1.0) return cues;
  std::vector<EngineCue> out = cues;
  for (auto& cue : out) {
    cue.startMs = fitted(cue.startMs, offsetMs, scale);
    cue.endMs = fitted(cue.endMs, offsetMs, scale);
  }
  return out;
}

std::string Emit::block(size_t position, const EngineCue& cue, const CueTextMap& primary, const CueTextMap& secondary) {
  std::string text;
  for (const CueTextMap* map : {&primary, &secondary}) {
    const auto it = map->find(cue.n);
    if (it == map->end()) continue;
    auto line = folded(it->second);
    if (line.empty()) continue;
    if (!text.empty()) text.push_back('\n');
    text += line;
  }
  if (text.empty()) text = folded(cue.text);
  std::string out = std::to_string(position + 1);
  out += '\n';
  out += Cues::timestamp(cue.startMs);
  out += " --> ";
  out += Cues::timestamp(cue.endMs);
  out += '\n';
  out += text;
  out += '\n';
  return out;
}

std::string Emit::srt(const std::vector<EngineCue>& cues, const CueTextMap& primary, const CueTextMap& secondary) {
  std::string out;
  for (size_t i = 0; i < cues.size(); ++i) {
    if (i > 0) out += '\n';
    out += block(i, cues[i], primary, secondary);
  }
  return out;
}

}  // namespace vt
