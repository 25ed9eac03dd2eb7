#pragma once

// The records of the catalog: a followed list, the source of its members, a
// listed title and the memory of which ids resolved. Plain values; the files
// that hold them are read and written by CatalogFiles.

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Date.h"

namespace vt {

// How often a catalog source is fetched; the raw value is hours.
enum class CatalogRefreshInterval : int { oneHour = 1, sixHours = 6, twelveHours = 12 };

double seconds(CatalogRefreshInterval interval);
// The interval of a raw hour count; none for any other number.
std::optional<CatalogRefreshInterval> refreshIntervalFromRaw(int64_t hours);

// Where the members of a collection come from.
struct CollectionSource {
  enum class Kind { stremioCatalog, library, manual, watchlist };

  Kind kind = Kind::manual;
  // Only for stremioCatalog; empty for the other kinds, so that equality of
  // all fields is equality of sources.
  std::string addonBaseURL;
  std::string type;
  std::string catalogId;
  std::optional<std::string> genre;

  static CollectionSource stremioCatalog(std::string addonBaseURL, std::string type, std::string catalogId,
                                         std::optional<std::string> genre = std::nullopt);
  static CollectionSource library() { return CollectionSource{Kind::library, {}, {}, {}, {}}; }
  static CollectionSource manual() { return CollectionSource{Kind::manual, {}, {}, {}, {}}; }
  static CollectionSource watchlist() { return CollectionSource{Kind::watchlist, {}, {}, {}, {}}; }

  bool operator==(const CollectionSource&) const = default;

  // What the user sees: "All titles", "Popular movies", "Top rated · Drama".
  std::string displayName() const;
};

// The JSON value of `kind`.
std::string_view kindName(CollectionSource::Kind kind);

// A list the user has subscribed to.
struct CatalogCollection {
  std::string id;  // UUID, upper case
  std::string name;
  CollectionSource source;
  std::vector<std::string> itemImdbIds;
  std::set<std::string> pinnedImdbIds;  // members that a refresh must not drop
  std::optional<Date> lastSyncedAt;
  std::optional<Date> lastChangedAt;
  std::optional<Date> lastPublishedAt;
  bool resolvePaused = false;
  int maxItems = 40;
  CatalogRefreshInterval refreshInterval = CatalogRefreshInterval::sixHours;
  std::optional<std::string> plexRatingKey;

  bool operator==(const CatalogCollection&) const = default;
};

// A listed title as the catalog knows it.
struct CatalogMeta {
  std::string id;
  std::string name;
  std::string year;
  std::optional<std::string> posterURL;
  std::optional<std::string> released;   // the text the release-state rule reads
  std::optional<std::string> mediaType;  // "series" for a show; "movie" or none for a film
  std::optional<Date> onlyInCinemasAt;

  bool operator==(const CatalogMeta&) const = default;
};

// How far Plex has come with a collection. Memory only.
struct CollectionPlexDelivery {
  bool playable = false;
  bool metadataReady = false;

  bool operator==(const CollectionPlexDelivery&) const = default;
};

// Which ids (IMDb ids or episode keys "seriesId:season:episode") resolved and
// which failed, and when.
struct StreamVetting {
  std::map<std::string, Date> vetted;
  std::map<std::string, Date> failed;
  std::optional<std::map<std::string, int>> failCounts;
  std::optional<std::map<std::string, Date>> seriesComplete;

  bool operator==(const StreamVetting&) const = default;
};

// A new random UUID in upper case.
std::string newCollectionId();
// The UUID in upper case when `text` is one (any case, no braces); none otherwise.
std::optional<std::string> normalisedUuid(std::string_view text);

}  // namespace vt
