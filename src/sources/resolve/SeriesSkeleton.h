#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Date.h"
#include "platform/Json.h"

namespace vt {

// One episode of a show as Cinemeta lists it.
struct EpisodeMeta {
  std::string id;  // Cinemeta's video id, else the episode key
  int season = 0;
  int episode = 0;
  std::string title;
  std::optional<std::string> released;  // ISO date
  std::optional<std::string> thumbnail;
  std::optional<std::string> overview;

  // The release date as a short date without time ("Jan 20, 2008", UTC);
  // none when `released` doesn't read as a date.
  std::optional<std::string> airDateText() const;

  bool operator==(const EpisodeMeta&) const = default;
};

// JSON of an episode: the keys are the field names, in field order, absent
// optionals left out.
Json toJson(const EpisodeMeta& episode);

// A show's structure as Cinemeta tells it: what the series resolve walks and
// what an episode's file name and release gate read.
struct SeriesSkeleton {
  std::string seriesId;
  std::string title;
  std::string year;
  std::vector<EpisodeMeta> episodes;  // in Cinemeta's order
  std::optional<int> runtimeMinutes;
  // Cinemeta's country text, from which the releases' original language is told.
  std::optional<std::string> country;

  // The episodes that are out (no release date counts as out), by season,
  // then episode.
  std::vector<EpisodeMeta> airedEpisodes(Date now) const;
  // The distinct seasons, ascending.
  std::vector<int> seasons() const;
  // The episodes of one season, by episode number. (Named apart from the
  // field `episodes`, which C++ would not let it share.)
  std::vector<EpisodeMeta> seasonEpisodes(int season) const;
  // The episode of that season and number, if Cinemeta lists it.
  const EpisodeMeta* find(int season, int episode) const;

  // Cinemeta's "meta" object of a series, read leniently: specials
  // (season 0) and videos without a season or a number are dropped; the
  // other fields fall back as the show's own record allows.
  static SeriesSkeleton decode(const std::string& seriesId, const Json& meta);
};

// "seriesId:season:episode", numbers unpadded.
std::string episodeKey(const std::string& seriesId, int season, int episode);

// An ISO date as a short date without time ("Jan 20, 2008", UTC); none when
// the text doesn't read as a date.
std::optional<std::string> shortDateText(std::string_view isoDate);
// "seriesId:s<season>": a season in the vetting.
std::string seasonKey(const std::string& seriesId, int season);

}  // namespace vt
