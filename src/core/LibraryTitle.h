#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Date.h"
#include "platform/Json.h"

namespace vt {

class JsonWriter;

// Whether an attached subtitle was found as-is or fitted to this file.
enum class SubtitleState { automatic, synced };
std::string_view subtitleStateText(SubtitleState s);  // "auto", "synced"

// The size that marks a companion's size as a placeholder (unknown size).
inline constexpr int64_t kPlaceholderSize = 0x60000000;

// The 1080p companion of a 4K film.
struct AltStreamVersion {
  std::string name;
  std::string resolveURL;
  int64_t size = 0;
  std::optional<bool> sizeVerified;
  std::optional<Date> resolvedAt;

  bool operator==(const AltStreamVersion&) const = default;
};

// One published file: a film, or one episode. Its identity lies in `name`.
struct LibraryTitle {
  std::string name;
  std::string url;
  int64_t size = 0;
  std::optional<bool> sizeVerified;
  std::optional<std::string> rdLink;
  std::optional<std::string> resolveURL;
  std::string source;
  std::optional<std::string> rdFilename;
  std::optional<std::string> subtitlePath;
  std::optional<std::string> subtitleLang;
  std::optional<std::string> subtitleLang2;
  std::optional<SubtitleState> subtitleState;
  std::optional<Date> resolvedAt;
  std::optional<std::string> seriesImdbId;
  std::optional<int> season;
  std::optional<int> episode;
  std::optional<AltStreamVersion> altVersion;
  std::optional<std::vector<std::string>> mirrorURLs;

  bool operator==(const LibraryTitle&) const = default;
};

// JSON of library.json: the keys are the field names, in field order, absent
// optionals left out. (Decoding lives with the store, which reads the whole file at once.)
void writeLibraryTitle(JsonWriter& w, const LibraryTitle& t);
std::string encodeLibraryTitles(const std::vector<const LibraryTitle*>& titles);

// File names. `safeName` makes a catalog title usable as a path component.
std::string safeName(std::string_view title);
// "<safe> (<year>) {imdb-<id>}.<ext>"; ext "mkv" when the release names none.
std::string filmFileName(std::string_view title, std::string_view year, std::string_view imdbId,
                         std::string_view releaseFilename);
// "<safe> (<year>) {imdb-<id>} - 1080p.<ext>", ext from the companion's release.
std::string companionFileName(std::string_view title, std::string_view year, std::string_view imdbId,
                              std::string_view companionReleaseFilename);
// "<safe> (<year>) {imdb-<id>}/Season <NN>/<safe> (<year>) - s<NN>e<EE>.mkv"
std::string episodeFileName(std::string_view seriesTitle, std::string_view year, std::string_view imdbId, int season,
                            int episode);

// Ids from names. The IMDb tag is the first "{imdb-tt…}" in the name.
std::optional<std::string> imdbIdOf(std::string_view name);
// "<imdb id>:<season>:<episode>" from an "sNNeNN" marker in the last path
// component, right before its extension; none otherwise.
std::optional<std::string> episodeKeyOf(std::string_view name);
// The same, for a name whose IMDb id is already known.
std::optional<std::string> episodeKeyOf(std::string_view name, const std::string& imdbId);
// The series id of an episode key; none unless the key has exactly three
// parts "tt…", integer, integer.
std::optional<std::string> seriesIdOf(std::string_view key);
// A title's id: its episode key, else its IMDb id, else none.
std::optional<std::string> titleIdOf(std::string_view name);

// A companion is dropped when it repeats the title's own stream or when the
// title's release is known and is not 4K.
bool companionIsValid(const LibraryTitle& t);

}  // namespace vt
