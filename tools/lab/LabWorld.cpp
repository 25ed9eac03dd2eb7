#include "lab/LabWorld.h"

#include <algorithm>
#include <cstdio>
#include <random>
#include <set>

namespace vt::lab {

namespace {

const std::vector<std::string> kAdjectives = {
    "Silent", "Hollow", "Crimson", "Broken", "Distant", "Golden", "Frozen", "Restless", "Burning",  "Quiet",
    "Hidden", "Last",   "Wild",    "Bitter", "Paper",   "Glass",  "Iron",   "Velvet",   "Northern", "Lost"};
const std::vector<std::string> kNouns = {"Harbor",  "Signal",   "Orchard", "Frontier", "Witness", "Lantern", "Meridian",
                                         "Garden",  "Protocol", "Tide",    "Empire",   "Station", "Highway", "Summer",
                                         "Letters", "Mirror",   "Canyon",  "Echo",     "Compass", "River",   "Kingdom",
                                         "Archive", "Circuit",  "Verdict", "Shelter"};
const std::vector<std::string> kPlaces = {"Avalon",     "the North", "Marrow Bay", "Kestrel Point", "the Valley",
                                          "Saint Ives", "Tomorrow",  "Dunmore",    "the Pines",     "Halden"};
const std::vector<std::string> kGenres = {"Action",  "Adventure", "Animation", "Comedy",  "Crime",  "Documentary",
                                          "Drama",   "Family",    "Fantasy",   "History", "Horror", "Mystery",
                                          "Romance", "Sci-Fi",    "Thriller",  "War",     "Western"};
const std::vector<std::string> kGroups = {"SPARKS", "FLUX", "NTb",  "GECKOS", "AMIABLE", "DON",  "CMRG",
                                          "TEPES",  "FGT",  "KOGi", "ROVERS", "SWTYBLZ", "EDITH"};
const std::vector<std::string> kCamGroups = {"C1NEM4", "EVO", "HQCAM", "TELESYNC"};
const std::vector<std::string> kJunkExtensions = {"exe", "zip", "rar", "iso", "lnk"};
const std::vector<std::string> kShowTitles = {"Northwind", "The Quiet Department", "Lantern Street", "Saltmarsh",
                                              "Signal & Noise"};

// A generator whose sequence the standard fixes (mt19937 is specified to
// the bit); the helpers below never use the library's distributions.
class Dice {
 public:
  explicit Dice(uint32_t seed) : engine_(seed) {}
  uint32_t next() { return static_cast<uint32_t>(engine_()); }
  int below(int n) { return static_cast<int>(next() % static_cast<uint32_t>(n)); }
  int between(int lo, int hi) { return lo + below(hi - lo + 1); }
  bool chance(int percent) { return below(100) < percent; }
  int64_t bytesBetween(double loGB, double hiGB) {
    const auto lo = static_cast<uint64_t>(loGB * 1e9);
    const auto span = static_cast<uint64_t>((hiGB - loGB) * 1e9);
    const uint64_t wide = (static_cast<uint64_t>(next()) << 32) | next();
    return static_cast<int64_t>(lo + wide % span);
  }
  template <class T>
  const T& pick(const std::vector<T>& values) {
    return values[static_cast<size_t>(below(static_cast<int>(values.size())))];
  }
  std::string hash() {
    std::string out;
    char part[9];
    for (int i = 0; i < 5; ++i) {
      std::snprintf(part, sizeof part, "%08x", next());
      out += part;
    }
    return out;
  }

