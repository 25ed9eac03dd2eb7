#pragma once

// Cues out: a timing fit applied to the file's own clock, and SRT text.
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "subtitles/Cues.h"

namespace vt {

// A cue's `n` to its translated text.
using CueTextMap = std::map<int64_t, std::string>;

class Emit {
 public:
  Emit() = delete;

  // Each time becomes truncate(scale * time) + offsetMs, clamped at 0. With
  // offset 0 and scale exactly 1 the cues come back as they are.
  static std::vector<EngineCue> applyFit(const std::vector<EngineCue>& cues, int64_t offsetMs, double scale);

  // One SRT block: the 1-based number, the time line, the text and a line
  // feed. The text is the primary translation above the secondary one, each
  // folded to one line; with neither, the cue's own text folded the same way.
  static std::string block(size_t position, const EngineCue& cue, const CueTextMap& primary = {},
                           const CueTextMap& secondary = {});

  // The whole file: blocks one blank line apart, ending with one line feed.
  static std::string srt(const std::vector<EngineCue>& cues, const CueTextMap& primary = {},
                         const CueTextMap& secondary = {});
};

}  // namespace vt
