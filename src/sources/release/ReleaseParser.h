#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Date.h"

namespace vt {

// Everything a release name tells. What can't be read stays absent.
struct ReleaseInfo {
  std::optional<std::string> resolution;  // "4K", "1080p", "720p", "480p"
  std::optional<std::string> codec;       // "H.265", "H.264", "AV1", "VP9", "XviD"
  std::optional<std::string> source;      // "REMUX", "WEB-DL", "Blu-ray", "HDTV", "CAM", "TS", "TC", "SCR", "WEB"
  std::optional<std::string> service;     // "Netflix", "Amazon", ...
  std::optional<std::string> audio;       // "Atmos", "TrueHD", "DTS-HD", "DTS", "DD+", "AC3", "AAC", "FLAC"
  std::optional<std::string> hdr;         // "Dolby Vision", "HDR10", "HDR"
  std::vector<std::string> languages;     // three-letter labels, "MULTI", "DUAL"
  std::optional<std::string> container;   // lowercased known video extension
  std::optional<std::string> group;
  std::optional<int> season;
  std::optional<int> episode;
  bool isComplete = false;
  std::optional<int> bitDepth;
  bool isRemux = false;
  bool proper = false;
  bool repack = false;
  bool extended = false;
  bool directorsCut = false;
  bool remastered = false;
  bool upscaled = false;
  bool notTheFilm = false;
  bool stereo3D = false;
  bool cyrillic = false;
  bool burnedSubs = false;
  bool dolbyVisionOnly = false;
  bool dubbed = false;

  bool operator==(const ReleaseInfo&) const = default;
};

// How a name is read. `fast` skips the patterns that cannot match and reads
// plain ASCII without ICU; `reference` tries every pattern as written, with
// no shortcut: the yardstick that the fast path is tested against. Both give
// the same result.
enum class ParseMode { fast, reference };

// The one test of "is it out yet".
enum class ReleaseState { released, unreleased, unknown };

// Reads release names as add-ons send them. Never fails: any string gives a
// ReleaseInfo. Safe to call from any thread.
class ReleaseParser {
 public:
  // The memoised entry every caller uses (500 entries, keyed by the whole input).
  static ReleaseInfo parse(std::string_view name);
  // What the memo holds, for tests: whether `name` is in it, its size, and
  // the hits so far.
  struct MemoState {
    bool holds = false;
    size_t size = 0;
    uint64_t hits = 0;
  };
  static MemoState memoState(std::string_view name);
  // All passes, without the memo.
  static ReleaseInfo parseUncached(std::string_view name, ParseMode mode = ParseMode::fast);
  // The words of the technical tail that nothing explains.
  static std::vector<std::string> unrecognizedWords(std::string_view name, ParseMode mode = ParseMode::fast);
  // The release group of a name's base (the name without its video extension).
  static std::optional<std::string> extractGroup(std::string_view base, ParseMode mode = ParseMode::fast);

  // Whether a title is out: its release date (ISO 8601) when it reads,
  // otherwise the year against the current local year.
  static ReleaseState releaseState(const std::optional<std::string>& released, std::string_view year, Date now);
};

// Compact JSON of the fields that are present (the release verb of vantory-cli).
std::string releaseInfoJson(const ReleaseInfo& info);

}  // namespace vt