 private:
  std::mt19937 engine_;
};

// "Fox & Hound: Part II" → "Fox.and.Hound.Part.II", as release groups write titles.
// The title as names with spaces carry it: release groups drop what a
// file name can't hold everywhere (":").
std::string spaced(const std::string& title) {
  std::string out;
  for (char c : title)
    if (c != ':') out += c;
  return out;
}

std::string dotted(const std::string& title) {
  std::string out;
  for (size_t i = 0; i < title.size(); ++i) {
    const char c = title[i];
    if (c == '&') {
      out += "and";
    } else if (c == ' ') {
      if (!out.empty() && out.back() != '.') out += '.';
    } else if (c != ':' && c != '\'' && c != ',') {
      out += c;
    }
  }
  return out;
}

std::string isoDate(int year, int month, int day) {
  char buf[40];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02dT00:00:00.000Z", year, month, day);
  return buf;
}

std::string runtimeText(int minutes, bool cinemetaHours) {
  if (!cinemetaHours) return std::to_string(minutes) + " min";
  return std::to_string(minutes / 60) + "h " + std::to_string(minutes % 60) + "min";
}

std::vector<std::string> someGenres(Dice& dice) {
  std::vector<std::string> out;
  const int count = dice.between(1, 3);
  while (static_cast<int>(out.size()) < count) {
    const auto& g = dice.pick(kGenres);
    if (std::find(out.begin(), out.end(), g) == out.end()) out.push_back(g);
  }
  return out;
}

LabRelease release(Dice& dice, std::string filename, const std::string& resolution, const std::string& clip,
                   Family family, bool cached, double loGB, double hiGB) {
  LabRelease r;
  r.filename = std::move(filename);
  r.hash = dice.hash();
  r.bytes = dice.bytesBetween(loGB, hiGB);
  r.resolution = resolution;
  r.cached = cached;
  r.family = family;
  r.seeders = dice.between(3, 900);
  r.clip = clip;
  return r;
}

// The rows a film that is out would have on the three add-ons: always a
// cached 1080p Blu-ray encode light enough for the default quality (under
// 15 Mbit/s at the shortest running time), often a 4K remux heavier than
// that, sometimes YTS-style mp4s, uncached web releases, recordings and
// files that are no video at all.
std::vector<LabRelease> filmReleases(Dice& dice, const std::string& title, const std::string& year) {
  const std::string t = dotted(title);
  std::vector<LabRelease> out;
  out.push_back(release(dice, t + "." + year + ".1080p.BluRay.x264-" + dice.pick(kGroups) + ".mkv", "1080p",
                        "1080p.mkv", Family::torrentio, true, 4, 9));
  if (dice.chance(60))
    out.push_back(
        release(dice, t + "." + year + ".2160p.UHD.BluRay.x265.10bit.HDR.DTS-HD.MA.5.1-" + dice.pick(kGroups) + ".mkv",
                "2160p", "2160p.mkv", Family::torrentio, true, 20, 65));
  if (dice.chance(30))
    out.push_back(release(dice, spaced(title) + " (" + year + ") [1080p] [BluRay] [5.1] [YTS.MX].mp4", "1080p",
                          "1080p.mp4", Family::torrentio, true, 1.8, 3.2));
  if (dice.chance(35))
    out.push_back(release(dice, t + "." + year + ".1080p.AMZN.WEB-DL.DDP5.1.H.264-" + dice.pick(kGroups) + ".mkv",
                          "1080p", "1080p.mkv", Family::torrentio, false, 4, 8));
  if (dice.chance(25))
    out.push_back(
        release(dice, t + "." + year + ".1080p.WEBRip.x264-" + dice.pick(kGroups) + "." + dice.pick(kJunkExtensions),
                "1080p", "", Family::torrentio, true, 1.2, 2.5));
  if (dice.chance(15))
    out.push_back(release(dice, t + "." + year + ".1080p.HDCAM.x264-" + dice.pick(kCamGroups) + ".mkv", "1080p",
                          "1080p.mkv", Family::torrentio, true, 1.5, 3));
  if (dice.chance(50)) {
    if (dice.chance(50))
      out.push_back(release(dice,
                            t + "." + year + ".2160p.WEB-DL.DDP5.1.Atmos.DV.HDR.H.265-" + dice.pick(kGroups) + ".mkv",
                            "2160p", "2160p.mkv", Family::comet, true, 14, 30));
    else
      out.push_back(release(dice, t + "." + year + ".1080p.NF.WEB-DL.DDP5.1.H.264-" + dice.pick(kGroups) + ".mp4",
                            "1080p", "1080p.mp4", Family::comet, dice.chance(70), 3, 6));
  }
  if (dice.chance(40))
    out.push_back(release(dice, t + "." + year + ".2160p.WEB-DL.x265.HDR-" + dice.pick(kGroups) + ".mp4", "2160p",
                          "2160p.mp4", Family::mediafusion, dice.chance(75), 10, 22));
  return out;
}

// A film in cinemas: recordings only, one of them a telesync.
std::vector<LabRelease> cinemaReleases(Dice& dice, const std::string& title, const std::string& year) {
  const std::string t = dotted(title);
  return {release(dice, t + "." + year + ".1080p.HDCAM.x264-" + dice.pick(kCamGroups) + ".mkv", "1080p", "1080p.mkv",
                  Family::torrentio, true, 1.5, 3),
          release(dice, spaced(title) + " " + year + " 1080p HDTS x264 AAC-" + dice.pick(kCamGroups) + ".mp4", "1080p",
                  "1080p.mp4", Family::torrentio, true, 1.2, 2.4)};
}

std::string uniqueTitle(Dice& dice, std::set<std::string>& used) {
  for (;;) {
    std::string title;
    switch (dice.below(5)) {
      case 0:
        title = "The " + dice.pick(kAdjectives) + " " + dice.pick(kNouns);
        break;
      case 1:
        title = dice.pick(kNouns) + " of " + dice.pick(kPlaces);
        break;
      case 2:
        title = dice.pick(kAdjectives) + " " + dice.pick(kNouns);
        break;
      case 3:
        title = dice.pick(kNouns) + " & " + dice.pick(kNouns);
        break;
      default:
        title = "The " + dice.pick(kNouns) + ": " + dice.pick(kAdjectives) + " " + dice.pick(kNouns);
        break;
    }
    if (used.insert(title).second) return title;
  }
}

std::string uniqueId(Dice& dice, std::set<std::string>& used) {
  for (;;) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "tt%07d", dice.between(1000000, 9999999));
    if (used.insert(buf).second) return buf;
  }
}

}  // namespace

