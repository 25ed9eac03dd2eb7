#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vt::lab {

// The stream add-on family that lists a release, in its own row shape.
enum class Family { torrentio, comet, mediafusion };

// One release of a film or an episode as an add-on lists it.
struct LabRelease {
  std::string filename;  // the name the add-on shows, with its extension
  std::string hash;      // 40 lowercase hex digits
  int64_t bytes = 0;
  std::string resolution;  // "2160p", "1080p", or "" for recordings
  bool cached = true;
  Family family = Family::torrentio;
  int seeders = 0;
  // The clip the file's bytes start with ("1080p.mkv", "2160p.mp4"...); empty
  // for files that are no video at all (filler only).
  std::string clip;
};

struct LabFilm {
  enum class Kind {
    normal,
    noSource,    // no add-on lists anything for it
    unreleased,  // out next year; only camera recordings so far
    wellKnown,   // the classics that the add-on's health check asks for
  };
  std::string id;  // IMDb id
  std::string title;
  std::string year;
  std::string runtime;   // as Cinemeta writes it: "112 min", "1h 52min"
  std::string released;  // ISO date and time, as Cinemeta writes it
  std::vector<std::string> genres;
  Kind kind = Kind::normal;
  std::vector<LabRelease> releases;
};

struct LabEpisode {
  int season = 0;
  int episode = 0;
  std::string released;
  std::vector<LabRelease> releases;
};

struct LabShow {
  std::string id;
  std::string title;
  std::string year;  // "2016–2019" or "2021–"
  std::string runtime;
  std::vector<std::string> genres;
  std::vector<LabEpisode> episodes;  // every episode Cinemeta lists
  int missingSeason = 0;             // a season listed without any source; 0: none
};

struct LabWorld {
  std::vector<LabFilm> films;  // catalog order; the well-known films come last
  std::vector<LabShow> shows;

  const LabFilm* film(const std::string& id) const;
  // The catalog's films in order (the well-known classics are not in it).
  std::vector<const LabFilm*> catalogFilms() const;
  // The first film of a kind in catalog order.
  const LabFilm* firstOfKind(LabFilm::Kind kind) const;
  // Every release of films and episodes.
  std::vector<const LabRelease*> releases() const;
};

// The clips that release names can claim: resolution and container.
struct ClipSpec {
  std::string name;  // "1080p.mkv"
  int width = 0;
  int height = 0;
  std::string container;  // "mkv" or "mp4"
};
const std::vector<ClipSpec>& clipSpecs();

// Films in the catalog, besides the well-known classics.
constexpr int kCatalogFilms = 200;
constexpr int kShows = 5;
// Where the film without a source and the first unreleased film sit in the
// catalog: inside the first page that a subscription with room for 40 takes.
constexpr int kNoSourceIndex = 6;
constexpr int kUnreleasedIndex = 11;
constexpr uint32_t kDefaultSeed = 20240611;

// The same world for the same seed and year: names, ids, hashes and sizes
// come from a generator of its own, never from the standard library's
// distributions (whose results differ between implementations).
// `currentYear` places the unreleased films in the year after it.
LabWorld generateWorld(int currentYear, uint32_t seed = kDefaultSeed);

}  // namespace vt::lab