const std::vector<ClipSpec>& clipSpecs() {
  static const std::vector<ClipSpec> specs = {{"1080p.mkv", 1920, 1080, "mkv"},
                                              {"1080p.mp4", 1920, 1080, "mp4"},
                                              {"2160p.mkv", 3840, 2160, "mkv"},
                                              {"2160p.mp4", 3840, 2160, "mp4"}};
  return specs;
}

const LabFilm* LabWorld::film(const std::string& id) const {
  for (const auto& f : films)
    if (f.id == id) return &f;
  return nullptr;
}

std::vector<const LabFilm*> LabWorld::catalogFilms() const {
  std::vector<const LabFilm*> out;
  for (const auto& f : films)
    if (f.kind != LabFilm::Kind::wellKnown) out.push_back(&f);
  return out;
}

const LabFilm* LabWorld::firstOfKind(LabFilm::Kind kind) const {
  for (const auto& f : films)
    if (f.kind == kind) return &f;
  return nullptr;
}

std::vector<const LabRelease*> LabWorld::releases() const {
  std::vector<const LabRelease*> out;
  for (const auto& f : films)
    for (const auto& r : f.releases) out.push_back(&r);
  for (const auto& s : shows)
    for (const auto& e : s.episodes)
      for (const auto& r : e.releases) out.push_back(&r);
  return out;
}

LabWorld generateWorld(int currentYear, uint32_t seed) {
  Dice dice(seed);
  LabWorld world;
  // Ids the local Cinemeta already knows, and the classics, are taken.
  std::set<std::string> ids = {"tt0110912", "tt0111161", "tt0068646", "tt1375666",
                               "tt6751668", "tt0110357", "tt0903747"};
  std::set<std::string> titles;
  const std::set<int> laterUnreleased = {57, 140};

  for (int i = 0; i < kCatalogFilms; ++i) {
    LabFilm f;
    f.id = uniqueId(dice, ids);
    f.title = uniqueTitle(dice, titles);
    f.genres = someGenres(dice);
    const int minutes = dice.between(84, 172);
    f.runtime = runtimeText(minutes, i % 4 == 3);
    const int month = dice.between(1, 12);
    const int day = dice.between(1, 28);
    if (i == kUnreleasedIndex || laterUnreleased.count(i)) {
      f.kind = LabFilm::Kind::unreleased;
      f.year = std::to_string(currentYear + 1);
      f.released = isoDate(currentYear + 1, month, day);
      f.releases = cinemaReleases(dice, f.title, f.year);
    } else {
      f.year = std::to_string(dice.between(1972, currentYear - 1));
      f.released = isoDate(std::stoi(f.year), month, day);
      if (i == kNoSourceIndex) {
        f.kind = LabFilm::Kind::noSource;
      } else {
        f.releases = filmReleases(dice, f.title, f.year);
      }
    }
    world.films.push_back(std::move(f));
  }

  struct Classic {
    const char* id;
    const char* title;
    const char* year;
    int minutes;
    const char* released;
    std::vector<std::string> genres;
  };
  const std::vector<Classic> classics = {
      {"tt0110912", "Pulp Fiction", "1994", 154, "1994-10-14T00:00:00.000Z", {"Crime", "Drama"}},
      {"tt0111161", "The Shawshank Redemption", "1994", 142, "1994-10-14T00:00:00.000Z", {"Drama"}},
      {"tt0068646", "The Godfather", "1972", 175, "1972-03-24T00:00:00.000Z", {"Crime", "Drama"}}};
  for (const auto& c : classics) {
    LabFilm f;
    f.id = c.id;
    f.title = c.title;
    f.year = c.year;
    f.runtime = runtimeText(c.minutes, false);
    f.released = c.released;
    f.genres = c.genres;
    f.kind = LabFilm::Kind::wellKnown;
    f.releases = filmReleases(dice, f.title, f.year);
    world.films.push_back(std::move(f));
  }

  for (int i = 0; i < kShows; ++i) {
    LabShow s;
    s.id = uniqueId(dice, ids);
    s.title = kShowTitles[static_cast<size_t>(i)];
    s.genres = someGenres(dice);
    s.runtime = i % 2 ? "30 min" : "45 min";
    const int first = dice.between(2012, std::min(2020, currentYear - 2));
    const int seasons = i == 2 ? 3 : dice.between(2, 3);
    s.year = std::to_string(first) + "–" + (i == 4 ? "" : std::to_string(first + seasons - 1));
    if (i == 2) s.missingSeason = 2;
    const std::string t = dotted(s.title);
    for (int season = 1; season <= seasons; ++season) {
      const int episodes = dice.between(6, 8);
      const int month = dice.between(1, 9);
      for (int e = 1; e <= episodes; ++e) {
        LabEpisode ep;
        ep.season = season;
        ep.episode = e;
        ep.released = isoDate(first + season - 1, month + (e - 1) / 4, 1 + ((e - 1) % 4) * 7);
        char code[16];
        std::snprintf(code, sizeof code, "S%02dE%02d", season, e);
        if (season != s.missingSeason) {
          ep.releases.push_back(release(dice, t + "." + code + ".1080p.WEB.h264-" + dice.pick(kGroups) + ".mkv",
                                        "1080p", "1080p.mkv", Family::torrentio, true, 0.9, 2.4));
          if (dice.chance(50))
            ep.releases.push_back(release(dice, t + "." + code + ".2160p.WEB.H265-" + dice.pick(kGroups) + ".mkv",
                                          "2160p", "2160p.mkv", Family::comet, true, 3, 7));
        }
        s.episodes.push_back(std::move(ep));
      }
    }
    world.shows.push_back(std::move(s));
  }
  return world;
}

}  // namespace vt::lab
